// A scripted sound card behind RtAudio's own interface, linked into the
// tests instead of the real library. A test describes the devices, makes
// chosen calls fail, reads back what was opened and delivers callbacks on
// its own thread.
#pragma once

#include <rtaudio/RtAudio.h>

#include <atomic>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace fakecard {

enum class Call {
    DeviceCount, DeviceInfo, DefaultInput, DefaultOutput, OpenStream, StartStream, StopStream, AbortStream, CloseStream
};

struct Device {
    std::string name;
    unsigned outputChannels = 0;
    unsigned inputChannels = 0;
    unsigned duplexChannels = 0;
    std::vector<unsigned> sampleRates{48000};
    bool probed = true;
};

// What the last openStream() was given.
struct Opened {
    bool hasOutput = false;
    RtAudio::StreamParameters output;
    bool hasInput = false;
    RtAudio::StreamParameters input;
    RtAudioFormat format = 0;
    unsigned sampleRate = 0;
    unsigned bufferFrames = 0;   // as requested, before any change
    RtAudioCallback callback = nullptr;
    void* userData = nullptr;
    RtAudio::StreamOptions options;
    RtAudioErrorCallback errorCallback = nullptr;
};

struct Card {
    std::vector<Device> devices;
    unsigned defaultInput = 0;
    unsigned defaultOutput = 0;

    // A call listed here throws RtAudioError with the message; for
    // DeviceInfo only when asked for failingDeviceIndex (-1: any index).
    std::map<Call, std::string> failures;
    int failingDeviceIndex = -1;

    unsigned grantedBufferFrames = 0;           // non-zero: written back by openStream
    // Each started stream gets its own thread calling back every this many
    // microseconds until it is stopped, closed or destroyed, as the real
    // layer does; 0: no thread, the test delivers.
    unsigned callbackThreadPauseUs = 0;
    // As RtAudio's JACK backend: stopStream() drains, waiting for the
    // stream's thread to call back once more (abortStream() does not wait).
    bool stopWaitsForCallback = false;

    Opened opened;
    RtAudio::Api requestedApi = RtAudio::UNSPECIFIED;   // what the last RtAudio was made for
    std::map<Call, int> calls;
    bool streamOpen = false;
};

// The one scripted system every RtAudio object of the process sees. It
// outlives static destruction, so that streams closed at exit still find it.
Card& card();
void reset();

// How the stream's thread behaves, changeable while it runs: stalled, it
// calls back no more (a server that stopped); failing, it reports an error
// through the error callback after every buffer (a dead server).
extern std::atomic<bool> threadStalled;
// Runs a change to the card under the lock its calls take, for tests that
// script it while another thread (a supervisor reopening a stream) calls it.
void locked(const std::function<void()>& change);
extern std::atomic<bool> threadFailing;
// Set, the stream's thread reports one error worse than a warning (once) and calls
// back no more, as RtAudio does when it aborts a stream itself.
extern std::atomic<bool> threadAborts;

// Calls the callback of the most recently opened stream with its user data,
// as the sound layer's thread would; returns what the callback returned.
int deliver(void* output, void* input, unsigned frames);

} // namespace fakecard
