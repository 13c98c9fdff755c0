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

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace webrtc {
class AudioProcessing;
}

namespace tamrel {

class TAudio2UniversalDevice_p : public boost::enable_shared_from_this<TAudio2UniversalDevice_p> {
public:
    TAudio2UniversalDevice_p();

    static TAudio2UniversalDevice_p& of(TAudio2UniversalDevice& device) { return *device.d; }
    // For tests: the device's voice-preprocessor flag, which nothing in the library clears.
    static bool& voicePreprocessorFlag(TAudio2UniversalDevice& device) { return device.m_hasVoicePreprocessor; }

    // Enter or remove a device in the registry below.
    static void registerDevice(TAudio2UniversalDevice& device);
    static void unregisterDevice(unsigned id);

    // One hardware buffer through the duplex pipeline (pipeline.cpp).
    int rtAudioCallback(void* outputBuffer, void* inputBuffer, unsigned nFrames, double streamTime, unsigned status);

    // Steps of openStream() that live beside their own concern.
    void setupVoiceProcessing(const TAudio2StreamConfiguration& configuration);   // voiceprocessing.cpp
    void openRecordings();                                                        // recording.cpp
    void closeRecordings();                                                       // recording.cpp
    static void removeRecordings();                                               // recording.cpp

    boost::function<bool(const char*, int, char*, int, int)> m_callback;
    boost::weak_ptr<TAudio2Device> m_device;
    bool m_useVoicePreprocessor;
    RtAudio m_rtAudio;
    uint32_t m_deviceSampleRate;
    uint32_t m_sampleRate;
    unsigned int m_bufferFrames;   // RtAudio writes the granted size back through its address
    unsigned int m_id;             // its address is the sound layer's user pointer
    boost::shared_ptr<Resampler> m_captureResampler;
    boost::shared_ptr<Resampler> m_playbackResampler;
    boost::mutex m_mutex;
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

int rtAudioCallBack(void* outputBuffer, void* inputBuffer, unsigned nFrames, double streamTime, unsigned status,
                    void* userData);
void rtAudioError(RtAudioError::Type type, const std::string& errorText);

} // namespace tamrel
