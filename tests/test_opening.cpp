#include "testsupport.h"

using namespace tamrel;
using fakecard::Call;
using testsupport::DeviceTest;

using Opening = DeviceTest;

namespace {

fakecard::Device device(const std::string& name, unsigned out, unsigned in, std::vector<unsigned> rates)
{
    fakecard::Device d;
    d.name = name;
    d.outputChannels = out;
    d.inputChannels = in;
    d.sampleRates = std::move(rates);
    return d;
}

} // namespace

TEST_F(Opening, DefaultDevicesOpenAFullDuplexStream)
{
    auto dev = makeDevice();
    std::string error = "stale";
    ASSERT_EQ(dev->openStream(config(16000, 20, 1, 1), counting(), &error), 0);
    EXPECT_EQ(error, "");

    fakecard::Card& c = fakecard::card();
    const fakecard::Opened& o = c.opened;
    TAudio2UniversalDevice_p& p = rec(*dev);
    EXPECT_EQ(c.calls[Call::DeviceCount], 0);   // no names: never counted
    ASSERT_TRUE(o.hasOutput && o.hasInput && o.hasOptions);
    EXPECT_EQ(o.output.deviceId, 0u);
    EXPECT_EQ(o.output.nChannels, 1u);
    EXPECT_EQ(o.output.firstChannel, 0u);
    EXPECT_EQ(o.input.deviceId, 1u);
    EXPECT_EQ(o.input.nChannels, 1u);
    EXPECT_EQ(o.format, RTAUDIO_SINT16);
    EXPECT_EQ(o.sampleRate, 48000u);
    EXPECT_EQ(o.bufferFrames, 960u);
    EXPECT_EQ(o.options.flags, RTAUDIO_SCHEDULE_REALTIME);
    EXPECT_EQ(o.options.priority, 2);
    EXPECT_EQ(o.options.numberOfBuffers, 0u);
    EXPECT_EQ(o.options.streamName, "");
    EXPECT_EQ(o.callback, &rtAudioCallBack);
    EXPECT_EQ(o.errorCallback, &rtAudioError);
    EXPECT_EQ(o.userData, static_cast<void*>(&p.m_id));
    EXPECT_TRUE(c.streamRunning);
    EXPECT_TRUE(registered(p.m_id));
    EXPECT_FALSE(p.m_callback.empty());
    EXPECT_EQ(p.m_device.lock(), dev);

    EXPECT_EQ(log.texts(), (std::vector<std::string>{
                               "Using universal device",
                               "In universal device openStream captureChannels=1 playbackChannels1",
                               "In universal device checking output sample rate outputChannels=2 duplexChannels0",
                               "In universal device output channels mismatch: device=2 conf=1",
                               "In universal device checking input sample rate inputChannels=1 duplexChannels0",
                               "In universal device using sample rate 48000",
                               "In universal device before open stream",
                               "In universal device after open stream",
                               "Universal device buffer period=20, pimpl->m_aecDelay=60",
                               "In universal device before start stream",
                               "In universal device after start stream",
                           }));
}

TEST_F(Opening, DevicesAreChosenByExactNameElseTheDefaultSilently)
{
    fakecard::Card& c = fakecard::card();
    c.devices.push_back(device("Headset", 2, 1, {48000}));
    c.devices.push_back(device("Mic only", 0, 1, {48000}));
    auto dev = makeDevice();

    TAudio2StreamConfiguration conf = config();
    conf.playbackDeviceName = "Headset";
    conf.captureDeviceName = "Headset";
    ASSERT_EQ(dev->openStream(conf, counting(), nullptr), 0);
    EXPECT_EQ(c.opened.output.deviceId, 2u);
    EXPECT_EQ(c.opened.input.deviceId, 2u);
    EXPECT_EQ(c.calls[Call::DefaultOutput], 1);   // asked even with a name
    EXPECT_EQ(c.calls[Call::DefaultInput], 1);
    dev->closeStream();

    // Case differs, wrong direction, partial name: defaults, no line about it.
    conf.playbackDeviceName = "Mic only";
    conf.captureDeviceName = "headset";
    log.clear();
    ASSERT_EQ(dev->openStream(conf, counting(), nullptr), 0);
    EXPECT_EQ(c.opened.output.deviceId, 0u);
    EXPECT_EQ(c.opened.input.deviceId, 1u);
    EXPECT_EQ(log.lines.size(), 10u);
    dev->closeStream();

    // A device that fails while searching ends the search with the default.
    c.failures[Call::DeviceInfo] = "gone";
    c.failingDeviceIndex = 1;
    conf.playbackDeviceName = "Headset";
    conf.captureChannels = 0;
    ASSERT_EQ(dev->openStream(conf, counting(), nullptr), 0);
    EXPECT_EQ(c.opened.output.deviceId, 0u);
}

TEST_F(Opening, PlaybackOnlyStreamsAskNothingOfTheCaptureSide)
{
    fakecard::Card& c = fakecard::card();
    for (int captureChannels : {0, -1}) {
        testsupport::standardCard();
        c.devices[1].sampleRates = {8000};   // would rule 48000 out for a duplex stream
        auto dev = makeDevice();
        ASSERT_EQ(dev->openStream(config(16000, 20, 1, captureChannels), counting(), nullptr), 0);
        EXPECT_FALSE(c.opened.hasInput);
        EXPECT_EQ(c.opened.options.flags, 0u);
        EXPECT_EQ(c.opened.options.priority, 0);
        EXPECT_EQ(c.opened.sampleRate, 48000u);
        EXPECT_EQ(c.calls[Call::DefaultInput], 0);
        EXPECT_EQ(rec(*dev).m_resampledCapture.size(), 0u);
        dev->closeStream();
    }
}

TEST_F(Opening, RateIsTheFirstBothSidesSupport)
{
    fakecard::Card& c = fakecard::card();
    c.devices[0].sampleRates = {8000, 16000, 48000};
    c.devices[1].sampleRates = {16000};
    auto dev = makeDevice();
    ASSERT_EQ(dev->openStream(config(16000, 20, 1, 1), counting(), nullptr), 0);
    EXPECT_EQ(c.opened.sampleRate, 16000u);
    EXPECT_EQ(rec(*dev).m_deviceSampleRate, 16000u);
    EXPECT_EQ(rec(*dev).m_resyncFrames, 3200u);
    EXPECT_EQ(c.opened.bufferFrames, 320u);
    dev->closeStream();

    c.devices[1].sampleRates = {8000, 11025};
    ASSERT_EQ(dev->openStream(config(), counting(), nullptr), 0);
    EXPECT_EQ(c.opened.sampleRate, 8000u);
}

// Neither 48000, 16000 nor 8000 Hz: the highest rate both sides take, converted
// (a JACK server at 44100 Hz); -3 with each side's rates when they share none.
TEST_F(Opening, OtherwiseTheHighestCommonRateOrNone)
{
    fakecard::Card& c = fakecard::card();
    c.devices[0].sampleRates = {22050, 44100, 96000};
    c.devices[1].sampleRates = {22050, 44100};
    auto dev = makeDevice();
    ASSERT_EQ(dev->openStream(config(16000, 20, 2, 1), counting(), nullptr), 0);
    EXPECT_EQ(c.opened.sampleRate, 44100u);
    EXPECT_EQ(dev->streamInfo().cardFramesPerPeriod, 882u);
    dev->closeStream();

    c.devices[1].sampleRates = {32000};
    std::string error = "untouched";
    log.clear();
    EXPECT_EQ(dev->openStream(config(16000, 20, 2, 1), counting(), &error), -3);
    EXPECT_EQ(error, "untouched");
    EXPECT_FALSE(registered(rec(*dev).m_id));
    EXPECT_EQ(c.calls[Call::OpenStream], 1);
    std::vector<std::string> warnings;
    for (const auto& line : log.lines)
        if (line.severity == LogSeverity::Warning)
            warnings.push_back(line.text);
    EXPECT_EQ(warnings, (std::vector<std::string>{"Unsupported rate in universal device driver",
                                                  "Supported rates for output device Speakers", "22050", "44100",
                                                  "96000", "Supported rates for input device Microphone", "32000"}));

    // Failing while listing: the doubled words are how the line reads.
    log.clear();
    c.failures[Call::DeviceInfo] = "lost";
    EXPECT_EQ(dev->openStream(config(), counting(), &error), -3);
    EXPECT_TRUE(log.has("In universal device failed to failed to list supported sample rates: lost"));
}

TEST_F(Opening, ProbeFailuresOnEitherSide)
{
    fakecard::Card& c = fakecard::card();
    auto dev = makeDevice();

    // Output cannot be queried: assumed to take 48000, configured channels used.
    c.failures[Call::DeviceInfo] = "query failed";
    c.failingDeviceIndex = 0;
    ASSERT_EQ(dev->openStream(config(16000, 20, 2, 1), counting(), nullptr), 0);
    EXPECT_TRUE(log.has("In universal device failed to get output device: query failed"));
    EXPECT_EQ(c.opened.output.nChannels, 2u);
    EXPECT_EQ(c.opened.sampleRate, 48000u);
    dev->closeStream();

    // Input cannot be queried: no rate at all.
    c.failingDeviceIndex = 1;
    EXPECT_EQ(dev->openStream(config(16000, 20, 1, 1), counting(), nullptr), -3);
    EXPECT_TRUE(log.has("In universal device failed to get input device: query failed"));

    // Unprobed devices say so and offer no rate.
    c.failures.clear();
    c.devices[0].probed = false;
    log.clear();
    EXPECT_EQ(dev->openStream(config(), counting(), nullptr), -3);
    EXPECT_TRUE(log.has("In universal device failed to probe output device: probed=false name Speakers"));
    c.devices[0].probed = true;
    c.devices[1].probed = false;
    EXPECT_EQ(dev->openStream(config(), counting(), nullptr), -3);
    EXPECT_TRUE(log.has("In universal device failed to probe input device: probed=false name Microphone"));
}

TEST_F(Opening, PlaybackChannelsNeverExceedWhatTheClientSupplies)
{
    fakecard::Card& c = fakecard::card();
    auto dev = makeDevice();
    ASSERT_EQ(dev->openStream(config(16000, 20, 2, 1), counting(), nullptr), 0);
    EXPECT_EQ(c.opened.output.nChannels, 2u);
    EXPECT_FALSE(log.has("In universal device output channels mismatch: device=2 conf=2"));
    dev->closeStream();

    c.devices[0].outputChannels = 1;
    log.clear();
    ASSERT_EQ(dev->openStream(config(16000, 20, 2, 1), counting(), nullptr), 0);
    EXPECT_TRUE(log.has("In universal device output channels mismatch: device=1 conf=2"));
    EXPECT_EQ(c.opened.output.nChannels, 1u);
    EXPECT_EQ(rec(*dev).m_playbackChannels, 1u);
    EXPECT_EQ(rec(*dev).m_clientPlaybackChannels, 2u);
    EXPECT_EQ(rec(*dev).m_playbackBuffer.size(), 320u * 2 * 2);
    EXPECT_EQ(rec(*dev).m_playbackLeft.size(), 320u * 1 * 2);
}

TEST_F(Opening, PeriodFloorAppliesToTheHardwareBufferOnly)
{
    fakecard::Card& c = fakecard::card();
    auto dev = makeDevice();
    TAudio2UniversalDevice_p& p = rec(*dev);

    ASSERT_EQ(dev->openStream(config(16000, 10, 1, 1), counting(), nullptr), 0);
    EXPECT_EQ(c.opened.bufferFrames, 960u);
    EXPECT_EQ(p.m_deviceChunkFrames, 480u);
    EXPECT_EQ(p.m_chunkFrames, 160u);
    EXPECT_EQ(p.m_periodMs, 10u);
    EXPECT_EQ(p.m_aecDelay, 60);
    dev->closeStream();

    ASSERT_EQ(dev->openStream(config(44100, 25, 1, 2), counting(), nullptr), 0);
    EXPECT_EQ(p.m_chunkFrames, 1102u);
    EXPECT_EQ(p.m_deviceChunkFrames, 1200u);
    EXPECT_EQ(c.opened.bufferFrames, 1200u);
    EXPECT_EQ(p.m_aecDelay, 75);
    EXPECT_EQ(p.m_playbackBuffer.size(), 1102u * 2);
    EXPECT_EQ(p.m_playbackLeft.size(), 1102u * 2);
    EXPECT_EQ(p.m_resampledCapture.size(), 1102u * 2 * 2);
    EXPECT_EQ(p.m_resampledPlayback.size(), 1200u * 2);
    dev->closeStream();

    // The sound layer may grant another size; the record keeps what it got.
    c.grantedBufferFrames = 1024;
    ASSERT_EQ(dev->openStream(config(), counting(), nullptr), 0);
    EXPECT_EQ(p.m_bufferFrames, 1024u);
}

TEST_F(Opening, FailureCodesMessagesAndWhatRemains)
{
    fakecard::Card& c = fakecard::card();
    auto dev = makeDevice();
    TAudio2UniversalDevice_p& p = rec(*dev);
    std::string error;

    // -6: a name, but no devices at all.
    c.devices.clear();
    TAudio2StreamConfiguration named = config();
    named.playbackDeviceName = "Speakers";
    error = "untouched";
    EXPECT_EQ(dev->openStream(named, counting(), &error), -6);
    EXPECT_EQ(error, "untouched");
    EXPECT_TRUE(log.has("No playback devices found in audio universal device"));
    named.playbackDeviceName = "";
    named.captureDeviceName = "Microphone";
    EXPECT_EQ(dev->openStream(named, counting(), &error), -6);
    EXPECT_TRUE(log.has("No capture devices found in audio universal device"));
    EXPECT_EQ(p.m_sampleRate, 16000u);
    EXPECT_FALSE(registered(p.m_id));

    // -1: a failed query is reported after the negotiation wrote the record.
    testsupport::standardCard();
    c.failures[Call::DeviceCount] = "cannot count";
    EXPECT_EQ(dev->openStream(named, counting(), &error), -1);
    EXPECT_EQ(error, "cannot count");
    EXPECT_TRUE(log.has("TAudio2UniversalDevice::openStream() failed: cannot count"));
    TAudio2StreamConfiguration slow = config(8000, 40, 1, 1);
    slow.captureDeviceName = "Microphone";
    EXPECT_EQ(dev->openStream(slow, counting(), &error), -1);
    EXPECT_EQ(p.m_sampleRate, 8000u);
    EXPECT_EQ(p.m_bufferFrames, 1920u);
    EXPECT_EQ(c.calls[Call::OpenStream], 0);
    EXPECT_FALSE(registered(p.m_id));

    // A failed default input leaves no index to probe: no rate either.
    c.failures.clear();
    c.failures[Call::DefaultInput] = "no default input";
    EXPECT_EQ(dev->openStream(config(), counting(), &error), -3);

    // -4: the open fails; the registry entry stays, nothing is built.
    c.failures.clear();
    c.failures[Call::OpenStream] = "device busy";
    EXPECT_EQ(dev->openStream(config(), counting(), &error), -4);
    EXPECT_EQ(error, "device busy");
    EXPECT_TRUE(registered(p.m_id));
    EXPECT_FALSE(p.m_apm);
    EXPECT_FALSE(p.m_captureResampler);
    EXPECT_TRUE(p.m_callback.empty());
    EXPECT_EQ(c.calls[Call::StartStream], 0);

    // -5: the start fails; the device closes itself before it says so.
    c.failures.clear();
    c.failures[Call::StartStream] = "cannot start";
    log.clear();
    EXPECT_EQ(dev->openStream(config(), counting(), &error), -5);
    EXPECT_EQ(error, "cannot start");
    EXPECT_EQ(c.calls[Call::CloseStream], 1);
    EXPECT_FALSE(c.streamOpen);
    EXPECT_FALSE(registered(p.m_id));
    EXPECT_TRUE(p.m_callback.empty());
    EXPECT_EQ(log.lines.back().text, "TAudio2UniversalDevice::openStream() failed: cannot start");

    // A null error pointer is fine on every path.
    EXPECT_EQ(dev->openStream(config(), counting(), nullptr), -5);
}

// TAUDIO2_API picks the sound layer when a device is made; anything else
// is said once and leaves RtAudio its own choice.
TEST_F(Opening, SoundLayerFromTheEnvironment)
{
    const struct {
        const char* value;
        RtAudio::Api api;
        bool warned;
    } rows[] = {{nullptr, RtAudio::UNSPECIFIED, false},
                {"jack", RtAudio::UNIX_JACK, false},
                {"pulseaudio", RtAudio::LINUX_PULSE, false},
                {"alsa", RtAudio::LINUX_ALSA, false},
                {"oss", RtAudio::UNSPECIFIED, true}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.value ? row.value : "unset");
        if (row.value)
            setenv("TAUDIO2_API", row.value, 1);
        else
            unsetenv("TAUDIO2_API");
        log.clear();
        makeDevice();
        EXPECT_EQ(fakecard::card().requestedApi, row.api);
        EXPECT_EQ(log.has(std::string("TAUDIO2_API=") + (row.value ? row.value : "") +
                          " is not a sound layer (jack, pulseaudio, alsa); using the default"),
                  row.warned);
    }
    unsetenv("TAUDIO2_API");
}
