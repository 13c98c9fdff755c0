#include "testsupport.h"

#include <webrtc/modules/audio_processing/include/audio_processing.h>

using namespace tamrel;
using testsupport::DeviceTest;

using VoiceProcessing = DeviceTest;

TEST_F(VoiceProcessing, ModuleIsBuiltWithTheFixedSettings)
{
    auto dev = makeDevice();
    TAudio2UniversalDevice_p& p = rec(*dev);
    ASSERT_EQ(dev->openStream(config(16000, 20, 1, 1), counting(), nullptr), 0);
    ASSERT_TRUE(p.m_apm);
    webrtc::AudioProcessing& apm = *p.m_apm;
    EXPECT_TRUE(apm.high_pass_filter()->is_enabled());
    EXPECT_TRUE(apm.echo_cancellation()->is_enabled());
    EXPECT_FALSE(apm.echo_cancellation()->is_drift_compensation_enabled());
    EXPECT_EQ(apm.echo_cancellation()->suppression_level(), webrtc::EchoCancellation::kHighSuppression);
    EXPECT_TRUE(apm.gain_control()->is_enabled());
    // The mode is asked for; whether it sticks depends on which gain
    // control front end the library enables by default.
    EXPECT_TRUE(apm.noise_suppression()->is_enabled());
    EXPECT_EQ(apm.noise_suppression()->level(), webrtc::NoiseSuppression::kHigh);
    EXPECT_FALSE(apm.voice_detection()->is_enabled());
    EXPECT_EQ(apm.delay_offset_ms(), 60);
    EXPECT_EQ(p.m_apmFrameSamples, 160u);
    EXPECT_EQ(p.m_processedCapture.size(), 640u);
    EXPECT_EQ(p.m_reverseMono.size(), 160u);

    // Each open builds a fresh module and restarts the counters.
    webrtc::AudioProcessing* first = p.m_apm.get();
    std::vector<short> in(960), out(960);
    fakecard::deliver(out.data(), in.data(), 960);
    EXPECT_EQ(p.m_captureFrameId, 2u);
    dev->closeStream();
    ASSERT_EQ(dev->openStream(config(48000, 20, 1, 1), counting(), nullptr), 0);
    EXPECT_NE(p.m_apm.get(), first);
    EXPECT_EQ(p.m_captureFrameId, 0u);
    EXPECT_EQ(p.m_reverseTimestamp, 0u);
    EXPECT_EQ(p.m_apmFrameSamples, 480u);
}

TEST_F(VoiceProcessing, EchoDelayFollowsThePeriodOnMonoOutputsOnly)
{
    auto dev = makeDevice();
    TAudio2UniversalDevice_p& p = rec(*dev);
    struct Case { int periodMs, playbackChannels, delay; };
    for (const Case c : {Case{10, 1, 60}, Case{40, 1, 120}, Case{199, 1, 597},
                         Case{20, 2, TAudio2DeviceInfo::UNIVERSAL_DEVICE_DELAY},
                         Case{60, 2, TAudio2DeviceInfo::UNIVERSAL_DEVICE_DELAY}}) {
        SCOPED_TRACE(c.periodMs);
        log.clear();
        ASSERT_EQ(dev->openStream(config(16000, c.periodMs, c.playbackChannels, 1), counting(), nullptr), 0);
        EXPECT_EQ(p.m_aecDelay, c.delay);
        EXPECT_TRUE(log.has("Universal device buffer period=20, pimpl->m_aecDelay=" + std::to_string(c.delay)));
        EXPECT_EQ(p.m_apm->delay_offset_ms(), c.delay);
        dev->closeStream();
    }
}

TEST_F(VoiceProcessing, ConvertersAreBuiltOnlyWhenRatesDiffer)
{
    auto dev = makeDevice();
    TAudio2UniversalDevice_p& p = rec(*dev);
    ASSERT_EQ(dev->openStream(config(16000, 20, 2, 1), counting(), nullptr), 0);
    ASSERT_TRUE(p.m_captureResampler && p.m_playbackResampler);
    EXPECT_EQ(p.m_captureResampler->channels(), 1);
    EXPECT_EQ(p.m_playbackResampler->channels(), 2);
    Resampler* capture = p.m_captureResampler.get();
    Resampler* playback = p.m_playbackResampler.get();
    dev->closeStream();

    // Equal rates: the earlier converters stay, untouched.
    ASSERT_EQ(dev->openStream(config(48000, 20, 1, 1), counting(), nullptr), 0);
    EXPECT_EQ(p.m_captureResampler.get(), capture);
    EXPECT_EQ(p.m_playbackResampler.get(), playback);
    dev->closeStream();

    // No capture: only the playback converter is rebuilt.
    ASSERT_EQ(dev->openStream(config(16000, 20, 1, 0), counting(), nullptr), 0);
    EXPECT_EQ(p.m_captureResampler.get(), capture);
    EXPECT_NE(p.m_playbackResampler.get(), playback);
    EXPECT_EQ(p.m_playbackResampler->channels(), 1);
}

TEST_F(VoiceProcessing, SwitchedOffBuildsNoModuleAndKeepsOldBuffers)
{
    auto dev = makeDevice();
    TAudio2UniversalDevice_p& p = rec(*dev);
    TAudio2UniversalDevice_p::voicePreprocessorFlag(*dev) = false;
    TAudio2StreamConfiguration conf = config(16000, 20, 1, 1);
    conf.measureAec = true;
    ASSERT_EQ(dev->openStream(conf, counting(), nullptr), 0);
    EXPECT_FALSE(p.m_useVoicePreprocessor);
    EXPECT_FALSE(p.m_apm);
    EXPECT_TRUE(p.m_captureResampler);   // conversion is still needed
    EXPECT_EQ(p.m_processedCapture.size(), 0u);
    EXPECT_EQ(p.m_captureFile, nullptr);
    EXPECT_EQ(log.countStartingWith("Universal device buffer period="), 0);
    EXPECT_EQ(log.countStartingWith("Measure AEC enabled"), 0);
    EXPECT_FALSE(QFile::exists(QString::fromStdString(homePath() + "/capture.wav")));
    EXPECT_EQ(p.m_aecDelay, 60);   // computed before the open all the same
}

// TAUDIO2_AEC picks the canceller when a stream opens. Robust mode is told
// five periods whatever the output; a bad value warns once and falls back to
// the standard module.
TEST_F(VoiceProcessing, EchoCancellationModeFromTheEnvironment)
{
    auto dev = makeDevice();
    TAudio2UniversalDevice_p& p = rec(*dev);
    struct Case { const char* value; int playbackChannels, delay; bool warns; };
    const int standard2 = TAudio2DeviceInfo::UNIVERSAL_DEVICE_DELAY;
    for (const Case c : {Case{nullptr, 2, standard2, false}, Case{"standard", 2, standard2, false},
                         Case{"robust", 1, 100, false}, Case{"robust", 2, 100, false}, Case{"Robust", 2, standard2, true},
                         Case{"", 1, 60, true}}) {
        SCOPED_TRACE(c.value ? c.value : "(unset)");
        c.value ? setenv("TAUDIO2_AEC", c.value, 1) : unsetenv("TAUDIO2_AEC");
        log.clear();
        ASSERT_EQ(dev->openStream(config(16000, 20, c.playbackChannels, 1), counting(), nullptr), 0);
        unsetenv("TAUDIO2_AEC");
        EXPECT_EQ(p.m_apm->delay_offset_ms(), c.delay);
        EXPECT_TRUE(log.has("Universal device buffer period=20, pimpl->m_aecDelay=" + std::to_string(c.delay)));
        EXPECT_EQ(log.countStartingWith("TAUDIO2_AEC="), c.warns ? 1 : 0);
        if (c.warns) {
            EXPECT_TRUE(log.has("TAUDIO2_AEC=" + std::string(c.value) +
                                " is not an echo-cancellation mode (standard, robust); using standard"));
        }
        dev->closeStream();
    }
}
