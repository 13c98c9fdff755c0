#include <taudio2base/taudio2device.h>
#include <taudio2base/taudio2deviceinfo.h>
#include <taudio2base/taudio2node.h>

#include <gtest/gtest.h>

using namespace tamrel;

TEST(TAudio2Node, NormalizeSaturatesIntoSixteenBits)
{
    EXPECT_EQ(TAudio2Node::normalize(40000), 32767);
    EXPECT_EQ(TAudio2Node::normalize(-40000), -32768);
    EXPECT_EQ(TAudio2Node::normalize(1234), 1234);
    EXPECT_EQ(TAudio2Node::normalize(32767), 32767);
    EXPECT_EQ(TAudio2Node::normalize(32768), 32767);
    EXPECT_EQ(TAudio2Node::normalize(-32768), -32768);
    EXPECT_EQ(TAudio2Node::normalize(-65536), -32768);
    EXPECT_EQ(TAudio2Node::normalize(65534), 32767);
}

TEST(TAudio2DeviceInfo, NewRecordIsEmptyAndDelayIsASmallPositiveNumber)
{
    TAudio2DeviceInfo info;
    EXPECT_EQ(info.m_deviceId, -1);
    EXPECT_TRUE(info.m_name.empty());
    EXPECT_FALSE(info.m_isDefault);
    EXPECT_EQ(static_cast<int>(info.m_type), 0);
    EXPECT_EQ(info.m_kind, 0);
    EXPECT_GT(TAudio2DeviceInfo::UNIVERSAL_DEVICE_DELAY, 0);
    EXPECT_LE(TAudio2DeviceInfo::UNIVERSAL_DEVICE_DELAY, 500);
    EXPECT_EQ(TAudio2DeviceInfo::PLAYBACK_DEVICE | TAudio2DeviceInfo::CAPTURE_DEVICE, 3);
}
