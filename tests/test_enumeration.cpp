#include "testsupport.h"

using namespace tamrel;
using testsupport::DeviceTest;

using Enumeration = DeviceTest;

namespace {

std::vector<std::string> describe(const std::vector<boost::shared_ptr<TAudio2DeviceInfo>>& list)
{
    std::vector<std::string> result;
    for (const auto& r : list)
        result.push_back(std::to_string(r->m_deviceId) + " " + r->m_name + " " + std::to_string(r->m_type) +
                         (r->m_isDefault ? " default" : "") + " kind" + std::to_string(r->m_kind));
    return result;
}

} // namespace

TEST_F(Enumeration, MaskOrderDirectionsAndDefaults)
{
    fakecard::Card& c = fakecard::card();
    fakecard::Device unprobed;
    unprobed.name = "Busy";
    unprobed.outputChannels = 2;
    unprobed.inputChannels = 2;
    unprobed.probed = false;
    fakecard::Device duplexOnly;
    duplexOnly.name = "Duplex";
    duplexOnly.duplexChannels = 2;
    fakecard::Device headset;
    headset.name = "Headset";
    headset.outputChannels = 2;
    headset.inputChannels = 1;
    c.devices.push_back(unprobed);
    c.devices.push_back(duplexOnly);
    c.devices.push_back(headset);

    auto device = makeDevice();
    EXPECT_EQ(describe(device->devices(static_cast<TAudio2DeviceInfo::DeviceType>(3))),
              (std::vector<std::string>{"0 Speakers 1 default kind1", "1 Microphone 2 default kind1",
                                        "3 Duplex 2 kind1", "3 Duplex 1 kind1", "4 Headset 2 kind1",
                                        "4 Headset 1 kind1"}));
    EXPECT_EQ(describe(device->devices(TAudio2DeviceInfo::CAPTURE_DEVICE)),
              (std::vector<std::string>{"1 Microphone 2 default kind1", "3 Duplex 2 kind1", "4 Headset 2 kind1"}));
    EXPECT_EQ(describe(device->devices(TAudio2DeviceInfo::PLAYBACK_DEVICE)),
              (std::vector<std::string>{"0 Speakers 1 default kind1", "3 Duplex 1 kind1", "4 Headset 1 kind1"}));

    c.calls.clear();
    EXPECT_TRUE(device->devices(static_cast<TAudio2DeviceInfo::DeviceType>(0)).empty());
    EXPECT_EQ(c.calls[fakecard::Call::DeviceInfo], 5);   // still asked about every device
}

TEST_F(Enumeration, NoDevicesAndFailuresPartWay)
{
    auto device = makeDevice();
    fakecard::Card& c = fakecard::card();
    for (int i = 0; i < 4; ++i) {
        fakecard::Device d;
        d.name = "Out" + std::to_string(i);
        d.outputChannels = 1;
        c.devices.push_back(d);
    }
    c.failures[fakecard::Call::DeviceInfo] = "probe failed";
    c.failingDeviceIndex = 4;   // the fifth device
    auto list = device->devices(TAudio2DeviceInfo::PLAYBACK_DEVICE);
    EXPECT_EQ(list.size(), 3u);   // Speakers, Out0, Out1: devices 0..3, the microphone has no output
    EXPECT_EQ(list.back()->m_name, "Out1");

    c.failures[fakecard::Call::DeviceCount] = "no server";
    EXPECT_TRUE(device->devices(static_cast<TAudio2DeviceInfo::DeviceType>(3)).empty());

    fakecard::reset();
    EXPECT_TRUE(device->devices(static_cast<TAudio2DeviceInfo::DeviceType>(3)).empty());
    EXPECT_TRUE(log.lines.size() == 1u);   // only "Using universal device": listing logs nothing
}
