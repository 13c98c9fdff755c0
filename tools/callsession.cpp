#include "callsession.h"

#include <QCommandLineParser>

#include <sndfile.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <utility>

namespace tamrel {
namespace call {

namespace {

const double FULL_SCALE = 32768.0;
const double TWO_PI = 6.283185307179586;
const double METER_FLOOR_DB = -60.0;

// The device floors its hardware buffer at 20 ms and drops any buffer of
// 200 ms or more, and the echo canceller works in 10 ms blocks: periods
// outside whole multiples of 10 below 200 ms would lose audio.
const int MIN_PERIOD_MS = 10;
const int MAX_PERIOD_MS = 190;

bool readInt(const QCommandLineParser& parser, const QString& name, int* value, std::string* error)
{
    if (!parser.isSet(name))
        return true;
    bool ok = false;
    const int parsed = parser.value(name).toInt(&ok);
    if (!ok) {
        *error = "--" + name.toStdString() + " needs a whole number, not \"" + parser.value(name).toStdString() + "\"";
        return false;
    }
    *value = parsed;
    return true;
}

bool readDouble(const QCommandLineParser& parser, const QString& name, double* value, std::string* error)
{
    if (!parser.isSet(name))
        return true;
    bool ok = false;
    const double parsed = parser.value(name).toDouble(&ok);
    if (!ok || !std::isfinite(parsed)) {
        *error = "--" + name.toStdString() + " needs a number, not \"" + parser.value(name).toStdString() + "\"";
        return false;
    }
    *value = parsed;
    return true;
}

// Checks the combinations the device would accept but handle badly, so the
// tester hears about them before any sound is made.
bool validate(const CallOptions& o, std::string* error)
{
    if (!isSupportedRate(o.rate)) {
        *error = "--rate must be 8000, 16000, 32000 or 48000 (got " + std::to_string(o.rate) + ")";
        return false;
    }
    if (o.periodMs < MIN_PERIOD_MS || o.periodMs > MAX_PERIOD_MS || o.periodMs % 10 != 0) {
        *error = "--period must be a multiple of 10 between 10 and 190 ms (got " + std::to_string(o.periodMs) + ")";
        return false;
    }
    if (o.playbackChannels < 1 || o.playbackChannels > 2) {
        *error = "--channels must be 1 or 2 (got " + std::to_string(o.playbackChannels) + ")";
        return false;
    }
    if (o.captureChannels < 0 || o.captureChannels > 2) {
        *error = "--capture-channels must be 0, 1 or 2 (got " + std::to_string(o.captureChannels) + ")";
        return false;
    }
    if (o.durationSeconds < 0) {
        *error = "--duration cannot be negative";
        return false;
    }
    if (o.toneHz <= 0 || o.toneHz >= o.rate / 2.0) {
        *error = "--tone must be above 0 and below half the rate (" + std::to_string(o.rate / 2) + " Hz)";
        return false;
    }
    if (o.loop && o.playFile.empty()) {
        *error = "--loop needs --play FILE";
        return false;
    }
    if (!o.aecMode.empty() && o.aecMode != "standard" && o.aecMode != "robust") {
        *error = "--aec must be standard or robust (got \"" + o.aecMode + "\")";
        return false;
    }
    if (!o.recordFile.empty() && o.captureChannels == 0) {
        *error = "--record needs capture; --capture-channels 0 opens playback only";
        return false;
    }
    return true;
}

} // namespace

const char* const API_VARIABLE = "TAUDIO2_API";
const char* const AEC_MODE_VARIABLE = "TAUDIO2_AEC";
const char* const LATENCY_VARIABLE = "TAUDIO2_LATENCY";

ParseResult parseCallOptions(const QStringList& arguments)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(
        "Makes a call through the universal audio device: the far end is a tone or a WAV file,\n"
        "the near end is the processed capture, shown on a level meter and optionally recorded.\n"
        "Exit status: 0 after a clean stop (also on Ctrl-C), 1 when audio or a file failed,\n"
        "2 for a wrong command line.");
    const QCommandLineOption help = parser.addHelpOption();
    const QCommandLineOption version = parser.addVersionOption();
    parser.addOptions({
        {"list", "List capture and playback devices and exit."},
        {"capture", "Capture device by name (default: the system's).", "NAME"},
        {"playback", "Playback device by name (default: the system's).", "NAME"},
        {"rate", "Client sample rate: 8000, 16000, 32000 or 48000 (default 16000).", "HZ"},
        {"period", "Period in ms, a multiple of 10 up to 190 (default 20).", "MS"},
        {"channels", "Playback channels, 1 or 2 (default 1).", "N"},
        {"capture-channels", "Capture channels, 0 (playback only), 1 or 2 (default 1).", "N"},
        {"measure-aec", "Let the device write capture.wav, capture_aec.wav and playback.wav in $HOME."},
        {"play", "Far end: a WAV file at the client rate, read into memory first.", "FILE"},
        {"loop", "Repeat the --play file; without it the far end falls silent at its end."},
        {"tone", "Far end: a sine tone at -12 dBFS (default 440 Hz when no --play).", "HZ"},
        {"record", "Write the processed capture to a WAV file at the client rate.", "FILE"},
        {"duration", "Seconds to run; 0 runs until Ctrl-C (default 0).", "SECONDS"},
        {"aec", "Echo canceller mode: standard or robust (sets TAUDIO2_AEC for this call).", "MODE"},
        {"api", "Sound layer: jack, pulseaudio or alsa (sets TAUDIO2_API for this run; with neither, "
                "RtAudio takes the first of them that has a device).", "LAYER"},
        {"latency", "Playback queue: default (the server's) or low (a short one on PulseAudio; sets "
                    "TAUDIO2_LATENCY for this run).", "LATENCY"},
        {"calibrate", "Play a short probe with one and with two output channels, at default and low latency "
                      "(or the --latency given), measure the echo's round trip and tell whether the canceller "
                      "can remove it (rewrites the recordings in $HOME)."},
    });

    ParseResult result;
    if (!parser.parse(arguments)) {
        result.message = parser.errorText().toStdString();
        return result;
    }
    if (parser.isSet(help)) {
        result.status = ParseResult::Help;
        result.message = parser.helpText().toStdString();
        return result;
    }
    if (parser.isSet(version)) {
        result.status = ParseResult::Version;
        return result;
    }
    if (!parser.positionalArguments().isEmpty()) {
        result.message = "unexpected argument \"" + parser.positionalArguments().first().toStdString() + "\"";
        return result;
    }

    CallOptions& o = result.options;
    o.list = parser.isSet("list");
    o.captureDevice = parser.value("capture").toStdString();
    o.playbackDevice = parser.value("playback").toStdString();
    o.measureAec = parser.isSet("measure-aec");
    o.playFile = parser.value("play").toStdString();
    o.loop = parser.isSet("loop");
    o.recordFile = parser.value("record").toStdString();
    o.aecMode = parser.value("aec").toStdString();
    o.calibrate = parser.isSet("calibrate");
    o.api = parser.value("api").toStdString();
    o.latency = parser.value("latency").toStdString();
    if (parser.isSet("latency") && o.latency != "default" && o.latency != "low") {
        result.message = "--latency must be default or low (got \"" + o.latency + "\")";
        return result;
    }
    // Checked here, not in validate(): --list uses the layer too.
    if (parser.isSet("api") && o.api != "jack" && o.api != "pulseaudio" && o.api != "alsa") {
        result.message = "--api must be jack, pulseaudio or alsa (got \"" + o.api + "\")";
        return result;
    }
    for (const char* callOnly : {"channels", "capture-channels", "play", "tone", "loop", "record", "duration"}) {
        if (o.calibrate && parser.isSet(callOnly)) {
            result.message = std::string("--calibrate plays its own probe with one and two output channels and one capture channel; leave out --")
                + callOnly;
            return result;
        }
    }
    if (parser.isSet("play") && o.playFile.empty()) {
        result.message = "--play needs a file name";
        return result;
    }
    if (parser.isSet("play") && parser.isSet("tone")) {
        result.message = "--play and --tone both choose the far end; give one";
        return result;
    }
    if (parser.isSet("record") && o.recordFile.empty()) {
        result.message = "--record needs a file name";
        return result;
    }

    std::string error;
    if (!readInt(parser, "rate", &o.rate, &error) || !readInt(parser, "period", &o.periodMs, &error)
        || !readInt(parser, "channels", &o.playbackChannels, &error)
        || !readInt(parser, "capture-channels", &o.captureChannels, &error)
        || !readDouble(parser, "tone", &o.toneHz, &error)
        || !readDouble(parser, "duration", &o.durationSeconds, &error)
        || (!o.list && !validate(o, &error))) {
        result.message = error;
        return result;
    }
    result.status = ParseResult::Run;
    return result;
}

TAudio2StreamConfiguration toConfiguration(const CallOptions& options)
{
    TAudio2StreamConfiguration c;
    c.sampleRate = options.rate;
    c.captureDeviceName = options.captureDevice;
    c.playbackDeviceName = options.playbackDevice;
    c.periodMs = options.periodMs;
    c.playbackChannels = options.playbackChannels;
    c.captureChannels = options.captureChannels;
    c.measureAec = options.measureAec;
    return c;
}

bool isSupportedRate(int rate)
{
    return rate == 8000 || rate == 16000 || rate == 32000 || rate == 48000;
}

std::string describeOpenCode(int code)
{
    switch (code) {
    case -1:
        return "the sound system could not be queried for devices";
    case -3:
        return "no sample rate that both devices support";
    case -4:
        return "the sound system refused to open the devices";
    case -5:
        return "the stream opened but would not start";
    case -6:
        return "a device was named but the sound system has no devices";
    default:
        return "unknown failure";
    }
}

std::string openFailureMessage(int code, const std::string& detail)
{
    std::string message = "could not open the audio stream (code " + std::to_string(code) + ": " + describeOpenCode(code) + ")";
    if (!detail.empty())
        message += ": " + detail;
    return message;
}

double toDbfs(double magnitude)
{
    if (magnitude <= 0)
        return -std::numeric_limits<double>::infinity();
    return 20.0 * std::log10(magnitude / FULL_SCALE);
}

std::string formatDbfs(double dbfs)
{
    if (std::isinf(dbfs) && dbfs < 0)
        return "-inf dBFS";
    char text[32];
    std::snprintf(text, sizeof text, "%.1f dBFS", dbfs);
    return text;
}

std::string meterBar(double dbfs, int width)
{
    if (width <= 0)
        return std::string();
    double fraction = 0;
    if (!(std::isinf(dbfs) && dbfs < 0))
        fraction = std::clamp((dbfs - METER_FLOOR_DB) / -METER_FLOOR_DB, 0.0, 1.0);
    const int filled = static_cast<int>(std::lround(fraction * width));
    return std::string(filled, '#') + std::string(width - filled, '.');
}

std::string formatElapsed(double seconds)
{
    // Tenths are truncated, so the display never runs ahead of the clock.
    const long tenths = static_cast<long>(std::max(0.0, seconds) * 10.0);
    char text[32];
    std::snprintf(text, sizeof text, "%02ld:%02ld.%ld", tenths / 600, (tenths / 10) % 60, tenths % 10);
    return text;
}

void LevelMeter::add(const int16_t* samples, std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i) {
        const int s = samples[i];
        m_peak = std::max(m_peak, s < 0 ? -s : s);
        m_sumSquares += static_cast<double>(s) * s;
    }
    m_count += count;
}

void LevelMeter::reset()
{
    *this = LevelMeter();
}

double LevelMeter::peakDbfs() const
{
    return toDbfs(m_peak);
}

double LevelMeter::rmsDbfs() const
{
    if (m_count == 0)
        return toDbfs(0);
    return toDbfs(std::sqrt(m_sumSquares / static_cast<double>(m_count)));
}

ToneGenerator::ToneGenerator(double hz, int rate, double dbfs)
    : m_step(rate > 0 ? TWO_PI * hz / rate : 0)
    , m_amplitude(std::pow(10.0, dbfs / 20.0) * 32767.0)
{
}

void ToneGenerator::fill(int16_t* out, int frames, int channels)
{
    for (int f = 0; f < frames; ++f) {
        const int16_t s = static_cast<int16_t>(std::lround(m_amplitude * std::sin(m_phase)));
        for (int c = 0; c < channels; ++c)
            *out++ = s;
        m_phase += m_step;
        // Kept small so precision does not wear off over a long call.
        if (m_phase >= TWO_PI)
            m_phase -= TWO_PI;
    }
}

bool loadClip(const std::string& path, int expectedRate, Clip* clip, std::string* error)
{
    SF_INFO info = {};
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
    if (!file) {
        *error = "could not read " + path + ": " + sf_strerror(nullptr);
        return false;
    }
    if (info.samplerate != expectedRate) {
        *error = path + " is at " + std::to_string(info.samplerate) + " Hz but the call runs at "
            + std::to_string(expectedRate) + " Hz; convert the file";
        if (isSupportedRate(info.samplerate))
            *error += " or pass --rate " + std::to_string(info.samplerate);
        sf_close(file);
        return false;
    }
    if (info.frames <= 0 || info.channels <= 0) {
        *error = path + " holds no audio";
        sf_close(file);
        return false;
    }
    clip->rate = info.samplerate;
    clip->channels = info.channels;
    clip->samples.assign(static_cast<std::size_t>(info.frames) * info.channels, 0);
    // libsndfile converts any sample format to 16-bit here.
    const sf_count_t read = sf_readf_short(file, clip->samples.data(), info.frames);
    sf_close(file);
    if (read <= 0) {
        *error = "could not read the audio of " + path;
        return false;
    }
    clip->samples.resize(static_cast<std::size_t>(read) * info.channels);
    return true;
}

FarEndSource::FarEndSource(const ToneGenerator& tone)
    : m_isTone(true)
    , m_tone(tone)
{
}

FarEndSource::FarEndSource(Clip clip, bool loop)
    : m_isTone(false)
    , m_tone(0, 1, DEFAULT_TONE_DBFS)
    , m_clip(std::move(clip))
    , m_loop(loop)
{
    m_finished.store(m_clip.frames() == 0, std::memory_order_relaxed);
}

int16_t FarEndSource::clipSample(std::size_t frame, int channel, int channels) const
{
    const int16_t* s = &m_clip.samples[frame * m_clip.channels];
    if (m_clip.channels == 1)
        return s[0];
    if (channels == 1) {
        int sum = 0;
        for (int c = 0; c < m_clip.channels; ++c)
            sum += s[c];
        return static_cast<int16_t>(sum / m_clip.channels);
    }
    return s[std::min(channel, m_clip.channels - 1)];
}

void FarEndSource::fill(int16_t* out, int frames, int channels)
{
    if (m_isTone) {
        m_tone.fill(out, frames, channels);
        return;
    }
    const std::size_t total = m_clip.frames();
    for (int f = 0; f < frames; ++f) {
        if (m_position >= total && m_loop && total > 0)
            m_position = 0;
        if (m_position >= total) {
            m_finished.store(true, std::memory_order_relaxed);
            std::fill(out, out + static_cast<std::size_t>(frames - f) * channels, int16_t(0));
            return;
        }
        for (int c = 0; c < channels; ++c)
            *out++ = clipSample(m_position, c, channels);
        ++m_position;
    }
    if (m_position >= total && !m_loop)
        m_finished.store(true, std::memory_order_relaxed);
}

std::vector<std::string> diagnosticFiles(const std::string& home)
{
    return {home + "/capture.wav", home + "/capture_aec.wav", home + "/playback.wav"};
}

} // namespace call
} // namespace tamrel
