#pragma once

#include <string>

namespace tamrel {

// What a client asks of a stream. A plain value: devices copy what they need
// at openStream() and keep no reference to it.
struct TAudio2StreamConfiguration {
    int sampleRate = 16000;             // client rate, Hz
    std::string captureDeviceName;      // empty: the system's default input
    std::string playbackDeviceName;     // empty: the system's default output
    int periodMs = 20;                  // one processing period
    int playbackChannels = 1;           // interleaved channels the client writes
    int captureChannels = 1;            // 0 or less: playback only
    bool measureAec = false;            // record the diagnostic WAV files
};

} // namespace tamrel
