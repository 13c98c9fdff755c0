// Private record of TAudio2UniversalDevice and the process-wide registry
// through which the sound layer's plain-function callback finds a device.
#pragma once

#include "resampler.h"

#include <taudio2universaldevice/taudio2universaldevice.h>

#include <rtaudio/RtAudio.h>
#include <sndfile.h>

#include <boost/circular_buffer.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/thread/shared_mutex.hpp>

#include <sys/types.h>

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

// What a PulseAudio server (or PipeWire's PulseAudio service) says of
// itself (soundserver.cpp); all false when none answers within a second.
struct PulseServerInfo {
    bool answered = false;   // the server told anything at all
    // RtAudio 5.2 lists a server's devices by copying the default names
    // without looking, and crashes on a server that has none yet, as a
    // restarted one has until its devices are loaded.
    bool hasDefaults = false;
    bool pipeWire = false;   // PipeWire's service, not PulseAudio itself
};
PulseServerInfo askPulseServer();
// libpulse's own threads in this process ("threaded-ml"): RtAudio's
// PulseAudio streams send and receive through one each, at the default
// priority even when the stream's own thread runs in real time. A short
// playback queue runs dry when they are starved, so they are raised to the
// stream thread's priority; 0 raised where the system refuses real time.
std::vector<pid_t> pulseClientThreads();
int raiseNewPulseClientThreads(const std::vector<pid_t>& before, int priority);

// Threads: the client's thread opens and closes; the sound layer's
// real-time thread runs rtAudioCallback(); the supervisor (recovery.cpp)
// reopens a lost stream. Each group of members below says who writes it and
// under which lock. Samples are 16-bit, interleaved where a group says so.
class TAudio2UniversalDevice_p {
public:
    explicit TAudio2UniversalDevice_p(RtAudio::Api api);
    ~TAudio2UniversalDevice_p();

    static TAudio2UniversalDevice_p& of(TAudio2UniversalDevice& device) { return *device.d; }
    // For tests: the device's voice-processing flag, which nothing in the library clears.
    static bool& voicePreprocessorFlag(TAudio2UniversalDevice& device) { return device.m_hasVoicePreprocessor; }

    // Enter or remove a device in the registry below.
    static void registerDevice(TAudio2UniversalDevice& device);
    static void unregisterDevice(unsigned id);

    // One hardware buffer through the duplex pipeline (pipeline.cpp).
    int rtAudioCallback(void* outputBuffer, void* inputBuffer, unsigned nFrames, double streamTime, unsigned status);

    // openStream() after its checks (opening.cpp): negotiates, registers,
    // opens, builds the voice chain and starts; on failure closes what it
    // opened and unregisters. 0 or the code openStream() returns.
    int open(TAudio2UniversalDevice& device, const TAudio2StreamConfiguration& configuration,
             const TAudio2FrameCallback& callback, std::string& errorText);
    // Device choice, probes, rate choice and buffer sizing (opening.cpp).
    int negotiate(const TAudio2StreamConfiguration& configuration, std::string& errorText);
    int openSoundLayer(std::string& errorText);   // opening.cpp, 0 or -4
    void startSoundLayer();                       // opening.cpp; throws RtAudioError
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
    const int16_t* processCapture(const int16_t* captured, int& captureBytes);
    void analyseFarEnd(const int16_t* played);
    void emitPlayback(const int16_t* samples);

    // Fixed at construction.
    RtAudio m_rtAudio;               // every call but the stream's own callback under SoundLayerMutex
    const RtAudio::Api m_api;        // the sound layer m_rtAudio was made for
    unsigned int m_id;               // registry key; its address is the sound layer's user pointer
    const uint32_t m_minPeriodMs;    // 20: hardware buffers are never shorter
    const uint32_t m_apmFrameMs;     // 10: the canceller's block

    // Taken by the audio thread for every buffer; the negotiated facts, the
    // voice chain and the per-period buffers below are written under it.
    mutable boost::mutex m_mutex;

    // The stream's negotiated facts. negotiate() works them out in locals
    // and writes them together under m_mutex (open, or the supervisor's
    // reopen); the audio thread and streamInfo() read them under m_mutex.
    uint32_t m_sampleRate;               // the client's rate, Hz
    uint32_t m_deviceSampleRate;         // the card's rate, Hz
    uint32_t m_periodMs;                 // the client's period
    uint32_t m_chunkFrames;              // frames per period at m_sampleRate
    uint32_t m_deviceChunkFrames;        // frames per period at m_deviceSampleRate
    unsigned int m_bufferFrames;         // card frames per buffer: asked, then what the sound layer granted
    uint32_t m_resyncFrames;             // card frames: a buffer this long is a stall, dropped whole (200 ms)
    uint32_t m_captureChannels;          // opened on the card and handed on unprocessed; 0: no capture
    uint32_t m_playbackChannels;         // opened on the card: the client's count, at most the card's
    uint32_t m_clientPlaybackChannels;   // the client writes this many
    int32_t m_aecDelay;                  // ms, the echo delay the canceller is told
    unsigned m_playbackQueueBuffers;     // playback queue asked of the server; 0: the server's choice
    bool m_shortRoundTrip;               // JACK, PipeWire or PulseAudio's short queue: robust mode is told less
    unsigned m_outputDevice;             // the sound layer's device indexes
    unsigned m_inputDevice;

    // The voice chain, built by openStream() before the stream starts; used
    // by the audio thread under m_mutex. The converters are rebuilt on a
    // reopen (the card's rate may change); the canceller and files are kept.
    bool m_useVoicePreprocessor;         // the device's flag, copied at open
    bool m_robustEchoCancellation;
    boost::shared_ptr<webrtc::AudioProcessing> m_apm;
    uint32_t m_apmFrameSamples;          // samples per 10 ms block at m_sampleRate
    uint32_t m_captureFrameId;           // blocks handed to the canceller, each way
    uint32_t m_captureTimestamp;
    uint32_t m_reverseFrameId;
    uint32_t m_reverseTimestamp;
    boost::shared_ptr<Resampler> m_captureResampler;    // card to client, m_captureChannels
    boost::shared_ptr<Resampler> m_playbackResampler;   // client to card, m_playbackChannels
    SNDFILE* m_captureFile;              // raw capture (first channel), processed capture and the
    SNDFILE* m_captureAecFile;           // playback's left channel: mono at m_sampleRate, one
    SNDFILE* m_playbackFile;             // period per period

    // Per-period buffers, sized while no callback runs, used by the audio
    // thread under m_mutex; the callback never resizes them.
    std::vector<int16_t> m_resampledCapture;    // capture at m_sampleRate, m_captureChannels interleaved
    std::vector<int16_t> m_captureMono;         // its first channel, when there are more (canceller input)
    std::vector<int16_t> m_processedCapture;    // the canceller's output: mono at m_sampleRate
    std::vector<int16_t> m_playbackBuffer;      // the client's playback: m_clientPlaybackChannels at m_sampleRate
    std::vector<int16_t> m_playbackLeft;        // its left channel, for a stereo client on a mono card
    std::vector<int16_t> m_reverseMono;         // one 10 ms block of a stereo far end summed to mono
    std::vector<int16_t> m_resampledPlayback;   // playback at m_deviceSampleRate, m_playbackChannels interleaved

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

    // The client's callback: stored under m_mutex before the stream starts,
    // cleared under it by closeStream().
    TAudio2FrameCallback m_callback;

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
    std::atomic<bool> m_soundLayerStopped;   // an error worse than a warning: RtAudio aborted the stream
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
