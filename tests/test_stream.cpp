// Opening and closing streams on the scripted card: what is opened, the codes
// and what a failure leaves behind, the told delay, and the lifecycle of a
// stream whose sound layer stalls, fails or dies.
#include "testsupport.h"

#include <boost/make_shared.hpp>

#include <chrono>
#include <thread>

using namespace tamrel;
using fakecard::Call;
using fakecard::Card;
using fakecard::Device;
using testsupport::DeviceTest;

namespace {

using Clock = std::chrono::steady_clock;

bool waitFor(const std::function<bool()>& condition, int ms = 3000)
{
    for (const auto end = Clock::now() + std::chrono::milliseconds(ms); !condition();) {
        if (Clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

class Stream : public DeviceTest {};

} // namespace

// What the card is asked to open, for configurations and cards of all kinds.
TEST_F(Stream, DevicesRatesAndLayouts)
{
    const auto usb = [](Card& c) { c.devices.push_back(Device{"USB", 2, 2, 0, {48000}}); };
    struct Row {
        const char* what;
        std::function<void(Card&)> script;
        TAudio2StreamConfiguration conf;
        int outDevice;
        unsigned outChannels;
        int inDevice;   // -1: no capture opened
        unsigned inChannels, cardRate, bufferFrames;
    };
    const auto named = [](const char* out, const char* in, int captureChannels = 1) {
        TAudio2StreamConfiguration c = config(16000, 20, 1, captureChannels);
        c.playbackDeviceName = out;
        c.captureDeviceName = in;
        return c;
    };
    const Row rows[] = {
        {"defaults", nullptr, config(), 0, 1, 1, 1, 48000, 960},
        {"stereo client", nullptr, config(16000, 20, 2), 0, 2, 1, 1, 48000, 960},
        {"no more channels than the card has", nullptr, config(16000, 20, 6), 0, 2, 1, 1, 48000, 960},
        {"by name", usb, named("USB", "USB", 2), 2, 1, 2, 2, 48000, 960},
        {"unknown names: the defaults", usb, named("Nope", "Nope"), 0, 1, 1, 1, 48000, 960},
        {"capture by name with duplex channels only", [](Card& c) { c.devices.push_back(Device{"Headset", 0, 0, 1}); },
         named("", "Headset"), 0, 1, 2, 1, 48000, 960},
        {"the default flags choose", [usb](Card& c) { usb(c); c.defaultOutput = 2; c.defaultInput = 2; }, config(), 2, 1, 2, 1,
         48000, 960},
        {"playback only (0)", nullptr, config(16000, 20, 1, 0), 0, 1, -1, 0, 48000, 960},
        {"playback only (-1)", nullptr, config(16000, 20, 1, -1), 0, 1, -1, 0, 48000, 960},
        {"16000 before 44100", [](Card& c) { c.devices[0].sampleRates = {16000, 44100}; }, config(), 0, 1, 1, 1, 16000,
         320},
        {"highest common rate", [](Card& c) { c.devices[0].sampleRates = {22050, 44100}; }, config(), 0, 1, 1, 1, 44100,
         882},
        {"unreadable output: assumed 48000", [](Card& c) { c.failures[Call::DeviceInfo] = "x"; c.failingDeviceIndex = 0; },
         config(16000, 20, 2), 0, 2, 1, 1, 48000, 960},
        {"10 ms periods in 20 ms buffers", nullptr, config(16000, 10), 0, 1, 1, 1, 48000, 960},
        {"40 ms periods", nullptr, config(16000, 40), 0, 1, 1, 1, 48000, 1920},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        fresh();
        if (row.script)
            row.script(fakecard::card());
        ASSERT_EQ(open(row.conf), 0);
        const fakecard::Opened& o = fakecard::card().opened;
        EXPECT_EQ(o.output.deviceId, unsigned(row.outDevice));
        EXPECT_EQ(o.output.nChannels, row.outChannels);
        EXPECT_EQ(o.hasInput, row.inDevice >= 0);
        if (row.inDevice >= 0) {
            EXPECT_EQ(o.input.deviceId, unsigned(row.inDevice));
            EXPECT_EQ(o.input.nChannels, row.inChannels);
        }
        EXPECT_EQ(o.format, RTAUDIO_SINT16);
        EXPECT_EQ(o.sampleRate, row.cardRate);
        EXPECT_EQ(o.bufferFrames, row.bufferFrames);
        EXPECT_EQ(o.options.flags, row.inDevice >= 0 ? RTAUDIO_SCHEDULE_REALTIME : 0u);
        EXPECT_EQ(o.options.numberOfBuffers, 0u);
        const auto info = device->streamInfo();
        EXPECT_EQ(info.cardRateHz, row.cardRate);
        EXPECT_EQ(info.grantedBufferFrames, row.bufferFrames);
        EXPECT_EQ(info.periodMs, unsigned(row.conf.periodMs));
        EXPECT_EQ(info.framesPerPeriod, unsigned(row.conf.sampleRate * row.conf.periodMs / 1000));
        EXPECT_EQ(info.cardFramesPerPeriod, row.cardRate * unsigned(row.conf.periodMs) / 1000);
        EXPECT_TRUE(warnings.empty() || row.script) << warnings.front();
        // One look at the devices per open, whatever the choice.
        EXPECT_EQ(fakecard::card().calls[Call::DeviceCount], 1);
        EXPECT_EQ(fakecard::card().calls[Call::DeviceInfo], int(fakecard::card().devices.size()));
        EXPECT_EQ(fakecard::card().calls[Call::DefaultOutput] + fakecard::card().calls[Call::DefaultInput], 0);
    }
}

// Every way an open fails: the code, the reason, and nothing left behind:
// no stream on the card, no device kept alive, and the next open works.
TEST_F(Stream, FailuresLeaveNothingBehind)
{
    struct Row {
        const char* what;
        std::function<void(Card&)> script;
        TAudio2StreamConfiguration conf;
        int code;
        bool reason;   // *error says why
    };
    const auto named = [] {
        TAudio2StreamConfiguration c = config();
        c.playbackDeviceName = "Speakers";
        return c;
    };
    const Row rows[] = {
        {"device list fails", [](Card& c) { c.failures[Call::DeviceCount] = "no server"; }, config(), -1, true},
        {"a name, but no devices", [](Card& c) { c.devices.clear(); }, named(), -6, false},
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
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        fresh();
        if (row.script)
            row.script(fakecard::card());
        device = boost::make_shared<TAudio2UniversalDevice>(16000);
        boost::weak_ptr<TAudio2UniversalDevice> weak = device;
        std::string error = "untouched";
        EXPECT_EQ(open(row.conf, &error), row.code);
        EXPECT_EQ(!error.empty() && error != "untouched", row.reason) << error;
        EXPECT_FALSE(fakecard::card().streamOpen);
        EXPECT_FALSE(device->streamInfo().open);
        device.reset();
        EXPECT_TRUE(weak.expired()) << "the device outlived its client";

        fresh();
        ASSERT_EQ(open(config()), 0) << "the next open";
    }
}

TEST_F(Stream, ASecondOpenIsRefusedAndTheStreamRunsOn)
{
    ASSERT_EQ(open(config()), 0);
    std::string error;
    EXPECT_EQ(device->openStream(config(48000, 10, 2), [](const char*, int, char*, int, int) { return false; }, &error),
              -4);
    EXPECT_EQ(error, "a stream is already open");
    EXPECT_EQ(device->openStream(config(0), TAudio2FrameCallback(), &error), -2);
    EXPECT_EQ(fakecard::card().calls[Call::OpenStream], 1);
    EXPECT_EQ(deliver(960), 0);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(captureBytes[0], 640);
}

// The open device belongs to its stream: a client may drop it and it runs
// on; closing releases the device, the callback and the card's stream.
TEST_F(Stream, CloseReleasesTheStreamTheCallbackAndTheDevice)
{
    device = boost::make_shared<TAudio2UniversalDevice>(16000);
    boost::weak_ptr<TAudio2UniversalDevice> weak = device;
    auto token = boost::make_shared<int>(1);
    boost::weak_ptr<int> heldByCallback = token;
    ASSERT_EQ(device->openStream(config(), [token](const char*, int, char*, int, int) { return true; }, nullptr), 0);
    token.reset();
    const auto survivor = device.get();
    device.reset();
    ASSERT_FALSE(weak.expired()) << "an open device died with its client's pointer";
    EXPECT_EQ(fakecard::deliver(std::vector<int16_t>(960).data(), std::vector<int16_t>(960).data(), 960), 0);

    survivor->closeStream();
    EXPECT_TRUE(weak.expired());
    EXPECT_TRUE(heldByCallback.expired());
    EXPECT_FALSE(fakecard::card().streamOpen);

    // Again, twice, and without a stream: harmless; the device opens again.
    device = makeDevice();
    device->closeStream();
    ASSERT_EQ(open(config()), 0);
    device->closeStream();
    device->closeStream();
    EXPECT_EQ(fakecard::card().calls[Call::CloseStream], 2);
    ASSERT_EQ(open(config()), 0);
    EXPECT_TRUE(device->streamInfo().open);
}

// The delay the canceller is told and the mode, per environment, period
// and output; a voice chain switched off tells none.
TEST_F(Stream, ToldDelayAndEchoCancellationMode)
{
    struct Row {
        const char* mode;   // TAUDIO2_AEC; null: unset
        int periodMs, clientChannels;
        int toldMs;
        const char* shown;
        bool warned;
    };
    const Row rows[] = {
        {nullptr, 20, 1, 60, "standard", false}, {"standard", 40, 1, 120, "standard", false},
        {nullptr, 10, 1, 60, "standard", false}, {nullptr, 20, 2, TAudio2DeviceInfo::UNIVERSAL_DEVICE_DELAY, "standard", false},
        {"robust", 20, 1, 100, "robust", false}, {"robust", 20, 2, 100, "robust", false},
        {"robust", 40, 2, 200, "robust", false}, {"loud", 20, 1, 60, "standard", true},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(std::string(row.mode ? row.mode : "unset") + ", " + std::to_string(row.periodMs) + " ms, " +
                     std::to_string(row.clientChannels) + " ch");
        fresh();
        if (row.mode)
            setenv("TAUDIO2_AEC", row.mode, 1);
        ASSERT_EQ(open(config(16000, row.periodMs, row.clientChannels)), 0);
        unsetenv("TAUDIO2_AEC");
        const auto info = device->streamInfo();
        EXPECT_EQ(info.toldDelayMs, row.toldMs);
        EXPECT_EQ(info.echoCancellation, row.shown);
        EXPECT_EQ(TAudio2UniversalDevice::toldDelayMs(row.shown, row.periodMs, cardOutputChannels()), row.toldMs);
        EXPECT_EQ(warningsStartingWith("TAUDIO2_AEC=loud"), row.warned ? 1 : 0);
    }
    fresh();
    device = makeDevice(false);
    ASSERT_EQ(open(config()), 0);
    EXPECT_EQ(device->streamInfo().echoCancellation, "off");
}

TEST_F(Stream, SoundLayerFromTheEnvironmentAndTheDeviceList)
{
    const std::pair<const char*, RtAudio::Api> rows[] = {{nullptr, RtAudio::UNSPECIFIED}, {"jack", RtAudio::UNIX_JACK},
        {"pulseaudio", RtAudio::LINUX_PULSE}, {"alsa", RtAudio::LINUX_ALSA}, {"oss", RtAudio::UNSPECIFIED}};
    for (const auto& row : rows) {
        if (row.first)
            setenv("TAUDIO2_API", row.first, 1);
        makeDevice();
        unsetenv("TAUDIO2_API");
        EXPECT_EQ(fakecard::card().requestedApi, row.second) << (row.first ? row.first : "unset");
    }
    EXPECT_EQ(warningsStartingWith("TAUDIO2_API=oss"), 1);

    // Devices by direction, duplex ones in both, defaults marked.
    fakecard::card().devices.push_back(Device{"Headset", 0, 0, 2});
    fakecard::card().devices.push_back(Device{"Broken", 2, 2, 0, {48000}, false});
    std::vector<std::string> listed;
    for (const auto& info : makeDevice()->devices(TAudio2DeviceInfo::DeviceType(TAudio2DeviceInfo::PLAYBACK_DEVICE |
                                                                                 TAudio2DeviceInfo::CAPTURE_DEVICE)))
        listed.push_back(info->m_name + (info->m_type == TAudio2DeviceInfo::CAPTURE_DEVICE ? " in" : " out") +
                         (info->m_isDefault ? " default" : "") + " #" + std::to_string(info->m_deviceId));
    EXPECT_EQ(listed, (std::vector<std::string>{"Speakers out default #0", "Microphone in default #1", "Headset in #2",
                                                "Headset out #2"}));
    fakecard::card().failures[Call::DeviceInfo] = "gone";
    fakecard::card().failingDeviceIndex = 1;
    EXPECT_EQ(makeDevice()->devices(TAudio2DeviceInfo::CAPTURE_DEVICE).size(), 0u);
}

namespace {

// A card whose own thread calls back every 20 ms and, like RtAudio's JACK
// backend, drains on stop by waiting for one more callback.
class Lifecycle : public DeviceTest {
protected:
    void SetUp() override
    {
        DeviceTest::SetUp();
        fakecard::card().callbackThreadPauseUs = 20000;
        fakecard::card().stopWaitsForCallback = true;
        clientPlays = [](size_t, unsigned) { return int16_t(0); };
        ASSERT_EQ(open(config()), 0);
        ASSERT_TRUE(waitFor([this] { return callsNow() >= 5; }));
    }
    int callsNow()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return calls;
    }
    long timedCloseMs()
    {
        const auto start = Clock::now();
        device->closeStream();
        return long(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
    }
    static void serverGone(bool gone)
    {
        fakecard::locked([gone] {
            if (gone)
                fakecard::card().failures[Call::OpenStream] = "server gone";
            else
                fakecard::card().failures.erase(Call::OpenStream);
        });
    }
};

} // namespace

TEST_F(Lifecycle, CloseDrainsADeliveringStreamAndAbortsAStalledOne)
{
    EXPECT_LT(timedCloseMs(), 1000);
    EXPECT_EQ(fakecard::card().calls[Call::StopStream], 1);
    ASSERT_EQ(open(config()), 0);
    fakecard::threadStalled = true;   // a drain would wait for a callback forever
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_LT(timedCloseMs(), 1000);
    EXPECT_EQ(fakecard::card().calls[Call::AbortStream], 1);
    EXPECT_FALSE(fakecard::card().streamOpen);
}

// The server goes away in three ways and comes back: the client is not
// called meanwhile, then the same callback resumes on a reopened stream,
// with one warning for the loss and one for the return.
TEST_F(Lifecycle, ALostStreamIsReopenedWhenTheServerIsBack)
{
    const struct {
        const char* reason;
        std::function<void(bool)> fault;
    } rows[] = {
        {"buffers stopped coming", [](bool on) { fakecard::threadStalled = on; }},
        {"the sound layer fails every buffer", [](bool on) { fakecard::threadFailing = on; }},
        {"the sound layer stopped the stream", [](bool on) { fakecard::threadAborts = on; }},
    };
    uint64_t recoveries = 0;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.reason);
        serverGone(true);
        row.fault(true);
        ASSERT_TRUE(waitFor([this] { return !device->streamInfo().delivering; }));
        std::this_thread::sleep_for(std::chrono::milliseconds(400));   // reopening fails meanwhile
        const int atLoss = callsNow();
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        EXPECT_LE(callsNow() - atLoss, 0) << "the client was called on a lost stream";
        EXPECT_TRUE(device->streamInfo().open);

        row.fault(false);
        serverGone(false);
        ASSERT_TRUE(waitFor([&] { return callsNow() >= atLoss + 5; })) << "the stream did not come back";
        EXPECT_TRUE(device->streamInfo().delivering);
        EXPECT_EQ(device->streamInfo().recoveries, ++recoveries);
        EXPECT_EQ(warningsStartingWith(std::string("Universal device lost its stream (") + row.reason + ")"), 1);
    }
    EXPECT_EQ(warningsStartingWith("Universal device reopened its stream after "), 3);
    EXPECT_LT(timedCloseMs(), 1000);
}

TEST_F(Lifecycle, CloseEndsARecoveryThatCannotSucceed)
{
    serverGone(true);
    fakecard::threadStalled = true;
    ASSERT_TRUE(waitFor([this] { return !device->streamInfo().delivering; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_LT(timedCloseMs(), 1000);
    const int opens = fakecard::card().calls[Call::OpenStream];
    std::this_thread::sleep_for(std::chrono::milliseconds(700));
    EXPECT_EQ(fakecard::card().calls[Call::OpenStream], opens);
    EXPECT_FALSE(device->streamInfo().open);
}
