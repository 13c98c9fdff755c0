#include "callsession.h"
#include "echodelay.h"

#include <gtest/gtest.h>
#include <sndfile.h>

#include <cmath>
#include <cstdio>

using namespace tamrel::call;
using Samples = std::vector<int16_t>;

// What a command line asks of the device and of the call, or "!" and why it is refused.
static std::string asked(const std::string& line)
{
    const ParseResult r = parseCallOptions(QString::fromStdString("taudio2call " + line).split(' ', Qt::SkipEmptyParts));
    const tamrel::TAudio2StreamConfiguration c = toConfiguration(r.options);
    return r.status != ParseResult::Run ? "!" + r.message
        : std::to_string(c.sampleRate) + " Hz " + std::to_string(c.periodMs) + " ms, play "
        + std::to_string(c.playbackChannels) + " '" + c.playbackDeviceName + "', capture "
        + std::to_string(c.captureChannels) + " '" + c.captureDeviceName + "'" + (c.measureAec ? ", aec" : "") + "; "
        + QString::number(r.options.durationSeconds).toStdString() + " s, api '" + r.options.api + "', aec '"
        + r.options.aecMode + "', latency '" + r.options.latency + "'";
}

TEST(CallOptions, ReachTheConfigurationAndAreRefusedAtTheEdges)
{
    // The command line, then after the '|' a piece of what it asks, or "!" and a piece of why it is refused.
    const std::string cases[] = {"--calibrate --aec standard|16000 Hz 20 ms, play 1 '', capture 1 ''; 0 s, api '', "
        "aec 'standard', latency ''", "--capture Mic --playback Speakers --rate 8000 --period 190 --channels 2 "
        "--capture-channels 0 --measure-aec --duration 2.5 --api alsa --aec robust --latency low|8000 Hz 190 ms, play "
        "2 'Speakers', capture 0 'Mic', aec; 2.5 s, api 'alsa', aec 'robust', latency 'low'", "--list --rate 44100|",
        "--period 0|!0", "--period 25|!25", "--period 200|!200", "--rate 44100|!44100", "--rate fast|!fast",
        "--channels 0|!0", "--channels 3|!3", "--capture-channels -1|!-1", "--capture-channels 3|!3",
        "--duration -1|!duration", "--tone 0|!tone", "--rate 8000 --tone 4000|!4000", "--play a.wav --tone 1000|!tone",
        "--play=|!play", "--loop|!loop", "--record out.wav --capture-channels 0|!record", "--bogus|!bogus",
        "stray|!stray", "--aec Robust|!Robust", "--api JACK|!JACK", "--list --api oss|!oss", "--latency fast|!fast",
        "--calibrate --channels 2|!channels", "--calibrate --record a|!record", "--duration soon|!soon"};
    for (const std::string& c : cases) {
        const std::string shown = c.substr(c.find('|') + 1), got = asked(c.substr(0, c.find('|')));
        const bool refused = shown[0] == '!';
        EXPECT_TRUE((got[0] == '!') == refused && got.find(shown.substr(refused)) != got.npos) << c << ": " << got;
    }
}

TEST(FarEnd, ClipsLoadAtTheirOwnRateOnlyLoopEndAndMapChannels)
{
    std::string error, path = ::testing::TempDir() + "cs_clip.wav";
    SF_INFO info = {0, 48000, 2, SF_FORMAT_WAV | SF_FORMAT_PCM_16, 0, 0};
    SNDFILE* f = sf_open(path.c_str(), SFM_WRITE, &info);
    sf_write_short(f, Samples{1, 2, 3, 4}.data(), 4);
    sf_close(f);
    Clip clip;
    EXPECT_TRUE(!loadClip(path, 16000, &clip, &error) && error.find("48000 Hz") != std::string::npos) << error;
    EXPECT_TRUE(loadClip(path, 48000, &clip, &error) && clip.samples == Samples({1, 2, 3, 4}) && clip.channels == 2);
    std::remove(path.c_str());
    // A clip (samples, channels), looped or not, asked for frames on some channels: what came out, whether it ended.
    const struct { Samples clip; int clipChannels; bool loop; int frames, channels; Samples out; bool ended; } cases[] = {
        {{1, 2, 3}, 1, true, 8, 1, {1, 2, 3, 1, 2, 3, 1, 2}, false}, {{5, 6, 7}, 1, false, 2, 1, {5, 6}, false},
        {{5, 6, 7}, 1, false, 3, 1, {5, 6, 7}, true},   // ending exactly on a period counts
        {{5, 6, 7}, 1, false, 5, 1, {5, 6, 7, 0, 0}, true}, {{100, -200}, 1, false, 2, 2, {100, 100, -200, -200}, true},
        {{1, 2, 3, 4}, 2, false, 2, 2, {1, 2, 3, 4}, true}, {{1, 2, 3, 4}, 4, false, 1, 2, {1, 2}, true},
        {{32767, 32767, 1000, -3000}, 2, false, 2, 1, {32767, -1000}, true}};   // mixed without overflow
    for (const auto& c : cases) {
        FarEndSource source(Clip{c.clip, c.clipChannels, 16000}, c.loop);
        Samples played(static_cast<std::size_t>(c.frames * c.channels), -1);
        source.fill(played.data(), c.frames, c.channels);
        EXPECT_TRUE(played == c.out && source.finished() == c.ended) << &c - cases;
    }
}

TEST(EchoDelay, CallRecordHoldsTheStreamFacts)
{
    // What the report reads (tests/test_aec_report.py holds the same text); counters outgrow 32 bits in a long call.
    EXPECT_EQ(callRecordJson({16000, 2, 1, {true, true, "Pulse", 48000, 1024, 512, 20, 320, 960, 100, 3, false, "robust",
                                            4294967296u, 960, 1}, 100, true}),
        R"({"rate": 16000, "period_ms": 20, "playback_channels": 2, "capture_channels": 1, "told_delay_ms": 100, )"
        R"("aec_mode": "robust", "robust_told_delay_ms": 100, "robust_earliest_ms": 50, "sound_layer": "Pulse", )"
        R"("card_rate_hz": 48000, "granted_buffer_frames": 1024, "playback_queue_buffers": 3, "last_buffer_frames": 512, )"
        R"("frames_carried": 4294967296, "frames_lost": 960, "recoveries": 1, "ended": true})" "\n");
}

TEST(EchoDelay, VerdictAtTheWindowEdges)
{
    // Told 130 ms, standard mode takes 145 to 185 ms; robust mode, told 100 ms (80 ms below), reaches 50 ms earlier.
    using V = Verdict;
    const struct { double roundTrip; int told; const char* mode; Verdict verdict; } cases[] = {
        {145, 130, "standard", V::Cancels}, {185, 130, "standard", V::Cancels}, {144, 130, "standard", V::UseRobust},
        {186, 130, "standard", V::UseRobust}, {50, 130, "standard", V::UseRobust}, {49, 130, "standard", V::WillNotCancel},
        {30, 80, "robust", V::Cancels}, {29, 80, "robust", V::WillNotCancel}, {183, 80, "robust", V::Cancels},
        {-1, 60, "standard", V::NoEcho}, {145, 130, "off", V::CancellerOff}};
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
        for (size_t i = 0, seed = 7; i < heard.size(); ++i, seed = (seed * 1664525u + 1013904223u) & 0xffffffffu)
            noise[i] = static_cast<int16_t>(1500.0 * std::sin(6.2831853 * 150.0 * i / rate) + double(seed >> 20) - 2048.0),
            heard[i] = static_cast<int16_t>(noise[i] - (i >= lag ? 0.1 * probe[i - lag] : 0.0));
        EXPECT_NEAR(findRoundTrip(probe, heard, rate, 400).ms, 1000.0 * lag / rate, 0.01) << rate;
        EXPECT_EQ(findRoundTrip(probe, noise, rate, 400).ms, -1) << rate;
    }
}
