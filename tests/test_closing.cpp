#include "testsupport.h"

using namespace tamrel;
using fakecard::Call;
using testsupport::DeviceTest;

using Closing = DeviceTest;

TEST_F(Closing, ReleasesTheStreamTheCallbackAndTheRegistryEntry)
{
    auto dev = makeDevice();
    TAudio2UniversalDevice_p& p = rec(*dev);
    auto token = boost::make_shared<int>(1);
    boost::weak_ptr<int> held = token;
    TAudio2FrameCallback callback = [token](const char*, int, char*, int, int) { return true; };
    token.reset();
    TAudio2StreamConfiguration conf = config();
    conf.measureAec = true;
    ASSERT_EQ(dev->openStream(conf, callback, nullptr), 0);
    callback.clear();
    ASSERT_FALSE(held.expired());
    ASSERT_NE(p.m_captureFile, nullptr);

    // States this library never creates are still destroyed if present.
    p.m_speexEchoState = speex_echo_state_init(160, 1600);
    p.m_speexPreprocessState = speex_preprocess_state_init(160, 16000);

    dev->closeStream();
    fakecard::Card& c = fakecard::card();
    EXPECT_EQ(c.calls[Call::StopStream], 1);
    EXPECT_EQ(c.calls[Call::CloseStream], 1);
    EXPECT_FALSE(c.streamOpen);
    EXPECT_TRUE(held.expired());   // the client's callback object is gone now
    EXPECT_TRUE(p.m_callback.empty());
    EXPECT_EQ(p.m_captureFile, nullptr);
    EXPECT_EQ(p.m_captureAecFile, nullptr);
    EXPECT_EQ(p.m_playbackFile, nullptr);
    EXPECT_EQ(p.m_speexEchoState, nullptr);
    EXPECT_EQ(p.m_speexPreprocessState, nullptr);
    EXPECT_FALSE(registered(p.m_id));
    // Processing objects stay for the next open.
    EXPECT_TRUE(p.m_apm);
    EXPECT_TRUE(p.m_captureResampler);

    // After closing, the id no longer finds the device.
    std::vector<short> in(960), out(960);
    EXPECT_EQ(rtAudioCallBack(out.data(), in.data(), 960, 0, 0, &p.m_id), -1);
}

TEST_F(Closing, TwiceOrWithoutAStreamIsHarmless)
{
    auto dev = makeDevice();
    fakecard::Card& c = fakecard::card();
    dev->closeStream();
    EXPECT_EQ(c.calls[Call::StopStream], 0);
    EXPECT_EQ(c.calls[Call::CloseStream], 0);

    ASSERT_EQ(dev->openStream(config(), counting(), nullptr), 0);
    dev->closeStream();
    dev->closeStream();
    EXPECT_EQ(c.calls[Call::StopStream], 1);
    EXPECT_EQ(c.calls[Call::CloseStream], 1);

    // Failures of the sound layer while closing are swallowed.
    ASSERT_EQ(dev->openStream(config(), counting(), nullptr), 0);
    c.failures[Call::StopStream] = "stop failed";
    c.failures[Call::CloseStream] = "close failed";
    dev->closeStream();
    EXPECT_FALSE(registered(rec(*dev).m_id));
    EXPECT_TRUE(rec(*dev).m_callback.empty());
}

TEST_F(Closing, ReopeningUnderTheSameIdWorks)
{
    auto dev = makeDevice();
    const unsigned id = rec(*dev).m_id;
    for (int round = 0; round < 3; ++round) {
        ASSERT_EQ(dev->openStream(config(), counting(), nullptr), 0);
        EXPECT_TRUE(registered(id));
        std::vector<short> in(960), out(960);
        EXPECT_EQ(fakecard::deliver(out.data(), in.data(), 960), 0);
        dev->closeStream();
        EXPECT_FALSE(registered(id));
    }
    EXPECT_EQ(callbackCalls, 3);
}
