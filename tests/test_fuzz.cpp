// Seeded random buffers (0 to 20000 frames, missing input or output, refused periods)
// over streams that cut and convert differently, for the sanitizer build.
// TAUDIO2_FUZZ_SECONDS: how long (default 30); TAUDIO2_FUZZ_SEED replays a run.
#include "testsupport.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>

using namespace tamrel;

namespace {

long envLong(const char* name, long fallback)
{
    const char* value = std::getenv(name);
    return value && *value ? std::strtol(value, nullptr, 10) : fallback;
}

using Fuzz = testsupport::DeviceTest;

TEST_F(Fuzz, RandomBuffersOverEveryKindOfStream)
{
    const struct {
        const char* name;
        int clientRate, periodMs, playbackChannels, captureChannels;
        unsigned cardOutputChannels;
    } streams[] = {
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
    const int16_t untouched = 0x5a5a;

    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    long opens = 0, buffers = 0, chunks = 0, checksum = 0;
    while (std::chrono::steady_clock::now() < end && !HasFailure()) {
        const auto& s = streams[random() % std::size(streams)];
        const bool voiceProcessing = chance(0.7);
        SCOPED_TRACE(std::string(s.name) + (voiceProcessing ? ", voice processing" : "") + ", seed " +
                     std::to_string(seed));
        fresh();
        fakecard::card().devices[0].outputChannels = s.cardOutputChannels;
        fakecard::card().devices[1].inputChannels = unsigned(s.captureChannels);
        auto dev = makeDevice(voiceProcessing);

        const unsigned chunk = unsigned(s.periodMs) * 48;   // the standard card runs at 48000 Hz
        const int clientChunk = s.clientRate * s.periodMs / 1000;
        const unsigned outChannels = std::min(s.cardOutputChannels, unsigned(s.playbackChannels));
        // With voice processing the client gets the canceller's mono.
        const int captureBytes = clientChunk * (voiceProcessing ? 1 : s.captureChannels) * 2;
        double refuseChance = 0;
        int calls = 0;
        ASSERT_EQ(dev->openStream(config(s.clientRate, s.periodMs, s.playbackChannels, s.captureChannels, chance(0.1)),
                                  [&](const char* capture, int cBytes, char* playback, int pBytes, int) {
            ++calls;
            EXPECT_EQ(cBytes, capture ? captureBytes : 0);
            EXPECT_EQ(pBytes, clientChunk * s.playbackChannels * 2);
            for (int i = 0; i < cBytes; ++i)   // every promised byte is readable
                checksum += capture[i];
            std::fill(playback, playback + pBytes, static_cast<char>(calls));
            return !chance(refuseChance);
        }, nullptr), 0);
        ++opens;

        unsigned long pending = 0;
        for (int round = random() % 40; round >= 0 && !HasFailure(); --round) {
            // Whole periods half of the time, as a card usually delivers them.
            const unsigned frames = chance(0.5) ? unsigned(random() % 12) * chunk : unsigned(random() % 20001);
            const bool withInput = !chance(0.1), withOutput = !chance(0.1);
            refuseChance = chance(0.2) ? 0.3 : 0;
            std::vector<int16_t> in(withInput ? size_t(frames) * unsigned(s.captureChannels) : 0);
            for (int16_t& sample : in)
                sample = static_cast<int16_t>(random());
            std::vector<int16_t> out(withOutput ? size_t(frames) * outChannels : 0, untouched);
            calls = 0;
            const int result = fakecard::deliver(withOutput ? out.data() : nullptr, withInput ? in.data() : nullptr, frames);
            ++buffers;
            chunks += calls;

            // Frames short of a period wait for the next buffer; one of 200 ms or more is dropped whole.
            const bool resync = frames >= 9600;
            const int whole = resync ? 0 : int((pending + frames) / chunk);
            pending = resync ? pending : (pending + frames) % chunk;
            EXPECT_TRUE(result == -1 ? calls >= 1 && calls <= whole : result == 0 && calls == whole)
                << frames << " frames, " << calls << " calls, result " << result;
            // Every sample of the card's buffer is written: the client's or silence.
            ASSERT_EQ(std::count(out.begin(), out.end(), untouched), 0) << "of " << out.size();
        }
    }
    std::printf("fuzz: %ld streams, %ld buffers, %ld chunks in %ld s (seed %lu, capture checksum %ld)\n", opens,
                buffers, chunks, seconds, seed, checksum);
}

} // namespace
