// taudio2call: lists sound devices or makes a test call through the
// universal audio device. The far end is a tone or a WAV file; the near end
// (the processed capture) goes to a level meter and optionally to a WAV file.
//
// Threads: the device's audio thread runs FrameHandler and touches only
// preallocated memory and lock-free atomics; the main thread drains the
// capture ring, writes the recording, draws the meter and closes the stream.

#include "callsession.h"
#include "echodelay.h"

#include <taudio2universaldevice/taudio2universaldevice.h>

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <boost/lockfree/spsc_queue.hpp>
#include <boost/make_shared.hpp>

#include <sndfile.h>

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#ifndef TAUDIO2CALL_VERSION
#define TAUDIO2CALL_VERSION "0"
#endif

namespace {

using namespace tamrel;
using namespace tamrel::call;
using Clock = std::chrono::steady_clock;

const int METER_WIDTH = 30;
const double TTY_REFRESH_SECONDS = 0.1;
const double LOG_REFRESH_SECONDS = 1.0;
const double STALL_SECONDS = 3.0;
const auto POLL_INTERVAL = std::chrono::milliseconds(10);
// Capture the ring holds while the main thread is busy: far more than one
// poll interval, so only a main thread stalled for seconds loses audio.
const int RING_SECONDS = 2;

std::atomic<bool> StopRequested{false};
static_assert(std::atomic<bool>::is_always_lock_free, "the stop flag is set from a signal handler");

extern "C" void onStopSignal(int)
{
    StopRequested.store(true);
}

void installStopHandlers()
{
    struct sigaction action;
    std::memset(&action, 0, sizeof action);
    action.sa_handler = onStopSignal;
    sigemptyset(&action.sa_mask);
    // One-shot: a second Ctrl-C ends a call that does not stop by itself.
    action.sa_flags = SA_RESETHAND;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    // A closed terminal still gets a finished recording and a summary.
    sigaction(SIGHUP, &action, nullptr);
}

double secondsSince(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

int fail(const std::string& message, int status = EXIT_FAILURE_AUDIO)
{
    std::cerr << "taudio2call: " << message << std::endl;
    return status;
}

// Everything the audio thread touches, allocated before the stream opens.
struct AudioShared {
    AudioShared(FarEndSource* source, int playback, int capture, std::size_t ringSamples)
        : ring(ringSamples)
        , farEnd(source)
        , playbackChannels(playback)
        , captureChannels(capture)
    {
    }

    boost::lockfree::spsc_queue<int16_t> ring;
    FarEndSource* farEnd;
    const int playbackChannels;
    const int captureChannels;
    std::atomic<std::uint64_t> periods{0};
    std::atomic<std::uint64_t> periodsWithoutCapture{0};
    std::atomic<std::uint64_t> droppedSamples{0};
};

// The frame callback: fills the far end and hands the capture over.
class FrameHandler {
public:
    explicit FrameHandler(AudioShared* shared)
        : m_shared(shared)
    {
    }

    bool operator()(const char* capture, int captureBytes, char* playback, int playbackBytes, int) const
    {
        AudioShared& s = *m_shared;
        const int frameBytes = 2 * s.playbackChannels;
        const int frames = playbackBytes / frameBytes;
        s.farEnd->fill(reinterpret_cast<int16_t*>(playback), frames, s.playbackChannels);
        std::memset(playback + frames * frameBytes, 0, playbackBytes - frames * frameBytes);

        if (s.captureChannels > 0) {
            if (capture && captureBytes > 0) {
                std::size_t samples = static_cast<std::size_t>(captureBytes) / 2;
                samples -= samples % s.captureChannels;
                // Whole periods or nothing, so a full ring never splits a frame.
                if (s.ring.write_available() >= samples)
                    s.ring.push(reinterpret_cast<const int16_t*>(capture), samples);
                else
                    s.droppedSamples.fetch_add(samples, std::memory_order_relaxed);
            } else {
                s.periodsWithoutCapture.fetch_add(1, std::memory_order_relaxed);
            }
        }
        s.periods.fetch_add(1, std::memory_order_relaxed);
        return true;
    }

private:
    AudioShared* m_shared;
};

// The --record file, written on the main thread.
class Recorder {
public:
    ~Recorder() { close(); }

    bool open(const std::string& path, int rate, int channels, std::string* error)
    {
        SF_INFO info = {};
        info.samplerate = rate;
        info.channels = channels;
        info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
        m_file = sf_open(path.c_str(), SFM_WRITE, &info);
        if (!m_file) {
            *error = "could not create " + path + ": " + sf_strerror(nullptr);
            return false;
        }
        m_path = path;
        m_channels = channels;
        return true;
    }

    bool isOpen() const { return m_file != nullptr; }
    const std::string& path() const { return m_path; }
    std::uint64_t frames() const { return m_frames; }
    bool failed() const { return m_failed; }

    void write(const int16_t* samples, std::size_t count)
    {
        if (!m_file || m_failed)
            return;
        const sf_count_t written = sf_write_short(m_file, samples, static_cast<sf_count_t>(count));
        if (written != static_cast<sf_count_t>(count)) {
            m_failed = true;
            m_error = sf_strerror(m_file);
        }
        m_frames += static_cast<std::uint64_t>(written) / m_channels;
    }

    const std::string& error() const { return m_error; }

    void close()
    {
        if (m_file)
            sf_close(m_file);
        m_file = nullptr;
    }

    // Closes and deletes a recording of a call that never started.
    void discard()
    {
        if (!m_file)
            return;
        close();
        QFile::remove(QString::fromStdString(m_path));
    }

private:
    SNDFILE* m_file = nullptr;
    std::string m_path;
    int m_channels = 1;
    std::uint64_t m_frames = 0;
    bool m_failed = false;
    std::string m_error;
};

// The live meter: one redrawn line on a terminal, a line per second otherwise.
class MeterDisplay {
public:
    explicit MeterDisplay(bool hasCapture)
        : m_tty(isatty(STDERR_FILENO) == 1)
        , m_hasCapture(hasCapture)
    {
    }

    double interval() const { return m_tty ? TTY_REFRESH_SECONDS : LOG_REFRESH_SECONDS; }

    void show(const LevelMeter& window, double elapsed, std::uint64_t periods)
    {
        std::string line;
        if (m_tty) {
            line = "\r" + formatElapsed(elapsed) + "  ";
            if (m_hasCapture)
                line += "capture [" + meterBar(window.peakDbfs(), METER_WIDTH) + "] " + formatDbfs(window.peakDbfs());
            else
                line += "playback only";
            line += "  periods " + std::to_string(periods) + "\033[K";
        } else {
            line = formatElapsed(elapsed) + "  ";
            if (m_hasCapture)
                line += "capture peak " + formatDbfs(window.peakDbfs()) + "  rms " + formatDbfs(window.rmsDbfs());
            else
                line += "playback only";
            line += "  periods " + std::to_string(periods) + "\n";
        }
        std::cerr << line << std::flush;
        m_drawn = true;
    }

    // A message of its own, without tearing the meter line.
    void note(const std::string& message)
    {
        endLine();
        std::cerr << "taudio2call: " << message << std::endl;
    }

    void endLine()
    {
        if (m_tty && m_drawn)
            std::cerr << "\n";
        m_drawn = false;
    }

private:
    const bool m_tty;
    const bool m_hasCapture;
    bool m_drawn = false;
};

struct CallTotals {
    double seconds = 0;
    bool interrupted = false;
    std::uint64_t periods = 0;
    std::uint64_t periodsWithoutCapture = 0;
    std::uint64_t droppedSamples = 0;
    LevelMeter capture;
};

int listDevices(TAudio2UniversalDevice& device)
{
    const std::string layer = device.streamInfo().soundLayer;
    std::cout << "sound layer: " << (layer.empty() ? "none" : layer) << "\n";
    const auto all = device.devices(static_cast<TAudio2DeviceInfo::DeviceType>(
        TAudio2DeviceInfo::PLAYBACK_DEVICE | TAudio2DeviceInfo::CAPTURE_DEVICE));
    const struct {
        TAudio2DeviceInfo::DeviceType type;
        const char* direction;
    } sections[] = {{TAudio2DeviceInfo::CAPTURE_DEVICE, "capture "}, {TAudio2DeviceInfo::PLAYBACK_DEVICE, "playback"}};
    for (const auto& section : sections) {
        bool any = false;
        for (const auto& info : all) {
            if (info->m_type != section.type)
                continue;
            std::cout << section.direction << "  " << info->m_name << (info->m_isDefault ? " (default)" : "") << "\n";
            any = true;
        }
        if (!any)
            std::cout << section.direction << "  (no devices)\n";
    }
    std::cout << std::flush;
    return EXIT_OK;
}

// The device quietly falls back to the default when a name matches
// nothing; a tester who typed a name wants to know instead.
bool checkDeviceName(TAudio2UniversalDevice& device, TAudio2DeviceInfo::DeviceType type, const std::string& name,
                     std::string* error)
{
    if (name.empty())
        return true;
    const auto found = device.devices(type);
    // With no devices at all the device reports its own code (-6).
    if (found.empty())
        return true;
    for (const auto& info : found) {
        if (info->m_name == name)
            return true;
    }
    *error = std::string("no ") + (type == TAudio2DeviceInfo::CAPTURE_DEVICE ? "capture" : "playback")
        + " device is named \"" + name + "\" (taudio2call --list shows the names)";
    return false;
}

std::unique_ptr<FarEndSource> makeFarEnd(const CallOptions& options, std::string* error)
{
    if (options.playFile.empty())
        return std::make_unique<FarEndSource>(ToneGenerator(options.toneHz, options.rate, DEFAULT_TONE_DBFS));
    Clip clip;
    if (!loadClip(options.playFile, options.rate, &clip, error))
        return nullptr;
    return std::make_unique<FarEndSource>(std::move(clip), options.loop);
}

std::string homeFile(const std::string& name)
{
    return QDir::homePath().toStdString() + "/" + name;
}

std::string normalisedPath(const std::string& path)
{
    return QDir::cleanPath(QFileInfo(QString::fromStdString(path)).absoluteFilePath()).toStdString();
}

// The device rewrites its diagnostic files at every open, so a recording
// of our own must not share a name with them.
bool checkRecordPath(const CallOptions& options, std::string* error)
{
    if (options.recordFile.empty() || !options.measureAec)
        return true;
    const std::string target = normalisedPath(options.recordFile);
    for (const std::string& file : diagnosticFiles(QDir::homePath().toStdString())) {
        if (normalisedPath(file) == target) {
            *error = "--record " + options.recordFile + " would clash with the device's own " + file
                + " under --measure-aec; choose another name";
            return false;
        }
    }
    return true;
}

// Moves whatever the audio thread has queued into the meters and the file.
void drainCapture(AudioShared& shared, std::vector<int16_t>& scratch, Recorder& recorder, LevelMeter& window,
                  LevelMeter& total)
{
    for (;;) {
        const std::size_t count = shared.ring.pop(scratch.data(), scratch.size());
        if (count == 0)
            return;
        window.add(scratch.data(), count);
        total.add(scratch.data(), count);
        recorder.write(scratch.data(), count);
    }
}

// Runs the open stream until the duration is over or a stop is requested.
CallTotals monitorCall(const CallOptions& options, AudioShared& shared, Recorder& recorder)
{
    CallTotals totals;
    MeterDisplay display(options.captureChannels > 0);
    LevelMeter window;
    // A multiple of the channel count, so no pop ever splits a frame.
    std::vector<int16_t> scratch(static_cast<std::size_t>(options.rate / 10) * std::max(1, options.captureChannels));

    const Clock::time_point start = Clock::now();
    double lastShown = 0;
    double lastProgress = 0;
    std::uint64_t lastPeriods = 0;
    bool stallReported = false;
    bool endReported = false;

    for (;;) {
        const double elapsed = secondsSince(start);
        if (StopRequested.load()) {
            totals.interrupted = true;
            break;
        }
        if (options.durationSeconds > 0 && elapsed >= options.durationSeconds)
            break;

        drainCapture(shared, scratch, recorder, window, totals.capture);

        const std::uint64_t periods = shared.periods.load(std::memory_order_relaxed);
        if (periods != lastPeriods) {
            lastPeriods = periods;
            lastProgress = elapsed;
            stallReported = false;
        } else if (!stallReported && elapsed - lastProgress >= STALL_SECONDS) {
            display.note("no audio period for " + std::to_string(static_cast<int>(STALL_SECONDS))
                         + " s; the sound system may have stopped the stream");
            stallReported = true;
        }
        if (!endReported && shared.farEnd->finished()) {
            display.note(options.playFile + " has played to its end; the far end is silent now (--loop repeats it)");
            endReported = true;
        }
        if (elapsed - lastShown >= display.interval()) {
            display.show(window, elapsed, periods);
            window.reset();
            lastShown = elapsed;
        }

        std::this_thread::sleep_for(POLL_INTERVAL);
    }
    totals.seconds = secondsSince(start);
    display.endLine();
    return totals;
}

void printSummary(const CallOptions& options, const CallTotals& totals, const Recorder& recorder)
{
    std::cout << "duration        " << formatElapsed(totals.seconds)
              << (totals.interrupted ? " (stopped by signal)" : "") << "\n";
    std::cout << "periods         " << totals.periods << " (" << options.periodMs << " ms each)\n";
    if (options.captureChannels > 0) {
        std::cout << "capture peak    " << formatDbfs(totals.capture.peakDbfs()) << "\n";
        std::cout << "capture RMS     " << formatDbfs(totals.capture.rmsDbfs()) << "\n";
        if (totals.periodsWithoutCapture > 0)
            std::cout << "no capture in   " << totals.periodsWithoutCapture << " periods\n";
        if (totals.droppedSamples > 0)
            std::cout << "dropped         " << totals.droppedSamples << " capture samples (the main thread fell behind)\n";
    }
    if (!recorder.path().empty()) {
        const double seconds = static_cast<double>(recorder.frames()) / options.rate;
        std::cout << "recorded        " << recorder.path() << " (" << options.rate << " Hz, " << options.captureChannels
                  << (options.captureChannels == 1 ? " channel, " : " channels, ") << formatElapsed(seconds) << ")\n";
    }
    if (options.measureAec) {
        bool any = false;
        for (const std::string& file : diagnosticFiles(QDir::homePath().toStdString())) {
            if (!QFile::exists(QString::fromStdString(file)))
                continue;
            std::cout << "diagnostics     " << file << "\n";
            any = true;
        }
        if (QFile::exists(QString::fromStdString(homeFile(CALL_RECORD_FILE))))
            std::cout << "call record     " << homeFile(CALL_RECORD_FILE) << "\n";
        if (!any)
            std::cout << "diagnostics     none written (the device records them only while its voice processing runs)\n";
    }
    std::cout << std::flush;
}

// The delay the device tells robust mode in this call's configuration, on this stream's server.
int robustToldMs(const CallOptions& options, const TAudio2UniversalDevice::StreamInfo& stream)
{
    return TAudio2UniversalDevice::toldDelayMs("robust", options.periodMs,
                                               static_cast<unsigned>(options.playbackChannels), stream.shortRoundTrip);
}

// Beside the recordings, so the report can judge the echo delay it measures
// against what the device says it told its canceller.
void writeCallRecord(const CallOptions& options, const TAudio2UniversalDevice::StreamInfo& stream, bool ended)
{
    const CallRecord record{options.rate, options.playbackChannels, options.captureChannels, stream,
                            robustToldMs(options, stream), ended};
    std::ofstream(homeFile(CALL_RECORD_FILE)) << callRecordJson(record);
}

// Closes the stream. With a record, rewrites it: the stream's facts as it
// ran, and the counters once the device has stopped counting.
void closeAndRecord(TAudio2UniversalDevice& device, const CallOptions& options, bool record)
{
    TAudio2UniversalDevice::StreamInfo stream = device.streamInfo();
    device.closeStream();
    if (!record)
        return;
    const TAudio2UniversalDevice::StreamInfo end = device.streamInfo();
    stream.framesCarried = end.framesCarried;
    stream.framesLost = end.framesLost;
    stream.recoveries = end.recoveries;
    writeCallRecord(options, stream, true);
}

int runCall(const CallOptions& options)
{
    std::string error;
    if (!checkRecordPath(options, &error))
        return fail(error, EXIT_USAGE);

    // Read before the device exists: constructing it deletes the files of
    // an earlier --measure-aec run, which a tester may want to play back.
    std::unique_ptr<FarEndSource> farEnd = makeFarEnd(options, &error);
    if (!farEnd)
        return fail(error);

    auto device = boost::make_shared<TAudio2UniversalDevice>(static_cast<unsigned>(options.rate));
    // The device has just removed the recordings this record described.
    QFile::remove(QString::fromStdString(homeFile(CALL_RECORD_FILE)));
    if (!checkDeviceName(*device, TAudio2DeviceInfo::CAPTURE_DEVICE,
                         options.captureChannels > 0 ? options.captureDevice : std::string(), &error)
        || !checkDeviceName(*device, TAudio2DeviceInfo::PLAYBACK_DEVICE, options.playbackDevice, &error))
        return fail(error);

    Recorder recorder;
    if (!options.recordFile.empty() && !recorder.open(options.recordFile, options.rate, options.captureChannels, &error))
        return fail(error);

    const std::size_t ringSamples =
        static_cast<std::size_t>(options.rate) * RING_SECONDS * std::max(1, options.captureChannels);
    AudioShared shared(farEnd.get(), options.playbackChannels, options.captureChannels, ringSamples);

    const int code = device->openStream(toConfiguration(options), FrameHandler(&shared), &error);
    if (code != 0) {
        // A failed open can leave the device registered; closing is harmless either way.
        device->closeStream();
        recorder.discard();
        return fail(openFailureMessage(code, error));
    }

    // Written at once too, so a call that never ends cleanly still leaves one.
    if (options.measureAec)
        writeCallRecord(options, device->streamInfo(), false);

    CallTotals totals = monitorCall(options, shared, recorder);
    // Returns once the audio thread has left the frame callback for good.
    closeAndRecord(*device, options, options.measureAec);

    LevelMeter unusedWindow;
    std::vector<int16_t> scratch(4096 * std::max(1, options.captureChannels));
    drainCapture(shared, scratch, recorder, unusedWindow, totals.capture);
    recorder.close();

    totals.periods = shared.periods.load();
    totals.periodsWithoutCapture = shared.periodsWithoutCapture.load();
    totals.droppedSamples = shared.droppedSamples.load();
    printSummary(options, totals, recorder);

    if (recorder.failed())
        return fail("writing " + recorder.path() + " failed: " + recorder.error());
    if (!options.recordFile.empty() && totals.droppedSamples > 0)
        return fail(options.recordFile + " has gaps: " + std::to_string(totals.droppedSamples) + " samples were dropped");
    // Short runs may legitimately end before the first period.
    if (totals.periods == 0 && totals.seconds >= 1.0)
        return fail("the stream started but the device processed no period");
    return EXIT_OK;
}

// The probe: silence while the stream settles, the chirp, then silence
// long enough for any echo a sound server can add.
const double PROBE_LEAD_SECONDS = 0.5;
const double PROBE_SECONDS = 0.5;
const double PROBE_TAIL_SECONDS = 1.5;
const double MAX_ROUND_TRIP_MS = 1000.0;

// Plays the probe through one configuration and measures the round trip
// in the device's own recordings, which are what its canceller sees.
int calibrateOne(const CallOptions& options)
{
    std::string error;
    Clip probe{makeProbe(options.rate, PROBE_LEAD_SECONDS, PROBE_SECONDS, PROBE_TAIL_SECONDS), 1, options.rate};
    const double seconds = static_cast<double>(probe.frames()) / options.rate;
    FarEndSource source(std::move(probe), false);

    auto device = boost::make_shared<TAudio2UniversalDevice>(static_cast<unsigned>(options.rate));
    QFile::remove(QString::fromStdString(homeFile(CALL_RECORD_FILE)));
    if (!checkDeviceName(*device, TAudio2DeviceInfo::CAPTURE_DEVICE, options.captureDevice, &error)
        || !checkDeviceName(*device, TAudio2DeviceInfo::PLAYBACK_DEVICE, options.playbackDevice, &error))
        return fail(error);
    // The processed capture is of no use here: nothing goes through the ring.
    AudioShared shared(&source, options.playbackChannels, 0, 1);
    const int code = device->openStream(toConfiguration(options), FrameHandler(&shared), &error);
    if (code != 0) {
        device->closeStream();
        return fail(openFailureMessage(code, error));
    }
    // The device is the authority on what its canceller is told and in which mode.
    const TAudio2UniversalDevice::StreamInfo opened = device->streamInfo();
    writeCallRecord(options, opened, false);
    const Clock::time_point start = Clock::now();
    while (!source.finished() && !StopRequested.load() && secondsSince(start) < seconds + STALL_SECONDS)
        std::this_thread::sleep_for(POLL_INTERVAL);
    closeAndRecord(*device, options, true);
    if (StopRequested.load())
        return fail("calibration stopped", EXIT_OK);

    // A low latency the server was left alone with is said so: its round trip is the default one.
    const std::string label = std::string(options.playbackChannels == 1 ? "1 output channel,  " : "2 output channels, ")
        + (options.latency != "low" ? "default latency: "
                                    : opened.playbackQueueBuffers ? "low latency:     " : "low (not applied): ");
    if (!source.finished())
        return fail(label + "the stream stalled before the probe had played");
    Clip played, heard;
    const auto files = diagnosticFiles(QDir::homePath().toStdString());
    if (!loadClip(files[2], options.rate, &played, &error) || !loadClip(files[0], options.rate, &heard, &error))
        return fail(label + "no recording to measure: " + error);

    const RoundTrip trip = findRoundTrip(played.samples, heard.samples, options.rate, MAX_ROUND_TRIP_MS);
    const int told = opened.toldDelayMs;
    const std::string& mode = opened.echoCancellation;
    char line[160];
    if (trip.ms < 0)
        std::snprintf(line, sizeof line, "no echo found (correlation %.2f), told %d ms", trip.clarity, told);
    else
        std::snprintf(line, sizeof line, "round trip %.0f ms, told %d ms: echo %+.0f ms from the told delay", trip.ms,
                      told, trip.ms - told);
    std::cout << label << line << " (" << mode << " mode) -> "
              << verdictText(judgeEchoDelay(trip.ms, told, mode, robustToldMs(options, opened))) << std::endl;
    return EXIT_OK;
}

int runCalibration(const CallOptions& options)
{
    std::cout << "calibration at " << options.rate << " Hz, " << options.periodMs
              << " ms period; the standard canceller needs the echo " << AEC_WINDOW_EARLIEST_MS << " to "
              << AEC_WINDOW_LATEST_MS << " ms after the told delay" << std::endl;
    const std::vector<std::string> latencies =
        options.latency.empty() ? std::vector<std::string>{"default", "low"} : std::vector<std::string>{options.latency};
    for (const std::string& latency : latencies) {
        setenv(LATENCY_VARIABLE, latency.c_str(), 1);
        for (int channels : {1, 2}) {
            CallOptions probeCall = options;
            probeCall.latency = latency;
            probeCall.playbackChannels = channels;
            probeCall.captureChannels = 1;
            probeCall.measureAec = true;
            const int status = calibrateOne(probeCall);
            if (status != EXIT_OK || StopRequested.load())
                return status;
        }
    }
    std::cout << "the recordings of the last probe are in " << QDir::homePath().toStdString() << std::endl;
    return EXIT_OK;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName("taudio2call");
    QCoreApplication::setApplicationVersion(TAUDIO2CALL_VERSION);

    const ParseResult parsed = parseCallOptions(QCoreApplication::arguments());
    switch (parsed.status) {
    case ParseResult::Help:
        std::cout << parsed.message << std::flush;
        return EXIT_OK;
    case ParseResult::Version:
        std::cout << "taudio2call " << TAUDIO2CALL_VERSION << std::endl;
        return EXIT_OK;
    case ParseResult::Error:
        return fail(parsed.message + "; see taudio2call --help", EXIT_USAGE);
    case ParseResult::Run:
        break;
    }

    // Before any device exists: the device reads the layer when constructed.
    if (!parsed.options.api.empty())
        setenv(API_VARIABLE, parsed.options.api.c_str(), 1);
    if (parsed.options.list) {
        auto device = boost::make_shared<TAudio2UniversalDevice>(TAudio2UniversalDevice::DEFAULT_SAMPLE_RATE);
        return listDevices(*device);
    }
    if (!parsed.options.aecMode.empty())
        setenv(AEC_MODE_VARIABLE, parsed.options.aecMode.c_str(), 1);
    if (!parsed.options.latency.empty())
        setenv(LATENCY_VARIABLE, parsed.options.latency.c_str(), 1);
    installStopHandlers();
    return parsed.options.calibrate ? runCalibration(parsed.options) : runCall(parsed.options);
}
