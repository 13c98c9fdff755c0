#include "resampler.h"

#include <speex/speex_resampler.h>

#include <stdexcept>
#include <string>

namespace tamrel {

Resampler::Resampler(int inputRate, int outputRate, int channels)
    : m_state(nullptr)
    , m_inputRate(inputRate)
    , m_outputRate(outputRate)
    , m_channels(channels)
{
    int err = RESAMPLER_ERR_SUCCESS;
    m_state = speex_resampler_init(static_cast<spx_uint32_t>(channels), static_cast<spx_uint32_t>(inputRate),
                                   static_cast<spx_uint32_t>(outputRate), SPEEX_RESAMPLER_QUALITY_DEFAULT, &err);
    if (!m_state)
        throw std::runtime_error(std::string("rate converter ") + std::to_string(inputRate) + " to " +
                                 std::to_string(outputRate) + " Hz: " + speex_resampler_strerror(err));
}

Resampler::~Resampler()
{
    speex_resampler_destroy(m_state);
}

void Resampler::prepare(unsigned inputFrames, unsigned outputFrames)
{
    if (inputFrames == 0 || outputFrames == 0)
        return;
    speex_resampler_set_rate_frac(m_state, inputFrames, outputFrames, static_cast<spx_uint32_t>(m_inputRate),
                                  static_cast<spx_uint32_t>(m_outputRate));
}

int Resampler::Push(const int16_t* samplesIn, size_t lengthIn, int16_t* samplesOut, size_t maxLen, size_t& outLen)
{
    outLen = 0;
    const size_t channels = static_cast<size_t>(m_channels);
    if (channels == 0 || lengthIn % channels != 0)
        return -1;
    spx_uint32_t inFrames = static_cast<spx_uint32_t>(lengthIn / channels);
    spx_uint32_t outFrames = static_cast<spx_uint32_t>(maxLen / channels);
    speex_resampler_process_interleaved_int(m_state, samplesIn, &inFrames, samplesOut, &outFrames);
    outLen = static_cast<size_t>(outFrames) * channels;
    return 0;
}

} // namespace tamrel
