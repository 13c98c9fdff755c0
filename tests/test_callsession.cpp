#include "callsession.h"
#include "echodelay.h"

#include <gtest/gtest.h>

#include <sndfile.h>

#include <algorithm>
#include <cmath>
#include <cstdio>

using namespace tamrel::call;

static std::string configured(const ParseResult& r)
{
    const tamrel::TAudio2StreamConfiguration c = toConfiguration(r.options);
    return (r.status == ParseResult::Run ? "" : "refused: " + r.message) + std::to_string(c.sampleRate) + " Hz "
        + std::to_string(c.periodMs) + " ms, play " + std::to_string(c.playbackChannels) + " '" + c.playbackDeviceName
        + "', capture " + std::to_string(c.captureChannels) + " '" + c.captureDeviceName + "'"
        + (c.measureAec ? ", aec" : "");
}

TEST(CallOptions, StreamOptionsReachTheConfiguration)
{
    EXPECT_EQ(configured(parseCallOptions({"taudio2call"})), "16000 Hz 20 ms, play 1 '', capture 1 ''");
    const ParseResult r = parseCallOptions({"taudio2call", "--capture", "USB Mic", "--playback", "Speakers", "--rate", "48000",
                                            "--period", "30", "--channels", "2", "--capture-channels", "0", "--measure-aec",
                                            "--duration", "2.5", "--api", "alsa"});
    EXPECT_EQ(configured(r), "48000 Hz 30 ms, play 2 'Speakers', capture 0 'USB Mic', aec");
    EXPECT_DOUBLE_EQ(r.options.durationSeconds, 2.5);
    EXPECT_EQ(r.options.api, "alsa");
}

TEST(CallOptions, ValidationBoundaries)
{
    const struct { QStringList args; bool accepted; const char* quoted; } cases[] = {
        {{"--period", "10"}, true, ""}, {{"--period", "190"}, true, ""}, {{"--period", "0"}, false, "0"},
        {{"--period", "25"}, false, "25"}, {{"--period", "200"}, false, "200"}, {{"--rate", "44100"}, false, "44100"},
        {{"--rate", "fast"}, false, "fast"}, {{"--channels", "0"}, false, "0"}, {{"--channels", "3"}, false, "3"},
        {{"--capture-channels", "-1"}, false, "-1"}, {{"--capture-channels", "3"}, false, "3"},
        {{"--duration", "-1"}, false, ""}, {{"--duration", "soon"}, false, "soon"}, {{"--tone", "0"}, false, ""},
        {{"--rate", "8000", "--tone", "3999"}, true, ""}, {{"--rate", "8000", "--tone", "4000"}, false, ""},
        {{"--play", "a.wav", "--tone", "1000"}, false, ""}, {{"--play", ""}, false, ""}, {{"--loop"}, false, ""},
        {{"--record", "out.wav", "--capture-channels", "0"}, false, ""}, {{"--bogus"}, false, "bogus"},
        {{"stray"}, false, "stray"}, {{"--list", "--rate", "44100"}, true, ""},   // listing ignores call settings
        {{"--aec", "robust"}, true, ""}, {{"--aec", "standard"}, true, ""}, {{"--aec", "Robust"}, false, "Robust"},
        {{"--calibrate", "--rate", "48000", "--period", "40"}, true, ""}, {{"--calibrate", "--channels", "2"}, false, "channels"},
        {{"--calibrate", "--capture-channels", "0"}, false, "capture-channels"}, {{"--calibrate", "--record", "a.wav"}, false, "record"},
        {{"--calibrate", "--duration", "5"}, false, "duration"}, {{"--api", "jack"}, true, ""},
        {{"--api", "pulseaudio"}, true, ""}, {{"--api", "JACK"}, false, "JACK"}, {{"--list", "--api", "oss"}, false, "oss"},
    };
    for (const auto& c : cases) {
        const ParseResult r = parseCallOptions(QStringList{"taudio2call"} + c.args);
        EXPECT_EQ(r.status, c.accepted ? ParseResult::Run : ParseResult::Error) << c.args.join(' ').toStdString();
        EXPECT_NE(r.message.find(c.quoted), std::string::npos) << r.message;
    }
}

TEST(OpenFailureWording, NamesTheCodeAndTheCause)
{
    EXPECT_EQ(openFailureMessage(-3, ""),
              "could not open the audio stream (code -3: no sample rate that both devices support)");
    EXPECT_EQ(openFailureMessage(-4, "busy"),
              "could not open the audio stream (code -4: the sound system refused to open the devices): busy");
    for (int a : {-1, -3, -4, -5, -6})
        for (int b : {-1, -3, -4, -5, -6, -99})
            EXPECT_TRUE(a == b || describeOpenCode(a) != describeOpenCode(b)) << a << " and " << b;
}

TEST(Levels, DbfsMeterAndElapsedText)
{
    EXPECT_EQ(formatDbfs(toDbfs(0)), "-inf dBFS");
    EXPECT_EQ(formatDbfs(-12.04), "-12.0 dBFS");
    for (const auto& [dbfs, bar] : {std::pair<double, const char*>{6.0, "##########"}, {-32.0, "#####....."},
                                    {-90.0, ".........."}, {toDbfs(0), ".........."}})
        EXPECT_EQ(meterBar(dbfs, 10), bar) << dbfs;
    EXPECT_EQ(formatElapsed(5.26), "00:05.2");
    EXPECT_EQ(formatElapsed(61.0), "01:01.0");
    EXPECT_EQ(formatElapsed(-1), "00:00.0");

    LevelMeter m;
    const std::vector<int16_t> square = {-32768, 32767, -32768, 32767}, silence(4, 0);
    m.add(square.data(), square.size());   // -32768 is full scale, not an overflow
    EXPECT_NEAR(m.peakDbfs(), 0.0, 1e-9);
    m.add(silence.data(), silence.size());
    EXPECT_NEAR(m.rmsDbfs(), -3.01, 0.01);
    m.reset();
    EXPECT_TRUE(std::isinf(m.peakDbfs()) && std::isinf(m.rmsDbfs()));
}

TEST(Tone, LevelPitchAndPhaseAcrossOddPeriods)
{
    ToneGenerator whole(440, 16000, DEFAULT_TONE_DBFS), pieces(440, 16000, DEFAULT_TONE_DBFS);
    const std::size_t frames = 16000 * 3;
    std::vector<int16_t> a(frames * 2), b(a.size());
    whole.fill(a.data(), static_cast<int>(frames), 2);
    for (std::size_t at = 0, n = 1; at < frames; at += n, n = n % 997 + 311) {   // odd periods, as a device may ask
        n = std::min(n, frames - at);
        pieces.fill(&b[2 * at], static_cast<int>(n), 2);
    }
    EXPECT_EQ(a, b);
    LevelMeter m;
    m.add(a.data(), a.size());
    EXPECT_NEAR(m.peakDbfs(), -12.0, 0.05);
    EXPECT_NEAR(m.rmsDbfs(), -15.0, 0.05);
    int crossings = 0;
    for (std::size_t i = 2; i < a.size(); i += 2) {
        ASSERT_EQ(a[i], a[i + 1]) << i;
        crossings += (a[i - 2] < 0) != (a[i] < 0);
    }
    EXPECT_NEAR(crossings, 2 * 440 * 3, 3);
}

TEST(FarEnd, LoopingSilenceAndChannelLayouts)
{
    std::vector<int16_t> out(8, -1);
    FarEndSource looped(Clip{{1, 2, 3}, 1, 16000}, true);
    looped.fill(out.data(), 8, 1);
    EXPECT_EQ(out, (std::vector<int16_t>{1, 2, 3, 1, 2, 3, 1, 2}));
    EXPECT_FALSE(looped.finished());
    FarEndSource once(Clip{{5, 6, 7}, 1, 16000}, false);
    once.fill(out.data(), 2, 1);
    EXPECT_FALSE(once.finished());
    once.fill(out.data(), 1, 1);   // ending exactly on a period still counts
    EXPECT_TRUE(once.finished());
    once.fill(out.data(), 8, 1);
    EXPECT_EQ(out, std::vector<int16_t>(8, 0));

    auto mapped = [](Clip clip, int frames, int channels) {
        FarEndSource source(std::move(clip), false);
        std::vector<int16_t> out(static_cast<std::size_t>(frames * channels), -1);
        source.fill(out.data(), frames, channels);
        return out;
    };
    EXPECT_EQ(mapped({{100, -200}, 1, 16000}, 2, 2), (std::vector<int16_t>{100, 100, -200, -200}));
    EXPECT_EQ(mapped({{1, 2, 3, 4}, 2, 16000}, 2, 2), (std::vector<int16_t>{1, 2, 3, 4}));
    EXPECT_EQ(mapped({{32767, 32767, 1000, -3000}, 2, 16000}, 2, 1), (std::vector<int16_t>{32767, -1000}));   // no overflow
    EXPECT_EQ(mapped({{1, 2, 3, 4}, 4, 16000}, 1, 2), (std::vector<int16_t>{1, 2}));
}

TEST(ClipFile, LoadsAtTheCallRateOnly)
{
    auto load = [](const char* name, int rate, int channels, const std::vector<int16_t>& samples, Clip* clip) {
        const std::string path = ::testing::TempDir() + name;
        SF_INFO info = {0, rate, channels, SF_FORMAT_WAV | SF_FORMAT_PCM_16, 0, 0};
        if (SNDFILE* f = rate ? sf_open(path.c_str(), SFM_WRITE, &info) : nullptr) {   // rate 0: no file at all
            sf_write_short(f, samples.data(), static_cast<sf_count_t>(samples.size()));
            sf_close(f);
        }
        std::string error;
        EXPECT_EQ(loadClip(path, 16000, clip, &error), rate == 16000 && !samples.empty()) << error;
        std::remove(path.c_str());
        return error;
    };
    Clip clip;
    EXPECT_EQ(load("cs_far.wav", 16000, 2, {1, 2, 3, 4, 5, 6}, &clip), "");
    EXPECT_EQ(clip.frames(), 3u);
    EXPECT_EQ(clip.samples, (std::vector<int16_t>{1, 2, 3, 4, 5, 6}));

    const std::string cd = load("cs_cd.wav", 44100, 1, {1, 2}, &clip);
    EXPECT_NE(cd.find("44100 Hz but the call runs at 16000"), std::string::npos) << cd;
    EXPECT_EQ(cd.find("--rate"), std::string::npos) << "44100 is no usable rate: " << cd;
    EXPECT_NE(load("cs_wide.wav", 48000, 1, {1, 2}, &clip).find("--rate 48000"), std::string::npos);
    EXPECT_NE(load("cs_empty.wav", 16000, 1, {}, &clip).find("cs_empty.wav"), std::string::npos);
    EXPECT_NE(load("cs_absent.wav", 0, 1, {}, &clip).find("cs_absent.wav"), std::string::npos);
}

TEST(EchoDelay, CallRecordHoldsTheStreamFacts)
{
    // Counters outgrow 32 bits in a long call.
    const tamrel::TAudio2UniversalDevice::StreamInfo stream{true, true, "Pulse", 48000, 1024, 512, 20, 320, 960, 100,
                                                            "robust", 4294967296u, 960, 1};
    // The report reads this text (tests/test_aec_report.py holds the same).
    EXPECT_EQ(callRecordJson({16000, 2, 1, stream, 100, true}),
              "{\"rate\": 16000, \"period_ms\": 20, \"playback_channels\": 2, \"capture_channels\": 1, "
              "\"told_delay_ms\": 100, \"aec_mode\": \"robust\", \"robust_told_delay_ms\": 100, \"robust_earliest_ms\": 50, "
              "\"sound_layer\": \"Pulse\", \"card_rate_hz\": 48000, "
              "\"granted_buffer_frames\": 1024, \"last_buffer_frames\": 512, \"frames_carried\": 4294967296, "
              "\"frames_lost\": 960, \"recoveries\": 1, \"ended\": true}\n");
}

TEST(EchoDelay, VerdictAtTheWindowEdges)
{
    const struct { double roundTrip; int told; const char* mode; Verdict verdict; } cases[] = {
        {145, 130, "standard", Verdict::Cancels}, {185, 130, "standard", Verdict::Cancels},
        {144, 130, "standard", Verdict::UseRobust}, {186, 130, "standard", Verdict::UseRobust},
        {183, 60, "standard", Verdict::UseRobust}, {183, 60, "robust", Verdict::Cancels},
        {50, 130, "standard", Verdict::UseRobust}, {49, 130, "standard", Verdict::WillNotCancel},
        {50, 100, "robust", Verdict::Cancels}, {49, 100, "robust", Verdict::WillNotCancel},
        {-1, 60, "standard", Verdict::NoEcho}, {145, 130, "off", Verdict::CancellerOff},
    };
    // Robust mode is told five 20 ms periods.
    for (const auto& c : cases)
        EXPECT_EQ(judgeEchoDelay(c.roundTrip, c.told, c.mode, 100), c.verdict) << c.roundTrip << " told " << c.told << " "
                                                                               << c.mode;
}

TEST(EchoDelay, ProbeRoundTripUnderNoiseAndNearEnd)
{
    for (int rate : {8000, 16000}) {
        const std::vector<int16_t> probe = makeProbe(rate, 0.5, 0.5, 1.5);
        ASSERT_EQ(probe.size(), static_cast<size_t>(2.5 * rate));
        LevelMeter level;
        level.add(probe.data(), probe.size());
        EXPECT_NEAR(level.peakDbfs(), -12.0, 0.1) << rate;
        EXPECT_TRUE(std::all_of(probe.begin(), probe.begin() + rate / 2, [](int16_t s) { return s == 0; }));

        // The echo 20 dB down and inverted, a louder near-end hum over all of it.
        const size_t lag = static_cast<size_t>(0.1832 * rate);
        std::vector<int16_t> heard(probe.size()), noise(probe.size());
        uint32_t seed = 7;
        for (size_t i = 0; i < heard.size(); ++i) {
            seed = seed * 1664525u + 1013904223u;
            const double hum = 1500.0 * std::sin(6.2831853 * 150.0 * i / rate) + double(seed >> 20) - 2048.0;
            noise[i] = static_cast<int16_t>(hum);
            heard[i] = static_cast<int16_t>(hum - (i >= lag ? 0.1 * probe[i - lag] : 0.0));
        }
        const RoundTrip found = findRoundTrip(probe, heard, rate, 400);
        EXPECT_NEAR(found.ms, 1000.0 * lag / rate, 0.01) << rate;
        EXPECT_EQ(findRoundTrip(probe, noise, rate, 400).ms, -1) << rate;
        EXPECT_EQ(findRoundTrip(std::vector<int16_t>(probe.size(), 0), heard, rate, 1000).ms, -1);
    }
}
