#include "resampler.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

using tamrel::Resampler;

namespace {

std::vector<int16_t> sine(double frequency, double rate, size_t frames, double amplitude = 10000.0)
{
    std::vector<int16_t> s(frames);
    for (size_t i = 0; i < frames; ++i)
        s[i] = static_cast<int16_t>(std::lround(amplitude * std::sin(2 * M_PI * frequency * i / rate)));
    return s;
}

// Pushes `in` chunk by chunk; every push must fill its room exactly.
std::vector<int16_t> convert(Resampler& r, const std::vector<int16_t>& in, size_t inChunk, size_t outChunk)
{
    std::vector<int16_t> out;
    std::vector<int16_t> room(outChunk);
    for (size_t pos = 0; pos + inChunk <= in.size(); pos += inChunk) {
        size_t produced = 0;
        EXPECT_EQ(r.Push(in.data() + pos, inChunk, room.data(), room.size(), produced), 0);
        EXPECT_EQ(produced, outChunk) << "push at " << pos;
        out.insert(out.end(), room.begin(), room.end());
    }
    return out;
}

double rms(const int16_t* s, size_t n)
{
    double sum = 0;
    for (size_t i = 0; i < n; ++i)
        sum += double(s[i]) * s[i];
    return std::sqrt(sum / n);
}

// Magnitude of one frequency in the signal (a single DFT bin).
double magnitudeAt(const std::vector<int16_t>& s, size_t from, double frequency, double rate)
{
    double re = 0, im = 0;
    for (size_t i = from; i < s.size(); ++i) {
        re += s[i] * std::cos(2 * M_PI * frequency * i / rate);
        im += s[i] * std::sin(2 * M_PI * frequency * i / rate);
    }
    return 2 * std::hypot(re, im) / double(s.size() - from);
}

} // namespace

TEST(Resampler, SineThroughCardAndBackKeepsFrequencyLevelAndContinuity)
{
    const size_t frames = 48000;   // one second
    const auto original = sine(1000, 48000, frames);
    Resampler down(48000, 16000, 1);
    down.prepare(960, 320);
    Resampler up(16000, 48000, 1);
    up.prepare(320, 960);
    const auto client = convert(down, original, 960, 320);
    const auto back = convert(up, client, 320, 960);
    ASSERT_EQ(client.size(), 16000u);
    ASSERT_EQ(back.size(), frames);

    const size_t settled = 4800;   // past the filters' start-up
    EXPECT_NEAR(magnitudeAt(back, settled, 1000, 48000), 10000.0, 200.0);
    EXPECT_LT(magnitudeAt(back, settled, 1100, 48000), 100.0);
    EXPECT_NEAR(rms(client.data() + 1600, 14400), 10000.0 / std::sqrt(2.0), 100.0);

    // No click at chunk edges: the step between neighbouring samples at an
    // edge is no larger than anywhere inside a chunk.
    int largestInside = 0, largestAtEdge = 0;
    for (size_t i = settled + 1; i < back.size(); ++i) {
        const int step = std::abs(back[i] - back[i - 1]);
        if (i % 960 == 0)
            largestAtEdge = std::max(largestAtEdge, step);
        else
            largestInside = std::max(largestInside, step);
    }
    EXPECT_LE(largestAtEdge, largestInside);
}

TEST(Resampler, ChunkedConversionEqualsConvertingAllAtOnce)
{
    const auto signal = sine(440, 48000, 9600);
    Resampler chunked(48000, 16000, 1);
    chunked.prepare(960, 320);
    Resampler whole(48000, 16000, 1);
    whole.prepare(960, 320);
    const auto a = convert(chunked, signal, 960, 320);
    const auto b = convert(whole, signal, 9600, 3200);
    EXPECT_EQ(a, b);
}

TEST(Resampler, RatesWithoutAWholeRatioStillFillEveryChunk)
{
    // 20 ms at 44100 Hz, and 25 ms, whose chunk sizes were truncated.
    struct Case { int inRate, outRate; size_t inChunk, outChunk; };
    for (const Case c : {Case{44100, 16000, 882, 320}, Case{16000, 44100, 320, 882}, Case{44100, 16000, 1102, 400},
                         Case{16000, 44100, 400, 1102}, Case{8000, 48000, 160, 960}}) {
        SCOPED_TRACE(std::to_string(c.inRate) + "->" + std::to_string(c.outRate));
        Resampler r(c.inRate, c.outRate, 1);
        r.prepare(static_cast<unsigned>(c.inChunk), static_cast<unsigned>(c.outChunk));
        const auto out = convert(r, sine(300, c.inRate, c.inChunk * 50), c.inChunk, c.outChunk);
        const size_t settled = out.size() / 5;
        EXPECT_NEAR(rms(out.data() + settled, out.size() - settled), 10000.0 / std::sqrt(2.0), 100.0);
    }
}

TEST(Resampler, StereoKeepsChannelsApartAndRejectsPartialFrames)
{
    std::vector<int16_t> in(2 * 960);
    for (size_t i = 0; i < 960; ++i) {
        in[2 * i] = 8000;
        in[2 * i + 1] = -8000;
    }
    Resampler r(48000, 16000, 2);
    r.prepare(960, 320);
    std::vector<int16_t> out(2 * 320);
    size_t produced = 0;
    for (int k = 0; k < 3; ++k)
        ASSERT_EQ(r.Push(in.data(), in.size(), out.data(), out.size(), produced), 0);
    EXPECT_EQ(produced, out.size());
    EXPECT_NEAR(out[2 * 300], 8000, 50);
    EXPECT_NEAR(out[2 * 300 + 1], -8000, 50);
    EXPECT_EQ(r.Push(in.data(), 3, out.data(), out.size(), produced), -1);
    EXPECT_EQ(produced, 0u);
}
