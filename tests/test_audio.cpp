// What the client hears and the card plays: every frame once and in order
// whatever the buffers, tones through the rate converters in every channel
// layout, the voice chain's microphone, the client's refusals, stalls, and
// the diagnostic recordings.
#include "testsupport.h"

#include <atomic>
#include <cstdlib>
#include <new>
#include <random>

// Counts C++ allocations so the real-time path can be shown to make none.
namespace {
std::atomic<long> allocations{0};
}
void* operator new(std::size_t size)
{
    ++allocations;
    if (void* p = std::malloc(size ? size : 1))
        return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }

using namespace tamrel;
using testsupport::DeviceTest;
using testsupport::ramp;
using testsupport::readWav;
using testsupport::Signal;
using testsupport::tone;
using testsupport::toneLevel;

namespace {

class Audio : public DeviceTest {
protected:
    // Buffers of the sizes `sizes` yields until `frames` card frames went by.
    void run(size_t frames, const std::function<unsigned()>& sizes)
    {
        for (size_t done = 0; done < frames;) {
            const unsigned n = sizes();
            ASSERT_EQ(deliver(n), 0);
            done += n;
        }
    }
    // Samples [from, to) of one channel of interleaved samples.
    static std::vector<int16_t> channel(const std::vector<int16_t>& s, unsigned channels, unsigned c, size_t from = 0)
    {
        std::vector<int16_t> out;
        for (size_t i = from * channels + c; i < s.size(); i += channels)
            out.push_back(s[i]);
        return out;
    }
};

const int16_t UNTOUCHED = 0x7777;

} // namespace

// At equal rates without voice processing the signal passes bit for bit:
// the client hears every captured frame once and in order, and the card
// plays every frame the client wrote, behind by at most one period, whatever
// sizes the sound layer's buffers come in.
TEST_F(Audio, EveryFrameOnceAndInOrder)
{
    struct Row {
        const char* what;
        int rate, periodMs, playbackChannels, captureChannels;
        bool voiceProcessing;
        std::function<unsigned()> sizes;
        bool wholePeriods;   // then nothing is delayed
    };
    std::mt19937 random(7);
    const auto whole = [] { return 960u; };
    const auto any = [&random] { return unsigned(std::uniform_int_distribution<>(1, 3000)(random)); };
    const auto small = [&random] { return unsigned(std::uniform_int_distribution<>(1, 300)(random)); };
    const Row rows[] = {
        {"whole periods", 48000, 20, 1, 1, false, whole, true},
        {"any buffers", 48000, 20, 1, 1, false, any, false},
        {"small buffers, 10 ms periods", 48000, 10, 1, 1, false, small, false},
        {"stereo both ways", 48000, 20, 2, 2, false, any, false},
        {"three capture channels", 48000, 20, 1, 3, false, any, false},
        {"44100 Hz passes the voice chain untouched", 44100, 20, 1, 1, true, any, false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        fresh();
        if (row.rate == 44100)
            for (auto& d : fakecard::card().devices)
                d.sampleRates = {44100};
        if (row.captureChannels > 1)
            fakecard::card().devices[1].inputChannels = unsigned(row.captureChannels);
        device = makeDevice(row.voiceProcessing);
        ASSERT_EQ(open(config(row.rate, row.periodMs, row.playbackChannels, row.captureChannels)), 0);
        run(size_t(row.rate) * 3, row.sizes);

        const unsigned in = cardInputChannels(), out = cardOutputChannels();
        const size_t period = size_t(row.rate) * row.periodMs / 1000;
        ASSERT_EQ(heard.size() % (period * in), 0u);
        ASSERT_GE(heard.size() / in, size_t(row.rate) * 3 - 2 * period) << "frames went missing";
        for (size_t i = 0; i < heard.size(); ++i)
            ASSERT_EQ(heard[i], ramp(i / in, unsigned(i % in))) << "capture frame " << i / in;

        size_t lag = 0;
        while (lag < played.size() / out && played[lag * out] == 0)
            ++lag;
        EXPECT_LE(lag, row.wholePeriods ? 0 : period);
        for (size_t i = lag * out; i < played.size(); ++i)
            ASSERT_EQ(played[i], ramp(i / out - lag, unsigned(i % out))) << "played frame " << i / out;
        EXPECT_EQ(device->streamInfo().framesLost, 0u);
    }
}

// Tones through the converters, per channel layout: each channel plays its
// own tone at its level, a stereo client on a mono card plays its left
// channel whole (no band limit, no image), and odd buffers leave no gap.
TEST_F(Audio, TonesThroughTheConvertersInEveryLayout)
{
    struct Row {
        const char* what;
        unsigned cardChannels, cardRate;
        int clientChannels;
        double leftHz, rightHz;
        unsigned buffer;
        int periodMs;
    };
    const Row rows[] = {
        {"mono", 2, 48000, 1, 1000, 0, 960, 20},
        {"stereo", 2, 48000, 2, 1000, 2500, 960, 20},
        {"stereo client, mono card", 1, 48000, 2, 1000, 2500, 960, 20},
        {"stereo client, mono card, 6 kHz", 1, 48000, 2, 6000, 2500, 960, 20},
        {"odd buffers at 44100 Hz", 2, 44100, 2, 3000, 500, 441, 20},
        {"25 ms periods at 44100 Hz: 1102.5 frames", 2, 44100, 1, 1000, 0, 1102, 25},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        fresh();
        fakecard::card().devices[0].outputChannels = row.cardChannels;
        fakecard::card().devices[0].sampleRates = {row.cardRate};
        fakecard::card().devices[1].sampleRates = {row.cardRate};
        const Signal left = tone(row.leftHz, 16000, 8000), right = tone(row.rightHz, 16000, 8000);
        clientPlays = [left, right](size_t f, unsigned c) { return c == 0 ? left(f, 0) : right(f, 0); };
        microphone = tone(1000, row.cardRate, 8000);
        device = makeDevice(false);
        ASSERT_EQ(open(config(16000, row.periodMs, row.clientChannels)), 0);
        run(row.cardRate, [&row] { return row.buffer; });

        const unsigned out = cardOutputChannels();
        ASSERT_EQ(out, std::min<unsigned>(row.cardChannels, unsigned(row.clientChannels)));
        // Half a second on, in 20 ms windows: every window carries the tone.
        const std::vector<int16_t> l = channel(played, out, 0, row.cardRate / 2);
        const size_t window = row.cardRate / 50;
        for (size_t w = 0; w + window <= l.size(); w += window) {
            const std::vector<int16_t> part(l.begin() + long(w), l.begin() + long(w + window));
            ASSERT_NEAR(toneLevel(part, 1, 0, row.leftHz, row.cardRate), 8000, 800) << "window at " << w;
        }
        EXPECT_LT(toneLevel(l, 1, 0, row.rightHz, row.cardRate), 100) << "the right channel leaks into the left";
        EXPECT_LT(toneLevel(l, 1, 0, 16000 - row.leftHz, row.cardRate), 100) << "an image of the left tone";
        if (out == 2) {
            const std::vector<int16_t> r = channel(played, out, 1, row.cardRate / 2);
            EXPECT_NEAR(toneLevel(r, 1, 0, row.rightHz, row.cardRate), 8000, 800);
            EXPECT_LT(toneLevel(r, 1, 0, row.leftHz, row.cardRate), 100);
        }
        // And the microphone's tone reaches the client at its rate (a tenth of a
        // second: 25 ms periods are 1102 card frames, and the client hears 0.05 % slow).
        EXPECT_NEAR(toneLevel(std::vector<int16_t>(heard.begin() + 4000, heard.begin() + 5600), 1, 0, 1000, 16000), 8000,
                    800);
    }
}

// The canceller takes the first microphone of several, and the client gets
// its processed mono: speech on the first channel is heard, on the second
// it is not.
TEST_F(Audio, SeveralMicrophonesFeedTheFirstToTheCanceller)
{
    const Signal speech = [](size_t f, unsigned) {
        const double t = double(f) / 48000;
        const double envelope = std::fmod(t, 0.25) < 0.15 ? 1 : 0;   // syllables
        return int16_t(envelope * 6000 * std::sin(2 * M_PI * (300 + 200 * std::sin(2 * M_PI * 3 * t)) * t));
    };
    double energy[2] = {0, 0};
    for (unsigned speaking = 0; speaking < 2; ++speaking) {
        fresh();
        fakecard::card().devices[1].inputChannels = 2;
        microphone = [speech, speaking](size_t f, unsigned c) { return c == speaking ? speech(f, c) : int16_t(0); };
        TAudio2StreamConfiguration c = config(16000, 20, 1, 2);
        c.measureAec = true;
        ASSERT_EQ(open(c), 0);
        run(48000 * 2, [] { return 960u; });
        for (int bytes : captureBytes)
            ASSERT_EQ(bytes, 640) << "the processed capture is mono";
        for (size_t i = heard.size() / 2; i < heard.size(); ++i)
            energy[speaking] += double(heard[i]) * heard[i];
        device->closeStream();
        // The raw recording is the canceller's input: the first channel.
        const std::vector<int16_t> raw = readWav(homeFile("capture.wav"));
        ASSERT_EQ(raw.size(), heard.size());
        double rawEnergy = 0;
        for (int16_t s : raw)
            rawEnergy += double(s) * s;
        EXPECT_EQ(rawEnergy > 0, speaking == 0);
    }
    EXPECT_GT(energy[0], 100 * (energy[1] + 1)) << "the client heard the wrong microphone";
}

// A client that fails a period has the rest of the card's buffer played as
// silence, never stale audio; the stream runs on.
TEST_F(Audio, FalseFromTheClientSilencesTheRestOfTheBuffer)
{
    device = makeDevice(false);
    answer = [](int call) { return call != 1; };
    ASSERT_EQ(open(config(48000)), 0);
    EXPECT_EQ(deliver(2880), -1);
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(played[959], ramp(959, 0));
    for (size_t i = 960; i < 2880; ++i)
        ASSERT_EQ(played[i], 0) << i;
    EXPECT_EQ(deliver(960), 0);
    EXPECT_EQ(played[2880], ramp(1920, 0));
}

// A buffer of 200 ms or more is a stalled stream catching up: dropped
// whole and played as silence. Buffers without input or output still
// reach the client.
TEST_F(Audio, StallsAndMissingBuffers)
{
    device = makeDevice(false);
    ASSERT_EQ(open(config(48000)), 0);
    EXPECT_EQ(deliver(9600), 0);
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(std::count(played.begin(), played.end(), 0), 9600);
    EXPECT_EQ(device->streamInfo().framesLost, 9600u);
    EXPECT_EQ(deliver(9599), 0);
    EXPECT_EQ(calls, 9);

    EXPECT_EQ(deliver(960, false, true), 0);
    EXPECT_EQ(captureBytes.back(), 0) << "no input, no capture";
    EXPECT_EQ(deliver(960, true, false), 0);
    EXPECT_EQ(captureBytes.back(), 1920);
    EXPECT_EQ(calls, 11);
    const auto info = device->streamInfo();
    EXPECT_EQ(info.lastBufferFrames, 960u);
    EXPECT_GT(info.framesCarried, 0u);

    // 200 ms at whatever rate the card runs.
    fresh();
    fakecard::card().devices[0].sampleRates = fakecard::card().devices[1].sampleRates = {16000};
    device = makeDevice(false);
    ASSERT_EQ(open(config(16000)), 0);
    EXPECT_EQ(deliver(3200), 0);
    EXPECT_EQ(deliver(3199), 0);
    EXPECT_EQ(calls, 9);
    EXPECT_EQ(device->streamInfo().framesLost, 3200u);
}

// The three recordings: mono at the client's rate, a period per period;
// the raw capture, the processed capture and the playback's left channel.
TEST_F(Audio, RecordingsForMeasuringTheCanceller)
{
    fakecard::card().devices[0].outputChannels = 2;
    microphone = tone(1000, 48000, 8000);
    const Signal left = tone(500, 16000, 8000);
    clientPlays = [left](size_t f, unsigned c) { return c == 0 ? left(f, 0) : int16_t(3000); };
    answer = [](int call) { return call != 3; };
    TAudio2StreamConfiguration c = config(16000, 20, 2);
    c.measureAec = true;
    ASSERT_EQ(open(c), 0);
    for (int i = 0; i < 50; ++i)
        deliver(960);
    device->closeStream();

    int rate = 0, channels = 0;
    const auto raw = readWav(homeFile("capture.wav"), &rate, &channels);
    EXPECT_EQ(rate, 16000);
    EXPECT_EQ(channels, 1);
    EXPECT_EQ(raw.size(), 50u * 320);
    EXPECT_NEAR(toneLevel(raw, 1, 0, 1000, 16000), 8000, 800);
    EXPECT_EQ(readWav(homeFile("capture_aec.wav")), heard);
    const auto playback = readWav(homeFile("playback.wav"));
    EXPECT_EQ(playback.size(), 49u * 320) << "the refused period is not recorded";
    EXPECT_NEAR(toneLevel(playback, 1, 0, 500, 16000), 8000, 800) << "the left channel";

    // A new device clears them; without voice processing none are written.
    makeDevice();
    EXPECT_TRUE(readWav(homeFile("capture.wav")).empty());
    fresh();
    device = makeDevice(false);
    ASSERT_EQ(open(c), 0);
    deliver(960);
    device->closeStream();
    EXPECT_TRUE(readWav(homeFile("playback.wav")).empty());

    // A home that cannot be written to: the call goes on without them.
    fresh();
    setenv("HOME", "/proc", 1);
    ASSERT_EQ(open(c), 0);
    EXPECT_EQ(deliver(960), 0);
    EXPECT_EQ(calls, 1);
}

// Once running, a buffer costs no allocation, whatever its size.
TEST_F(Audio, NoAllocationPerBuffer)
{
    fakecard::card().devices[1].inputChannels = 2;
    TAudio2StreamConfiguration c = config(16000, 20, 2, 2);
    c.measureAec = true;
    device = makeDevice();
    ASSERT_EQ(device->openStream(c, [](const char*, int, char* p, int bytes, int) {
        std::fill(p, p + bytes, 1);
        return true;
    }, nullptr), 0);
    std::mt19937 random(3);
    std::vector<int16_t> in(6000 * 2), out(6000 * 2);
    for (int i = 0; i < 20; ++i)
        fakecard::deliver(out.data(), in.data(), 960);
    const long before = allocations;
    for (int i = 0; i < 600; ++i)
        fakecard::deliver(out.data(), in.data(), unsigned(std::uniform_int_distribution<>(1, 6000)(random)));
    EXPECT_EQ(allocations - before, 0);
}
