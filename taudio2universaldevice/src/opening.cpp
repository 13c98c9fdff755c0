// Opening a stream: device choice, rate negotiation, buffer sizing,
// registration, then open, voice-processing set-up and start.
#include "taudio2universaldevice_p.h"

#include <shared/debugstream.h>

#include <boost/thread/lock_guard.hpp>
#include <boost/thread/locks.hpp>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>

namespace tamrel {
namespace {

const unsigned NO_DEVICE = 0xFFFFFFFF;

// The playback queue of a low-latency stream, in buffers. RtAudio asks
// PulseAudio for no queue length of its own unless given a number of
// buffers, and the server's default queue adds about 100 ms to each way of a
// call. Two buffers round-trip as fast as three; three leave a buffer of
// headroom for a busy machine.
const unsigned LOW_LATENCY_BUFFERS = 3;

// TAUDIO2_LATENCY, read at every open: the playback queue to ask of the
// server, 0 for the server's own choice. Only PulseAudio itself gains from
// a short queue; PipeWire's service keeps its own short one whatever it is
// asked, and JACK and ALSA have no such queue.
unsigned playbackQueueBuffers(RtAudio::Api api, bool pipeWire)
{
    const char* latency = std::getenv("TAUDIO2_LATENCY");
    if (!latency || std::strcmp(latency, "default") == 0)
        return 0;
    if (std::strcmp(latency, "low") != 0) {
        warning("audio2", false) << "TAUDIO2_LATENCY=" << latency << " is not a latency (default, low); using default";
        return 0;
    }
    if (api != RtAudio::LINUX_PULSE || pipeWire) {
        debug("audio2", 0, false) << "In universal device TAUDIO2_LATENCY=low leaves the queue to "
                                  << RtAudio::getApiDisplayName(api);
        return 0;
    }
    return LOW_LATENCY_BUFFERS;
}

bool lists(const std::vector<unsigned int>& rates, unsigned rate)
{
    return std::find(rates.begin(), rates.end(), rate) != rates.end();
}

// One look at the sound layer's devices per open: RtAudio's PulseAudio
// backend leaks on every query of its server, and asking for the count,
// each default and each device apart made five. Each record is read once;
// a device that cannot be read keeps its reason instead.
struct DeviceList {
    std::vector<RtAudio::DeviceInfo> infos;
    std::vector<std::string> failures;   // empty where the record was read

    explicit DeviceList(RtAudio& rtAudio)   // throws RtAudioError when there is no list
    {
        const unsigned count = rtAudio.getDeviceCount();
        infos.resize(count);
        failures.resize(count);
        for (unsigned i = 0; i < count; ++i) {
            try {
                infos[i] = rtAudio.getDeviceInfo(i);
            } catch (const RtAudioError& e) {
                failures[i] = e.getMessage();
            }
        }
    }

    // The device the sound layer marks as its default for the direction,
    // else the first: what RtAudio's own default queries answer.
    unsigned defaultDevice(bool output) const
    {
        for (unsigned i = 0; i < infos.size(); ++i)
            if (failures[i].empty() && (output ? infos[i].isDefaultOutput : infos[i].isDefaultInput))
                return i;
        return 0;
    }

    // The first probed device called `name` with channels in the wanted
    // direction; `fallback` when there is none. A device that cannot be read
    // ends the search: the default is better than failing the call.
    unsigned find(const std::string& name, bool output, unsigned fallback) const
    {
        for (unsigned i = 0; i < infos.size(); ++i) {
            if (!failures[i].empty())
                return fallback;
            const RtAudio::DeviceInfo& info = infos[i];
            const unsigned channels = output ? info.outputChannels : info.inputChannels;
            if (info.probed && (channels != 0 || info.duplexChannels != 0) && info.name == name)
                return i;
        }
        return fallback;
    }

    // The record of device `index`; throws RtAudioError with the sound
    // layer's reason when it could not be read.
    const RtAudio::DeviceInfo& at(unsigned index) const
    {
        if (index >= infos.size())
            throw RtAudioError("no device " + std::to_string(index), RtAudioError::INVALID_DEVICE);
        if (!failures[index].empty())
            throw RtAudioError(failures[index], RtAudioError::INVALID_DEVICE);
        return infos[index];
    }
};

void logSupportedRates(const char* what, const RtAudio::DeviceInfo& info)
{
    warning("audio2", false) << what << info.name;
    for (unsigned rate : info.sampleRates)
        warning("audio2", false) << rate;
}

// The sound layer only reports a second open through its error callback
// and carries on, and the buffers sized below would then change under the
// running stream's callback. Refused before the record is touched.
bool refuseSecondOpen(TAudio2UniversalDevice_p& p, std::string* error)
{
    {
        boost::lock_guard<boost::mutex> soundLayer(SoundLayerMutex);
        if (!p.m_streamActive && !p.m_rtAudio.isStreamOpen())
            return false;
    }
    const std::string text = "a stream is already open";
    debug("audio2", 0, false) << "TAudio2UniversalDevice::openStream() failed: " << text;
    if (error)
        *error = text;
    return true;
}

const int MAX_CLIENT_RATE = 384000;   // a 10 ms block of the canceller holds at most 3840 samples
const int MAX_PERIOD_MS = 199;        // from 200 ms on every buffer is dropped as a resync
const int MAX_CHANNELS = 1024;        // keeps every per-period buffer within 32-bit sizes

// Why a configuration could only crash, never reach the client or size
// absurd buffers; empty when it can be tried.
std::string refusal(const TAudio2StreamConfiguration& c)
{
    struct Bound {
        const char* field;
        int value, low, high;
        const char* rule;
    };
    const Bound bounds[] = {
        {"sampleRate", c.sampleRate, 1, MAX_CLIENT_RATE, "the client rate must be 1 to 384000 Hz"},
        {"periodMs", c.periodMs, 1, MAX_PERIOD_MS, "the period must be 1 to 199 ms"},
        {"playbackChannels", c.playbackChannels, 1, MAX_CHANNELS, "the client must play 1 to 1024 channels"},
        // 0 or less is a playback-only stream, not a fault.
        {"captureChannels", c.captureChannels, INT_MIN, MAX_CHANNELS,
         "capture takes at most 1024 channels (0 or less for none)"},
    };
    for (const Bound& b : bounds) {
        if (b.value < b.low || b.value > b.high)
            return std::string(b.field) + " " + std::to_string(b.value) + " is refused: " + b.rule;
    }
    return std::string();
}

} // namespace

int TAudio2UniversalDevice::openStream(const TAudio2StreamConfiguration& configuration,
                                       TAudio2FrameCallback callback,
                                       std::string* error)
{
    // Before anything is opened or registered: a refused configuration
    // leaves the device exactly as it was.
    const std::string refused = refusal(configuration);
    if (!refused.empty()) {
        warning("audio2", false) << refused;
        if (error)
            *error = refused;
        return -2;
    }

    TAudio2UniversalDevice_p& p = *d;
    debug("audio2", 0, false) << "In universal device openStream captureChannels=" << configuration.captureChannels
                              << " playbackChannels" << configuration.playbackChannels;
    if (refuseSecondOpen(p, error))
        return -4;

    std::string errorText;
    const int result = p.open(*this, configuration, callback, errorText);
    // No common rate and no devices are said in warnings of their own.
    if (result == -3 || result == -6)
        return result;
    if (result != 0)
        debug("audio2", 0, false) << "TAudio2UniversalDevice::openStream() failed: " << errorText;
    if (error)
        *error = errorText;
    return result;
}

int TAudio2UniversalDevice_p::open(TAudio2UniversalDevice& device, const TAudio2StreamConfiguration& configuration,
                                   const TAudio2FrameCallback& callback, std::string& errorText)
{
    int result = negotiate(configuration, errorText);
    if (result != 0)
        return result;
    const bool pipeWire = m_api == RtAudio::LINUX_PULSE && askPulseServer().pipeWire;
    const unsigned queueBuffers = playbackQueueBuffers(m_api, pipeWire);
    {
        boost::lock_guard<boost::mutex> lock(m_mutex);
        m_useVoicePreprocessor = device.m_hasVoicePreprocessor;
        m_playbackQueueBuffers = queueBuffers;
        m_shortRoundTrip = m_api == RtAudio::UNIX_JACK || pipeWire || queueBuffers > 0;
    }

    registerDevice(device);
    result = openSoundLayer(errorText);
    if (result == 0) {
        try {
            setupVoiceProcessing(configuration);
        } catch (const std::exception& e) {
            errorText = std::string("voice processing could not be set up: ") + e.what();
            result = -4;
        }
    }
    if (result == 0) {
        // In place before the first buffer: the audio thread never meets a
        // stream without its client.
        {
            boost::lock_guard<boost::mutex> lock(m_mutex);
            m_callback = callback;
        }
        try {
            startSoundLayer();
        } catch (const RtAudioError& e) {
            errorText = e.getMessage();
            result = -5;
        }
    }
    if (result != 0) {
        // The one way out of a failed open: nothing stays open or registered.
        closeSoundLayer();
        {
            boost::lock_guard<boost::mutex> lock(m_mutex);
            closeRecordings();
            m_callback = TAudio2FrameCallback();
        }
        unregisterDevice(m_id);
        return result;
    }
    m_configuration = configuration;
    m_streamActive = true;
    startSupervisor();
    return 0;
}

int TAudio2UniversalDevice_p::negotiate(const TAudio2StreamConfiguration& configuration, std::string& errorText)
{
    const bool withCapture = configuration.captureChannels >= 1;
    // Device choice and probes, up to the rate choice, as one turn at the
    // sound layer.
    boost::unique_lock<boost::mutex> soundLayer(SoundLayerMutex);
    std::unique_ptr<DeviceList> list;
    try {
        list.reset(new DeviceList(m_rtAudio));
    } catch (const RtAudioError& e) {
        errorText = e.getMessage();
        return -1;
    }
    // Device choice: the default, or the first device carrying the
    // configured name; no devices at all fail a configured name.
    const auto choose = [&list](const std::string& name, bool output, unsigned& index, const char* noDevices) {
        index = list->defaultDevice(output);
        if (name.empty())
            return true;
        if (list->infos.empty()) {
            warning("audio2", false) << noDevices;
            return false;
        }
        index = list->find(name, output, index);
        return true;
    };
    unsigned outputDevice = NO_DEVICE;
    unsigned inputDevice = NO_DEVICE;
    if (!choose(configuration.playbackDeviceName, true, outputDevice,
                "No playback devices found in audio universal device"))
        return -6;
    if (withCapture && !choose(configuration.captureDeviceName, false, inputDevice,
                               "No capture devices found in audio universal device"))
        return -6;

    // Playback probe. When the output cannot be queried at all it is assumed
    // to take 48000 Hz, so that the capture side alone decides.
    std::vector<unsigned int> outputRates;
    uint32_t playbackChannels = 0;
    try {
        const RtAudio::DeviceInfo& info = list->at(outputDevice);
        if (!info.probed) {
            warning("audio2", false) << "In universal device failed to probe output device: probed=" << info.probed
                                     << " name " << info.name;
        } else {
            debug("audio2", 0, false) << "In universal device checking output sample rate outputChannels="
                                      << info.outputChannels << " duplexChannels" << info.duplexChannels;
            outputRates = info.sampleRates;
            if (info.outputChannels != static_cast<unsigned>(configuration.playbackChannels))
                debug("audio2", 0, false) << "In universal device output channels mismatch: device="
                                          << info.outputChannels << " conf=" << configuration.playbackChannels;
        }
        playbackChannels = info.outputChannels;
    } catch (const RtAudioError& e) {
        playbackChannels = static_cast<uint32_t>(configuration.playbackChannels);
        warning("audio2", false) << "In universal device failed to get output device: " << e.getMessage();
        outputRates = {48000};
    }

    // Never open more playback channels than the client supplies.
    const uint32_t clientPlaybackChannels = static_cast<uint32_t>(configuration.playbackChannels);
    playbackChannels = std::min(playbackChannels, clientPlaybackChannels);

    std::vector<unsigned int> inputRates;
    if (withCapture) {
        try {
            const RtAudio::DeviceInfo& info = list->at(inputDevice);
            if (!info.probed) {
                warning("audio2", false) << "In universal device failed to probe input device: probed="
                                         << info.probed << " name " << info.name;
            } else {
                debug("audio2", 0, false) << "In universal device checking input sample rate inputChannels="
                                          << info.inputChannels << " duplexChannels" << info.duplexChannels;
                inputRates = info.sampleRates;
            }
        } catch (const RtAudioError& e) {
            playbackChannels = clientPlaybackChannels;
            warning("audio2", false) << "In universal device failed to get input device: " << e.getMessage();
        }
    }

    // 48000 first: what cards and desktop servers run natively, so the
    // signal reaches the device without a conversion in between. A server
    // fixed at another rate (JACK at 44100 Hz) still runs, converted: the
    // highest rate both sides take.
    const auto usable = [&](unsigned rate) { return lists(outputRates, rate) && (!withCapture || lists(inputRates, rate)); };
    unsigned deviceRate = 0;
    for (unsigned rate : {48000u, 16000u, 8000u})
        if (deviceRate == 0 && usable(rate))
            deviceRate = rate;
    if (deviceRate == 0)
        for (unsigned rate : outputRates)
            if (usable(rate))
                deviceRate = std::max(deviceRate, rate);
    if (deviceRate == 0) {
        warning("audio2", false) << "Unsupported rate in universal device driver";
        try {
            logSupportedRates("Supported rates for output device ", list->at(outputDevice));
            if (withCapture)
                logSupportedRates("Supported rates for input device ", list->at(inputDevice));
        } catch (const RtAudioError& e) {
            warning("audio2", false) << "In universal device failed to failed to list supported sample rates: "
                                     << e.getMessage();
        }
        return -3;
    }
    soundLayer.unlock();
    debug("audio2", 0, false) << "In universal device using sample rate " << deviceRate;

    // The record changes under the audio thread's lock: the supervisor
    // negotiates again while clients may read the stream's facts.
    boost::lock_guard<boost::mutex> lock(m_mutex);
    m_outputDevice = outputDevice;
    m_inputDevice = inputDevice;
    m_playbackChannels = playbackChannels;
    m_clientPlaybackChannels = clientPlaybackChannels;
    m_deviceSampleRate = deviceRate;

    // The hardware buffer never goes below the floor; the client's period
    // still decides the chunk the pipeline works in.
    const int period = std::max(static_cast<int>(m_minPeriodMs), configuration.periodMs);
    m_bufferFrames = m_deviceSampleRate * static_cast<uint32_t>(period) / 1000u;
    m_aecDelay = 3 * period;

    // A negative channel count means "no capture"; stored as 0 so that no
    // buffer or converter is sized from it.
    m_captureChannels = withCapture ? static_cast<uint32_t>(configuration.captureChannels) : 0u;
    m_sampleRate = static_cast<uint32_t>(configuration.sampleRate);
    m_periodMs = static_cast<uint32_t>(configuration.periodMs);
    m_deviceChunkFrames = m_periodMs * m_deviceSampleRate / 1000u;
    m_chunkFrames = m_sampleRate * m_periodMs / 1000u;

    // Every per-period buffer is sized here, once, so the callback never resizes.
    m_playbackBuffer.assign(static_cast<size_t>(m_chunkFrames) * m_clientPlaybackChannels, 0);
    m_playbackLeft.assign(m_chunkFrames, 0);
    m_resampledCapture.assign(static_cast<size_t>(m_chunkFrames) * m_captureChannels, 0);
    m_captureMono.assign(m_captureChannels > 1 ? m_chunkFrames : 0u, 0);
    m_resampledPlayback.assign(static_cast<size_t>(m_deviceChunkFrames) * m_playbackChannels, 0);
    m_resyncFrames = m_deviceSampleRate * 200u / 1000u;

    // The FIFOs hold what is short of a period plus the longest buffer the
    // pipeline takes (a longer one is a resynchronisation).
    const size_t carried = static_cast<size_t>(m_deviceChunkFrames) + m_resyncFrames;
    m_captureFifo.clear();
    m_captureFifo.set_capacity(carried * m_captureChannels);
    m_playbackFifo.clear();
    m_playbackFifo.set_capacity((carried + m_deviceChunkFrames) * m_playbackChannels);
    m_captureChunk.assign(static_cast<size_t>(m_deviceChunkFrames) * m_captureChannels, 0);
    m_pendingFrames = 0;
    m_playbackLagFrames = 0;
    m_buffersWithErrors = 0;
    m_errorsSeen = m_soundLayerErrors.load();
    return 0;
}

int TAudio2UniversalDevice_p::openSoundLayer(std::string& errorText)
{
    const bool withCapture = m_captureChannels != 0;
    RtAudio::StreamParameters outputParameters;
    outputParameters.deviceId = m_outputDevice;
    outputParameters.nChannels = m_playbackChannels;
    outputParameters.firstChannel = 0;
    RtAudio::StreamParameters inputParameters;
    RtAudio::StreamOptions options;
    options.flags = 0;
    options.numberOfBuffers = m_playbackQueueBuffers;
    options.priority = 0;
    if (withCapture) {
        inputParameters.deviceId = m_inputDevice;
        inputParameters.nChannels = m_captureChannels;
        inputParameters.firstChannel = 0;
        // Only a duplex stream asks for real-time scheduling.
        options.flags = RTAUDIO_SCHEDULE_REALTIME;
        options.priority = 2;
    }

    // RtAudio writes the buffer size it grants back; it is stored under the
    // lock that readers of the stream's facts take.
    unsigned bufferFrames = m_bufferFrames;
    // A short playback queue needs libpulse's threads as prompt as the
    // stream's own; the threads this open adds are the stream's.
    const bool raiseLibpulse = m_playbackQueueBuffers > 0 && (options.flags & RTAUDIO_SCHEDULE_REALTIME);
    try {
        debug("audio2", 0, false) << "In universal device before open stream";
        const boost::lock_guard<boost::mutex> openLock(SoundLayerMutex);
        const std::vector<pid_t> before = raiseLibpulse ? pulseClientThreads() : std::vector<pid_t>();
        m_rtAudio.openStream(&outputParameters, withCapture ? &inputParameters : nullptr, RTAUDIO_SINT16,
                             m_deviceSampleRate, &bufferFrames, &rtAudioCallBack, &m_id, &options, &rtAudioError);
        if (raiseLibpulse)
            debug("audio2", 0, false) << "In universal device " << raiseNewPulseClientThreads(before, options.priority)
                                      << " libpulse threads raised to real time";
        debug("audio2", 0, false) << "In universal device after open stream";
    } catch (const RtAudioError& e) {
        errorText = e.getMessage();
        return -4;
    }
    boost::lock_guard<boost::mutex> lock(m_mutex);
    m_bufferFrames = bufferFrames;
    return 0;
}

void TAudio2UniversalDevice_p::startSoundLayer()
{
    m_lastCallbackNs.store(0);
    debug("audio2", 0, false) << "In universal device before start stream";
    {
        const boost::lock_guard<boost::mutex> startLock(SoundLayerMutex);
        m_rtAudio.startStream();
    }
    debug("audio2", 0, false) << "In universal device after start stream";
}

} // namespace tamrel
