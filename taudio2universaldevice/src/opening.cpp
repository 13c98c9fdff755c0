// Opening a stream: device choice, rate negotiation, buffer sizing,
// registration, then open, voice-processing set-up and start.
#include "taudio2universaldevice_p.h"

#include <shared/debugstream.h>

#include <boost/thread/lock_guard.hpp>
#include <boost/thread/locks.hpp>

#include <algorithm>
#include <climits>
#include <exception>

namespace tamrel {
namespace {

const unsigned NO_DEVICE = 0xFFFFFFFF;

struct RateSupport {
    bool r48000 = false;
    bool r16000 = false;
    bool r8000 = false;

    static RateSupport of(const std::vector<unsigned int>& rates)
    {
        const auto has = [&rates](unsigned rate) { return std::find(rates.begin(), rates.end(), rate) != rates.end(); };
        return RateSupport{has(48000), has(16000), has(8000)};
    }
};

// Index of the first probed device called `name` with channels in the wanted
// direction; `fallback` when there is none. A device that cannot be queried
// ends the search: the default is better than failing the call.
unsigned findDevice(RtAudio& rtAudio, unsigned count, const std::string& name, bool output, unsigned fallback)
{
    try {
        for (unsigned i = 0; i < count; ++i) {
            const RtAudio::DeviceInfo info = rtAudio.getDeviceInfo(i);
            const unsigned channels = output ? info.outputChannels : info.inputChannels;
            if (info.probed && (channels != 0 || info.duplexChannels != 0) && info.name == name)
                return i;
        }
    } catch (...) {
    }
    return fallback;
}

void logSupportedRates(const char* what, const RtAudio::DeviceInfo& info)
{
    warning("audio2", false) << what << info.name;
    for (unsigned rate : info.sampleRates)
        warning("audio2", false) << rate;
}

// The sound layer only reports a second open through its error callback
// and carries on, and the buffers sized below would then change under the
// running stream's callback. Refused before the record is touched.
bool refuseSecondOpen(RtAudio& rtAudio, std::string* error)
{
    {
        boost::lock_guard<boost::mutex> soundLayer(SoundLayerMutex);
        if (!rtAudio.isStreamOpen())
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
    RtAudio& rtAudio = p.m_rtAudio;
    const bool withCapture = configuration.captureChannels >= 1;

    debug("audio2", 0, false) << "In universal device openStream captureChannels=" << configuration.captureChannels
                              << " playbackChannels" << configuration.playbackChannels;

    if (refuseSecondOpen(rtAudio, error))
        return -4;

    RtAudio::StreamParameters outputParameters;
    RtAudio::StreamParameters inputParameters;
    unsigned outputDevice = NO_DEVICE;
    unsigned inputDevice = NO_DEVICE;
    std::string errorText;
    int result = 0;

    // Device choice: the default, or the first device carrying the configured
    // name. False when a name is configured but there are no devices at all.
    const auto choose = [&rtAudio](const std::string& name, bool output, unsigned& index, const char* noDevices) {
        index = output ? rtAudio.getDefaultOutputDevice() : rtAudio.getDefaultInputDevice();
        if (name.empty())
            return true;
        const unsigned count = rtAudio.getDeviceCount();
        if (count == 0) {
            warning("audio2", false) << noDevices;
            return false;
        }
        index = findDevice(rtAudio, count, name, output, index);
        return true;
    };
    // Device choice and probes, up to the rate choice, as one turn at the
    // sound layer.
    boost::unique_lock<boost::mutex> soundLayer(SoundLayerMutex);
    // A failed query is reported only after the negotiation below has run
    // and written the record.
    try {
        if (!choose(configuration.playbackDeviceName, true, outputDevice,
                    "No playback devices found in audio universal device"))
            return -6;
        if (withCapture && !choose(configuration.captureDeviceName, false, inputDevice,
                                   "No capture devices found in audio universal device"))
            return -6;
    } catch (const RtAudioError& e) {
        errorText = e.getMessage();
        result = -1;
    }

    // Playback probe. When the output cannot be queried at all it is assumed
    // to take 48000 Hz, so that the capture side alone decides.
    RateSupport outputRates;
    try {
        const RtAudio::DeviceInfo info = rtAudio.getDeviceInfo(outputDevice);
        if (!info.probed) {
            warning("audio2", false) << "In universal device failed to probe output device: probed=" << info.probed
                                     << " name " << info.name;
        } else {
            debug("audio2", 0, false) << "In universal device checking output sample rate outputChannels="
                                      << info.outputChannels << " duplexChannels" << info.duplexChannels;
            outputRates = RateSupport::of(info.sampleRates);
            if (info.outputChannels != static_cast<unsigned>(configuration.playbackChannels))
                debug("audio2", 0, false) << "In universal device output channels mismatch: device="
                                          << info.outputChannels << " conf=" << configuration.playbackChannels;
        }
        p.m_playbackChannels = info.outputChannels;
    } catch (const RtAudioError& e) {
        p.m_playbackChannels = static_cast<uint32_t>(configuration.playbackChannels);
        warning("audio2", false) << "In universal device failed to get output device: " << e.getMessage();
        outputRates = RateSupport{true, false, false};
    }

    // Never open more playback channels than the client supplies.
    p.m_clientPlaybackChannels = static_cast<uint32_t>(configuration.playbackChannels);
    if (p.m_playbackChannels > static_cast<uint32_t>(configuration.playbackChannels))
        p.m_playbackChannels = static_cast<uint32_t>(configuration.playbackChannels);

    RateSupport inputRates;
    if (withCapture) {
        try {
            const RtAudio::DeviceInfo info = rtAudio.getDeviceInfo(inputDevice);
            if (!info.probed) {
                warning("audio2", false) << "In universal device failed to probe input device: probed="
                                         << info.probed << " name " << info.name;
            } else {
                debug("audio2", 0, false) << "In universal device checking input sample rate inputChannels="
                                          << info.inputChannels << " duplexChannels" << info.duplexChannels;
                inputRates = RateSupport::of(info.sampleRates);
            }
        } catch (const RtAudioError& e) {
            p.m_playbackChannels = static_cast<uint32_t>(configuration.playbackChannels);
            warning("audio2", false) << "In universal device failed to get input device: " << e.getMessage();
        }
    }

    // 48000 first: what cards and desktop servers run natively, so the
    // signal reaches the device without a conversion in between.
    const auto usable = [&](bool outputFlag, bool inputFlag) { return outputFlag && (!withCapture || inputFlag); };
    unsigned deviceRate = 0;
    if (usable(outputRates.r48000, inputRates.r48000))
        deviceRate = 48000;
    else if (usable(outputRates.r16000, inputRates.r16000))
        deviceRate = 16000;
    else if (usable(outputRates.r8000, inputRates.r8000))
        deviceRate = 8000;
    if (deviceRate == 0) {
        warning("audio2", false) << "Unsupported rate in universal device driver";
        try {
            logSupportedRates("Supported rates for output device ", rtAudio.getDeviceInfo(outputDevice));
            if (withCapture)
                logSupportedRates("Supported rates for input device ", rtAudio.getDeviceInfo(inputDevice));
        } catch (const RtAudioError& e) {
            warning("audio2", false) << "In universal device failed to failed to list supported sample rates: "
                                     << e.getMessage();
        }
        return -3;
    }
    soundLayer.unlock();
    p.m_deviceSampleRate = deviceRate;
    debug("audio2", 0, false) << "In universal device using sample rate " << p.m_deviceSampleRate;

    // The hardware buffer never goes below the floor; the client's period
    // still decides the chunk the pipeline works in.
    const int period = std::max(static_cast<int>(p.m_minPeriodMs), configuration.periodMs);
    p.m_bufferFrames = p.m_deviceSampleRate * static_cast<uint32_t>(period) / 1000u;
    p.m_aecDelay = 3 * period;
    p.m_useVoicePreprocessor = m_hasVoicePreprocessor;
    p.m_device = shared_from_this();

    // A negative channel count means "no capture"; stored as 0 so that no
    // buffer or converter is sized from it.
    p.m_captureChannels = withCapture ? static_cast<uint32_t>(configuration.captureChannels) : 0u;
    p.m_sampleRate = static_cast<uint32_t>(configuration.sampleRate);
    p.m_periodMs = static_cast<uint32_t>(configuration.periodMs);
    p.m_deviceChunkFrames = p.m_periodMs * p.m_deviceSampleRate / 1000u;
    p.m_chunkFrames = p.m_sampleRate * p.m_periodMs / 1000u;

    // Every per-period buffer is sized here, once, so the callback never resizes.
    p.m_playbackBuffer.resize(p.m_chunkFrames * p.m_clientPlaybackChannels * 2u);
    p.m_playbackLeft.resize(p.m_chunkFrames * p.m_playbackChannels * 2u);
    p.m_resampledCapture.resize(p.m_chunkFrames * p.m_captureChannels * 2u);
    p.m_resampledPlayback.resize(p.m_deviceChunkFrames * p.m_clientPlaybackChannels * 2u);
    for (std::vector<char>* buffer : {&p.m_resampledCapture, &p.m_resampledPlayback, &p.m_playbackBuffer, &p.m_playbackLeft})
        std::fill(buffer->begin(), buffer->end(), 0);
    p.m_resyncFrames = p.m_deviceSampleRate * 200u / 1000u;

    if (result == 0) {
        outputParameters.deviceId = outputDevice;
        outputParameters.nChannels = p.m_playbackChannels;
        outputParameters.firstChannel = 0;
        RtAudio::StreamOptions options;
        options.flags = 0;
        options.numberOfBuffers = 0;
        options.priority = 0;
        if (withCapture) {
            inputParameters.deviceId = inputDevice;
            inputParameters.nChannels = static_cast<unsigned>(configuration.captureChannels);
            inputParameters.firstChannel = 0;
            // Only a duplex stream asks for real-time scheduling.
            options.flags = RTAUDIO_SCHEDULE_REALTIME;
            options.priority = 2;
        }

        TAudio2UniversalDevice_p::registerDevice(*this);

        try {
            debug("audio2", 0, false) << "In universal device before open stream";
            const boost::lock_guard<boost::mutex> openLock(SoundLayerMutex);
            rtAudio.openStream(&outputParameters, withCapture ? &inputParameters : nullptr, RTAUDIO_SINT16,
                               p.m_deviceSampleRate, &p.m_bufferFrames, &rtAudioCallBack, &p.m_id, &options,
                               &rtAudioError);
            debug("audio2", 0, false) << "In universal device after open stream";
        } catch (const RtAudioError& e) {
            errorText = e.getMessage();
            result = -4;
        }

        // Whatever fails while the chain is built must not leave an open,
        // registered stream behind an exception the client never expected.
        if (result == 0) {
            try {
                p.setupVoiceProcessing(configuration);
            } catch (const std::exception& e) {
                errorText = std::string("voice processing could not be set up: ") + e.what();
                result = -4;
                closeStream();
            }
        }

        if (result == 0) {
            try {
                debug("audio2", 0, false) << "In universal device before start stream";
                {
                    const boost::lock_guard<boost::mutex> startLock(SoundLayerMutex);
                    rtAudio.startStream();
                }
                debug("audio2", 0, false) << "In universal device after start stream";
                // Stored after the start: buffers that come earlier are
                // skipped. The lock keeps the audio thread from reading a
                // half-written function.
                boost::lock_guard<boost::mutex> lock(p.m_mutex);
                p.m_callback = callback;
            } catch (const RtAudioError& e) {
                errorText = e.getMessage();
                result = -5;
                closeStream();
            }
        }
    }

    if (result != 0)
        debug("audio2", 0, false) << "TAudio2UniversalDevice::openStream() failed: " << errorText;
    if (error)
        *error = errorText;
    return result;
}

} // namespace tamrel
