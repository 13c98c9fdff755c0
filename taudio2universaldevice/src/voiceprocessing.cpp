// Voice-processing set-up, between opening the stream and starting it:
// rate converters, the echo canceller and its companions, the echo delay
// and the buffers the pipeline fills per 10 ms block.
#include "taudio2universaldevice_p.h"

#include <shared/debugstream.h>
#include <taudio2base/taudio2deviceinfo.h>

// webrtc's Config finds an option by the address of a static inside an inline
// template. Hidden, our copy of that static would differ from the library's
// and webrtc would silently ignore the options; visible (and exported, see
// exports.map), the dynamic linker makes both one.
#pragma GCC visibility push(default)
#include <webrtc/common.h>
#include <webrtc/modules/audio_processing/include/audio_processing.h>
#pragma GCC visibility pop

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace tamrel {

namespace {

// TAUDIO2_AEC, read at every open. "robust" lets the canceller search for
// the echo (extended filter, delay-agnostic estimation) instead of trusting
// the told delay alone; unset or "standard" keeps the plain module.
bool robustEchoCancellationRequested()
{
    const char* mode = std::getenv("TAUDIO2_AEC");
    if (!mode || std::strcmp(mode, "standard") == 0)
        return false;
    if (std::strcmp(mode, "robust") == 0)
        return true;
    warning("audio2", false) << "TAUDIO2_AEC=" << mode
                             << " is not an echo-cancellation mode (standard, robust); using standard";
    return false;
}

webrtc::AudioProcessing* createRobustModule()
{
    webrtc::Config config;   // owns the options it is given
    config.Set<webrtc::ExtendedFilter>(new webrtc::ExtendedFilter(true));
    config.Set<webrtc::DelayAgnostic>(new webrtc::DelayAgnostic(true));
    return webrtc::AudioProcessing::Create(config);
}

} // namespace

int TAudio2UniversalDevice::toldDelayMs(const std::string& echoCancellation, int periodMs, unsigned playbackChannels,
                                        bool shortRoundTrip)
{
    // Hardware buffers are never shorter than 20 ms.
    const int64_t period = std::max<int64_t>(20, periodMs);
    // The robust canceller cancels best an echo 20 to 50 ms after the told
    // delay and still takes one from some 50 ms before to 100 ms after.
    // PulseAudio's own queue brings the echo back 8 to 10 periods after the
    // buffer (the longer on a busy machine); JACK, PipeWire and PulseAudio's
    // short queue after 2 to 4.
    if (echoCancellation == "robust")
        return static_cast<int>(std::min<int64_t>((shortRoundTrip ? 2 : 5) * period, INT32_MAX));
    // A two-channel output goes through the desktop mixer, whose delay is
    // measured rather than derived from the period.
    if (playbackChannels == 2)
        return TAudio2DeviceInfo::UNIVERSAL_DEVICE_DELAY;
    return static_cast<int>(std::min<int64_t>(3 * period, INT32_MAX));
}

// Rebuilt whenever the card's rate may have changed: at open and when a
// lost stream is reopened.
void TAudio2UniversalDevice_p::setupConverters()
{
    // With equal rates no converter is used; an earlier stream's stay idle.
    if (m_deviceSampleRate != m_sampleRate) {
        if (m_captureChannels != 0) {
            m_captureResampler.reset(new Resampler(static_cast<int>(m_deviceSampleRate), static_cast<int>(m_sampleRate),
                                                   static_cast<int>(m_captureChannels)));
            m_captureResampler->prepare(m_deviceChunkFrames, m_chunkFrames);
        }
        // Built for what it is fed: the card's layout (a stereo client on a
        // mono card has been reduced to its left channel by then).
        m_playbackResampler.reset(new Resampler(static_cast<int>(m_sampleRate), static_cast<int>(m_deviceSampleRate),
                                                static_cast<int>(m_playbackChannels)));
        m_playbackResampler->prepare(m_chunkFrames, m_deviceChunkFrames);
    }
}

void TAudio2UniversalDevice_p::setupVoiceProcessing(const TAudio2StreamConfiguration& configuration)
{
    setupConverters();
    m_robustEchoCancellation = false;
    if (!m_useVoicePreprocessor)
        return;

    // A fresh module per stream: no canceller state carries over.
    const bool robust = robustEchoCancellationRequested();
    m_robustEchoCancellation = robust;
    m_apm.reset(robust ? createRobustModule() : webrtc::AudioProcessing::Create());
    m_apm->high_pass_filter()->Enable(true);
    m_apm->echo_cancellation()->enable_drift_compensation(false);
    m_apm->echo_cancellation()->Enable(true);
    // Robust mode suppresses less: every room tried still loses 30 dB of echo
    // or more, and a near end talking over the far end keeps 5 dB more.
    m_apm->echo_cancellation()->set_suppression_level(robust ? webrtc::EchoCancellation::kModerateSuppression
                                                             : webrtc::EchoCancellation::kHighSuppression);
    m_apm->gain_control()->set_mode(webrtc::GainControl::kFixedDigital);
    m_apm->gain_control()->Enable(true);
    m_apm->noise_suppression()->set_level(webrtc::NoiseSuppression::kHigh);
    m_apm->noise_suppression()->Enable(true);
    m_apm->voice_detection()->Enable(false);

    m_aecDelay = TAudio2UniversalDevice::toldDelayMs(robust ? "robust" : "standard", configuration.periodMs,
                                                     m_playbackChannels, m_shortRoundTrip);
    debug("audio2", 0, false) << "Universal device buffer period=" << m_minPeriodMs
                              << ", pimpl->m_aecDelay=" << static_cast<unsigned>(m_aecDelay);

    // The per-block stream delay stays 0, so this offset is the whole delay
    // the canceller assumes.
    m_apm->set_delay_offset_ms(m_aecDelay);

    m_captureFrameId = 0;
    m_captureTimestamp = 0;
    m_reverseFrameId = 0;
    m_reverseTimestamp = 0;
    m_apmFrameSamples = m_sampleRate * static_cast<uint32_t>(m_apmFrameMs) / 1000u;

    m_processedCapture.assign(m_chunkFrames, 0);
    m_reverseMono.assign(m_apmFrameSamples, 0);

    if (configuration.measureAec)
        openRecordings();
}

} // namespace tamrel
