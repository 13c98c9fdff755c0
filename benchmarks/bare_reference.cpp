#include "bare_reference.h"

#include "resampler.h"

#include <webrtc/common.h>
#include <webrtc/modules/audio_processing/include/audio_processing.h>
#include <webrtc/modules/interface/module_common_types.h>

#include <cstring>

namespace bench {

namespace {

const int CARD_FRAMES = 960;
const int CLIENT_FRAMES = 320;
const int CLIENT_RATE = 16000;
const int BLOCK = 160;

void fillFrame(webrtc::AudioFrame& frame, uint32_t id, const int16_t* samples)
{
    frame.UpdateFrame(static_cast<int>(id), id * 10, samples, BLOCK, CLIENT_RATE, webrtc::AudioFrame::kNormalSpeech,
                      webrtc::AudioFrame::kVadUnknown, 1, 0xFFFFFFFF);
}

} // namespace

BareReference::BareReference(bool robust, int toldDelayMs)
    : m_captureResampler(new tamrel::Resampler(48000, CLIENT_RATE, 1))
    , m_playbackResampler(new tamrel::Resampler(CLIENT_RATE, 48000, 1))
{
    m_captureResampler->prepare(CARD_FRAMES, CLIENT_FRAMES);
    m_playbackResampler->prepare(CLIENT_FRAMES, CARD_FRAMES);
    if (robust) {
        webrtc::Config config;
        config.Set<webrtc::ExtendedFilter>(new webrtc::ExtendedFilter(true));
        config.Set<webrtc::DelayAgnostic>(new webrtc::DelayAgnostic(true));
        m_apm.reset(webrtc::AudioProcessing::Create(config));
    } else {
        m_apm.reset(webrtc::AudioProcessing::Create());
    }
    // The device's settings, restated rather than shared: the reference is
    // what the device is measured against, so it does not borrow its code.
    m_apm->high_pass_filter()->Enable(true);
    m_apm->echo_cancellation()->enable_drift_compensation(false);
    m_apm->echo_cancellation()->Enable(true);
    m_apm->echo_cancellation()->set_suppression_level(robust ? webrtc::EchoCancellation::kModerateSuppression
                                                             : webrtc::EchoCancellation::kHighSuppression);
    m_apm->gain_control()->set_mode(webrtc::GainControl::kFixedDigital);
    m_apm->gain_control()->Enable(true);
    m_apm->noise_suppression()->set_level(webrtc::NoiseSuppression::kHigh);
    m_apm->noise_suppression()->Enable(true);
    m_apm->voice_detection()->Enable(false);
    m_apm->set_delay_offset_ms(toldDelayMs);
}

BareReference::~BareReference() = default;

void BareReference::process(const int16_t* input, int16_t* output, int16_t* processed, const int16_t* farEnd)
{
    size_t produced = 0;
    m_captureResampler->Push(input, CARD_FRAMES, m_capture, CLIENT_FRAMES, produced);
    for (int offset = 0; offset < CLIENT_FRAMES; offset += BLOCK) {
        m_apm->set_stream_delay_ms(0);
        webrtc::AudioFrame frame;
        fillFrame(frame, m_frameId, m_capture + offset);
        m_apm->ProcessStream(&frame);
        std::memcpy(processed + offset, frame.data_, BLOCK * sizeof(int16_t));
    }
    // As in the device: the far end of a chunk reaches the module after its capture.
    for (int offset = 0; offset < CLIENT_FRAMES; offset += BLOCK) {
        webrtc::AudioFrame reverse;
        fillFrame(reverse, m_frameId, farEnd + offset);
        m_apm->AnalyzeReverseStream(&reverse);
        ++m_frameId;
    }
    m_playbackResampler->Push(farEnd, CLIENT_FRAMES, output, CARD_FRAMES, produced);
}

} // namespace bench
