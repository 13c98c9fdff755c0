// What the client hears and the card plays: frames, tones, the canceller's microphone, refusals, stalls and the
// diagnostic recordings.
#include "testsupport.h"

#include <atomic>
#include <cstdlib>
#include <new>
#include <random>
#include <tuple>

// Counts C++ allocations so the real-time path can be shown to make none.
static std::atomic<long> allocations{0};
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
using namespace testsupport;

namespace {

class Audio : public DeviceTest {
protected:
    void openCard(unsigned rate, unsigned outputs, unsigned inputs, const TAudio2StreamConfiguration& c,
                  bool voiceProcessing)
    {
        fresh(outputs, inputs);
        fakecard::card().devices[0].sampleRates = fakecard::card().devices[1].sampleRates = {rate};
        device = makeDevice(voiceProcessing);
        ASSERT_EQ(open(c), 0);
    }
    // Buffers of the sizes `sizes` yields until `frames` card frames went by.
    void run(size_t frames, const std::function<unsigned()>& sizes)
    {
        for (size_t done = 0, n = 0; done < frames; done += n)
            ASSERT_EQ(deliver(unsigned(n = sizes())), 0);
    }
};

// At equal rates without voice processing (the stream says "off") every frame passes once, in order and bit for bit,
// both ways, whatever the buffers; playback at most a period late.
TEST_F(Audio, EveryFrameOnceAndInOrder)
{
    std::mt19937 random(7);
    const auto whole = [] { return 960u; };
    const auto any = [&random] { return unsigned(std::uniform_int_distribution<>(1, 3000)(random)); };
    const auto small = [&random] { return unsigned(std::uniform_int_distribution<>(1, 300)(random)); };
    const struct { const char* what; int rate, periodMs, playbackChannels, captureChannels; bool voiceProcessing;
                   std::function<unsigned()> sizes; size_t maxLag; } rows[] = {
        {"whole periods", 48000, 20, 1, 1, false, whole, 0},
        {"any buffers", 48000, 20, 1, 1, false, any, 960},
        {"small buffers, 10 ms periods", 48000, 10, 1, 1, false, small, 480},
        {"stereo both ways", 48000, 20, 2, 2, false, any, 960},
        {"three capture channels", 48000, 20, 1, 3, false, any, 960},
        {"44100 Hz passes the voice chain untouched", 44100, 20, 1, 1, true, any, 882},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        openCard(unsigned(row.rate), 2, unsigned(row.captureChannels),
                 config(row.rate, row.periodMs, row.playbackChannels, row.captureChannels), row.voiceProcessing);
        run(size_t(row.rate) * 3, row.sizes);

        const unsigned in = cardInputChannels(), out = cardOutputChannels();
        const size_t period = size_t(row.rate) * row.periodMs / 1000;
        ASSERT_EQ(heard.size() % (period * in), 0u);
        ASSERT_GE(heard.size() / in, size_t(row.rate) * 3 - 2 * period) << "frames went missing";
        for (size_t i = 0; i < heard.size(); ++i)
            ASSERT_EQ(heard[i], ramp(i / in, unsigned(i % in))) << "capture frame " << i / in;
        const size_t lag = size_t(std::find_if(played.begin(), played.end(), [](int16_t s) { return s != 0; }) -
                                  played.begin()) / out;
        EXPECT_LE(lag, row.maxLag);
        for (size_t i = lag * out; i < played.size(); ++i)
            ASSERT_EQ(played[i], ramp(i / out - lag, unsigned(i % out))) << "played frame " << i / out;
        EXPECT_EQ(device->streamInfo().framesLost, 0u);
        EXPECT_EQ(device->streamInfo().echoCancellation, row.voiceProcessing ? "standard" : "off");
    }
}

// Each channel plays its own tone at its level, a stereo client on a mono card its left channel whole (no band
// limit, no image); odd buffers leave no gap.
TEST_F(Audio, TonesThroughTheConvertersInEveryLayout)
{
    const struct { const char* what; unsigned cardChannels, cardRate; int clientChannels; double leftHz, rightHz;
                   unsigned buffer; int periodMs; } rows[] = {
        {"mono", 2, 48000, 1, 1000, 0, 960, 20},
        {"stereo", 2, 48000, 2, 1000, 2500, 960, 20},
        {"stereo client, mono card", 1, 48000, 2, 1000, 2500, 960, 20},
        {"stereo client, mono card, 6 kHz", 1, 48000, 2, 6000, 2500, 960, 20},
        {"odd buffers at 44100 Hz", 2, 44100, 2, 3000, 500, 441, 20},
        {"25 ms periods at 44100 Hz: 1102.5 frames", 2, 44100, 1, 1000, 0, 1102, 25},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        const Signal left = tone(row.leftHz, 16000, 8000), right = tone(row.rightHz, 16000, 8000);
        clientPlays = [left, right](size_t f, unsigned c) { return c == 0 ? left(f, 0) : right(f, 0); };
        microphone = tone(1000, row.cardRate, 8000);
        openCard(row.cardRate, row.cardChannels, 1, config(16000, row.periodMs, row.clientChannels), false);
        run(row.cardRate, [&row] { return row.buffer; });

        const unsigned out = cardOutputChannels();
        ASSERT_EQ(out, std::min<unsigned>(row.cardChannels, unsigned(row.clientChannels)));
        // Half a second on, in 20 ms windows: every window carries the tone.
        const std::vector<int16_t> late(played.begin() + row.cardRate / 2 * out, played.end());
        const long window = long(row.cardRate / 50 * out);
        for (auto w = late.begin(); late.end() - w >= window; w += window)
            ASSERT_NEAR(toneLevel({w, w + window}, out, 0, row.leftHz, row.cardRate), 8000, 800) << w - late.begin();
        EXPECT_LT(toneLevel(late, out, 0, row.rightHz, row.cardRate), 100) << "the right channel leaks into the left";
        EXPECT_LT(toneLevel(late, out, 0, 16000 - row.leftHz, row.cardRate), 100) << "an image of the left tone";
        if (out == 2) {
            EXPECT_NEAR(toneLevel(late, out, 1, row.rightHz, row.cardRate), 8000, 800);
            EXPECT_LT(toneLevel(late, out, 1, row.leftHz, row.cardRate), 100);
        }
        // The microphone's tone reaches the client at its rate (25 ms periods: 1102 card frames, 0.05 % slow).
        EXPECT_NEAR(toneLevel({heard.begin() + 4000, heard.begin() + 5600}, 1, 0, 1000, 16000), 8000, 800);
    }
}

// The canceller and the raw recording take the first microphone of several; the recordings are mono at the client's
// rate, without the period the client refused.
TEST_F(Audio, TheFirstMicrophoneFeedsTheCancellerAndTheRecordings)
{
    const Signal speech = [](size_t f, unsigned) {
        const double t = double(f) / 48000, envelope = std::fmod(t, 0.25) < 0.15 ? 1 : 0;   // syllables
        return int16_t(envelope * 6000 * std::sin(2 * M_PI * (300 + 200 * std::sin(2 * M_PI * 3 * t)) * t));
    };
    const Signal left = tone(500, 16000, 8000);
    double energy[2] = {0, 0};
    for (unsigned speaking = 0; speaking < 2; ++speaking) {
        microphone = [speech, speaking](size_t f, unsigned c) { return c == speaking ? speech(f, c) : int16_t(0); };
        clientPlays = [left](size_t f, unsigned c) { return c == 0 ? left(f, 0) : int16_t(3000); };
        answer = [](int call) { return call != 3; };
        openCard(48000, 2, 2, config(16000, 20, 2, 2, true), true);
        for (int i = 0; i < 100; ++i)
            deliver(960);
        EXPECT_EQ(captureBytes, std::vector<int>(100, 640)) << "the processed capture is mono";
        for (size_t i = heard.size() / 2; i < heard.size(); ++i)
            energy[speaking] += double(heard[i]) * heard[i];
        device->closeStream();

        const auto raw = wav(homeFile("capture.wav"), 16000);   // empty at another rate
        EXPECT_EQ(std::make_pair(raw.channels, raw.samples.size()), std::make_pair(1, heard.size()));
        EXPECT_EQ(std::count(raw.samples.begin(), raw.samples.end(), 0) < long(raw.frames()), speaking == 0) << speaking;
        EXPECT_EQ(wav(homeFile("capture_aec.wav"), 16000).samples, heard);
        const auto playback = wav(homeFile("playback.wav"), 16000).samples;
        EXPECT_EQ(playback.size(), 99u * 320) << "the refused period is not recorded";
        EXPECT_NEAR(toneLevel(playback, 1, 0, 500, 16000), 8000, 800) << "the left channel";
    }
    EXPECT_GT(energy[0], 100 * (energy[1] + 1)) << "the client heard the wrong microphone";

    // A new device clears them; without voice processing none are written.
    makeDevice();
    EXPECT_TRUE(wav(homeFile("capture.wav"), 16000).samples.empty());
    openCard(48000, 2, 1, config(16000, 20, 2, 1, true), false);
    deliver(960);
    device->closeStream();
    EXPECT_TRUE(wav(homeFile("playback.wav"), 16000).samples.empty());
    // A home that cannot be written to: the call goes on without them.
    setenv("HOME", "/proc", 1);
    openCard(48000, 2, 1, config(16000, 20, 2, 1, true), true);
    EXPECT_EQ(deliver(960), 0);
    EXPECT_EQ(calls, 1);
}

// A refused period silences the rest of the buffer, never stale audio, and the stream runs on. A buffer of 200 ms or
// more, at any rate, is a stall catching up: dropped.
TEST_F(Audio, RefusalsAndStalls)
{
    answer = [](int call) { return call != 1; };
    openCard(48000, 2, 1, config(48000), false);
    EXPECT_EQ(deliver(2880), -1);
    EXPECT_EQ(std::make_tuple(int(calls), played[959], std::count(played.begin() + 960, played.end(), 0)),
              std::make_tuple(2, ramp(959, 0), 1920L));
    EXPECT_EQ(deliver(960), 0);
    EXPECT_EQ(played[2880], ramp(1920, 0));
    answer = nullptr;

    for (const unsigned rate : {48000u, 16000u}) {
        openCard(rate, 1, 1, config(int(rate)), false);
        EXPECT_EQ(deliver(rate / 5), 0);
        EXPECT_EQ(std::make_pair(int(calls), std::count(played.begin(), played.end(), 0)), std::make_pair(0, long(rate / 5)));
        EXPECT_EQ(deliver(rate / 5 - 1), 0);
        const auto info = device->streamInfo();
        EXPECT_EQ(std::make_tuple(int(calls), info.framesLost, info.lastBufferFrames, info.framesCarried),
                  std::make_tuple(9, uint64_t(rate / 5), rate / 5 - 1, uint64_t(rate / 50 - 1)));
    }
}

// Once running, a buffer costs no allocation, whatever its size.
TEST_F(Audio, NoAllocationPerBuffer)
{
    openCard(48000, 2, 2, config(16000, 20, 2, 2, true), true);
    heard.reserve(1 << 21), captureBytes.reserve(1 << 13);   // room for what the client keeps
    std::mt19937 random(3);
    std::vector<int16_t> in(6000 * 2), out(6000 * 2);
    for (int i = 0; i < 20; ++i)
        fakecard::deliver(out.data(), in.data(), 960);
    const long before = allocations;
    for (int i = 0; i < 600; ++i)
        fakecard::deliver(out.data(), in.data(), unsigned(std::uniform_int_distribution<>(1, 6000)(random)));
    EXPECT_EQ(allocations - before, 0);
}

} // namespace
