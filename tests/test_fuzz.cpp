// Seeded random buffers (0 to 20000 frames, missing input or output, refused periods) over streams that cut and
// convert differently, for the sanitizers. TAUDIO2_FUZZ_SECONDS: how long (default 30); TAUDIO2_FUZZ_SEED replays a run.
#include "testsupport.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>

namespace {

long envLong(const char* name, long fallback)
{
    const char* value = std::getenv(name);
    return value && *value ? std::strtol(value, nullptr, 10) : fallback;
}

using Fuzz = testsupport::DeviceTest;

TEST_F(Fuzz, RandomBuffersOverEveryKindOfStream)
{
    const struct { const char* name; int clientRate, periodMs, playbackChannels, captureChannels;
                   unsigned cardOutputChannels; } streams[] = {
        {"16 kHz client, converted", 16000, 20, 1, 1, 2}, {"equal rates", 48000, 20, 1, 1, 2},
        {"stereo client, stereo output", 16000, 20, 2, 1, 2}, {"stereo client, mono output", 16000, 20, 2, 1, 1},
        {"44.1 kHz, 25 ms", 44100, 25, 1, 1, 2}, {"10 ms", 16000, 10, 1, 1, 2},
        {"equal rates, stereo capture, 10 ms", 48000, 10, 2, 2, 2},
    };
    const long seconds = envLong("TAUDIO2_FUZZ_SECONDS", 30);
    const auto seed = static_cast<unsigned long>(
        envLong("TAUDIO2_FUZZ_SEED", std::chrono::steady_clock::now().time_since_epoch().count() & 0x7fffffff));
    std::printf("fuzz: seed %lu, %ld s (TAUDIO2_FUZZ_SEED, TAUDIO2_FUZZ_SECONDS)\n", seed, seconds);
    std::mt19937 random(static_cast<std::mt19937::result_type>(seed));
    const auto chance = [&random](double p) { return std::uniform_real_distribution<double>(0, 1)(random) < p; };
    double refuseChance = 0;

    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    long opens = 0, buffers = 0, chunks = 0;
    while (std::chrono::steady_clock::now() < end && !HasFailure()) {
        const auto& s = streams[random() % std::size(streams)];
        const bool voiceProcessing = chance(0.7);
        SCOPED_TRACE(std::string(s.name) + (voiceProcessing ? ", voice processing" : "") + ", seed " + std::to_string(seed));
        fresh(s.cardOutputChannels, unsigned(s.captureChannels));
        microphone = [&random](size_t, unsigned) { return static_cast<int16_t>(random()); };
        answer = [&](int) { return !chance(refuseChance); };
        device = makeDevice(voiceProcessing);
        ASSERT_EQ(open(config(s.clientRate, s.periodMs, s.playbackChannels, s.captureChannels, chance(0.1))), 0);
        ++opens;

        const unsigned chunk = unsigned(s.periodMs) * 48;   // the standard card runs at 48000 Hz
        // With voice processing the client gets the canceller's mono.
        const int periodBytes = s.clientRate * s.periodMs / 1000 * (voiceProcessing ? 1 : s.captureChannels) * 2;
        unsigned long pending = 0;
        for (int round = random() % 40; round >= 0 && !HasFailure(); --round) {
            // Whole periods half of the time, as a card usually delivers them.
            const unsigned frames = chance(0.5) ? unsigned(random() % 12) * chunk : unsigned(random() % 20001);
            const bool withInput = !chance(0.1), withOutput = !chance(0.1);
            refuseChance = chance(0.2) ? 0.3 : 0;
            const size_t callsBefore = captureBytes.size(), playedBefore = played.size();
            const int result = deliver(frames, withInput, withOutput);
            const long called = long(captureBytes.size() - callsBefore);
            ++buffers, chunks += called;

            // Frames short of a period wait for the next buffer; one of 200 ms or more is dropped whole.
            const bool resync = frames >= 9600;
            const int whole = resync ? 0 : int((pending + frames) / chunk);
            pending = resync ? pending : (pending + frames) % chunk;
            EXPECT_TRUE(result == -1 ? called >= 1 && called <= whole : result == 0 && called == whole)
                << frames << " frames, " << called << " calls, result " << result;
            EXPECT_EQ(std::count(captureBytes.begin() + long(callsBefore), captureBytes.end(),
                                 withInput ? periodBytes : 0), called);
            // Every sample of the card's buffer is written: the client's or silence.
            ASSERT_EQ(std::count(played.begin() + long(playedBefore), played.end(), 0x7777), 0);
        }
    }
    std::printf("fuzz: %ld streams, %ld buffers, %ld chunks in %ld s (seed %lu)\n", opens, buffers, chunks, seconds, seed);
}

} // namespace
