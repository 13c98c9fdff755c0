// Recovery: while a stream is open, a supervisor thread watches that the
// sound layer still delivers its buffers. When it stops for good (a JACK
// period that RtAudio cannot follow, a server that died or restarted, a
// device that vanished) the client is no longer called, and the stream is
// reopened with the same configuration and frame callback, with a bounded
// back-off, until the server is back or closeStream() ends it. The client
// sees a gap, never an error; the recordings go on in the same files.
#include "taudio2universaldevice_p.h"

#include <shared/debugstream.h>

#include <boost/thread/lock_guard.hpp>

#include <dlfcn.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>
#include <thread>

namespace tamrel {
namespace {

const auto POLL = std::chrono::milliseconds(50);
// A fresh server's first stream can stall for two seconds before its first
// buffer; after that, a stream is lost when silent for this many buffers.
const int64_t FIRST_BUFFER_WAIT_MS = 4000;
const int64_t SILENT_BUFFERS = 10;
const int64_t SILENT_MS_MIN = 500;
// Waits between attempts to reopen: short enough that a call resumes soon
// after the server is back, long enough not to hammer a dead one.
const int BACKOFF_MS[] = {100, 200, 400, 500};

int64_t nowMs()
{
    return steadyNowNs() / 1000000;
}

// PipeWire's JACK library tells a new client the configured quantum, then
// runs the graph at whatever its clients ask for, and RtAudio 5.2 refuses
// every buffer of another size: a stream reopened as it was would be
// refused again. Asking PipeWire to hold the quantum it told, while the
// stream runs, is the way through RtAudio. Only with PipeWire's libjack,
// and only when the user set no properties of their own; read by the
// library when the next JACK client opens.
void holdPipeWireQuantum(unsigned frames)
{
    void* open = dlsym(RTLD_DEFAULT, "jack_client_open");
    Dl_info library;
    if (!open || !dladdr(open, &library) || !library.dli_fname || !std::strstr(library.dli_fname, "pipewire") ||
        std::getenv("PIPEWIRE_PROPS"))
        return;
    const std::string props = "{ node.force-quantum = " + std::to_string(frames) + " }";
    setenv("PIPEWIRE_PROPS", props.c_str(), 0);
    warning("audio2", false) << "Universal device asks PipeWire to hold its quantum at " << frames
                             << " frames while the stream runs (PIPEWIRE_PROPS=" << props << ")";
}

} // namespace

void TAudio2UniversalDevice_p::startSupervisor()
{
    {
        std::lock_guard<std::mutex> lock(m_supervisorMutex);
        m_supervisorStop = false;
    }
    m_supervisor = std::thread([this] { supervise(); });
}

void TAudio2UniversalDevice_p::stopSupervisor()
{
    if (!m_supervisor.joinable())
        return;
    {
        std::lock_guard<std::mutex> lock(m_supervisorMutex);
        m_supervisorStop = true;
    }
    m_supervisorWake.notify_all();
    m_supervisor.join();
}

void TAudio2UniversalDevice_p::supervise()
{
    ReopeningThread = true;
    // False once closeStream() asks the supervisor to stop.
    const auto pause = [this](std::chrono::milliseconds duration) {
        std::unique_lock<std::mutex> lock(m_supervisorMutex);
        return !m_supervisorWake.wait_for(lock, duration, [this] { return m_supervisorStop; });
    };

    int64_t streamStartedMs = nowMs();
    uint64_t callbacksBefore = m_callbackCount.load();
    uint64_t strayErrorsBefore = UnattributedSoundLayerErrors.load();
    while (pause(POLL)) {
        const uint64_t callbacks = m_callbackCount.load();
        const uint64_t strayErrors = UnattributedSoundLayerErrors.load();
        const int64_t lastMs = m_lastCallbackNs.load() / 1000000;
        const int64_t bufferMs = m_deviceSampleRate ? int64_t(m_bufferFrames) * 1000 / m_deviceSampleRate : 20;
        const int64_t now = nowMs();

        const char* reason = nullptr;
        if (m_soundLayerStopped.exchange(false))
            reason = "the sound layer stopped the stream";
        else if (m_streamLost.load())
            reason = "the sound layer fails every buffer";
        else if (callbacks == callbacksBefore && strayErrors != strayErrorsBefore && now - streamStartedMs > 250)
            reason = "the sound layer refuses its buffers";
        else if (lastMs == 0 && now - streamStartedMs > FIRST_BUFFER_WAIT_MS)
            reason = "no buffer came";
        else if (lastMs != 0 && now - lastMs > std::max(SILENT_MS_MIN, SILENT_BUFFERS * bufferMs))
            reason = "buffers stopped coming";
        callbacksBefore = callbacks;
        strayErrorsBefore = strayErrors;
        if (!reason)
            continue;

        m_streamLost.store(true);
        warning("audio2", false) << "Universal device lost its stream (" << reason << "); reopening it";
        const int64_t lostMs = now;
        closeSoundLayer();
        if (m_api == RtAudio::UNIX_JACK)
            holdPipeWireQuantum(m_bufferFrames);
        std::string error;
        for (size_t attempt = 0; !reopen(error); ++attempt) {
            if (!pause(std::chrono::milliseconds(BACKOFF_MS[std::min(attempt, std::size(BACKOFF_MS) - 1)])))
                return;
        }
        m_recoveries.fetch_add(1);
        streamStartedMs = nowMs();
        callbacksBefore = m_callbackCount.load();
        strayErrorsBefore = UnattributedSoundLayerErrors.load();
        warning("audio2", false) << "Universal device reopened its stream after " << static_cast<unsigned long long>(streamStartedMs - lostMs)
                                 << " ms: " << RtAudio::getApiDisplayName(m_api) << ", " << m_deviceSampleRate
                                 << " Hz, " << m_bufferFrames << "-frame buffers";
    }
}

// One attempt, with what the stream was opened with. The canceller, the
// recordings and the frame callback stay; the card's rate and buffers are
// negotiated again, since a restarted server may offer others.
bool TAudio2UniversalDevice_p::reopen(std::string& errorText)
{
    // RtAudio prints its device queries' failures to stderr: a server that is
    // down would print them twice a second.
    m_rtAudio.showWarnings(false);
    struct WarningsBack {
        RtAudio& rtAudio;
        ~WarningsBack() { rtAudio.showWarnings(true); }
    } warningsBack{m_rtAudio};
    closeSoundLayer();
    if (m_api == RtAudio::LINUX_PULSE && !askPulseServer().hasDefaults)
        return false;
    {
        // A server that is down lists no devices: nothing to negotiate with.
        boost::lock_guard<boost::mutex> soundLayer(SoundLayerMutex);
        try {
            if (m_rtAudio.getDeviceCount() == 0)
                return false;
        } catch (const RtAudioError&) {
            return false;
        }
    }
    const int32_t toldDelayMs = m_aecDelay;
    const int negotiated = negotiate(m_configuration, errorText);
    {
        boost::lock_guard<boost::mutex> lock(m_mutex);
        m_aecDelay = toldDelayMs;
    }
    if (negotiated != 0 || openSoundLayer(errorText) != 0)
        return false;
    try {
        setupConverters();
        m_lastCallbackNs.store(0);
        m_streamLost.store(false);
        startSoundLayer();
    } catch (const std::exception& e) {
        errorText = e.what();
        m_streamLost.store(true);
        closeSoundLayer();
        return false;
    }
    return true;
}

} // namespace tamrel
