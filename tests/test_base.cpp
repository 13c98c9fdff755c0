#include <taudio2base/taudio2deviceinfo.h>
#include <taudio2base/taudio2node.h>

#include <gtest/gtest.h>

using namespace tamrel;

TEST(TAudio2Node, NormalizeSaturatesIntoSixteenBits)
{
    for (const auto& [in, out] : {std::pair<int, int>{40000, 32767}, {-40000, -32768}, {1234, 1234}, {32767, 32767},
                                  {32768, 32767}, {-32768, -32768}, {-65536, -32768}, {65534, 32767}})
        EXPECT_EQ(TAudio2Node::normalize(in), out) << in;
}

TEST(TAudio2DeviceInfo, NewRecordIsEmptyAndTheDelayIsPlausible)
{
    const TAudio2DeviceInfo info;
    EXPECT_TRUE(info.m_deviceId == -1 && info.m_name.empty() && !info.m_isDefault && info.m_type == 0 && info.m_kind == 0);
    EXPECT_TRUE(TAudio2DeviceInfo::UNIVERSAL_DEVICE_DELAY > 0 && TAudio2DeviceInfo::UNIVERSAL_DEVICE_DELAY <= 500);
    EXPECT_EQ(TAudio2DeviceInfo::PLAYBACK_DEVICE | TAudio2DeviceInfo::CAPTURE_DEVICE, 3);   // flags that combine
}
