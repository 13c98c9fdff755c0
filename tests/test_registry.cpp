#include "testsupport.h"

#include <boost/function/function_base.hpp>

using namespace tamrel;
using testsupport::DeviceTest;

using Registry = DeviceTest;

TEST_F(Registry, IdsGrowFromDeviceToDeviceAndAreNeverReturned)
{
    auto first = makeDevice();
    auto second = makeDevice();
    const unsigned a = rec(*first).m_id;
    EXPECT_EQ(rec(*second).m_id, a + 1);
    EXPECT_EQ(DevicesIndexInc, a + 2);

    ASSERT_EQ(first->openStream(config(), counting(), nullptr), 0);
    first->closeStream();
    auto third = makeDevice();
    EXPECT_EQ(rec(*third).m_id, a + 2);
    ASSERT_EQ(first->openStream(config(), counting(), nullptr), 0);
    EXPECT_EQ(rec(*first).m_id, a);   // reopening keeps the id
    EXPECT_TRUE(registered(a));
}

TEST_F(Registry, NewDeviceIsSizedForItsRateButNotRegistered)
{
    auto device = makeDevice(16000);
    const TAudio2UniversalDevice_p& p = rec(*device);
    EXPECT_EQ(p.m_chunkFrames, 320u);
    EXPECT_EQ(p.m_resyncFrames, 9600u);
    EXPECT_EQ(p.m_bufferFrames, 960u);
    EXPECT_EQ(p.m_deviceSampleRate, 48000u);
    EXPECT_EQ(p.m_aecDelay, TAudio2DeviceInfo::UNIVERSAL_DEVICE_DELAY);
    EXPECT_TRUE(device->hasVoicePreprocessor());
    EXPECT_TRUE(log.has("Using universal device"));
    device->reset();
    device->workCycle();
    EXPECT_FALSE(registered(p.m_id));
    EXPECT_EQ(p.m_chunkFrames, 320u);
}

TEST_F(Registry, CallbackForAnUnregisteredIdIsAnsweredWithMinusOne)
{
    auto device = makeDevice();
    unsigned id = rec(*device).m_id;
    short out[960] = {};
    EXPECT_EQ(rtAudioCallBack(out, nullptr, 960, 0.0, 0, &id), -1);
    EXPECT_TRUE(log.has("rtAudioCallback device not found"));
}

TEST_F(Registry, CallbackReachesTheRegisteredDeviceAndKeepsItAlive)
{
    auto device = makeDevice();
    ASSERT_EQ(device->openStream(config(16000, 20, 1, 1), counting(), nullptr), 0);
    unsigned id = rec(*device).m_id;
    boost::weak_ptr<TAudio2UniversalDevice> weak = device;
    m_devices.clear();
    device.reset();
    ASSERT_FALSE(weak.expired());   // the registry holds an open device

    std::vector<short> in(960), out(960);
    EXPECT_EQ(rtAudioCallBack(out.data(), in.data(), 960, 0.0, 0, &id), 0);
    EXPECT_EQ(callbackCalls, 1);

    weak.lock()->closeStream();
    EXPECT_TRUE(weak.expired());    // closing dropped the last reference
    EXPECT_EQ(rtAudioCallBack(out.data(), in.data(), 960, 0.0, 0, &id), -1);
}

// The first buffer can come while openStream() is still inside the start.
TEST_F(Registry, ExceptionFromABufferBeforeTheCallbackIsStoredStaysInTheTrampoline)
{
    auto device = makeDevice();
    int early = -2;
    fakecard::card().duringStart = [&early]() {
        std::vector<short> in(960), out(960);
        early = fakecard::deliver(out.data(), in.data(), 960);
    };
    ASSERT_EQ(device->openStream(config(), counting(), nullptr), 0);
    EXPECT_EQ(early, -1);
    EXPECT_TRUE(log.has("rtAudioCallback exception: call to empty boost::function"));
    EXPECT_EQ(callbackCalls, 0);

    // The record's own callback still throws, and the stream runs on.
    std::vector<short> in(960), out(960);
    EXPECT_EQ(fakecard::deliver(out.data(), in.data(), 960), 0);
    EXPECT_EQ(callbackCalls, 1);
    rec(*device).m_callback.clear();
    EXPECT_THROW(rec(*device).rtAudioCallback(out.data(), in.data(), 960, 0.0, 0), boost::bad_function_call);
}

TEST_F(Registry, ErrorCallbackWritesOneWarningAndChangesNothing)
{
    auto device = makeDevice();
    rtAudioError(RtAudioError::SYSTEM_ERROR, "device unplugged");
    rtAudioError(RtAudioError::WARNING, "xrun");
    ASSERT_EQ(log.lines.size(), 3u);   // "Using universal device" first
    EXPECT_EQ(log.lines[1].severity, LogSeverity::Warning);
    EXPECT_EQ(log.lines[1].text, "Rt audio error: device unplugged");
    EXPECT_EQ(log.lines[2].text, "Rt audio error: xrun");
    EXPECT_FALSE(registered(rec(*device).m_id));
}
