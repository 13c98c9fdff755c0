#include "callsession.h"
#include "echodelay.h"

#include <gtest/gtest.h>

#include <sndfile.h>

#include <algorithm>
#include <cmath>
#include <cstdio>

using namespace tamrel::call;
using Samples = std::vector<int16_t>;

// What a command line (arguments split at spaces) asks of the device and of the call, or why it is refused.
static std::string asked(const char* line)
{
    const ParseResult r = parseCallOptions(QStringList{"taudio2call"} + (*line ? QString(line).split(' ') : QStringList()));
    const tamrel::TAudio2StreamConfiguration c = toConfiguration(r.options);
    if (r.status != ParseResult::Run)
        return "refused: " + r.message;
    return std::to_string(c.sampleRate) + " Hz " + std::to_string(c.periodMs) + " ms, play "
        + std::to_string(c.playbackChannels) + " '" + c.playbackDeviceName + "', capture "
        + std::to_string(c.captureChannels) + " '" + c.captureDeviceName + "'"
        + (c.measureAec ? ", aec" : "") + "; " + QString::number(r.options.durationSeconds).toStdString() + " s, api '"
        + r.options.api + "', aec '" + r.options.aecMode + "'";
}

TEST(CallOptions, ReachTheConfigurationAndAreValidatedAtTheEdges)
{
    const struct { const char* args; bool accepted; const char* shown; } cases[] = {
        {"", true, "16000 Hz 20 ms, play 1 '', capture 1 ''; 0 s, api '', aec ''"},
        {"--capture Mic --playback Speakers --rate 48000 --period 30 --channels 2 --capture-channels 0 --measure-aec "
         "--duration 2.5 --api alsa --aec robust", true, "48000 Hz 30 ms, play 2 'Speakers', capture 0 'Mic', aec; 2.5 s, "
         "api 'alsa', aec 'robust'"},
        {"--period 10", true, " 10 ms"}, {"--period 190", true, " 190 ms"}, {"--period 0", false, "0"},
        {"--period 25", false, "25"}, {"--period 200", false, "200"}, {"--rate 44100", false, "44100"},
        {"--rate fast", false, "fast"}, {"--channels 0", false, "0"}, {"--channels 3", false, "3"},
        {"--capture-channels -1", false, "-1"}, {"--capture-channels 3", false, "3"}, {"--duration -1", false, ""},
        {"--duration soon", false, "soon"}, {"--tone 0", false, ""}, {"--rate 8000 --tone 3999", true, "8000 Hz"},
        {"--rate 8000 --tone 4000", false, ""}, {"--play a.wav --tone 1000", false, ""}, {"--play ", false, ""},
        {"--loop", false, ""}, {"--record out.wav --capture-channels 0", false, ""}, {"--bogus", false, "bogus"},
        {"stray", false, "stray"}, {"--list --rate 44100", true, ""},   // listing ignores call settings
        {"--aec standard", true, "aec 'standard'"}, {"--aec Robust", false, "Robust"},
        {"--calibrate --rate 48000 --period 40", true, "48000 Hz 40 ms"}, {"--calibrate --channels 2", false, "channels"},
        {"--calibrate --capture-channels 0", false, "capture-"}, {"--calibrate --record a.wav", false, "record"},
        {"--calibrate --duration 5", false, "duration"}, {"--api pulseaudio", true, "api 'pulseaudio'"},
        {"--api JACK", false, "JACK"}, {"--list --api oss", false, "oss"},
    };
    for (const auto& c : cases) {
        const std::string got = asked(c.args);
        EXPECT_EQ(got.rfind("refused: ", 0) != 0, c.accepted) << c.args << ": " << got;
        EXPECT_NE(got.find(c.shown), std::string::npos) << c.args << ": " << got;
    }
}

TEST(CallOptions, OpenFailuresNameTheCodeAndTheCause)
{
    EXPECT_EQ(openFailureMessage(-3, ""),
              "could not open the audio stream (code -3: no sample rate that both devices support)");
    EXPECT_EQ(openFailureMessage(-4, "busy"),
              "could not open the audio stream (code -4: the sound system refused to open the devices): busy");
}

TEST(Signals, LevelsMeterAndTheToneAcrossOddPeriods)
{
    EXPECT_EQ(meterBar(6.0, 10) + "|" + meterBar(-32.0, 10) + "|" + meterBar(-90.0, 10) + "|" + meterBar(toDbfs(0), 10),
              "##########|#####.....|..........|..........");
    EXPECT_EQ(formatElapsed(5.26) + " " + formatElapsed(61.0) + " " + formatElapsed(-1), "00:05.2 01:01.0 00:00.0");
    LevelMeter m;
    const auto levels = [&m] { return formatDbfs(m.peakDbfs()) + ", " + formatDbfs(m.rmsDbfs()); };
    const Samples square = {-32768, 32767, -32768, 32767, 0, 0, 0, 0};   // -32768 is full scale, not an overflow
    m.add(square.data(), square.size());
    EXPECT_EQ(levels(), "0.0 dBFS, -3.0 dBFS");
    m.reset();
    EXPECT_EQ(levels(), "-inf dBFS, -inf dBFS");

    ToneGenerator whole(440, 16000, DEFAULT_TONE_DBFS), pieces(440, 16000, DEFAULT_TONE_DBFS);
    const std::size_t frames = 16000 * 3;
    Samples a(frames * 2), b(a.size());
    whole.fill(a.data(), static_cast<int>(frames), 2);
    for (std::size_t at = 0, n = 1; at < frames; at += n, n = n % 997 + 311)   // odd periods, as a device may ask
        pieces.fill(&b[2 * at], static_cast<int>(std::min(n, frames - at)), 2);
    EXPECT_EQ(a, b);
    m.add(a.data(), a.size());
    EXPECT_EQ(levels(), "-12.0 dBFS, -15.0 dBFS");
    int crossings = 0, unequal = 0;
    for (std::size_t i = 2; i < a.size(); i += 2) {
        crossings += (a[i - 2] < 0) != (a[i] < 0);
        unequal += a[i] != a[i + 1];
    }
    EXPECT_NEAR(crossings, 2 * 440 * 3, 3);
    EXPECT_EQ(unequal, 0);   // the same on every channel
}

TEST(Signals, FarEndLoopsEndsAndMapsChannels)
{
    // A clip, looped or not, asked for frames on a number of channels: what came out, and whether it has ended.
    const struct { Clip clip; bool loop; int frames, channels; Samples played; bool finished; } cases[] = {
        {{{1, 2, 3}, 1, 16000}, true, 8, 1, {1, 2, 3, 1, 2, 3, 1, 2}, false},
        {{{5, 6, 7}, 1, 16000}, false, 2, 1, {5, 6}, false},
        {{{5, 6, 7}, 1, 16000}, false, 3, 1, {5, 6, 7}, true},   // ending exactly on a period counts
        {{{5, 6, 7}, 1, 16000}, false, 5, 1, {5, 6, 7, 0, 0}, true},
        {{{100, -200}, 1, 16000}, false, 2, 2, {100, 100, -200, -200}, true},
        {{{1, 2, 3, 4}, 2, 16000}, false, 2, 2, {1, 2, 3, 4}, true}, {{{1, 2, 3, 4}, 4, 16000}, false, 1, 2, {1, 2}, true},
        {{{32767, 32767, 1000, -3000}, 2, 16000}, false, 2, 1, {32767, -1000}, true},   // mixed without overflow
    };
    for (const auto& c : cases) {
        FarEndSource source(c.clip, c.loop);
        Samples played(static_cast<std::size_t>(c.frames * c.channels), -1);
        source.fill(played.data(), c.frames, c.channels);
        EXPECT_EQ(played, c.played) << &c - cases;
        EXPECT_EQ(source.finished(), c.finished) << &c - cases;
    }
}

// Whether `text` holds the pieces of `pattern` (split at '*') in order; a
// final '$' ties the last piece to the end. (std::regex trips GCC 12's
// uninitialised-use warning under the sanitizers.)
bool holds(const std::string& text, std::string pattern)
{
    const bool anchored = !pattern.empty() && pattern.back() == '$';
    if (anchored)
        pattern.pop_back();
    std::size_t at = 0;
    for (std::size_t start = 0;; ) {
        const std::size_t star = pattern.find('*', start);
        const std::string piece = pattern.substr(start, star == std::string::npos ? std::string::npos : star - start);
        const std::size_t found = text.find(piece, at);
        if (found == std::string::npos)
            return false;
        at = found + piece.size();
        if (star == std::string::npos)
            return !anchored || at == text.size();
        start = star + 1;
    }
}

TEST(Signals, ClipFilesLoadAtTheCallRateOnly)
{
    // Rate 0: no file at all. The error, as a pattern (see holds); --rate is offered only for a rate the call could
    // run at.
    const struct { const char* name; int rate, channels; Samples samples; const char* error; } cases[] = {
        {"cs_far.wav", 16000, 2, {1, 2, 3, 4, 5, 6}, "$"},
        {"cs_cd.wav", 44100, 1, {1, 2}, "cs_cd.wav is at 44100 Hz but the call runs at 16000 Hz; convert the file$"},
        {"cs_wide.wav", 48000, 1, {1, 2}, "48000 Hz but the call runs at 16000 Hz; convert the file or pass --rate 48000$"},
        {"cs_empty.wav", 16000, 1, {}, "cs_empty.wav holds no audio$"},
        {"cs_absent.wav", 0, 1, {}, "could not read *cs_absent.wav"},
    };
    for (const auto& c : cases) {
        const std::string path = ::testing::TempDir() + c.name;
        SF_INFO info = {0, c.rate, c.channels, SF_FORMAT_WAV | SF_FORMAT_PCM_16, 0, 0};
        if (SNDFILE* f = c.rate ? sf_open(path.c_str(), SFM_WRITE, &info) : nullptr) {
            sf_write_short(f, c.samples.data(), static_cast<sf_count_t>(c.samples.size()));
            sf_close(f);
        }
        Clip clip;
        std::string error;
        const bool loaded = loadClip(path, 16000, &clip, &error);
        std::remove(path.c_str());
        EXPECT_TRUE(holds(error, c.error)) << error;
        EXPECT_EQ(loaded, c.rate == 16000 && !c.samples.empty()) << c.name;
        EXPECT_EQ(clip.samples, loaded ? c.samples : Samples()) << c.name;
        EXPECT_EQ(clip.frames(), loaded ? 3u : 0u) << c.name;
    }
}

TEST(EchoDelay, CallRecordHoldsTheStreamFacts)
{
    // Counters outgrow 32 bits in a long call.
    const tamrel::TAudio2UniversalDevice::StreamInfo stream{true, true, "Pulse", 48000, 1024, 512, 20, 320, 960, 100,
                                                            "robust", 4294967296u, 960, 1};
    // The report reads this text (tests/test_aec_report.py holds the same).
    EXPECT_EQ(callRecordJson({16000, 2, 1, stream, 100, true}),
              "{\"rate\": 16000, \"period_ms\": 20, \"playback_channels\": 2, \"capture_channels\": 1, "
              "\"told_delay_ms\": 100, \"aec_mode\": \"robust\", \"robust_told_delay_ms\": 100, "
              "\"robust_earliest_ms\": 50, \"sound_layer\": \"Pulse\", \"card_rate_hz\": 48000, "
              "\"granted_buffer_frames\": 1024, \"last_buffer_frames\": 512, \"frames_carried\": 4294967296, "
              "\"frames_lost\": 960, \"recoveries\": 1, \"ended\": true}\n");
}

TEST(EchoDelay, VerdictAtTheWindowEdges)
{
    // Robust mode would be told 100 ms (five 20 ms periods) and reaches from 50 ms before that.
    using V = Verdict;
    const struct { double roundTrip; int told; const char* mode; Verdict verdict; } cases[] = {
        {145, 130, "standard", V::Cancels}, {185, 130, "standard", V::Cancels}, {144, 130, "standard", V::UseRobust},
        {186, 130, "standard", V::UseRobust}, {183, 60, "standard", V::UseRobust}, {183, 60, "robust", V::Cancels},
        {50, 130, "standard", V::UseRobust}, {49, 130, "standard", V::WillNotCancel}, {50, 100, "robust", V::Cancels},
        {49, 100, "robust", V::WillNotCancel}, {-1, 60, "standard", V::NoEcho}, {145, 130, "off", V::CancellerOff},
    };
    for (const auto& c : cases)
        EXPECT_EQ(judgeEchoDelay(c.roundTrip, c.told, c.mode, 100), c.verdict) << c.roundTrip << " " << c.told << c.mode;
}

TEST(EchoDelay, ProbeRoundTripUnderNoiseAndNearEnd)
{
    for (int rate : {8000, 16000}) {
        const Samples probe = makeProbe(rate, 0.5, 0.5, 1.5);
        // The echo 20 dB down and inverted, a louder near-end hum over all of it.
        const size_t lag = static_cast<size_t>(0.1832 * rate);
        Samples heard(probe.size()), noise(probe.size());
        uint32_t seed = 7;
        for (size_t i = 0; i < heard.size(); ++i) {
            seed = seed * 1664525u + 1013904223u;
            noise[i] = static_cast<int16_t>(1500.0 * std::sin(6.2831853 * 150.0 * i / rate) + double(seed >> 20) - 2048.0);
            heard[i] = static_cast<int16_t>(noise[i] - (i >= lag ? 0.1 * probe[i - lag] : 0.0));
        }
        EXPECT_NEAR(findRoundTrip(probe, heard, rate, 400).ms, 1000.0 * lag / rate, 0.01) << rate;
        EXPECT_EQ(findRoundTrip(probe, noise, rate, 400).ms, -1) << rate;
        EXPECT_EQ(findRoundTrip(Samples(probe.size(), 0), heard, rate, 1000).ms, -1);
    }
}
