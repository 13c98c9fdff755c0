// One hardware buffer through the duplex pipeline, on the sound layer's
// real-time thread. Per chunk of one period: capture conversion, capture
// recording, echo cancellation in 10 ms blocks, processed-capture
// recording, the client's frame callback, stereo-to-left reduction,
// playback recording, far-end analysis, playback conversion and output.
// Nothing here allocates, resizes or waits on anything but m_mutex.
#include "taudio2universaldevice_p.h"

#include <shared/debugstream.h>
#include <taudio2base/taudio2node.h>

#include <webrtc/modules/audio_processing/include/audio_processing.h>
#include <webrtc/modules/interface/module_common_types.h>

#include <boost/function/function_base.hpp>
#include <boost/thread/locks.hpp>

#include <algorithm>
#include <cstring>

namespace tamrel {
namespace {

// A fresh, fully zeroed frame per block, so no block sees an earlier one's
// data. A block that would run past the end of its chunk is read only up to
// that end; the rest of the frame stays silent.
void fillFrame(webrtc::AudioFrame& frame, uint32_t id, uint32_t timestamp, const int16_t* samples, size_t available,
               uint32_t blockSamples, uint32_t sampleRate)
{
    frame.UpdateFrame(static_cast<int>(id), timestamp, available >= blockSamples ? samples : nullptr, blockSamples,
                      static_cast<int>(sampleRate), webrtc::AudioFrame::kNormalSpeech,
                      webrtc::AudioFrame::kVadUnknown, 1, 0xFFFFFFFF);
    if (available < blockSamples)
        std::memcpy(frame.data_, samples, available * sizeof(int16_t));
}

} // namespace

int TAudio2UniversalDevice_p::rtAudioCallback(void* outputBuffer, void* inputBuffer, unsigned nFrames,
                                              double /*streamTime*/, unsigned /*status*/)
{
    boost::unique_lock<boost::mutex> lock(m_mutex);

    if (DebugStream::debugEnabled("audio2", 8))
        debug("audio2", 8, false) << "TAudio2UniversalDevice_p::rtAudioCallback "
                                  << static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(inputBuffer)) << ", "
                                  << static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(outputBuffer)) << ", "
                                  << nFrames << ", " << m_deviceChunkFrames;

    int remaining = static_cast<int>(nFrames);
    // A buffer this long means the stream stalled; playing it would only
    // add latency, so it is dropped whole.
    if (nFrames >= m_resyncFrames) {
        debug("audio2", 0, false) << "Universal device resynch " << static_cast<int>(nFrames) << "/" << m_resyncFrames;
        remaining = 0;
    }
    const int16_t* input = static_cast<const int16_t*>(inputBuffer);
    int16_t* output = static_cast<int16_t*>(outputBuffer);
    const bool convert = m_deviceSampleRate != m_sampleRate;
    const uint32_t block = m_apmFrameSamples;
    const int chunk = static_cast<int>(m_deviceChunkFrames);

    // A zero-length period makes no chunk at all (the frames count as lost).
    while (chunk > 0 && remaining >= chunk) {
        const char* capture = nullptr;
        int captureBytes = 0;
        if (input) {
            if (convert) {
                size_t produced = 0;
                m_captureResampler->Push(input, m_deviceChunkFrames * m_captureChannels,
                                         reinterpret_cast<int16_t*>(m_resampledCapture.data()),
                                         m_chunkFrames * m_captureChannels, produced);
                capture = m_resampledCapture.data();
                captureBytes = static_cast<int>(m_chunkFrames * m_captureChannels * 2u);
            } else {
                capture = reinterpret_cast<const char*>(input);
                captureBytes = static_cast<int>(m_deviceChunkFrames * m_captureChannels * 2u);
            }
            if (m_captureFile)
                sf_write_short(m_captureFile, reinterpret_cast<const short*>(capture), m_chunkFrames);
            input += m_deviceChunkFrames * m_captureChannels;

            if (m_useVoicePreprocessor) {
                const int16_t* samples = reinterpret_cast<const int16_t*>(capture);
                int16_t* processed = reinterpret_cast<int16_t*>(m_processedCapture.data());
                for (uint32_t offset = 0; block > 0 && offset < m_chunkFrames; offset += block) {
                    const size_t available = std::min<size_t>(block, m_chunkFrames - offset);
                    m_apm->set_stream_delay_ms(0);
                    webrtc::AudioFrame frame;
                    fillFrame(frame, m_captureFrameId, m_captureTimestamp, samples + offset, available, block,
                              m_sampleRate);
                    m_apm->ProcessStream(&frame);
                    std::memcpy(processed + offset, frame.data_, available * sizeof(int16_t));
                    ++m_captureFrameId;
                    m_captureTimestamp += static_cast<uint32_t>(m_apmFrameMs);
                }
                if (m_captureAecFile)
                    sf_write_short(m_captureAecFile, processed, m_chunkFrames);
                capture = m_processedCapture.data();
                // The processed chunk is mono: never promise more than it holds.
                captureBytes = std::min(captureBytes, static_cast<int>(m_processedCapture.size()));
            }
        }

        if (m_callback.empty())
            boost::throw_exception(boost::bad_function_call());
        const int playbackBytes = static_cast<int>(m_chunkFrames * m_clientPlaybackChannels * 2u);
        if (!m_callback(capture, captureBytes, m_playbackBuffer.data(), playbackBytes, 0)) {
            debug("audio2", 8, false) << "TAudio2UniversalDevice_p::rtAudioCallback callback failed playbackBuffer="
                                      << static_cast<void*>(m_playbackBuffer.data()) << " playbackSize=" << playbackBytes;
            return -1;
        }
        debug("audio2", 8, false) << "TAudio2UniversalDevice_p::rtAudioCallback callback processed playbackBuffer="
                                  << static_cast<void*>(m_playbackBuffer.data()) << " playbackSize=" << playbackBytes;

        if (output) {
            const int16_t* source = reinterpret_cast<const int16_t*>(m_playbackBuffer.data());
            // A stereo client on a mono output: the left channel is played,
            // the right one dropped rather than mixed.
            if (m_clientPlaybackChannels == 2 && m_playbackChannels == 1) {
                int16_t* left = reinterpret_cast<int16_t*>(m_playbackLeft.data());
                for (uint32_t i = 0; i < m_chunkFrames; ++i)
                    left[i] = source[2 * i];
                source = left;
            }

            if (m_useVoicePreprocessor) {
                const uint32_t stride = m_playbackChannels == 2 ? 2 : 1;
                if (m_playbackFile && m_chunkFrames != 0) {
                    for (uint32_t i = 0; i < m_chunkFrames; ++i) {
                        short sample = source[i * stride];
                        sf_writef_short(m_playbackFile, &sample, 1);
                    }
                }
                for (uint32_t offset = 0; block > 0 && offset < m_chunkFrames; offset += block) {
                    const size_t available = std::min<size_t>(block, m_chunkFrames - offset);
                    const int16_t* samples = source + offset * m_playbackChannels;
                    // The far end of a stereo output is what both speakers
                    // emit together: the saturated sum, not the average.
                    if (m_playbackChannels == 2) {
                        for (size_t i = 0; i < available; ++i)
                            m_reverseMono[i] = TAudio2Node::normalize(samples[2 * i] + samples[2 * i + 1]);
                        samples = m_reverseMono.data();
                    }
                    webrtc::AudioFrame frame;
                    fillFrame(frame, m_reverseFrameId, m_reverseTimestamp, samples, available, block, m_sampleRate);
                    m_apm->AnalyzeReverseStream(&frame);
                    ++m_reverseFrameId;
                    m_reverseTimestamp += static_cast<uint32_t>(m_apmFrameMs);
                }
            }

            if (convert) {
                size_t produced = 0;
                m_playbackResampler->Push(source, m_chunkFrames * m_playbackChannels,
                                          reinterpret_cast<int16_t*>(m_resampledPlayback.data()),
                                          m_resampledPlayback.size() / 2, produced);
                source = reinterpret_cast<const int16_t*>(m_resampledPlayback.data());
            }
            std::memcpy(output, source, m_deviceChunkFrames * m_playbackChannels * sizeof(int16_t));
            output += m_deviceChunkFrames * m_playbackChannels;
        }
        remaining -= chunk;
    }

    // The pipeline works in whole chunks only and carries nothing over.
    if (remaining > 0)
        debug("audio2", 0, false) << "TAudio2UniversalDevice_p::rtAudioCallback lost samples: " << remaining;
    return 0;
}

} // namespace tamrel
