#pragma once

#include <string>

namespace tamrel {

// What a client asks of a stream. A plain value: devices copy what they need
// at openStream() and keep no reference to it.
struct TAudio2StreamConfiguration {
    int sampleRate = 16000;             // client rate, Hz (processed at 8000, 16000, 32000, 48000 only)
    std::string captureDeviceName;      // exact name; empty: the system's default input
    std::string playbackDeviceName;     // exact name; empty: the system's default output
    int periodMs = 20;                  // one callback's worth; hardware buffers stay 20 ms or more
    int playbackChannels = 1;           // interleaved channels the client writes
    int captureChannels = 1;            // 0 or less: playback only
    bool measureAec = false;            // record the diagnostic WAV files
};

} // namespace tamrel
