#include "callsession.h"
#include "echodelay.h"

#include <gtest/gtest.h>
#include <sndfile.h>

#include <algorithm>
#include <cmath>
#include <cstdio>

using namespace tamrel::call;
using Samples = std::vector<int16_t>;

// What a command line (split at spaces) asks of the device and of the call, or "!" and why it is refused.
static std::string asked(const std::string& line)
{
    const QStringList words = line.empty() ? QStringList() : QString(line.c_str()).split(' ');
    const ParseResult r = parseCallOptions(QStringList{"taudio2call"} + words);
    const tamrel::TAudio2StreamConfiguration c = toConfiguration(r.options);
    if (r.status != ParseResult::Run)
        return "!" + r.message;
    return std::to_string(c.sampleRate) + " Hz " + std::to_string(c.periodMs) + " ms, play "
        + std::to_string(c.playbackChannels) + " '" + c.playbackDeviceName + "', capture "
        + std::to_string(c.captureChannels) + " '" + c.captureDeviceName + "'"
        + (c.measureAec ? ", aec" : "") + "; " + QString::number(r.options.durationSeconds).toStdString() + " s, api '"
        + r.options.api + "', aec '" + r.options.aecMode + "', latency '" + r.options.latency + "'";
}

TEST(CallOptions, ReachTheConfigurationAndAreValidatedAtTheEdges)
{
    const std::pair<std::string, std::string> accepted[] = {   // the command line, a piece of what it asks
        {"", "16000 Hz 20 ms, play 1 '', capture 1 ''; 0 s, api '', aec ''"},
        {"--capture Mic --playback Speakers --rate 48000 --period 30 --channels 2 --capture-channels 0 --measure-aec "
         "--duration 2.5 --api alsa --aec robust", "48000 Hz 30 ms, play 2 'Speakers', capture 0 'Mic', aec; 2.5 s, "
         "api 'alsa', aec 'robust'"},
        {"--period 10", " 10 ms"}, {"--period 190", " 190 ms"}, {"--rate 8000 --tone 3999", "8000 Hz"},
        {"--list --rate 44100", ""}, {"--aec standard", "aec 'standard'"}, {"--latency low", "latency 'low'"},
        {"--calibrate --rate 48000 --period 40 --latency default", "48000 Hz 40 ms"},
    };
    // Each refusal names what it refuses (after the '|'). Listing ignores the call's settings, not the layer.
    const std::string refused[] = {"--period 0|0", "--period 25|25", "--period 200|200", "--rate 44100|44100",
        "--rate fast|fast", "--channels 0|0", "--channels 3|3", "--capture-channels -1|-1", "--capture-channels 3|3",
        "--duration -1|duration", "--duration soon|soon", "--tone 0|tone", "--rate 8000 --tone 4000|4000",
        "--play a.wav --tone 1000|tone", "--play |play", "--loop|loop", "--record out.wav --capture-channels 0|record",
        "--bogus|bogus", "stray|stray", "--aec Robust|Robust", "--api JACK|JACK", "--list --api oss|oss",
        "--latency fast|fast", "--calibrate --channels 2|channels", "--calibrate --record a|record"};
    for (const auto& [line, shown] : accepted)
        EXPECT_TRUE(asked(line)[0] != '!' && asked(line).find(shown) != std::string::npos) << line << ": " << asked(line);
    for (const std::string& line : refused) {
        const std::string got = asked(line.substr(0, line.find('|')));
        EXPECT_TRUE(got[0] == '!' && got.find(line.substr(line.find('|') + 1)) != std::string::npos) << line << got;
    }
}

TEST(Signals, ToneAcrossOddPeriodsAndItsLevel)
{
    // The tone in odd periods, as a device may ask, is the tone in one piece: -12 dBFS, 440 Hz, on every channel.
    ToneGenerator whole(440, 16000, DEFAULT_TONE_DBFS), pieces(440, 16000, DEFAULT_TONE_DBFS);
    const std::size_t frames = 16000 * 3;
    Samples a(frames * 2), b(a.size());
    whole.fill(a.data(), static_cast<int>(frames), 2);
    for (std::size_t at = 0, n = 1; at < frames; at += n, n = n % 997 + 311)
        pieces.fill(&b[2 * at], static_cast<int>(std::min(n, frames - at)), 2);
    EXPECT_EQ(a, b);
    int crossings = 0, unequal = 0;
    for (std::size_t i = 2; i < a.size(); i += 2)
        crossings += (a[i - 2] < 0) != (a[i] < 0), unequal += a[i] != a[i + 1];
    EXPECT_NEAR(crossings, 2 * 440 * 3, 3);
    EXPECT_EQ(unequal, 0);
    LevelMeter m;
    m.add(a.data(), a.size());
    EXPECT_EQ(formatDbfs(m.peakDbfs()) + ", " + formatDbfs(m.rmsDbfs()), "-12.0 dBFS, -15.0 dBFS");
    // -32768 is full scale, not an overflow; silence shows an empty bar.
    const int16_t fullScale = -32768;
    m.add(&fullScale, 1);
    EXPECT_EQ(formatDbfs(m.peakDbfs()) + " " + meterBar(-32.0, 10) + " " + meterBar(LevelMeter().rmsDbfs(), 10),
              "0.0 dBFS #####..... ..........");
}

TEST(Signals, FarEndLoopsEndsAndMapsChannels)
{
    // A clip (samples, channels), looped or not, asked for frames on a number of channels: what came out, and whether
    // it has ended. Not a Clip in the table: GCC 12 takes one for uninitialised.
    const struct { Samples clip; int clipChannels; bool loop; int frames, channels; Samples played; bool finished; }
        cases[] = {
        {{1, 2, 3}, 1, true, 8, 1, {1, 2, 3, 1, 2, 3, 1, 2}, false},
        {{5, 6, 7}, 1, false, 2, 1, {5, 6}, false},
        {{5, 6, 7}, 1, false, 3, 1, {5, 6, 7}, true},   // ending exactly on a period counts
        {{5, 6, 7}, 1, false, 5, 1, {5, 6, 7, 0, 0}, true},
        {{100, -200}, 1, false, 2, 2, {100, 100, -200, -200}, true},
        {{1, 2, 3, 4}, 2, false, 2, 2, {1, 2, 3, 4}, true}, {{1, 2, 3, 4}, 4, false, 1, 2, {1, 2}, true},
        {{32767, 32767, 1000, -3000}, 2, false, 2, 1, {32767, -1000}, true},   // mixed without overflow
    };
    for (const auto& c : cases) {
        FarEndSource source(Clip{c.clip, c.clipChannels, 16000}, c.loop);
        Samples played(static_cast<std::size_t>(c.frames * c.channels), -1);
        source.fill(played.data(), c.frames, c.channels);
        EXPECT_TRUE(played == c.played && source.finished() == c.finished) << &c - cases;
    }
}

TEST(Signals, ClipFilesLoadAtTheCallRateOnly)
{
    // The error follows the file's path; --rate is offered only for a rate the call could run at.
    const struct { int rate, channels; Samples samples; const char* error; } cases[] = {
        {16000, 2, {1, 2, 3, 4, 5, 6}, ""},
        {44100, 1, {1, 2}, " is at 44100 Hz but the call runs at 16000 Hz; convert the file"},
        {48000, 1, {1, 2}, " is at 48000 Hz but the call runs at 16000 Hz; convert the file or pass --rate 48000"},
    };
    const std::string path = ::testing::TempDir() + "cs_clip.wav";
    for (const auto& c : cases) {
        SF_INFO info = {0, c.rate, c.channels, SF_FORMAT_WAV | SF_FORMAT_PCM_16, 0, 0};
        SNDFILE* f = sf_open(path.c_str(), SFM_WRITE, &info);
        sf_write_short(f, c.samples.data(), static_cast<sf_count_t>(c.samples.size()));
        sf_close(f);
        Clip clip;
        std::string error;
        const bool loaded = loadClip(path, 16000, &clip, &error);
        EXPECT_EQ(error, *c.error ? path + c.error : "");
        EXPECT_TRUE(loaded == !*c.error && clip.samples == (loaded ? c.samples : Samples()) && clip.frames() == 3u * loaded)
            << c.rate;
    }
    std::remove(path.c_str());
}

TEST(EchoDelay, CallRecordHoldsTheStreamFacts)
{
    tamrel::TAudio2UniversalDevice::StreamInfo s;
    s.soundLayer = "Pulse", s.cardRateHz = 48000, s.grantedBufferFrames = 1024, s.lastBufferFrames = 512;
    s.periodMs = 20, s.toldDelayMs = 100, s.echoCancellation = "robust";
    s.framesCarried = 4294967296u, s.framesLost = 960, s.recoveries = 1;   // counters outgrow 32 bits in a long call
    const std::string json = callRecordJson({16000, 2, 1, s, 100, true});
    // First what the report reads (tests/test_aec_report.py holds the same text).
    for (const char* piece : {"{\"rate\": 16000, \"period_ms\": 20, \"playback_channels\": 2, \"capture_channels\": 1, "
                              "\"told_delay_ms\": 100, \"aec_mode\": \"robust\", \"robust_told_delay_ms\": 100, "
                              "\"robust_earliest_ms\": 50, \"sound_layer\": \"Pulse\", \"card_rate_hz\": 48000, "
                              "\"granted_buffer_frames\": 1024, ", ", \"last_buffer_frames\": 512, \"frames_carried\": "
                              "4294967296, \"frames_lost\": 960, \"recoveries\": 1, \"ended\": true}\n"})
        EXPECT_NE(json.find(piece), std::string::npos) << json;
}

TEST(EchoDelay, VerdictAtTheWindowEdges)
{
    // Told 130 ms, standard mode takes 145 to 185 ms; robust mode, told 100 ms (80 ms below), reaches 50 ms earlier.
    using V = Verdict;
    const struct { double roundTrip; int told; const char* mode; Verdict verdict; } cases[] = {
        {145, 130, "standard", V::Cancels}, {185, 130, "standard", V::Cancels}, {144, 130, "standard", V::UseRobust},
        {186, 130, "standard", V::UseRobust}, {50, 130, "standard", V::UseRobust}, {49, 130, "standard", V::WillNotCancel},
        {30, 80, "robust", V::Cancels}, {29, 80, "robust", V::WillNotCancel}, {183, 80, "robust", V::Cancels},
        {-1, 60, "standard", V::NoEcho}, {145, 130, "off", V::CancellerOff},
    };
    for (const auto& c : cases)
        EXPECT_EQ(judgeEchoDelay(c.roundTrip, c.told, c.mode, 100), c.verdict) << c.roundTrip << " " << c.told << c.mode;
}

TEST(EchoDelay, ProbeRoundTripUnderNoiseAndNearEnd)
{
    for (int rate : {8000, 16000}) {
        // The echo 20 dB down and inverted, a louder near-end hum and noise over all of it.
        const Samples probe = makeProbe(rate, 0.5, 0.5, 1.5);
        const size_t lag = static_cast<size_t>(0.1832 * rate);
        Samples heard(probe.size()), noise(probe.size());
        for (size_t i = 0, seed = 7; i < heard.size(); ++i) {
            seed = (seed * 1664525u + 1013904223u) & 0xffffffffu;
            noise[i] = static_cast<int16_t>(1500.0 * std::sin(6.2831853 * 150.0 * i / rate) + double(seed >> 20) - 2048.0);
            heard[i] = static_cast<int16_t>(noise[i] - (i >= lag ? 0.1 * probe[i - lag] : 0.0));
        }
        EXPECT_NEAR(findRoundTrip(probe, heard, rate, 400).ms, 1000.0 * lag / rate, 0.01) << rate;
        EXPECT_EQ(findRoundTrip(probe, noise, rate, 400).ms, -1) << rate;
        EXPECT_EQ(findRoundTrip(Samples(probe.size(), 0), heard, rate, 1000).ms, -1);
    }
}
