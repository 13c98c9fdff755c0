// One hardware buffer through the duplex pipeline, on the sound layer's
// real-time thread. The buffer's capture joins the capture FIFO; every whole
// period there goes through the chunk pipeline (capture conversion, capture
// recording, echo cancellation in 10 ms blocks, processed-capture recording,
// the client's frame callback, stereo-to-left reduction, playback recording,
// far-end analysis, playback conversion) into the playback FIFO, from which
// the buffer's output is taken. Frames short of a period wait in the FIFOs
// for the next buffer, as in PortAudio's buffer processor and WebRTC's fine
// audio buffer. Nothing here allocates, resizes or waits on anything but
// m_mutex.
#include "taudio2universaldevice_p.h"

#include <shared/debugstream.h>
#include <taudio2base/taudio2node.h>

#include <webrtc/modules/audio_processing/include/audio_processing.h>
#include <webrtc/modules/interface/module_common_types.h>

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

// Buffers in a row each followed by a sound-layer error before the stream
// counts as lost: a dead server fails every read and write at once, and
// RtAudio then calls back without pause.
const uint32_t FAILING_BUFFERS_FOR_LOSS = 3;


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

    m_lastCallbackNs.store(steadyNowNs(), std::memory_order_relaxed);
    m_lastBufferFrames.store(nFrames, std::memory_order_relaxed);
    m_callbackCount.fetch_add(1, std::memory_order_relaxed);
    int16_t* output = static_cast<int16_t*>(outputBuffer);
    const auto silence = [output, nFrames, this] {
        if (output)
            std::fill_n(output, static_cast<size_t>(nFrames) * m_playbackChannels, int16_t(0));
    };

    // The errors the sound layer reported since the last buffer: a run of
    // failing buffers means it lost the stream, and the client is not
    // called on it again until the supervisor has reopened it.
    const uint64_t errors = m_soundLayerErrors.load(std::memory_order_relaxed);
    m_buffersWithErrors = errors != m_errorsSeen ? m_buffersWithErrors + 1 : 0;
    m_errorsSeen = errors;
    if (m_buffersWithErrors >= FAILING_BUFFERS_FOR_LOSS)
        m_streamLost.store(true, std::memory_order_relaxed);
    if (m_streamLost.load(std::memory_order_relaxed)) {
        silence();
        m_framesLost.fetch_add(nFrames, std::memory_order_relaxed);
        return 0;
    }

    // A buffer this long means the stream stalled; playing it would only
    // add latency, so it is dropped whole.
    if (nFrames >= m_resyncFrames) {
        debug("audio2", 0, false) << "Universal device resynch " << static_cast<int>(nFrames) << "/" << m_resyncFrames;
        silence();
        m_framesLost.fetch_add(nFrames, std::memory_order_relaxed);
        return 0;
    }
    // openStream() stores the client before it starts the stream; this is
    // only a stream being torn down.
    if (m_callback.empty()) {
        silence();
        return 0;
    }

    const uint32_t chunk = m_deviceChunkFrames;
    const int16_t* input = m_captureChannels != 0 ? static_cast<const int16_t*>(inputBuffer) : nullptr;
    // Whole periods with nothing carried go straight from the card's input
    // to its output, exactly as if there were no FIFOs.
    const bool direct = chunk > 0 && nFrames % chunk == 0 && m_pendingFrames == 0 && m_playbackFifo.empty();
    m_directOutput = direct ? output : nullptr;
    if (direct) {
        m_captureFifo.clear();
    } else if (input) {
        // Frames that came without capture are heard as silence.
        const size_t owed = static_cast<size_t>(m_pendingFrames) * m_captureChannels;
        if (m_captureFifo.size() < owed)
            m_captureFifo.insert(m_captureFifo.begin(), owed - m_captureFifo.size(), int16_t(0));
        m_captureFifo.insert(m_captureFifo.end(), input, input + static_cast<size_t>(nFrames) * m_captureChannels);
    } else {
        m_captureFifo.clear();
    }
    m_pendingFrames += nFrames;

    const size_t chunkSamples = static_cast<size_t>(chunk) * m_captureChannels;
    int result = 0;
    while (chunk > 0 && m_pendingFrames >= chunk) {
        const int16_t* captured = nullptr;
        if (input && direct) {
            captured = input;
            input += chunkSamples;
        } else if (input) {
            std::copy_n(m_captureFifo.begin(), chunkSamples, m_captureChunk.begin());
            m_captureFifo.erase_begin(chunkSamples);
            captured = m_captureChunk.data();
        }
        m_pendingFrames -= chunk;
        // A client that fails a period abandons the rest of the buffer: its
        // periods are played as silence.
        if (result != 0) {
            if (output)
                emitPlayback(nullptr);
            m_framesLost.fetch_add(chunk, std::memory_order_relaxed);
        } else if (!processChunk(captured, output != nullptr)) {
            result = -1;
        }
    }

    if (output && !direct) {
        const uint32_t channels = m_playbackChannels;
        const uint32_t queued = static_cast<uint32_t>(m_playbackFifo.size() / channels);
        // The first buffer that is not a whole number of periods finds the
        // playback short: it is put one period behind the capture for good,
        // after which it never runs dry. The silence goes ahead of what is
        // queued, so the playback has one gap, not one per buffer.
        if (queued < nFrames) {
            const uint32_t lag = std::max(nFrames - queued, chunk > m_playbackLagFrames ? chunk - m_playbackLagFrames : 0u);
            m_playbackFifo.insert(m_playbackFifo.begin(), static_cast<size_t>(lag) * channels, int16_t(0));
            m_playbackLagFrames += lag;
        }
        const size_t samples = static_cast<size_t>(nFrames) * channels;
        std::copy_n(m_playbackFifo.begin(), samples, output);
        m_playbackFifo.erase_begin(samples);
    }
    m_framesCarried.fetch_add(m_pendingFrames, std::memory_order_relaxed);
    return result;
}

// One period of playback at the card's rate, or silence for null: to the
// card's buffer directly, or to the playback FIFO.
void TAudio2UniversalDevice_p::emitPlayback(const int16_t* samples)
{
    const size_t count = static_cast<size_t>(m_deviceChunkFrames) * m_playbackChannels;
    if (m_directOutput) {
        if (samples)
            std::copy_n(samples, count, m_directOutput);
        else
            std::fill_n(m_directOutput, count, int16_t(0));
        m_directOutput += count;
    } else if (samples) {
        m_playbackFifo.insert(m_playbackFifo.end(), samples, samples + count);
    } else {
        m_playbackFifo.insert(m_playbackFifo.end(), count, int16_t(0));
    }
}

// One period: captured holds it at the card's rate (null without capture);
// its playback goes to the card when there is an output. False when the
// client's callback failed it (its playback is then silence).
bool TAudio2UniversalDevice_p::processChunk(const int16_t* captured, bool hasOutput)
{
    int captureBytes = 0;
    const int16_t* capture = captured ? processCapture(captured, captureBytes) : nullptr;

    const int playbackBytes = static_cast<int>(m_playbackBuffer.size() * sizeof(int16_t));
    char* playback = reinterpret_cast<char*>(m_playbackBuffer.data());
    if (!m_callback(reinterpret_cast<const char*>(capture), captureBytes, playback, playbackBytes, 0)) {
        debug("audio2", 8, false) << "TAudio2UniversalDevice_p::rtAudioCallback callback failed playbackBuffer="
                                  << static_cast<void*>(playback) << " playbackSize=" << playbackBytes;
        if (hasOutput)
            emitPlayback(nullptr);
        return false;
    }
    debug("audio2", 8, false) << "TAudio2UniversalDevice_p::rtAudioCallback callback processed playbackBuffer="
                              << static_cast<void*>(playback) << " playbackSize=" << playbackBytes;
    if (!hasOutput)
        return true;

    const int16_t* source = m_playbackBuffer.data();
    // A stereo client on a mono output: the left channel is played, the
    // right one dropped rather than mixed.
    if (m_clientPlaybackChannels == 2 && m_playbackChannels == 1) {
        for (uint32_t i = 0; i < m_chunkFrames; ++i)
            m_playbackLeft[i] = source[2 * i];
        source = m_playbackLeft.data();
    }
    if (m_useVoicePreprocessor)
        analyseFarEnd(source);
    if (m_deviceSampleRate != m_sampleRate) {
        size_t produced = 0;
        m_playbackResampler->Push(source, static_cast<size_t>(m_chunkFrames) * m_playbackChannels,
                                  m_resampledPlayback.data(), m_resampledPlayback.size(), produced);
        source = m_resampledPlayback.data();
    }
    emitPlayback(source);
    return true;
}

// One period of capture at the card's rate to what the client gets: at its
// rate, recorded raw, and through the canceller when voice processing is on.
const int16_t* TAudio2UniversalDevice_p::processCapture(const int16_t* captured, int& captureBytes)
{
    const int16_t* capture = captured;
    if (m_deviceSampleRate != m_sampleRate) {
        size_t produced = 0;
        m_captureResampler->Push(captured, static_cast<size_t>(m_deviceChunkFrames) * m_captureChannels,
                                 m_resampledCapture.data(), m_resampledCapture.size(), produced);
        capture = m_resampledCapture.data();
    }
    captureBytes = static_cast<int>(static_cast<size_t>(m_chunkFrames) * m_captureChannels * sizeof(int16_t));

    // The canceller takes one microphone: the first channel, the primary
    // microphone of headsets and arrays. A mix of microphones at different
    // distances would comb the echo path it has to learn.
    const int16_t* microphone = capture;
    if (m_captureChannels > 1) {
        for (uint32_t i = 0; i < m_chunkFrames; ++i)
            m_captureMono[i] = capture[static_cast<size_t>(i) * m_captureChannels];
        microphone = m_captureMono.data();
    }
    if (m_captureFile)
        sf_write_short(m_captureFile, microphone, m_chunkFrames);
    if (!m_useVoicePreprocessor)
        return capture;

    const uint32_t block = m_apmFrameSamples;
    int16_t* processed = m_processedCapture.data();
    for (uint32_t offset = 0; block > 0 && offset < m_chunkFrames; offset += block) {
        const size_t available = std::min<size_t>(block, m_chunkFrames - offset);
        m_apm->set_stream_delay_ms(0);
        webrtc::AudioFrame frame;
        fillFrame(frame, m_captureFrameId, m_captureTimestamp, microphone + offset, available, block, m_sampleRate);
        m_apm->ProcessStream(&frame);
        std::memcpy(processed + offset, frame.data_, available * sizeof(int16_t));
        ++m_captureFrameId;
        m_captureTimestamp += m_apmFrameMs;
    }
    if (m_captureAecFile)
        sf_write_short(m_captureAecFile, processed, m_chunkFrames);
    // The processed capture is mono, whatever the card delivered.
    captureBytes = static_cast<int>(m_chunkFrames * sizeof(int16_t));
    return processed;
}

// The period about to be played, in the card's layout at the client's rate,
// to the canceller as its far end, block by block, and to the recording.
void TAudio2UniversalDevice_p::analyseFarEnd(const int16_t* played)
{
    if (m_playbackFile) {
        for (uint32_t i = 0; i < m_chunkFrames; ++i)
            sf_writef_short(m_playbackFile, &played[static_cast<size_t>(i) * m_playbackChannels], 1);
    }
    const uint32_t block = m_apmFrameSamples;
    for (uint32_t offset = 0; block > 0 && offset < m_chunkFrames; offset += block) {
        const size_t available = std::min<size_t>(block, m_chunkFrames - offset);
        const int16_t* samples = played + static_cast<size_t>(offset) * m_playbackChannels;
        // The far end of a stereo output is what both speakers emit
        // together: the saturated sum, not the average.
        if (m_playbackChannels == 2) {
            for (size_t i = 0; i < available; ++i)
                m_reverseMono[i] = TAudio2Node::normalize(samples[2 * i] + samples[2 * i + 1]);
            samples = m_reverseMono.data();
        }
        webrtc::AudioFrame frame;
        fillFrame(frame, m_reverseFrameId, m_reverseTimestamp, samples, available, block, m_sampleRate);
        m_apm->AnalyzeReverseStream(&frame);
        ++m_reverseFrameId;
        m_reverseTimestamp += m_apmFrameMs;
    }
}

} // namespace tamrel
