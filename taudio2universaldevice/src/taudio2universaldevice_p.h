// Private record of TAudio2UniversalDevice and the process-wide registry
// through which the sound layer's plain-function callback finds a device.
#pragma once

#include "resampler.h"

#include <taudio2universaldevice/taudio2universaldevice.h>

#include <rtaudio/RtAudio.h>
#include <sndfile.h>
#include <speex/speex_echo.h>
#include <speex/speex_preprocess.h>

#include <boost/circular_buffer.hpp>
#include <boost/enable_shared_from_this.hpp>
#include <boost/function.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/thread/shared_mutex.hpp>
#include <boost/weak_ptr.hpp>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>
#include <map>
#include <string>
#include <vector>

namespace webrtc {
class AudioProcessing;
}

namespace tamrel {

// The one clock of the stream's timing: buffers' arrival, stalls, back-off.
inline int64_t steadyNowNs()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch()).count();
}

class TAudio2UniversalDevice_p : public boost::enable_shared_from_this<TAudio2UniversalDevice_p> {
public:
    explicit TAudio2UniversalDevice_p(RtAudio::Api api);
    ~TAudio2UniversalDevice_p();

    static TAudio2UniversalDevice_p& of(TAudio2UniversalDevice& device) { return *device.d; }
    // For tests: the device's voice-preprocessor flag, which nothing in the library clears.
    static bool& voicePreprocessorFlag(TAudio2UniversalDevice& device) { return device.m_hasVoicePreprocessor; }

    // Enter or remove a device in the registry below.
    static void registerDevice(TAudio2UniversalDevice& device);
    static void unregisterDevice(unsigned id);

    // One hardware buffer through the duplex pipeline (pipeline.cpp).
    int rtAudioCallback(void* outputBuffer, void* inputBuffer, unsigned nFrames, double streamTime, unsigned status);

    // Steps of openStream() that live beside their own concern.
    // Device choice, probes, rate choice and buffer sizing (opening.cpp):
    // 0, or the code openStream() returns; errorText gets the sound layer's reason.
    int negotiate(const TAudio2StreamConfiguration& configuration, std::string& errorText);
    // Opens and starts the sound layer's stream on what negotiate() chose (opening.cpp).
    int openSoundLayer(const TAudio2StreamConfiguration& configuration, std::string& errorText);
    void startSoundLayer();                                                       // opening.cpp
    // Stops and closes the sound layer's stream; aborts one that stopped delivering (closing.cpp).
    void closeSoundLayer();
    void setupConverters();                                                       // voiceprocessing.cpp
    void setupVoiceProcessing(const TAudio2StreamConfiguration& configuration);   // voiceprocessing.cpp
    void openRecordings();                                                        // recording.cpp
    void closeRecordings();                                                       // recording.cpp
    static void removeRecordings();                                               // recording.cpp

    // Recovery (recovery.cpp): a thread per open stream that notices a stream
    // the sound layer lost and reopens it with the same configuration.
    void startSupervisor();
    void stopSupervisor();
    void supervise();
    bool reopen(std::string& errorText);
    // The sound layer reported an error on this stream's own thread.
    void soundLayerFailed() { m_soundLayerErrors.fetch_add(1, std::memory_order_relaxed); }

    // Pipeline steps (pipeline.cpp), under m_mutex on the audio thread.
    bool processChunk(const int16_t* captured, bool hasOutput);
    void emitPlayback(const int16_t* samples);

    boost::function<bool(const char*, int, char*, int, int)> m_callback;
    boost::weak_ptr<TAudio2Device> m_device;
    bool m_useVoicePreprocessor;
    RtAudio m_rtAudio;
    uint32_t m_deviceSampleRate;
    uint32_t m_sampleRate;
    unsigned int m_bufferFrames;   // asked of the sound layer, then what it granted; written under m_mutex
    unsigned int m_id;             // its address is the sound layer's user pointer
    boost::shared_ptr<Resampler> m_captureResampler;
    boost::shared_ptr<Resampler> m_playbackResampler;
    mutable boost::mutex m_mutex;
    int32_t m_aecDelay;
    uint32_t m_captureChannels;
    uint32_t m_playbackChannels;
    uint32_t m_periodMs;
    uint32_t m_deviceChunkFrames;
    uint32_t m_chunkFrames;
    uint32_t m_apmFrameSamples;
    SpeexEchoState* m_speexEchoState;
    SpeexPreprocessState* m_speexPreprocessState;
    boost::circular_buffer<boost::shared_ptr<std::vector<char>>> m_frameQueue;
    int32_t m_echoTailMs;
    int32_t m_apmFrameMs;
    uint64_t m_sampleCounter;
    std::vector<char> m_processedCapture;
    std::vector<char> m_playbackBuffer;
    std::vector<char> m_resampledCapture;
    std::vector<char> m_resampledPlayback;
    std::vector<short> m_reverseMono;
    std::vector<char> m_playbackLeft;
    uint32_t m_resyncFrames;
    uint32_t m_minPeriodMs;
    SNDFILE* m_captureFile;
    SNDFILE* m_captureAecFile;
    SNDFILE* m_playbackFile;
    boost::shared_ptr<webrtc::AudioProcessing> m_apm;
    uint32_t m_captureFrameId;
    uint32_t m_captureTimestamp;
    uint32_t m_reverseFrameId;
    uint32_t m_reverseTimestamp;
    uint32_t m_clientPlaybackChannels;

    // The sound layer this record's RtAudio object was made for; fixed at construction.
    RtAudio::Api m_api;
    // The devices negotiate() chose; client thread or supervisor, never both.
    unsigned m_outputDevice;
    unsigned m_inputDevice;
    // Whether the current stream runs the robust canceller; set by openStream.
    bool m_robustEchoCancellation;

    // Carry-over between the sound layer's buffers and whole periods, all at
    // the card's rate. Sized while no stream runs (openStream, recovery), used
    // on the audio thread under m_mutex. The frames pending in the capture
    // FIFO plus those queued for playback always equal m_playbackLagFrames:
    // the silence once put ahead of the playback so that it never runs dry.
    boost::circular_buffer<int16_t> m_captureFifo;    // m_captureChannels interleaved
    boost::circular_buffer<int16_t> m_playbackFifo;   // m_playbackChannels interleaved
    std::vector<int16_t> m_captureChunk;              // one period, contiguous for the pipeline
    uint32_t m_pendingFrames;                         // captured frames short of a whole period
    int16_t* m_directOutput;                          // the card's buffer, when periods bypass the FIFOs
    uint32_t m_playbackLagFrames;

    // Written on the audio thread, read anywhere.
    std::atomic<uint64_t> m_framesCarried;
    std::atomic<uint64_t> m_framesLost;
    std::atomic<uint32_t> m_lastBufferFrames;
    std::atomic<int64_t> m_lastCallbackNs;       // steady clock; 0 before the stream's first buffer
    std::atomic<uint64_t> m_callbackCount;
    std::atomic<uint64_t> m_soundLayerErrors;    // errors the sound layer reported on the stream's thread
    uint64_t m_errorsSeen;                       // audio thread: m_soundLayerErrors at the last buffer
    uint32_t m_buffersWithErrors;                // audio thread: consecutive buffers followed by an error
    // Set by the audio thread or the supervisor when the stream is lost: from
    // then on the client is not called until the stream is reopened.
    std::atomic<bool> m_streamLost;
    std::atomic<uint64_t> m_recoveries;

    // The client's stream, kept for reopening it. Written by openStream
    // before the supervisor starts and by closeStream after it stopped.
    TAudio2StreamConfiguration m_configuration;
    std::atomic<bool> m_streamActive;   // a successful openStream not yet closed

    std::thread m_supervisor;
    std::mutex m_supervisorMutex;                 // guards m_supervisorStop
    std::condition_variable m_supervisorWake;
    bool m_supervisorStop;
};

// Registry: every device whose stream is open, by id. Writers prepare in
// upgrade ownership, which admits the audio callbacks' shared lookups, and
// upgrade to exclusive only for the insertion or erasure itself: a map
// rebalanced under a lookup is undefined behaviour.
extern std::map<unsigned, boost::shared_ptr<TAudio2UniversalDevice>> Devices;
extern boost::shared_mutex DevicesMutex;
extern unsigned DevicesIndexInc;

// Serialises every call into the sound layer that is not the stream's own
// callback (construction, device queries, open, start, stop, close) across
// all devices: its queries are not safe to run concurrently across its
// instances and hang when they do. Never taken on the audio thread and never
// held together with DevicesMutex or a device's m_mutex.
extern boost::mutex SoundLayerMutex;

// Errors the sound layer reported off any stream's thread (JACK refusing
// the buffers of a stream that never got one, say): a silent stream's
// supervisor takes them as its own.
extern std::atomic<uint64_t> UnattributedSoundLayerErrors;
// True on the threads that reopen lost streams (recovery.cpp).
extern thread_local bool ReopeningThread;

int rtAudioCallBack(void* outputBuffer, void* inputBuffer, unsigned nFrames, double streamTime, unsigned status,
                    void* userData);
void rtAudioError(RtAudioError::Type type, const std::string& errorText);

} // namespace tamrel
