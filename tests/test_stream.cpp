// Opening and closing streams on the scripted card, a sound layer that stalls,
// fails or dies, and threads against the device.
#include "testsupport.h"

#include <shared/debugstream.h>

#include <boost/make_shared.hpp>

#include <chrono>
#include <future>
#include <thread>
#include <tuple>

using namespace tamrel;
using namespace std::chrono_literals;
using fakecard::Call;
using fakecard::Card;
using fakecard::Device;
using testsupport::DeviceTest;
using Clock = std::chrono::steady_clock;

namespace {

bool waitFor(const std::function<bool()>& condition)
{
    for (const auto end = Clock::now() + 3s; !condition(); std::this_thread::sleep_for(5ms))
        if (Clock::now() > end)
            return false;
    return true;
}

using Stream = DeviceTest;
using Concurrency = DeviceTest;

// What the card is asked to open, for configurations and cards of all kinds.
TEST_F(Stream, DevicesRatesAndLayouts)
{
    const auto usb = [](Card& c) { c.devices.push_back(Device{"USB", 2, 2, 0, {48000}}); };
    const auto rates = [](std::vector<unsigned> r) { return [r](Card& c) { c.devices[0].sampleRates = r; }; };
    using Opened = std::tuple<unsigned, unsigned, int, unsigned, unsigned, unsigned>;
    const struct {
        const char* what;
        std::function<void(Card&)> script;
        TAudio2StreamConfiguration conf;
        Opened opened;   // output device and channels, input device (-1: none) and channels, rate, buffer
    } rows[] = {
        {"defaults", nullptr, config(), {0, 1, 1, 1, 48000, 960}},
        {"stereo client", nullptr, config(16000, 20, 2), {0, 2, 1, 1, 48000, 960}},
        {"no more channels than the card has", nullptr, config(16000, 20, 6), {0, 2, 1, 1, 48000, 960}},
        {"by name", usb, {16000, "USB", "USB", 20, 1, 2, false}, {2, 1, 2, 2, 48000, 960}},
        {"unknown names: the defaults", usb, {16000, "Nope", "Nope", 20, 1, 1, false}, {0, 1, 1, 1, 48000, 960}},
        {"capture by name, duplex channels only", [](Card& c) { c.devices.push_back(Device{"Headset", 0, 0, 1}); },
         {16000, "Headset", "", 20, 1, 1, false}, {0, 1, 2, 1, 48000, 960}},
        {"the default flags choose", [&](Card& c) { usb(c), c.defaultOutput = c.defaultInput = 2; }, config(),
         {2, 1, 2, 1, 48000, 960}},
        {"playback only (0)", nullptr, config(16000, 20, 1, 0), {0, 1, -1, 0, 48000, 960}},
        {"playback only (-1)", nullptr, config(16000, 20, 1, -1), {0, 1, -1, 0, 48000, 960}},
        {"16000 before 44100", rates({16000, 44100}), config(), {0, 1, 1, 1, 16000, 320}},
        {"highest common rate", rates({22050, 44100}), config(), {0, 1, 1, 1, 44100, 882}},
        {"unreadable output: 48000 assumed", [](Card& c) { c.failures[Call::DeviceInfo] = "x", c.failingDeviceIndex = 0; },
         config(16000, 20, 2), {0, 2, 1, 1, 48000, 960}},
        {"10 ms periods in 20 ms buffers", nullptr, config(16000, 10), {0, 1, 1, 1, 48000, 960}},
        {"40 ms periods", nullptr, config(16000, 40), {0, 1, 1, 1, 48000, 1920}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        fresh();
        if (row.script)
            row.script(fakecard::card());
        ASSERT_EQ(open(row.conf), 0);
        Card& card = fakecard::card();
        const fakecard::Opened& o = card.opened;
        EXPECT_EQ(Opened(o.output.deviceId, o.output.nChannels, o.hasInput ? int(o.input.deviceId) : -1,
                         o.input.nChannels, o.sampleRate, o.bufferFrames), row.opened);
        EXPECT_EQ(std::make_tuple(o.format, o.options.flags, o.options.numberOfBuffers),
                  std::make_tuple(RTAUDIO_SINT16, o.hasInput ? RTAUDIO_SCHEDULE_REALTIME : 0u, 0u));
        const auto info = device->streamInfo();
        const unsigned period = unsigned(row.conf.periodMs);
        EXPECT_EQ(std::make_tuple(info.cardRateHz, info.grantedBufferFrames, info.periodMs, info.framesPerPeriod,
                                  info.cardFramesPerPeriod),
                  std::make_tuple(o.sampleRate, o.bufferFrames, period, 16 * period, o.sampleRate * period / 1000));
        EXPECT_EQ(info.soundLayer, "Dummy");   // what the fake card calls the layer chosen by default
        EXPECT_TRUE(warnings.empty() || row.script) << warnings.front();
        EXPECT_EQ(card.calls[Call::DeviceCount], 1);
        EXPECT_EQ(card.calls[Call::DeviceInfo], int(card.devices.size()));
    }
}

// Every failed open: its code and reason, no stream, no device kept alive, and the next open works.
TEST_F(Stream, FailuresLeaveNothingBehind)
{
    const struct {
        const char* what;
        std::function<void(Card&)> script;
        TAudio2StreamConfiguration conf;
        int code;
        bool reason;   // *error says why
    } rows[] = {
        {"device list fails", [](Card& c) { c.failures[Call::DeviceCount] = "no server"; }, config(), -1, true},
        {"a name, but no devices", [](Card& c) { c.devices.clear(); }, {16000, "", "Speakers", 20, 1, 1, false}, -6, false},
        {"no common rate", [](Card& c) { c.devices[1].sampleRates = {22050}; }, config(), -3, false},
        {"open refused", [](Card& c) { c.failures[Call::OpenStream] = "busy"; }, config(), -4, true},
        {"start refused", [](Card& c) { c.failures[Call::StartStream] = "xrun"; }, config(), -5, true},
        {"rate 0", nullptr, config(0), -2, true},
        {"rate above 384000", nullptr, config(384001), -2, true},
        {"period 0", nullptr, config(16000, 0), -2, true},
        {"period 200", nullptr, config(16000, 200), -2, true},
        {"no playback channels", nullptr, config(16000, 20, 0), -2, true},
        {"1025 playback channels", nullptr, config(16000, 20, 1025), -2, true},
        {"1025 capture channels", nullptr, config(16000, 20, 1, 1025), -2, true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        fresh();
        if (row.script)
            row.script(fakecard::card());
        device = boost::make_shared<TAudio2UniversalDevice>(16000);
        boost::weak_ptr<TAudio2UniversalDevice> weak = device;
        std::string error = "untouched";
        EXPECT_EQ(open(row.conf, &error), row.code);
        EXPECT_EQ(!error.empty() && error != "untouched", row.reason) << error;
        EXPECT_FALSE(fakecard::card().streamOpen || device->streamInfo().open);
        device.reset();
        EXPECT_TRUE(weak.expired()) << "the device outlived its client";
        fresh();
        ASSERT_EQ(open(config()), 0) << "the next open";
    }
}

// A second open is refused; the open device belongs to its stream, and closing
// releases the device, the callback and the card's stream.
TEST_F(Stream, OneStreamPerDeviceUntilItIsClosed)
{
    device = boost::make_shared<TAudio2UniversalDevice>(16000);
    boost::weak_ptr<TAudio2UniversalDevice> weak = device;
    auto token = boost::make_shared<int>(1);
    boost::weak_ptr<int> heldByCallback = token;
    ASSERT_EQ(device->openStream(config(), [token](const char*, int, char*, int, int) { return true; }, nullptr), 0);
    token.reset();
    std::string error;
    EXPECT_EQ(device->openStream(config(48000, 10, 2), TAudio2FrameCallback(), &error), -4);
    EXPECT_EQ(error, "a stream is already open");
    EXPECT_EQ(device->openStream(config(0), TAudio2FrameCallback(), &error), -2);
    EXPECT_EQ(fakecard::card().calls[Call::OpenStream], 1);
    const auto survivor = device.get();
    device.reset();
    ASSERT_FALSE(weak.expired()) << "an open device died with its client's pointer";
    std::vector<int16_t> buffer(960);
    EXPECT_EQ(fakecard::deliver(buffer.data(), buffer.data(), 960), 0);

    survivor->closeStream();
    EXPECT_TRUE(weak.expired() && heldByCallback.expired());
    EXPECT_FALSE(fakecard::card().streamOpen);

    // Again, twice, and without a stream: harmless; the device opens again.
    device = makeDevice();
    device->closeStream();
    ASSERT_EQ(open(config()), 0);
    device->closeStream();
    device->closeStream();
    EXPECT_EQ(fakecard::card().calls[Call::CloseStream], 2);
    ASSERT_EQ(open(config()), 0);
    EXPECT_EQ(deliver(960), 0);
    EXPECT_EQ(captureBytes, std::vector<int>{640});
}

// The delay the canceller is told and its mode, per environment, period and output.
TEST_F(Stream, ToldDelayAndEchoCancellationMode)
{
    const struct {
        const char* mode;   // TAUDIO2_AEC; null: unset
        int periodMs, clientChannels;
        unsigned cardChannels;
        int toldMs;
        const char* shown;
    } rows[] = {
        {nullptr, 20, 1, 2, 60, "standard"}, {"standard", 40, 1, 2, 120, "standard"}, {nullptr, 10, 1, 2, 60, "standard"},
        {nullptr, 20, 2, 2, TAudio2DeviceInfo::UNIVERSAL_DEVICE_DELAY, "standard"}, {"robust", 20, 1, 2, 100, "robust"},
        {"robust", 20, 2, 2, 100, "robust"}, {"robust", 40, 2, 2, 200, "robust"}, {"loud", 20, 1, 2, 60, "standard"},
        {nullptr, 20, 2, 1, 60, "standard"},   // a stereo client on a mono card plays mono
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << (row.mode ? row.mode : "unset") << ", " << row.periodMs << " ms, "
                                        << row.clientChannels << " ch on " << row.cardChannels);
        fresh();
        fakecard::card().devices[0].outputChannels = row.cardChannels;
        if (row.mode)
            setenv("TAUDIO2_AEC", row.mode, 1);
        ASSERT_EQ(open(config(16000, row.periodMs, row.clientChannels)), 0);
        unsetenv("TAUDIO2_AEC");
        EXPECT_EQ(std::make_pair(device->streamInfo().toldDelayMs, device->streamInfo().echoCancellation),
                  std::make_pair(row.toldMs, std::string(row.shown)));
        EXPECT_EQ(TAudio2UniversalDevice::toldDelayMs(row.shown, row.periodMs, cardOutputChannels()), row.toldMs);
        EXPECT_EQ(warningsStartingWith("TAUDIO2_AEC=loud"), row.mode && row.mode[0] == 'l');
    }
    fresh();
    device = makeDevice(false);
    ASSERT_EQ(open(config()), 0);
    EXPECT_EQ(device->streamInfo().echoCancellation, "off");
}

// The sound layer asked of RtAudio, a short playback queue asked of PulseAudio only (no server answers here, so none
// is PipeWire's), and the shorter delay robust mode is told where the round trip is short (JACK, the short queue);
// unset, the options stay as they were. An unknown value is named in a warning.
TEST_F(Stream, SoundLayerLatencyAndRobustDelayFromTheEnvironment)
{
    const struct { const char *api, *latency; RtAudio::Api layer; unsigned buffers; int robustToldMs; } rows[] = {
        {nullptr, nullptr, RtAudio::UNSPECIFIED, 0, 100}, {"pulseaudio", nullptr, RtAudio::LINUX_PULSE, 0, 100},
        {"pulseaudio", "default", RtAudio::LINUX_PULSE, 0, 100}, {"pulseaudio", "low", RtAudio::LINUX_PULSE, 3, 40},
        {"pulseaudio", "fast", RtAudio::LINUX_PULSE, 0, 100}, {"jack", nullptr, RtAudio::UNIX_JACK, 0, 40},
        {"jack", "low", RtAudio::UNIX_JACK, 0, 40}, {"alsa", "low", RtAudio::LINUX_ALSA, 0, 100},
        {"oss", "low", RtAudio::UNSPECIFIED, 0, 100}, {nullptr, "low", RtAudio::UNSPECIFIED, 0, 100}};
    setenv("PULSE_SERVER", "unix:/nonexistent/native", 1);
    setenv("TAUDIO2_AEC", "robust", 1);
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << (row.api ? row.api : "unset") << ", " << (row.latency ? row.latency : "unset"));
        fresh();
        if (row.api)
            setenv("TAUDIO2_API", row.api, 1);
        if (row.latency)
            setenv("TAUDIO2_LATENCY", row.latency, 1);
        device = makeDevice();
        ASSERT_EQ(open(config()), 0);
        unsetenv("TAUDIO2_API"), unsetenv("TAUDIO2_LATENCY");
        const TAudio2UniversalDevice::StreamInfo info = device->streamInfo();
        EXPECT_EQ(fakecard::card().requestedApi, row.layer);
        EXPECT_EQ(std::make_pair(fakecard::card().opened.options.numberOfBuffers, info.playbackQueueBuffers),
                  std::make_pair(row.buffers, row.buffers));
        EXPECT_EQ(std::make_pair(info.toldDelayMs, info.shortRoundTrip), std::make_pair(row.robustToldMs, row.robustToldMs == 40));
        EXPECT_EQ(TAudio2UniversalDevice::toldDelayMs("robust", 20, 1, info.shortRoundTrip), row.robustToldMs);
        EXPECT_EQ(warningsStartingWith("TAUDIO2_API=oss"), row.api && row.api[0] == 'o');
        EXPECT_EQ(warningsStartingWith("TAUDIO2_LATENCY=fast"), row.latency && row.latency[0] == 'f');
    }
    unsetenv("PULSE_SERVER"), unsetenv("TAUDIO2_AEC");
}

// Devices by direction, duplex ones in both, unprobed ones not, defaults marked.
TEST_F(Stream, DeviceList)
{
    fakecard::card().devices.push_back(Device{"Headset", 0, 0, 2});
    fakecard::card().devices.push_back(Device{"Broken", 2, 2, 0, {48000}, false});
    std::vector<std::string> listed;
    for (const auto& info : makeDevice()->devices(TAudio2DeviceInfo::DeviceType(3)))
        listed.push_back(info->m_name + (info->m_type == TAudio2DeviceInfo::CAPTURE_DEVICE ? " in" : " out") +
                         (info->m_isDefault ? " default" : "") + " #" + std::to_string(info->m_deviceId));
    EXPECT_EQ(listed, (std::vector<std::string>{"Speakers out default #0", "Microphone in default #1", "Headset in #2",
                                                "Headset out #2"}));
    fakecard::card().failures[Call::DeviceInfo] = "gone";
    fakecard::card().failingDeviceIndex = 1;
    EXPECT_EQ(makeDevice()->devices(TAudio2DeviceInfo::CAPTURE_DEVICE).size(), 0u);
}

// A card whose own thread calls back every 20 ms.
class Lifecycle : public DeviceTest {
protected:
    void SetUp() override
    {
        DeviceTest::SetUp();
        fakecard::card().callbackThreadPauseUs = 20000;
        clientPlays = [](size_t, unsigned) { return int16_t(0); };
        ASSERT_EQ(open(config()), 0);
        ASSERT_TRUE(waitFor([this] { return calls >= 5; }));
    }
    long timedCloseMs()
    {
        const auto start = Clock::now();
        device->closeStream();
        return long(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
    }
    static void serverGone(bool gone)
    {
        fakecard::locked([gone] { fakecard::card().failures[Call::OpenStream] = gone ? "server gone" : ""; });
    }
};

TEST_F(Lifecycle, CloseDrainsADeliveringStreamAndAbortsAStalledOne)
{
    EXPECT_LT(timedCloseMs(), 1000);
    EXPECT_EQ(fakecard::card().calls[Call::StopStream], 1);
    ASSERT_EQ(open(config()), 0);
    fakecard::threadStalled = true;   // a drain would wait for a callback forever
    std::this_thread::sleep_for(300ms);
    EXPECT_LT(timedCloseMs(), 1000);
    EXPECT_EQ(fakecard::card().calls[Call::AbortStream], 1);
    EXPECT_FALSE(fakecard::card().streamOpen);
}

// Lost three ways, the stream is not called until the server is back and it is
// reopened, with a warning for each; gone for good, the close ends the reopening.
TEST_F(Lifecycle, ALostStreamIsReopenedWhenTheServerIsBack)
{
    const std::pair<const char*, std::atomic<bool>*> rows[] = {
        {"buffers stopped coming", &fakecard::threadStalled},
        {"the sound layer fails every buffer", &fakecard::threadFailing},
        {"the sound layer stopped the stream", &fakecard::threadAborts},
    };
    uint64_t recoveries = 0;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.first);
        serverGone(true);
        *row.second = true;
        ASSERT_TRUE(waitFor([this] { return !device->streamInfo().delivering; }));
        std::this_thread::sleep_for(400ms);   // reopening fails meanwhile
        const int atLoss = calls;
        std::this_thread::sleep_for(200ms);
        EXPECT_EQ(calls, atLoss) << "the client was called on a lost stream";
        EXPECT_TRUE(device->streamInfo().open);

        *row.second = false;
        serverGone(false);
        ASSERT_TRUE(waitFor([&] { return calls >= atLoss + 5; })) << "the stream did not come back";
        EXPECT_EQ(std::make_pair(device->streamInfo().delivering, device->streamInfo().recoveries),
                  std::make_pair(true, ++recoveries));
        EXPECT_EQ(warningsStartingWith(std::string("Universal device lost its stream (") + row.first + ")"), 1);
    }
    EXPECT_EQ(warningsStartingWith("Universal device reopened its stream after "), 3);

    serverGone(true);
    fakecard::threadStalled = true;
    ASSERT_TRUE(waitFor([this] { return !device->streamInfo().delivering; }));
    std::this_thread::sleep_for(300ms);
    EXPECT_LT(timedCloseMs(), 1000);
    const int opens = fakecard::card().calls[Call::OpenStream];
    std::this_thread::sleep_for(700ms);
    EXPECT_EQ(fakecard::card().calls[Call::OpenStream], opens);
    EXPECT_FALSE(device->streamInfo().open);
}

// A sound layer may cancel its thread inside a callback (a JACK client closing): the unwinding passes through the
// device instead of ending the process, and the stream comes back.
TEST_F(Concurrency, ASoundLayerThreadCancelledInACallbackUnwinds)
{
    fakecard::card().callbackThreadPauseUs = 2000;
    answer = [](int call) {
        if (call == 3)
            pthread_exit(nullptr);
        return true;
    };
    ASSERT_EQ(open(config()), 0);
    ASSERT_TRUE(waitFor([this] { return calls >= 10; })) << "the stream did not come back";
    EXPECT_EQ(device->streamInfo().recoveries, 1u);
    device->closeStream();
}

TEST_F(Concurrency, CloseWaitsForARunningCallbackAndNoneStartsAfter)
{
    std::promise<void> entered, release;
    std::shared_future<void> released = release.get_future().share();
    answer = [&](int call) {
        if (call == 0)
            entered.set_value(), released.wait();
        return true;
    };
    ASSERT_EQ(open(config()), 0);
    auto callback = std::async(std::launch::async, [this] { deliver(960); });
    entered.get_future().wait();

    auto closing = std::async(std::launch::async, [this] { device->closeStream(); });
    EXPECT_EQ(closing.wait_for(100ms), std::future_status::timeout) << "closed under a running callback";
    release.set_value();
    EXPECT_EQ(closing.wait_for(2s), std::future_status::ready);
    callback.get();
    // A buffer the sound layer still hands over after the close finds no stream.
    EXPECT_EQ(deliver(960), -1);
    EXPECT_EQ(calls, 1);
}

// Devices made, listed, opened and closed on several threads, each stream called back
// on its own (TAUDIO2_STRESS_SECONDS runs it longer); ThreadSanitizer fails any race.
TEST_F(Concurrency, StressManyDevicesOnManyThreads)
{
    const char* env = std::getenv("TAUDIO2_STRESS_SECONDS");
    const auto length = std::chrono::duration<double>(env ? std::atof(env) : 2.0);
    fakecard::card().callbackThreadPauseUs = 1000;
    DebugStream::setLevel("audio2", -1);   // a minute of lines would only fill the captured log
    const int threads = 6;
    std::atomic<int> cycles{0}, failedOpens{0}, lateCallbacks{0};
    std::atomic<long> callbacks{0};
    const auto deadline = Clock::now() + length;
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&, t] {
            const TAudio2StreamConfiguration confs[] = {config(), config(48000, 10, 2, 1), config(8000, 20, 1, 0)};
            for (int n = 0; Clock::now() < deadline; ++n) {
                auto device = boost::make_shared<TAudio2UniversalDevice>(16000);
                device->devices(TAudio2DeviceInfo::DeviceType(3));
                auto closed = std::make_shared<std::atomic<bool>>(false);
                failedOpens += device->openStream(confs[(t + n) % 3], [&, closed](const char*, int, char*, int, int) {
                    lateCallbacks += closed->load();
                    ++callbacks;
                    return true;
                }, nullptr) != 0;
                std::this_thread::sleep_for(std::chrono::milliseconds(n % 5));
                device->closeStream();
                closed->store(true);
                ++cycles;
            }
        });
    }
    for (auto& w : workers)
        w.join();
    printf("stress: %d open/close cycles on %d threads, %ld callbacks in %.1f s\n", cycles.load(), threads,
           callbacks.load(), length.count());
    EXPECT_EQ(failedOpens, 0);
    EXPECT_EQ(lateCallbacks, 0) << "a frame callback ran after closeStream() returned";
    EXPECT_GT(callbacks, 0);
}

// Exit with a stream open and calling back as fast as it can is clean (for the sanitizers).
TEST_F(Concurrency, ExitWithAStreamOpenIsClean)
{
    fakecard::card().callbackThreadPauseUs = 1;
    const char* env = std::getenv("TAUDIO2_EXIT_RUNS");
    for (int run = 0, runs = env ? std::atoi(env) : 10; run < runs; ++run) {
        EXPECT_EXIT({
            if (boost::make_shared<TAudio2UniversalDevice>(16000)->openStream(config(16000, 20, 1, 1, true),
                    [](const char*, int, char*, int, int) { return true; }, nullptr) != 0)
                std::_Exit(3);
            std::this_thread::sleep_for(std::chrono::milliseconds(5 + run % 10));
            std::exit(0);
        }, ::testing::ExitedWithCode(0), "") << "run " << run;
    }
}

} // namespace
