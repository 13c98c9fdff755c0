// The device object, its private record, the registry of open devices and
// the two plain functions the sound layer calls.
#include "taudio2universaldevice_p.h"

#include <shared/debugstream.h>
#include <taudio2base/taudio2deviceinfo.h>

#include <boost/thread/lock_guard.hpp>
#include <boost/thread/locks.hpp>

#include <cxxabi.h>

#include <cstdlib>
#include <cstring>
#include <exception>
#include <vector>

namespace tamrel {

// Construction order matters: at exit the streams still open are closed
// first (below), then Devices dies, then the locks.
boost::mutex SoundLayerMutex;
boost::shared_mutex DevicesMutex;
std::map<unsigned, boost::shared_ptr<TAudio2UniversalDevice>> Devices;
unsigned DevicesIndexInc = 0;
std::atomic<uint64_t> UnattributedSoundLayerErrors{0};
thread_local bool ReopeningThread = false;

namespace {

// Destroyed before Devices. Left to the map's destructor, an open device
// would die while its audio thread looks the map up (a use after free), or
// on that very thread if it held the last reference. Closing each stream
// first stops its audio thread; the devices then die here.
struct StreamsClosedAtExit {
    ~StreamsClosedAtExit()
    {
        std::vector<boost::shared_ptr<TAudio2UniversalDevice>> open;
        {
            boost::shared_lock<boost::shared_mutex> lock(DevicesMutex);
            for (const auto& entry : Devices)
                if (entry.second)
                    open.push_back(entry.second);
        }
        for (const auto& device : open)
            device->closeStream();
    }
} streamsClosedAtExit;

// TAUDIO2_API, read when a device is made: RtAudio's own choice takes the
// first layer with a device (JACK whenever a JACK server answers, as
// PipeWire's JACK library always does), which is not always the one wanted.
RtAudio::Api soundLayerFromEnvironment()
{
    const char* name = std::getenv("TAUDIO2_API");
    if (!name)
        return RtAudio::UNSPECIFIED;
    const struct {
        const char* name;
        RtAudio::Api api;
    } layers[] = {{"jack", RtAudio::UNIX_JACK}, {"pulseaudio", RtAudio::LINUX_PULSE}, {"alsa", RtAudio::LINUX_ALSA}};
    for (const auto& layer : layers)
        if (std::strcmp(name, layer.name) == 0)
            return layer.api;
    warning("audio2", false) << "TAUDIO2_API=" << name
                             << " is not a sound layer (jack, pulseaudio, alsa); using the default";
    return RtAudio::UNSPECIFIED;
}

TAudio2UniversalDevice_p* newRecord()
{
    const RtAudio::Api api = soundLayerFromEnvironment();
    // The sound layer's constructor already queries the server.
    boost::lock_guard<boost::mutex> soundLayer(SoundLayerMutex);
    return new TAudio2UniversalDevice_p(api);
}

// The stream whose buffers this thread delivers: RtAudio's error callback
// carries no user data, but reports a stream's failures on its own thread.
const unsigned NO_STREAM = 0xFFFFFFFF;
thread_local unsigned CurrentStreamId = NO_STREAM;

boost::shared_ptr<TAudio2UniversalDevice> lookUp(unsigned id)
{
    boost::shared_lock<boost::shared_mutex> lock(DevicesMutex);
    const auto it = Devices.find(id);
    return it == Devices.end() ? boost::shared_ptr<TAudio2UniversalDevice>() : it->second;
}

} // namespace

const unsigned TAudio2UniversalDevice::DEFAULT_SAMPLE_RATE = 16000;

TAudio2UniversalDevice_p::TAudio2UniversalDevice_p(RtAudio::Api api)
    : m_rtAudio(api)
    , m_api(m_rtAudio.getCurrentApi())
    , m_id(0)
    , m_minPeriodMs(20)
    , m_apmFrameMs(10)
    , m_sampleRate(0)
    , m_deviceSampleRate(48000)
    , m_periodMs(20)
    , m_chunkFrames(0)
    , m_deviceChunkFrames(960)
    , m_bufferFrames(960)
    , m_resyncFrames(9600)
    , m_captureChannels(1)
    , m_playbackChannels(1)
    , m_clientPlaybackChannels(1)
    , m_aecDelay(TAudio2DeviceInfo::UNIVERSAL_DEVICE_DELAY)
    , m_playbackQueueBuffers(0)
    , m_shortRoundTrip(false)
    , m_outputDevice(0)
    , m_inputDevice(0)
    , m_useVoicePreprocessor(true)
    , m_robustEchoCancellation(false)
    , m_apmFrameSamples(0)
    , m_captureFrameId(0)
    , m_captureTimestamp(0)
    , m_reverseFrameId(0)
    , m_reverseTimestamp(0)
    , m_captureFile(nullptr)
    , m_captureAecFile(nullptr)
    , m_playbackFile(nullptr)
    , m_pendingFrames(0)
    , m_directOutput(nullptr)
    , m_playbackLagFrames(0)
    , m_framesCarried(0)
    , m_framesLost(0)
    , m_lastBufferFrames(0)
    , m_lastCallbackNs(0)
    , m_callbackCount(0)
    , m_soundLayerErrors(0)
    , m_errorsSeen(0)
    , m_buffersWithErrors(0)
    , m_streamLost(false)
    , m_soundLayerStopped(false)
    , m_recoveries(0)
    , m_streamActive(false)
    , m_supervisorStop(false)
{
}

// closeStream() has stopped the supervisor of any stream; this is for a
// record that dies with one still running (it never should).
TAudio2UniversalDevice_p::~TAudio2UniversalDevice_p()
{
    stopSupervisor();
}

TAudio2UniversalDevice::TAudio2UniversalDevice(unsigned sampleRate)
    : m_hasVoicePreprocessor(true)
    , d(newRecord())
{
    TAudio2UniversalDevice_p::removeRecordings();

    d->m_sampleRate = sampleRate;
    d->m_chunkFrames = static_cast<uint32_t>(sampleRate * 20u / 1000u);
    {
        boost::upgrade_lock<boost::shared_mutex> lock(DevicesMutex);
        d->m_id = DevicesIndexInc++;
    }
    debug("audio2", 0, false) << "Using universal device";
}

// Releases the record only; an open stream keeps the device registered, so
// the destructor never runs while the stream is open.
TAudio2UniversalDevice::~TAudio2UniversalDevice() = default;

bool TAudio2UniversalDevice::hasVoicePreprocessor() const
{
    return m_hasVoicePreprocessor;
}

void TAudio2UniversalDevice::reset()
{
}

void TAudio2UniversalDevice_p::registerDevice(TAudio2UniversalDevice& device)
{
    // After the swap it holds the entry replaced, released after the lock.
    auto entry = boost::dynamic_pointer_cast<TAudio2UniversalDevice>(device.shared_from_this());
    boost::upgrade_lock<boost::shared_mutex> lock(DevicesMutex);
    boost::upgrade_to_unique_lock<boost::shared_mutex> change(lock);
    Devices[of(device).m_id].swap(entry);
}

void TAudio2UniversalDevice_p::unregisterDevice(unsigned id)
{
    // Declared before the lock so that it dies after it: it may hold the
    // last reference, and a device dying under the lock would hold off
    // every other device's callbacks meanwhile.
    boost::shared_ptr<TAudio2UniversalDevice> released;
    boost::upgrade_lock<boost::shared_mutex> lock(DevicesMutex);
    const auto it = Devices.find(id);
    if (it == Devices.end())
        return;
    boost::upgrade_to_unique_lock<boost::shared_mutex> change(lock);
    released.swap(it->second);
    Devices.erase(it);
}

// A forced unwind carries no exception object: binding the catch's reference
// to it is what the ABI prescribes, and not the null reference UBSan sees.
__attribute__((no_sanitize("null"))) int rtAudioCallBack(void* outputBuffer, void* inputBuffer, unsigned nFrames,
                                                         double streamTime, unsigned status, void* userData)
{
    const unsigned id = *static_cast<const unsigned*>(userData);
    const boost::shared_ptr<TAudio2UniversalDevice> device = lookUp(id);
    CurrentStreamId = id;
    if (!device) {
        debug("audio2", 0, false) << "rtAudioCallback device not found";
        return -1;
    }
    // Nothing may escape into the sound layer's thread: it would abort the
    // client (a throwing frame callback, say); the stream runs on.
    try {
        return TAudio2UniversalDevice_p::of(*device).rtAudioCallback(outputBuffer, inputBuffer, nFrames, streamTime, status);
    } catch (const abi::__forced_unwind&) {
        // The sound layer cancelled its thread (pthread_cancel, pthread_exit):
        // swallowing the unwinding would abort the process.
        throw;
    } catch (const std::exception& e) {
        debug("audio2", 0, false) << "rtAudioCallback exception: " << e.what();
    } catch (...) {
        debug("audio2", 0, false) << "rtAudioCallback exception: " << "unknown";
    }
    return -1;
}

void rtAudioError(RtAudioError::Type type, const std::string& errorText)
{
    // On a stream's own thread the error is that stream's: a dead server
    // fails every read and write there, and recovery needs to know.
    const auto device = CurrentStreamId != NO_STREAM ? lookUp(CurrentStreamId) : nullptr;
    TAudio2UniversalDevice_p* p = device ? &TAudio2UniversalDevice_p::of(*device) : nullptr;
    // Once a stream is known lost, and while it is reopened, the sound
    // layer's complaints are expected: the two recovery warnings say what a
    // user needs, and the rest is there at level 0, as are its debug notes.
    const bool expected = ReopeningThread || (p && p->m_streamLost.load());
    if (expected || type == RtAudioError::DEBUG_WARNING)
        debug("audio2", 0, false) << "Rt audio error: " << errorText;
    else
        warning("audio2", false) << "Rt audio error: " << errorText;
    if (type == RtAudioError::DEBUG_WARNING)
        return;
    if (!p) {
        UnattributedSoundLayerErrors.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    p->soundLayerFailed();
    // A warning is one failed read or write; on anything worse RtAudio has
    // already aborted the stream itself, and it is lost at once.
    if (type != RtAudioError::WARNING) {
        p->m_soundLayerStopped.store(true);
        p->m_streamLost.store(true);
    }
}

} // namespace tamrel
