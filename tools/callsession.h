// The parts of taudio2call that do not touch a sound card: option parsing
// and validation, the far-end signal, level arithmetic and the wording of
// failures. Kept apart from main() so they can be tested without audio.
#pragma once

#include <taudio2base/taudio2streamconfiguration.h>

#include <QStringList>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace tamrel {
namespace call {

// Level of the far-end tone: loud enough to exercise the echo canceller,
// well clear of clipping after the device's fixed gain.
const double DEFAULT_TONE_DBFS = -12.0;

// The device reads these when it is constructed (the sound layer) and when
// a stream opens (the canceller's mode); the options set them for the call.
extern const char* const API_VARIABLE;
extern const char* const AEC_MODE_VARIABLE;
extern const char* const LATENCY_VARIABLE;

// Exit statuses of the program.
enum ExitStatus {
    EXIT_OK = 0,
    EXIT_FAILURE_AUDIO = 1,   // the device, a file or the stream failed
    EXIT_USAGE = 2,           // the command line was wrong
};

struct CallOptions {
    bool list = false;
    std::string captureDevice;
    std::string playbackDevice;
    int rate = 16000;
    int periodMs = 20;
    int playbackChannels = 1;
    int captureChannels = 1;
    bool measureAec = false;
    std::string playFile;        // empty: the tone is the far end
    bool loop = false;
    double toneHz = 440.0;
    std::string recordFile;      // empty: nothing recorded by the program
    double durationSeconds = 0;  // 0: until interrupted
    std::string aecMode;         // "standard" or "robust"; empty leaves the environment as it is
    std::string api;             // "jack", "pulseaudio" or "alsa"; empty leaves the environment as it is
    std::string latency;         // "default" or "low"; empty leaves the environment as it is
    bool calibrate = false;      // measure the echo delay instead of making a call
};

struct ParseResult {
    enum Status { Run, Help, Version, Error } status = Error;
    CallOptions options;
    std::string message;         // help text or what was wrong
};

// Parses argv-style arguments (the program name first). Help and version
// text need a QCoreApplication; errors and normal runs do not.
ParseResult parseCallOptions(const QStringList& arguments);

TAudio2StreamConfiguration toConfiguration(const CallOptions& options);

// Client rates that the voice processing accepts.
bool isSupportedRate(int rate);

// The device's negative openStream() results in plain words.
std::string describeOpenCode(int code);
// "could not open the audio stream (code -3: ...)", followed by the
// device's own text when it gave one.
std::string openFailureMessage(int code, const std::string& detail);

// Linear sample magnitude (full scale 32768) to dBFS; -infinity for 0.
double toDbfs(double magnitude);
// "-12.0 dBFS", or "-inf dBFS" for silence.
std::string formatDbfs(double dbfs);
// Bar of `width` cells covering -60..0 dBFS, '#' for the filled part.
std::string meterBar(double dbfs, int width);
// "mm:ss.t"
std::string formatElapsed(double seconds);

// Peak and RMS of everything added since the last reset().
class LevelMeter {
public:
    void add(const int16_t* samples, std::size_t count);
    void reset();
    std::uint64_t samples() const { return m_count; }
    double peakDbfs() const;
    double rmsDbfs() const;

private:
    std::uint64_t m_count = 0;
    int m_peak = 0;
    double m_sumSquares = 0;
};

// Phase-continuous sine, the same on every channel. fill() neither
// allocates nor locks, so it may run on the audio thread.
class ToneGenerator {
public:
    ToneGenerator(double hz, int rate, double dbfs);
    void fill(int16_t* out, int frames, int channels);
    double amplitude() const { return m_amplitude; }

private:
    double m_step;
    double m_phase = 0;
    double m_amplitude;
};

// A WAV file held in memory, interleaved 16-bit.
struct Clip {
    std::vector<int16_t> samples;
    int channels = 0;
    int rate = 0;
    std::size_t frames() const { return channels ? samples.size() / channels : 0; }
};

// Reads a sound file into memory. Refuses a file whose rate differs from
// `expectedRate` rather than playing it at the wrong speed.
bool loadClip(const std::string& path, int expectedRate, Clip* clip, std::string* error);

// What the far end says: a clip (looped or followed by silence) or a tone.
// fill() runs on the audio thread and neither allocates nor locks.
class FarEndSource {
public:
    explicit FarEndSource(const ToneGenerator& tone);
    FarEndSource(Clip clip, bool loop);

    void fill(int16_t* out, int frames, int channels);
    // True once a clip that does not loop has been played to its end;
    // safe to ask from another thread than the one calling fill().
    bool finished() const { return m_finished.load(std::memory_order_relaxed); }

private:
    int16_t clipSample(std::size_t frame, int channel, int channels) const;

    bool m_isTone;
    ToneGenerator m_tone;
    Clip m_clip;
    bool m_loop = false;
    std::size_t m_position = 0;
    std::atomic<bool> m_finished{false};
};

// The three files the device writes in `home` when asked to measure the
// echo canceller, in the order it opens them.
std::vector<std::string> diagnosticFiles(const std::string& home);

} // namespace call
} // namespace tamrel
