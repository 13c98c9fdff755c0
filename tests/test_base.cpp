#include <taudio2base/taudio2node.h>

#include <gtest/gtest.h>

TEST(TAudio2Node, NormalizeSaturatesIntoSixteenBits)
{
    for (const auto& [in, out] : {std::pair<int, int>{40000, 32767}, {-40000, -32768}, {1234, 1234}, {32767, 32767},
                                  {32768, 32767}, {-32768, -32768}, {-32769, -32768}, {65534, 32767}})
        EXPECT_EQ(tamrel::TAudio2Node::normalize(in), out) << in;
}
