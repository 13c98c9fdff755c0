// A scripted sound card behind RtAudio's own interface, linked into the tests instead of the real library.
#pragma once

#include <rtaudio/RtAudio.h>

#include <atomic>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace fakecard {

enum class Call { DeviceCount, DeviceInfo, OpenStream, StartStream, StopStream, AbortStream, CloseStream };

struct Device {
    std::string name;
    unsigned outputChannels = 0, inputChannels = 0, duplexChannels = 0;
    std::vector<unsigned> sampleRates{48000};
    bool probed = true;
};

// What the last openStream() was given.
struct Opened {
    RtAudio::StreamParameters output, input;
    bool hasInput = false;
    RtAudioFormat format = 0;
    unsigned sampleRate = 0, bufferFrames = 0;
    RtAudioCallback callback = nullptr;
    void* userData = nullptr;
    RtAudio::StreamOptions options;
    RtAudioErrorCallback errorCallback = nullptr;
};

struct Card {
    std::vector<Device> devices;
    unsigned defaultInput = 0, defaultOutput = 0;
    // A call with a message here throws it; DeviceInfo only for failingDeviceIndex (-1: any).
    std::map<Call, std::string> failures;
    int failingDeviceIndex = -1;
    // Non-zero: a started stream's own thread calls back every this many microseconds.
    unsigned callbackThreadPauseUs = 0;

    Opened opened;
    RtAudio::Api requestedApi = RtAudio::UNSPECIFIED;   // of the last RtAudio made
    std::map<Call, int> calls;
    bool streamOpen = false;
};

// The card every RtAudio sees; never destroyed, so that streams closed at exit find it.
Card& card();
void reset();
// Changes the card under the lock its calls take, while another thread calls it.
void locked(const std::function<void()>& change);

// The stream thread, while it runs: stalled, it calls back no more; failing, it reports an error after every buffer;
// aborting, one error worse than a warning, then stops.
extern std::atomic<bool> threadStalled, threadFailing, threadAborts;

// Calls the last opened stream's callback as the sound layer's thread would.
inline int deliver(void* output, void* input, unsigned frames)
{
    return card().opened.callback(output, input, frames, 0.0, 0, card().opened.userData);
}

} // namespace fakecard
