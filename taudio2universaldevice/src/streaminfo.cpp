// What the stream really is: the negotiated facts and the pipeline's counters.
#include "taudio2universaldevice_p.h"

#include <boost/thread/lock_guard.hpp>

namespace tamrel {

TAudio2UniversalDevice::StreamInfo TAudio2UniversalDevice::streamInfo() const
{
    const TAudio2UniversalDevice_p& p = *d;
    StreamInfo info;
    info.open = p.m_streamActive.load();
    info.delivering = info.open && !p.m_streamLost.load() && p.m_lastCallbackNs.load() != 0;
    info.soundLayer = RtAudio::getApiDisplayName(p.m_api);
    info.lastBufferFrames = p.m_lastBufferFrames.load();
    info.framesCarried = p.m_framesCarried.load();
    info.framesLost = p.m_framesLost.load();
    info.recoveries = p.m_recoveries.load();

    // The negotiated facts change together, under the audio thread's lock.
    boost::lock_guard<boost::mutex> lock(p.m_mutex);
    info.cardRateHz = p.m_deviceSampleRate;
    info.grantedBufferFrames = p.m_bufferFrames;
    info.periodMs = p.m_periodMs;
    info.framesPerPeriod = p.m_chunkFrames;
    info.cardFramesPerPeriod = p.m_deviceChunkFrames;
    info.toldDelayMs = p.m_aecDelay;
    info.playbackQueueBuffers = p.m_playbackQueueBuffers;
    info.shortRoundTrip = p.m_shortRoundTrip;
    info.echoCancellation = !p.m_useVoicePreprocessor ? "off" : p.m_robustEchoCancellation ? "robust" : "standard";
    return info;
}

} // namespace tamrel
