// Opening and closing streams on the scripted card, a sound layer that stalls, fails or dies, and threads.
#include "testsupport.h"

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
    for (const auto end = Clock::now() + 3s; !condition() && Clock::now() < end;)
        std::this_thread::sleep_for(5ms);
    return condition();
}

using Stream = DeviceTest;
using Concurrency = DeviceTest;

// What the card is asked to open for configurations and cards of all kinds, and the devices listed: by direction,
// duplex ones in both, unprobed ones not, defaults marked, none past one that cannot be read. A failed open returns
// its code (saying why when `reason`), leaves no stream and no device alive, and the next open works.
TEST_F(Stream, OpeningOnCardsOfAllKinds)
{
    const auto usb = [](Card& c) { c.devices.push_back(Device{"USB", 2, 2, 0, {48000}}); };
    const auto rates = [](std::vector<unsigned> r) { return [r](Card& c) { c.devices[0].sampleRates = r; }; };
    const auto refused = [](Call call) { return [call](Card& c) { c.failures[call] = "refused"; }; };
    using Opened = std::tuple<unsigned, unsigned, int, unsigned, unsigned, unsigned>;
    // opened: output device and channels, input device (-1: none) and channels, rate, buffer; listed: by devices(),
    // null when not looked at.
    const struct { const char* what; std::function<void(Card&)> script; TAudio2StreamConfiguration conf; int code;
                   Opened opened = {}; const char* listed = nullptr; bool reason = true; } rows[] = {
        {"defaults", nullptr, config(), 0, {0, 1, 1, 1, 48000, 960}},
        {"stereo client", nullptr, config(16000, 20, 2), 0, {0, 2, 1, 1, 48000, 960}},
        {"no more channels than the card has", nullptr, config(16000, 20, 6), 0, {0, 2, 1, 1, 48000, 960}},
        {"by name", usb, {16000, "USB", "USB", 20, 1, 2, false}, 0, {2, 1, 2, 2, 48000, 960}},
        {"unknown names: the defaults", usb, {16000, "Nope", "Nope", 20, 1, 1, false}, 0, {0, 1, 1, 1, 48000, 960}},
        {"capture by name, duplex channels only", [](Card& c) {
             c.devices.push_back(Device{"Headset", 0, 0, 1});
             c.devices.push_back(Device{"Broken", 2, 2, 0, {48000}, false});
         }, {16000, "Headset", "", 20, 1, 1, false}, 0, {0, 1, 2, 1, 48000, 960},
         "Speakers out default #0, Microphone in default #1, Headset in #2, Headset out #2"},
        {"the default flags choose", [&](Card& c) { usb(c), c.defaultOutput = c.defaultInput = 2; }, config(), 0,
         {2, 1, 2, 1, 48000, 960}},
        {"playback only (0)", nullptr, config(16000, 20, 1, 0), 0, {0, 1, -1, 0, 48000, 960}},
        {"playback only (-1)", nullptr, config(16000, 20, 1, -1), 0, {0, 1, -1, 0, 48000, 960}},
        {"16000 before 44100", rates({16000, 44100}), config(), 0, {0, 1, 1, 1, 16000, 320}},
        {"highest common rate", rates({22050, 44100}), config(), 0, {0, 1, 1, 1, 44100, 882}},
        {"unreadable output: 48000 assumed", [](Card& c) { c.failures[Call::DeviceInfo] = "x", c.failingDeviceIndex = 0; },
         config(16000, 20, 2), 0, {0, 2, 1, 1, 48000, 960}, ""},
        {"10 ms periods in 20 ms buffers", nullptr, config(16000, 10), 0, {0, 1, 1, 1, 48000, 960}},
        {"40 ms periods", nullptr, config(16000, 40), 0, {0, 1, 1, 1, 48000, 1920}},
        {"device list fails", refused(Call::DeviceCount), config(), -1},
        {"open refused", refused(Call::OpenStream), config(), -4}, {"start refused", refused(Call::StartStream), config(), -5},
        {"a name, but no devices", [](Card& c) { c.devices.clear(); }, {16000, "", "Speakers", 20, 1, 1, false}, -6, {},
         nullptr, false},
        {"no common rate", [](Card& c) { c.devices[1].sampleRates = {22050}; }, config(), -3, {}, nullptr, false},
        {"rate 0", nullptr, config(0), -2}, {"rate above 384000", nullptr, config(384001), -2},
        {"period 0", nullptr, config(16000, 0), -2}, {"period 200", nullptr, config(16000, 200), -2},
        {"no playback channels", nullptr, config(16000, 20, 0), -2},
        {"1025 playback channels", nullptr, config(16000, 20, 1025), -2},
        {"1025 capture channels", nullptr, config(16000, 20, 1, 1025), -2},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        fresh();
        if (row.script)
            row.script(fakecard::card());
        // A failed open's device is not the fixture's, so that its end shows.
        device = row.code ? boost::make_shared<TAudio2UniversalDevice>(16000) : makeDevice();
        boost::weak_ptr<TAudio2UniversalDevice> weak = device;
        std::string error = "untouched";
        ASSERT_EQ(open(row.conf, &error), row.code) << error;
        Card& card = fakecard::card();
        if (row.code) {
            EXPECT_EQ(!error.empty() && error != "untouched", row.reason) << error;
            EXPECT_FALSE(card.streamOpen || device->streamInfo().open);
            device.reset();
            EXPECT_TRUE(weak.expired()) << "the device outlived its client";
            fresh();
            ASSERT_EQ(open(config()), 0) << "the next open";
            continue;
        }
        const fakecard::Opened& o = card.opened;
        EXPECT_EQ(Opened(o.output.deviceId, o.output.nChannels, o.hasInput ? int(o.input.deviceId) : -1,
                         o.input.nChannels, o.sampleRate, o.bufferFrames), row.opened);
        EXPECT_EQ(std::make_tuple(o.format, o.options.flags, o.options.numberOfBuffers, card.calls[Call::DeviceCount],
                                  card.calls[Call::DeviceInfo]),   // each device asked about once
                  std::make_tuple(RTAUDIO_SINT16, o.hasInput ? RTAUDIO_SCHEDULE_REALTIME : 0u, 0u, 1, int(card.devices.size())));
        const auto info = device->streamInfo();
        const unsigned period = unsigned(row.conf.periodMs);
        EXPECT_EQ(std::make_tuple(info.cardRateHz, info.grantedBufferFrames, info.periodMs, info.framesPerPeriod,
                                  info.cardFramesPerPeriod, info.soundLayer),   // the fake's name for the default layer
                  std::make_tuple(o.sampleRate, o.bufferFrames, period, 16 * period, o.sampleRate * period / 1000, "Dummy"));
        EXPECT_TRUE(warnings.empty() || row.script) << warnings.front();
        std::string listed;
        for (const auto& d : device->devices(TAudio2DeviceInfo::DeviceType(3)))
            listed += (listed.empty() ? "" : ", ") + d->m_name + (d->m_type == TAudio2DeviceInfo::CAPTURE_DEVICE ?
                      " in" : " out") + (d->m_isDefault ? " default" : "") + " #" + std::to_string(d->m_deviceId);
        EXPECT_TRUE(!row.listed || listed == row.listed) << listed;
    }
}

// A second open is refused; the open device belongs to its stream, and closing releases the device, the callback
// and the card's stream. Beside another device's stream, each device's buffers reach its own client.
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
    EXPECT_EQ(deliver(960), 0);

    survivor->closeStream();
    EXPECT_TRUE(weak.expired() && heldByCallback.expired());
    EXPECT_FALSE(fakecard::card().streamOpen);

    ASSERT_EQ(open(config()), 0);
    const fakecard::Opened first = fakecard::card().opened;
    int otherCalls = 0;
    ASSERT_EQ(makeDevice()->openStream(config(), [&](const char*, int, char*, int, int) { return ++otherCalls; }, nullptr), 0);
    std::vector<int16_t> in(960), out(1920);
    EXPECT_EQ(first.callback(out.data(), in.data(), 960, 0, 0, first.userData), 0);
    EXPECT_EQ(std::make_pair(int(calls), otherCalls), std::make_pair(1, 0)) << "the other device's client was called";
}

// What the environment chooses: the canceller's mode and the delay it is told (per period and output), the sound
// layer asked of RtAudio, and a short playback queue asked of PulseAudio only (no server answers here, so none is
// PipeWire's). JACK and the short queue make robust mode's round trip short. Unknown values are named in a warning.
TEST_F(Stream, WhatTheEnvironmentChooses)
{
    const auto J = RtAudio::UNIX_JACK, P = RtAudio::LINUX_PULSE, U = RtAudio::UNSPECIFIED;
    // queue: buffers asked of PulseAudio; warning: its start, null: none about the environment.
    const struct { const char *aec, *api, *latency; int periodMs, clientChannels, cardChannels, toldMs;
                   const char* shown; RtAudio::Api layer; unsigned queue; const char* warning; } rows[] = {
        {nullptr, nullptr, nullptr, 20, 1, 2, 60, "standard", U, 0, nullptr},
        {"standard", nullptr, nullptr, 40, 1, 2, 120, "standard", U, 0, nullptr},
        {nullptr, nullptr, nullptr, 10, 1, 2, 60, "standard", U, 0, nullptr},
        {nullptr, nullptr, nullptr, 20, 2, 2, TAudio2DeviceInfo::UNIVERSAL_DEVICE_DELAY, "standard", U, 0, nullptr},
        {nullptr, nullptr, nullptr, 20, 2, 1, 60, "standard", U, 0, nullptr},   // a stereo client on a mono card plays mono
        {"loud", nullptr, nullptr, 20, 1, 2, 60, "standard", U, 0, "TAUDIO2_AEC=loud"},
        {"robust", nullptr, nullptr, 20, 2, 2, 100, "robust", U, 0, nullptr},
        {"robust", nullptr, "low", 40, 1, 2, 200, "robust", U, 0, nullptr},
        {"robust", "pulseaudio", nullptr, 20, 1, 2, 100, "robust", P, 0, nullptr},
        {"robust", "pulseaudio", "default", 20, 1, 2, 100, "robust", P, 0, nullptr},
        {"robust", "pulseaudio", "low", 20, 1, 2, 40, "robust", P, 3, nullptr},
        {"standard", "pulseaudio", "low", 20, 1, 2, 60, "standard", P, 3, nullptr},
        {"robust", "pulseaudio", "fast", 20, 1, 2, 100, "robust", P, 0, "TAUDIO2_LATENCY=fast"},
        {"robust", "jack", nullptr, 20, 1, 2, 40, "robust", J, 0, nullptr},
        {"robust", "jack", "low", 40, 2, 2, 80, "robust", J, 0, nullptr},
        {"robust", "alsa", "low", 20, 1, 2, 100, "robust", RtAudio::LINUX_ALSA, 0, nullptr},
        {"robust", "oss", "low", 20, 1, 2, 100, "robust", U, 0, "TAUDIO2_API=oss"},
    };
    setenv("PULSE_SERVER", "unix:/nonexistent/native", 1);
    for (const auto& row : rows) {
        SCOPED_TRACE("row " + std::to_string(&row - rows));
        fresh(unsigned(row.cardChannels));
        const std::pair<const char*, const char*> env[] = {
            {"TAUDIO2_AEC", row.aec}, {"TAUDIO2_API", row.api}, {"TAUDIO2_LATENCY", row.latency}};
        for (const auto& [name, value] : env)
            value ? setenv(name, value, 1) : unsetenv(name);
        ASSERT_EQ(open(config(16000, row.periodMs, row.clientChannels)), 0);
        const auto info = device->streamInfo();
        const bool shortRoundTrip = row.layer == J || row.queue > 0;
        EXPECT_EQ(std::make_tuple(info.toldDelayMs, info.echoCancellation, info.shortRoundTrip),
                  std::make_tuple(row.toldMs, std::string(row.shown), shortRoundTrip));
        EXPECT_EQ(TAudio2UniversalDevice::toldDelayMs(row.shown, row.periodMs, cardOutputChannels(), shortRoundTrip),
                  row.toldMs);
        EXPECT_EQ(std::make_tuple(fakecard::card().requestedApi, fakecard::card().opened.options.numberOfBuffers,
                                  info.playbackQueueBuffers), std::make_tuple(row.layer, row.queue, row.queue));
        EXPECT_EQ(warningsStartingWith(row.warning ? row.warning : "TAUDIO2_"), row.warning ? 1 : 0);
    }
    unsetenv("PULSE_SERVER"), unsetenv("TAUDIO2_AEC"), unsetenv("TAUDIO2_API"), unsetenv("TAUDIO2_LATENCY");
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
        return long((Clock::now() - start) / 1ms);
    }
};

void serverGone(bool gone) { fakecard::locked([gone] { fakecard::card().failures[Call::OpenStream] = gone ? "gone" : ""; }); }

// A second open of other sizes is refused while the stream runs on in its own (the sanitizers would see a resize).
// Closing drains a delivering stream and aborts a stalled one; closing again touches no card; the device reopens.
TEST_F(Lifecycle, CloseDrainsADeliveringStreamAndAbortsAStalledOne)
{
    EXPECT_EQ(device->openStream(config(48000, 10, 2, 2), TAudio2FrameCallback(), nullptr), -4);
    const int atRefusal = calls;
    ASSERT_TRUE(waitFor([&] { return calls >= atRefusal + 5; })) << "the stream stopped after a refused open";
    EXPECT_LT(timedCloseMs(), 1000);
    EXPECT_EQ(std::count(captureBytes.begin(), captureBytes.end(), 640), long(captureBytes.size()));
    EXPECT_EQ(fakecard::card().calls[Call::StopStream], 1);
    device->closeStream();
    ASSERT_EQ(open(config()), 0);
    const int atReopen = calls;
    ASSERT_TRUE(waitFor([&] { return calls > atReopen; })) << "the reopened stream does not run";
    fakecard::threadStalled = true;   // a drain would wait for a callback forever
    std::this_thread::sleep_for(300ms);
    EXPECT_LT(timedCloseMs(), 1000);
    Card& card = fakecard::card();
    EXPECT_EQ(std::make_tuple(card.calls[Call::AbortStream], card.calls[Call::CloseStream], card.streamOpen),
              std::make_tuple(1, 2, false));
}

// Lost three ways, the stream is not called until the server is back and it is reopened, with a warning for each;
// gone for good, the close ends the reopening.
TEST_F(Lifecycle, ALostStreamIsReopenedWhenTheServerIsBack)
{
    const std::pair<const char*, std::atomic<bool>*> rows[] = {
        {"buffers stopped coming", &fakecard::threadStalled}, {"the sound layer fails every buffer", &fakecard::threadFailing},
        {"the sound layer stopped the stream", &fakecard::threadAborts}};
    uint64_t recoveries = 0;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.first);
        serverGone(true);
        *row.second = true;
        ASSERT_TRUE(waitFor([this] { return !device->streamInfo().delivering; }));
        std::this_thread::sleep_for(400ms);   // reopening fails meanwhile
        const int atLoss = calls;
        std::this_thread::sleep_for(200ms);
        EXPECT_EQ(std::make_pair(int(calls), device->streamInfo().open), std::make_pair(atLoss, true))
            << "the client was called on a lost stream, or it was closed";

        *row.second = false;
        serverGone(false);
        ASSERT_TRUE(waitFor([&] { return calls >= atLoss + 5; })) << "the stream did not come back";
        EXPECT_EQ(std::make_pair(device->streamInfo().delivering, device->streamInfo().recoveries),
                  std::make_pair(true, ++recoveries));
        EXPECT_EQ(warningsStartingWith(std::string("Universal device lost its stream (") + row.first + ")"), 1);
    }

    serverGone(true);
    fakecard::threadStalled = true;
    ASSERT_TRUE(waitFor([this] { return !device->streamInfo().delivering; }));
    std::this_thread::sleep_for(300ms);
    EXPECT_LT(timedCloseMs(), 1000);
    const int opens = fakecard::card().calls[Call::OpenStream];
    std::this_thread::sleep_for(700ms);
    EXPECT_EQ(std::make_pair(fakecard::card().calls[Call::OpenStream], device->streamInfo().open), std::make_pair(opens, false));
}

// A sound layer may cancel its thread inside a callback (a JACK client closing): the unwinding passes through the
// device instead of ending the process, and the stream comes back.
TEST_F(Concurrency, ASoundLayerThreadCancelledInACallbackUnwinds)
{
    fakecard::card().callbackThreadPauseUs = 2000;
    answer = [](int call) { return call == 3 ? pthread_exit(nullptr), false : true; };
    ASSERT_EQ(open(config()), 0);
    ASSERT_TRUE(waitFor([this] { return calls >= 10; })) << "the stream did not come back";
    EXPECT_EQ(device->streamInfo().recoveries, 1u);
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
