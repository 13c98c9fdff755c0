// Closing a stream: the sound layer first, so that a running callback
// finishes and no new one starts, then the per-stream resources under the
// callback's lock, and the registry entry last.
#include "taudio2universaldevice_p.h"

#include <boost/thread/lock_guard.hpp>

namespace tamrel {

void TAudio2UniversalDevice::closeStream()
{
    TAudio2UniversalDevice_p& p = *d;
    {
        boost::lock_guard<boost::mutex> soundLayer(SoundLayerMutex);
        try {
            if (p.m_rtAudio.isStreamRunning())
                p.m_rtAudio.stopStream();
        } catch (...) {
        }
        try {
            if (p.m_rtAudio.isStreamOpen())
                p.m_rtAudio.closeStream();
        } catch (...) {
        }
    }

    const unsigned id = p.m_id;
    {
        boost::lock_guard<boost::mutex> lock(p.m_mutex);
        if (p.m_speexPreprocessState) {
            speex_preprocess_state_destroy(p.m_speexPreprocessState);
            p.m_speexPreprocessState = nullptr;
        }
        if (p.m_speexEchoState) {
            speex_echo_state_destroy(p.m_speexEchoState);
            p.m_speexEchoState = nullptr;
        }
        p.closeRecordings();
        // Releases whatever the client's callback holds now, not at destruction.
        p.m_callback = TAudio2FrameCallback();
    }

    // May drop the last reference to this device: nothing touches it after.
    TAudio2UniversalDevice_p::unregisterDevice(id);
}

} // namespace tamrel
