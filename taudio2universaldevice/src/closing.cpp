// Closing a stream: the supervisor first, so that no reopening races the
// close, then the sound layer, so that a running callback finishes and no new
// one starts, then the per-stream resources under the callback's lock, and
// the registry entry last.
#include "taudio2universaldevice_p.h"

#include <boost/thread/lock_guard.hpp>

#include <algorithm>

namespace tamrel {

void TAudio2UniversalDevice::closeStream()
{
    TAudio2UniversalDevice_p& p = *d;
    p.stopSupervisor();
    p.closeSoundLayer();

    const unsigned id = p.m_id;
    {
        boost::lock_guard<boost::mutex> lock(p.m_mutex);
        p.closeRecordings();
        // Releases whatever the client's callback holds now, not at destruction.
        p.m_callback = TAudio2FrameCallback();
    }
    p.m_streamActive = false;

    // May drop the last reference to this device: nothing touches it after.
    TAudio2UniversalDevice_p::unregisterDevice(id);
}

void TAudio2UniversalDevice_p::closeSoundLayer()
{
    // Draining waits for the stream's callbacks: RtAudio's JACK backend waits
    // for one forever when none comes (a changed period, a dead server), and
    // only writes silence meanwhile. A stream that is not delivering, and any
    // JACK stream, is aborted instead: nothing is waited for.
    const int64_t last = m_lastCallbackNs.load();
    const int64_t now = steadyNowNs();
    const int64_t bufferNs = m_deviceSampleRate ? int64_t(m_bufferFrames) * 1000000000 / m_deviceSampleRate : 0;
    const bool delivering = last != 0 && !m_streamLost.load() && now - last < std::max<int64_t>(60000000, 2 * bufferNs);
    const bool drain = delivering && m_api != RtAudio::UNIX_JACK;

    boost::lock_guard<boost::mutex> soundLayer(SoundLayerMutex);
    try {
        if (m_rtAudio.isStreamRunning()) {
            if (drain)
                m_rtAudio.stopStream();
            else
                m_rtAudio.abortStream();
        }
    } catch (...) {
    }
    try {
        if (m_rtAudio.isStreamOpen())
            m_rtAudio.closeStream();
    } catch (...) {
    }
}

} // namespace tamrel
