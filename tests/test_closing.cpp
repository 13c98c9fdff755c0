#include "testsupport.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

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
    EXPECT_EQ(c.calls[Call::StopStream] + c.calls[Call::AbortStream], 1);
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
    EXPECT_EQ(c.calls[Call::StopStream] + c.calls[Call::AbortStream], 1);
    EXPECT_EQ(c.calls[Call::CloseStream], 1);

    // Failures of the sound layer while closing are swallowed.
    ASSERT_EQ(dev->openStream(config(), counting(), nullptr), 0);
    c.failures[Call::StopStream] = "stop failed";
    c.failures[Call::AbortStream] = "abort failed";
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

namespace {

using Clock = std::chrono::steady_clock;

long millisecondsSince(Clock::time_point start)
{
    return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

// A card whose stream thread calls back every 20 ms and, like RtAudio's JACK
// backend, drains on stop by waiting for one more callback.
class Lifecycle : public DeviceTest {
protected:
    void SetUp() override
    {
        DeviceTest::SetUp();
        fakecard::card().callbackThreadPauseUs = 20000;
        fakecard::card().stopWaitsForCallback = true;
        dev = makeDevice();
        open();
    }
    void open()
    {
        const int before = calls;
        ASSERT_EQ(dev->openStream(config(), [this](const char*, int, char* p, int bytes, int) {
            std::fill(p, p + bytes, 0);
            ++calls;
            return true;
        }, nullptr), 0);
        ASSERT_TRUE(waitFor([this, before] { return calls >= before + 5; }, 5000));
    }
    void TearDown() override
    {
        dev->closeStream();
        DeviceTest::TearDown();
    }

    static bool waitFor(const std::function<bool()>& condition, long ms)
    {
        const auto start = Clock::now();
        while (!condition()) {
            if (millisecondsSince(start) > ms)
                return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return true;
    }
    long timedClose()
    {
        const auto start = Clock::now();
        dev->closeStream();
        return millisecondsSince(start);
    }
    void setFailure(Call call, const std::string& message)
    {
        fakecard::locked([&] {
            if (message.empty())
                fakecard::card().failures.erase(call);
            else
                fakecard::card().failures[call] = message;
        });
    }

    boost::shared_ptr<TAudio2UniversalDevice> dev;
    std::atomic<int> calls{0};
};

} // namespace

TEST_F(Lifecycle, CloseDrainsADeliveringStreamAndAbortsAStalledOneWithoutWaiting)
{
    EXPECT_LT(timedClose(), 1000);
    EXPECT_EQ(fakecard::card().calls[Call::StopStream], 1);

    open();
    fakecard::threadStalled = true;   // the drain would wait for a callback forever
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_LT(timedClose(), 1000);
    EXPECT_EQ(fakecard::card().calls[Call::AbortStream], 1);
    EXPECT_FALSE(fakecard::card().streamOpen);
}

// The server goes away and comes back: the client is not called meanwhile,
// then the same callback resumes on a reopened stream.
TEST_F(Lifecycle, AStreamThatStopsDeliveringIsReopenedWhenTheServerIsBack)
{
    setFailure(Call::OpenStream, "server gone");
    fakecard::threadStalled = true;
    ASSERT_TRUE(waitFor([this] { return !dev->streamInfo().delivering; }, 3000));
    const int atLoss = calls;
    std::this_thread::sleep_for(std::chrono::milliseconds(400));   // attempts fail meanwhile
    EXPECT_EQ(calls, atLoss);
    EXPECT_TRUE(dev->streamInfo().open);

    fakecard::threadStalled = false;
    setFailure(Call::OpenStream, "");
    ASSERT_TRUE(waitFor([this, atLoss] { return calls >= atLoss + 5; }, 3000)) << "the stream did not come back";
    const auto info = dev->streamInfo();
    EXPECT_TRUE(info.delivering);
    EXPECT_EQ(info.recoveries, 1u);
    EXPECT_LT(timedClose(), 1000);
    // The warnings a user reads: one for the loss, one for the return.
    EXPECT_EQ(log.countStartingWith("Universal device lost its stream (buffers stopped coming)"), 1);
    EXPECT_EQ(log.countStartingWith("Universal device reopened its stream after "), 1);
    EXPECT_GE(fakecard::card().calls[Call::OpenStream], 3);
}

// A dead server fails every read and write at once and the sound layer
// calls back without pause: the client hears of it for a few buffers only.
TEST_F(Lifecycle, AFailingStreamStopsCallingTheClientAtOnce)
{
    setFailure(Call::OpenStream, "server gone");
    fakecard::card().callbackThreadPauseUs = 0;
    const int before = calls;
    fakecard::threadFailing = true;
    ASSERT_TRUE(waitFor([this] { return !dev->streamInfo().delivering; }, 3000));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_LE(calls - before, 5);
    fakecard::threadFailing = false;
    setFailure(Call::OpenStream, "");
    ASSERT_TRUE(waitFor([this] { return dev->streamInfo().recoveries == 1; }, 3000));
}

TEST_F(Lifecycle, CloseEndsARecoveryThatCannotSucceed)
{
    setFailure(Call::OpenStream, "server gone");
    fakecard::threadStalled = true;
    ASSERT_TRUE(waitFor([this] { return !dev->streamInfo().delivering; }, 3000));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_LT(timedClose(), 1000);
    const int opens = fakecard::card().calls[Call::OpenStream];
    std::this_thread::sleep_for(std::chrono::milliseconds(700));
    EXPECT_EQ(fakecard::card().calls[Call::OpenStream], opens);
    EXPECT_FALSE(dev->streamInfo().open);
    EXPECT_FALSE(registered(rec(*dev).m_id));
}
