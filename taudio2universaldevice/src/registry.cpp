// The device object, its private record, the registry of open devices and
// the two plain functions the sound layer calls.
#include "taudio2universaldevice_p.h"

#include <shared/debugstream.h>
#include <taudio2base/taudio2deviceinfo.h>

#include <boost/thread/lock_guard.hpp>
#include <boost/thread/locks.hpp>

#include <exception>
#include <vector>

namespace tamrel {

// Construction order matters: at exit the streams still open are closed
// first (below), then Devices dies, then the locks.
boost::mutex SoundLayerMutex;
boost::shared_mutex DevicesMutex;
std::map<unsigned, boost::shared_ptr<TAudio2UniversalDevice>> Devices;
unsigned DevicesIndexInc = 0;

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

TAudio2UniversalDevice_p* newRecord()
{
    // The sound layer's constructor already queries the server.
    boost::lock_guard<boost::mutex> soundLayer(SoundLayerMutex);
    return new TAudio2UniversalDevice_p();
}

} // namespace

const unsigned TAudio2UniversalDevice::DEFAULT_SAMPLE_RATE = 16000;

TAudio2UniversalDevice_p::TAudio2UniversalDevice_p()
    : m_useVoicePreprocessor(true)
    , m_rtAudio(RtAudio::UNSPECIFIED)
    , m_deviceSampleRate(48000)
    , m_sampleRate(0)
    , m_bufferFrames(960)
    , m_id(0)
    , m_aecDelay(0)
    , m_captureChannels(1)
    , m_playbackChannels(1)
    , m_periodMs(20)
    , m_deviceChunkFrames(960)
    , m_chunkFrames(0)
    , m_apmFrameSamples(0)
    , m_speexEchoState(nullptr)
    , m_speexPreprocessState(nullptr)
    , m_echoTailMs(250)
    , m_apmFrameMs(10)
    , m_sampleCounter(0)
    , m_resyncFrames(0)
    , m_minPeriodMs(20)
    , m_captureFile(nullptr)
    , m_captureAecFile(nullptr)
    , m_playbackFile(nullptr)
    , m_captureFrameId(0)
    , m_captureTimestamp(0)
    , m_reverseFrameId(0)
    , m_reverseTimestamp(0)
    , m_clientPlaybackChannels(1)
{
}

TAudio2UniversalDevice::TAudio2UniversalDevice(unsigned sampleRate)
    : m_hasVoicePreprocessor(true)
    , d(newRecord())
{
    TAudio2UniversalDevice_p::removeRecordings();

    d->m_sampleRate = sampleRate;
    d->m_aecDelay = TAudio2DeviceInfo::UNIVERSAL_DEVICE_DELAY;
    d->m_chunkFrames = static_cast<uint32_t>(sampleRate * 20u / 1000u);

    {
        boost::upgrade_lock<boost::shared_mutex> lock(DevicesMutex);
        d->m_id = DevicesIndexInc++;
    }

    debug("audio2", 0, false) << "Using universal device";

    d->m_resyncFrames = d->m_deviceSampleRate * 200u / 1000u;
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

int rtAudioCallBack(void* outputBuffer, void* inputBuffer, unsigned nFrames, double streamTime, unsigned status,
                    void* userData)
{
    boost::shared_ptr<TAudio2UniversalDevice> device;
    {
        boost::shared_lock<boost::shared_mutex> lock(DevicesMutex);
        const auto it = Devices.find(*static_cast<const unsigned*>(userData));
        if (it != Devices.end())
            device = it->second;
    }
    if (!device) {
        debug("audio2", 0, false) << "rtAudioCallback device not found";
        return -1;
    }
    // Nothing may escape into the sound layer's thread: it would abort the
    // client. The first buffer can arrive before openStream() has stored
    // the frame callback; it is skipped and the stream runs on.
    try {
        return TAudio2UniversalDevice_p::of(*device).rtAudioCallback(outputBuffer, inputBuffer, nFrames, streamTime, status);
    } catch (const std::exception& e) {
        debug("audio2", 0, false) << "rtAudioCallback exception: " << e.what();
    } catch (...) {
        debug("audio2", 0, false) << "rtAudioCallback exception: " << "unknown";
    }
    return -1;
}

void rtAudioError(RtAudioError::Type /*type*/, const std::string& errorText)
{
    warning("audio2", false) << "Rt audio error: " << errorText;
}

} // namespace tamrel
