// The calls the device makes per hardware buffer, made directly: the two
// rate converters and the voice-processing module, nothing else.
#pragma once

#include <cstdint>
#include <memory>

namespace webrtc {
class AudioProcessing;
}

namespace tamrel {
class Resampler;
}

namespace bench {

class BareReference {
public:
    // `robust`: the module is made from a Config with the extended filter
    // and delay-agnostic estimation, as the device's robust mode makes it.
    BareReference(bool robust, int toldDelayMs);
    ~BareReference();

    // One 20 ms buffer: `input` and `output` at 48 kHz (960 frames), the
    // client's 16 kHz side through `processed` and `farEnd` (320 frames).
    void process(const int16_t* input, int16_t* output, int16_t* processed, const int16_t* farEnd);

private:
    std::unique_ptr<webrtc::AudioProcessing> m_apm;
    std::unique_ptr<tamrel::Resampler> m_captureResampler;
    std::unique_ptr<tamrel::Resampler> m_playbackResampler;
    int16_t m_capture[320];
    uint32_t m_frameId = 0;
};

} // namespace bench
