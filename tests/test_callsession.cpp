#include "callsession.h"

#include <gtest/gtest.h>

#include <sndfile.h>

#include <cmath>
#include <cstdlib>
#include <string>
#include <vector>

using namespace tamrel;
using namespace tamrel::call;

namespace {

ParseResult parse(QStringList args)
{
    args.prepend("taudio2call");
    return parseCallOptions(args);
}

std::string parseError(const QStringList& args)
{
    const ParseResult r = parse(args);
    EXPECT_EQ(r.status, ParseResult::Error) << "accepted: " << args.join(' ').toStdString();
    return r.message;
}

class TempDir {
public:
    TempDir()
    {
        char pattern[] = "/tmp/test_callsession.XXXXXX";
        m_path = mkdtemp(pattern);
    }
    ~TempDir() { std::system(("rm -rf '" + m_path + "'").c_str()); }
    std::string file(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

void writeWav(const std::string& path, int rate, int channels, const std::vector<int16_t>& samples)
{
    SF_INFO info = {};
    info.samplerate = rate;
    info.channels = channels;
    info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
    SNDFILE* f = sf_open(path.c_str(), SFM_WRITE, &info);
    ASSERT_NE(f, nullptr);
    sf_write_short(f, samples.data(), static_cast<sf_count_t>(samples.size()));
    sf_close(f);
}

Clip makeClip(int channels, std::vector<int16_t> samples)
{
    Clip c;
    c.channels = channels;
    c.rate = 16000;
    c.samples = std::move(samples);
    return c;
}

} // namespace

TEST(CallOptions, DefaultsGiveAMono16kCallWithA440Tone)
{
    const ParseResult r = parse({});
    ASSERT_EQ(r.status, ParseResult::Run) << r.message;
    EXPECT_DOUBLE_EQ(r.options.toneHz, 440.0);
    EXPECT_DOUBLE_EQ(r.options.durationSeconds, 0.0);
    const TAudio2StreamConfiguration c = toConfiguration(r.options);
    EXPECT_EQ(c.sampleRate, 16000);
    EXPECT_EQ(c.periodMs, 20);
    EXPECT_EQ(c.playbackChannels, 1);
    EXPECT_EQ(c.captureChannels, 1);
    EXPECT_TRUE(c.captureDeviceName.empty());
    EXPECT_TRUE(c.playbackDeviceName.empty());
    EXPECT_FALSE(c.measureAec);
}

TEST(CallOptions, EveryStreamOptionReachesTheConfiguration)
{
    const ParseResult r = parse({"--capture", "USB Mic", "--playback", "Speakers", "--rate", "48000", "--period",
                                 "30", "--channels", "2", "--capture-channels", "0", "--measure-aec", "--duration",
                                 "2.5"});
    ASSERT_EQ(r.status, ParseResult::Run) << r.message;
    const TAudio2StreamConfiguration c = toConfiguration(r.options);
    EXPECT_EQ(c.captureDeviceName, "USB Mic");
    EXPECT_EQ(c.playbackDeviceName, "Speakers");
    EXPECT_EQ(c.sampleRate, 48000);
    EXPECT_EQ(c.periodMs, 30);
    EXPECT_EQ(c.playbackChannels, 2);
    EXPECT_EQ(c.captureChannels, 0);
    EXPECT_TRUE(c.measureAec);
    EXPECT_DOUBLE_EQ(r.options.durationSeconds, 2.5);
}

TEST(CallOptions, RejectsValuesTheDeviceWouldMishandle)
{
    EXPECT_NE(parseError({"--rate", "44100"}).find("44100"), std::string::npos);
    EXPECT_NE(parseError({"--rate", "fast"}).find("fast"), std::string::npos);
    parseError({"--period", "0"});     // zero frames per period
    parseError({"--period", "25"});    // not whole echo-canceller blocks
    parseError({"--period", "200"});   // dropped whole as a resynchronisation
    parseError({"--channels", "0"});
    parseError({"--channels", "3"});
    parseError({"--capture-channels", "-1"});
    parseError({"--capture-channels", "3"});
    parseError({"--duration", "-1"});
    parseError({"--duration", "soon"});
    parseError({"--rate", "8000", "--tone", "4000"});   // at Nyquist
    parseError({"--tone", "0"});
}

TEST(CallOptions, RejectsContradictoryChoices)
{
    parseError({"--play", "a.wav", "--tone", "1000"});
    parseError({"--loop"});
    parseError({"--record", "out.wav", "--capture-channels", "0"});
    parseError({"--bogus"});
    parseError({"stray"});
    parseError({"--play", ""});
}

TEST(CallOptions, ListIgnoresCallSettings)
{
    const ParseResult r = parse({"--list", "--rate", "44100"});
    ASSERT_EQ(r.status, ParseResult::Run) << r.message;
    EXPECT_TRUE(r.options.list);
}

TEST(CallOptions, BoundaryValuesAreAccepted)
{
    for (const char* period : {"10", "190"}) {
        const ParseResult r = parse({"--period", period});
        EXPECT_EQ(r.status, ParseResult::Run) << period << ": " << r.message;
    }
    const ParseResult tone = parse({"--rate", "8000", "--tone", "3999"});
    EXPECT_EQ(tone.status, ParseResult::Run) << tone.message;
}

TEST(OpenFailureWording, NamesTheCodeAndTheCause)
{
    EXPECT_EQ(openFailureMessage(-3, ""),
              "could not open the audio stream (code -3: no sample rate that both devices support)");
    EXPECT_EQ(openFailureMessage(-4, "device busy"),
              "could not open the audio stream (code -4: the sound system refused to open the devices): device busy");
    const int codes[] = {-1, -3, -4, -5, -6};
    for (int a : codes) {
        EXPECT_NE(describeOpenCode(a), describeOpenCode(-99)) << a;
        for (int b : codes) {
            if (a != b) {
                EXPECT_NE(describeOpenCode(a), describeOpenCode(b));
            }
        }
    }
}

TEST(Levels, DbfsConversionAndFormatting)
{
    EXPECT_DOUBLE_EQ(toDbfs(32768), 0.0);
    EXPECT_NEAR(toDbfs(16384), -6.02, 0.01);
    EXPECT_TRUE(std::isinf(toDbfs(0)));
    EXPECT_LT(toDbfs(0), 0);
    EXPECT_EQ(formatDbfs(toDbfs(0)), "-inf dBFS");
    EXPECT_EQ(formatDbfs(-12.04), "-12.0 dBFS");
    EXPECT_EQ(formatDbfs(0.0), "0.0 dBFS");
}

TEST(Levels, MeterBarCoversMinus60To0)
{
    EXPECT_EQ(meterBar(0.0, 10), "##########");
    EXPECT_EQ(meterBar(6.0, 10), "##########");          // clipped, not overflowing
    EXPECT_EQ(meterBar(-30.0, 10), "#####.....");
    EXPECT_EQ(meterBar(-60.0, 10), "..........");
    EXPECT_EQ(meterBar(-90.0, 10), "..........");
    EXPECT_EQ(meterBar(toDbfs(0), 10), "..........");
    EXPECT_EQ(meterBar(-10.0, 0), "");
}

TEST(Levels, MeterPeakAndRms)
{
    LevelMeter m;
    EXPECT_TRUE(std::isinf(m.peakDbfs()));
    EXPECT_TRUE(std::isinf(m.rmsDbfs()));

    // The most negative sample is full scale, not an overflow.
    const std::vector<int16_t> square = {-32768, 32767, -32768, 32767};
    m.add(square.data(), square.size());
    EXPECT_NEAR(m.peakDbfs(), 0.0, 1e-9);
    EXPECT_NEAR(m.rmsDbfs(), 0.0, 0.001);
    EXPECT_EQ(m.samples(), 4u);

    // Levels accumulate over every add() until reset().
    const std::vector<int16_t> silence(4, 0);
    m.add(silence.data(), silence.size());
    EXPECT_NEAR(m.rmsDbfs(), -3.01, 0.01);
    m.reset();
    EXPECT_EQ(m.samples(), 0u);
    EXPECT_TRUE(std::isinf(m.peakDbfs()));
}

TEST(Levels, ElapsedTimeFormat)
{
    EXPECT_EQ(formatElapsed(0), "00:00.0");
    EXPECT_EQ(formatElapsed(5.26), "00:05.2");
    EXPECT_EQ(formatElapsed(61.0), "01:01.0");
    EXPECT_EQ(formatElapsed(-1), "00:00.0");
}

TEST(Tone, LevelFrequencyAndChannels)
{
    ToneGenerator tone(440, 16000, DEFAULT_TONE_DBFS);
    std::vector<int16_t> out(16000 * 2);
    tone.fill(out.data(), 16000, 2);

    LevelMeter m;
    int crossings = 0;
    for (int f = 0; f < 16000; ++f) {
        ASSERT_EQ(out[2 * f], out[2 * f + 1]) << f;
        m.add(&out[2 * f], 1);
        if (f > 0 && (out[2 * (f - 1)] < 0) != (out[2 * f] < 0))
            ++crossings;
    }
    EXPECT_NEAR(m.peakDbfs(), -12.0, 0.05);
    EXPECT_NEAR(m.rmsDbfs(), -15.0, 0.05);
    EXPECT_NEAR(crossings, 880, 2);   // two per cycle over one second
}

TEST(Tone, PeriodsJoinWithoutAPhaseJump)
{
    ToneGenerator whole(1000, 48000, -6);
    ToneGenerator pieces(1000, 48000, -6);
    std::vector<int16_t> a(48000 * 3), b(48000 * 3);
    whole.fill(a.data(), static_cast<int>(a.size()), 1);
    // Odd period lengths, as the device may hand over.
    std::size_t at = 0;
    for (int n = 1; at < b.size(); n = n % 997 + 311) {
        const int frames = static_cast<int>(std::min<std::size_t>(n, b.size() - at));
        pieces.fill(&b[at], frames, 1);
        at += frames;
    }
    EXPECT_EQ(a, b);
    // Still on pitch after three seconds of phase wrapping.
    EXPECT_NEAR(a[48000 * 3 - 12], std::lround(whole.amplitude() * std::sin(6.283185307179586 * 1000 * (48000 * 3 - 12) / 48000.0)), 2);
}

TEST(FarEnd, ClipLoopsSeamlessly)
{
    FarEndSource source(makeClip(1, {1, 2, 3}), true);
    std::vector<int16_t> out(8);
    source.fill(out.data(), 8, 1);
    EXPECT_EQ(out, (std::vector<int16_t>{1, 2, 3, 1, 2, 3, 1, 2}));
    source.fill(out.data(), 2, 1);
    EXPECT_EQ(out[0], 3);
    EXPECT_EQ(out[1], 1);
    EXPECT_FALSE(source.finished());
}

TEST(FarEnd, ClipWithoutLoopEndsInSilence)
{
    FarEndSource source(makeClip(1, {5, 6, 7}), false);
    std::vector<int16_t> out(4, -1);
    source.fill(out.data(), 2, 1);
    EXPECT_FALSE(source.finished());
    source.fill(out.data(), 4, 1);
    EXPECT_EQ(out, (std::vector<int16_t>{7, 0, 0, 0}));
    EXPECT_TRUE(source.finished());
    std::fill(out.begin(), out.end(), -1);
    source.fill(out.data(), 4, 1);
    EXPECT_EQ(out, (std::vector<int16_t>(4, 0)));
}

TEST(FarEnd, ClipEndingExactlyOnAPeriodCountsAsFinished)
{
    FarEndSource source(makeClip(1, {5, 6}), false);
    std::vector<int16_t> out(2);
    source.fill(out.data(), 2, 1);
    EXPECT_TRUE(source.finished());
}

TEST(FarEnd, ChannelLayoutsAreMapped)
{
    std::vector<int16_t> out(4);
    FarEndSource mono(makeClip(1, {100, -200}), false);
    mono.fill(out.data(), 2, 2);
    EXPECT_EQ(out, (std::vector<int16_t>{100, 100, -200, -200}));

    FarEndSource stereo(makeClip(2, {32767, 32767, 1000, -3000}), false);
    stereo.fill(out.data(), 2, 1);   // averaged, without overflow
    EXPECT_EQ(out[0], 32767);
    EXPECT_EQ(out[1], -1000);

    FarEndSource stereoOut(makeClip(2, {1, 2, 3, 4}), false);
    stereoOut.fill(out.data(), 2, 2);
    EXPECT_EQ(out, (std::vector<int16_t>{1, 2, 3, 4}));

    FarEndSource wide(makeClip(4, {1, 2, 3, 4}), false);
    wide.fill(out.data(), 1, 2);   // first two channels
    EXPECT_EQ(out[0], 1);
    EXPECT_EQ(out[1], 2);
}

TEST(ClipFile, LoadsAtTheCallRate)
{
    TempDir dir;
    writeWav(dir.file("far.wav"), 16000, 2, {1, 2, 3, 4, 5, 6});
    Clip clip;
    std::string error;
    ASSERT_TRUE(loadClip(dir.file("far.wav"), 16000, &clip, &error)) << error;
    EXPECT_EQ(clip.channels, 2);
    EXPECT_EQ(clip.frames(), 3u);
    EXPECT_EQ(clip.samples, (std::vector<int16_t>{1, 2, 3, 4, 5, 6}));
}

TEST(ClipFile, RefusesOtherRatesMissingAndEmptyFiles)
{
    TempDir dir;
    writeWav(dir.file("cd.wav"), 44100, 1, {1, 2});
    writeWav(dir.file("wide.wav"), 48000, 1, {1, 2});
    writeWav(dir.file("empty.wav"), 16000, 1, {});
    Clip clip;
    std::string error;

    EXPECT_FALSE(loadClip(dir.file("cd.wav"), 16000, &clip, &error));
    EXPECT_NE(error.find("44100"), std::string::npos) << error;
    EXPECT_NE(error.find("16000"), std::string::npos) << error;
    EXPECT_EQ(error.find("--rate"), std::string::npos) << "44100 is no usable rate: " << error;

    EXPECT_FALSE(loadClip(dir.file("wide.wav"), 16000, &clip, &error));
    EXPECT_NE(error.find("--rate 48000"), std::string::npos) << error;

    EXPECT_FALSE(loadClip(dir.file("empty.wav"), 16000, &clip, &error));
    EXPECT_FALSE(loadClip(dir.file("absent.wav"), 16000, &clip, &error));
    EXPECT_NE(error.find("absent.wav"), std::string::npos) << error;
}

TEST(Diagnostics, FilesInTheOrderTheDeviceWritesThem)
{
    EXPECT_EQ(diagnosticFiles("/home/t"),
              (std::vector<std::string>{"/home/t/capture.wav", "/home/t/capture_aec.wav", "/home/t/playback.wav"}));
}
