// Sample-rate converter between the sound card's rate and the client's.
//
// Push() converts one chunk of interleaved 16-bit samples and keeps the
// filter state, so a signal cut into chunks stays continuous across them.
// prepare() fixes the exact ratio of input to output frames per chunk;
// after that every push of a chunk fills exactly a chunk of output, also
// where the nominal rates give no whole ratio (44100 Hz with odd periods).
// Pushing never allocates once prepared.
#pragma once

#include <cstddef>
#include <cstdint>

struct SpeexResamplerState_;

namespace tamrel {

class Resampler {
public:
    // Throws std::runtime_error when the converter cannot be built.
    Resampler(int inputRate, int outputRate, int channels);
    ~Resampler();
    Resampler(const Resampler&) = delete;
    Resampler& operator=(const Resampler&) = delete;

    // Ratio of one chunk: inputFrames in give outputFrames out.
    void prepare(unsigned inputFrames, unsigned outputFrames);

    // lengthIn and maxLen count samples of all channels. Converts all of the
    // input, writing at most maxLen samples; outLen receives how many were
    // written. Returns 0, or -1 when the arguments do not fit the channels.
    int Push(const int16_t* samplesIn, size_t lengthIn, int16_t* samplesOut, size_t maxLen, size_t& outLen);

    int channels() const { return m_channels; }

private:
    SpeexResamplerState_* m_state;
    int m_inputRate;
    int m_outputRate;
    int m_channels;
};

} // namespace tamrel
