#include "testsupport.h"

#include <boost/function/function_base.hpp>

#include <atomic>
#include <random>
#include <cstdlib>
#include <new>

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

namespace {

const int16_t UNTOUCHED = 0x7777;

struct Seen {
    const char* capture;
    int captureBytes;
    int playbackBytes;
    int fifth;
};

class Pipeline : public DeviceTest {
protected:
    // Opens a stream whose client records what it saw and plays `level`
    // on every channel (left `level`, right -`level` in stereo).
    void open(int sampleRate, int playbackChannels = 1, int captureChannels = 1, int periodMs = 20,
              std::vector<bool> answers = {})
    {
        dev = makeDevice();
        TAudio2UniversalDevice_p::voicePreprocessorFlag(*dev) = voiceProcessing;
        answerList = std::move(answers);
        TAudio2FrameCallback callback = [this](const char* c, int cb, char* p, int pb, int fifth) {
            seen.push_back(Seen{c, cb, pb, fifth});
            int16_t* s = reinterpret_cast<int16_t*>(p);
            const int channels = rec(*dev).m_clientPlaybackChannels;
            for (int i = 0; i < pb / 2; ++i)
                s[i] = static_cast<int16_t>(channels == 2 && i % 2 ? -level : level);
            const size_t n = seen.size() - 1;
            return n < answerList.size() ? static_cast<bool>(answerList[n]) : true;
        };
        ASSERT_EQ(dev->openStream(config(sampleRate, periodMs, playbackChannels, captureChannels), callback, nullptr),
                  0);
    }

    int deliver(unsigned frames, bool withInput = true, bool withOutput = true)
    {
        const TAudio2UniversalDevice_p& p = rec(*dev);
        input.assign(frames * std::max(1u, p.m_captureChannels), 1000);
        output.assign(frames * p.m_playbackChannels, UNTOUCHED);
        return fakecard::deliver(withOutput ? output.data() : nullptr, withInput ? input.data() : nullptr, frames);
    }

    int untouchedFrom() const
    {
        int first = static_cast<int>(output.size());
        while (first > 0 && output[first - 1] == UNTOUCHED)
            --first;
        return first;
    }

    boost::shared_ptr<TAudio2UniversalDevice> dev;
    std::vector<Seen> seen;
    std::vector<bool> answerList;
    std::vector<int16_t> input, output;
    int level = 1000;
    bool voiceProcessing = true;
};

} // namespace

TEST_F(Pipeline, ClientSeesWholeChunksAtItsOwnRate)
{
    open(16000);
    ASSERT_EQ(deliver(960), 0);
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].capture, rec(*dev).m_processedCapture.data());
    EXPECT_EQ(seen[0].captureBytes, 640);
    EXPECT_EQ(seen[0].playbackBytes, 640);
    EXPECT_EQ(seen[0].fifth, 0);
    EXPECT_EQ(untouchedFrom(), 960);   // the whole buffer was written
    for (int k = 0; k < 10; ++k)
        deliver(960);
    EXPECT_NEAR(output[500], 1000, 30);   // the client's level, converted up
}

TEST_F(Pipeline, ResynchAtExactlyTheLimitAndCarriedFramesShortOfAPeriod)
{
    open(16000);
    ASSERT_EQ(rec(*dev).m_resyncFrames, 9600u);
    EXPECT_EQ(deliver(9600), 0);
    EXPECT_TRUE(log.has("Universal device resynch 9600/9600"));
    EXPECT_TRUE(seen.empty());
    EXPECT_EQ(untouchedFrom(), 9600);   // played as silence, never stale
    EXPECT_EQ(output[0], 0);
    EXPECT_EQ(dev->streamInfo().framesLost, 9600u);

    // Short buffers wait for each other: 500 + 500 frames make one period.
    EXPECT_EQ(deliver(0), 0);
    EXPECT_EQ(deliver(500), 0);
    EXPECT_TRUE(seen.empty());
    EXPECT_EQ(deliver(500), 0);
    EXPECT_EQ(seen.size(), 1u);
    // 9599 frames after the 40 carried: ten periods, 39 frames carried on.
    EXPECT_EQ(deliver(9599), 0);
    EXPECT_EQ(seen.size(), 11u);
    EXPECT_EQ(untouchedFrom(), 9599);
    const auto info = dev->streamInfo();
    EXPECT_EQ(info.framesLost, 9600u);
    EXPECT_EQ(info.framesCarried, 500u + 40u + 39u);
    EXPECT_EQ(info.lastBufferFrames, 9599u);
}

TEST_F(Pipeline, FalseFromTheClientSilencesTheRestOfTheBuffer)
{
    open(48000, 1, 1, 20, {true, false, true});
    EXPECT_EQ(deliver(2880), -1);
    EXPECT_EQ(seen.size(), 2u);
    EXPECT_EQ(untouchedFrom(), 2880);
    EXPECT_EQ(output[959], 1000);
    EXPECT_EQ(output[960], 0);
    EXPECT_EQ(output[2879], 0);
    EXPECT_EQ(deliver(2880), 0);   // the stream runs on
    EXPECT_EQ(output[0], 1000);
}

// A counting signal through buffers of every size: each captured frame
// reaches the client once and in order, and each frame the client plays
// reaches the card once and in order, behind at most one period of silence.
TEST_F(Pipeline, EveryFrameArrivesOnceAndInOrderWhateverTheBufferSizes)
{
    voiceProcessing = false;
    for (int channels : {1, 2}) {
        SCOPED_TRACE(std::to_string(channels) + " output channels");
        dev = makeDevice();
        TAudio2UniversalDevice_p::voicePreprocessorFlag(*dev) = false;
        int16_t nextCaptured = 1, nextPlayed = 1;
        long periods = 0;
        bool inOrder = true;
        ASSERT_EQ(dev->openStream(config(48000, 20, channels, 1), [&](const char* c, int cb, char* p, int pb, int) {
            const int16_t* capture = reinterpret_cast<const int16_t*>(c);
            for (int i = 0; i < cb / 2; ++i, nextCaptured = static_cast<int16_t>(nextCaptured % 30000 + 1))
                inOrder = inOrder && capture[i] == nextCaptured;
            int16_t* playback = reinterpret_cast<int16_t*>(p);
            for (int i = 0; i < pb / 2; i += channels, nextPlayed = static_cast<int16_t>(nextPlayed % 30000 + 1))
                std::fill_n(playback + i, channels, nextPlayed);
            ++periods;
            return true;
        }, nullptr), 0);

        std::mt19937 random(20261123u + static_cast<unsigned>(channels));
        int16_t counter = 1, expectedOut = 1;
        long frames = 0, leadingSilence = 0;
        std::vector<int16_t> in(4096), out(4096 * 2);
        for (int k = 0; k < 600; ++k) {
            const unsigned n = 1 + random() % 4096;
            for (unsigned i = 0; i < n; ++i, counter = static_cast<int16_t>(counter % 30000 + 1))
                in[i] = counter;
            const long before = allocations.load();
            ASSERT_EQ(fakecard::deliver(out.data(), in.data(), n), 0);
            if (k > 10) {
                ASSERT_EQ(allocations.load(), before) << "buffer " << k << " of " << n << " frames allocated";
            }
            frames += n;
            for (unsigned i = 0; i < n * channels; i += channels) {
                if (expectedOut == 1 && out[i] == 0 && frames - n + i / channels == leadingSilence) {
                    ++leadingSilence;
                    continue;
                }
                ASSERT_EQ(out[i], expectedOut) << "card frame " << frames - n + i / channels;
                ASSERT_EQ(out[i + channels - 1], expectedOut);
                expectedOut = static_cast<int16_t>(expectedOut % 30000 + 1);
            }
        }
        EXPECT_TRUE(inOrder);
        EXPECT_EQ(periods, frames / 960);
        EXPECT_LE(leadingSilence, 960);
        EXPECT_EQ(dev->streamInfo().framesLost, 0u);
        dev->closeStream();
    }
}

// Converted rates: the client's steady level reaches the card without a
// gap, whatever the buffers; only the first period may be silent.
TEST_F(Pipeline, ConvertedStreamsPlayWithoutGapsWhateverTheBufferSizes)
{
    for (int channels : {1, 2}) {
        SCOPED_TRACE(std::to_string(channels) + " output channels");
        open(16000, channels);
        std::mt19937 random(7u + static_cast<unsigned>(channels));
        long frames = 0;
        size_t quiet = 0;
        for (int k = 0; k < 300; ++k) {
            const unsigned n = 1 + random() % 4096;
            ASSERT_EQ(deliver(n), 0);
            for (size_t i = 0; i < output.size(); i += channels) {
                if (frames + static_cast<long>(i / channels) > 2 * 960 && std::abs(output[i] - level) > 100)
                    ++quiet;
            }
            frames += n;
        }
        EXPECT_EQ(quiet, 0u);
        EXPECT_EQ(static_cast<long>(seen.size()), frames / 960);
        seen.clear();
        dev->closeStream();
    }
}

TEST_F(Pipeline, MissingInputOrOutputBuffers)
{
    open(16000);
    EXPECT_EQ(deliver(960, false, true), 0);
    EXPECT_EQ(seen.back().capture, nullptr);
    EXPECT_EQ(seen.back().captureBytes, 0);
    EXPECT_EQ(rec(*dev).m_captureFrameId, 0u);
    EXPECT_EQ(rec(*dev).m_reverseFrameId, 2u);

    EXPECT_EQ(deliver(960, true, false), 0);
    EXPECT_EQ(seen.size(), 2u);
    EXPECT_EQ(rec(*dev).m_captureFrameId, 2u);
    EXPECT_EQ(rec(*dev).m_reverseFrameId, 2u);
}

TEST_F(Pipeline, StereoClientOnMonoOutputPlaysTheLeftChannelOnly)
{
    fakecard::card().devices[0].outputChannels = 1;
    open(48000, 2);
    ASSERT_EQ(rec(*dev).m_playbackChannels, 1u);
    deliver(960);
    EXPECT_EQ(seen[0].playbackBytes, 960 * 2 * 2);
    for (int16_t s : output)
        ASSERT_EQ(s, 1000);
}

TEST_F(Pipeline, StereoOutputFeedsTheSaturatedSumToTheCanceller)
{
    open(16000, 2);
    ASSERT_EQ(rec(*dev).m_playbackChannels, 2u);
    level = 30000;   // left 30000, right -30000: the sum is 0
    deliver(960);
    EXPECT_EQ(rec(*dev).m_reverseMono[5], 0);
    // Same sign on both channels saturates instead of halving.
    dev->closeStream();
    ASSERT_EQ(dev->openStream(config(16000, 20, 2, 1), [](const char*, int, char* p, int pb, int) {
        std::fill(reinterpret_cast<int16_t*>(p), reinterpret_cast<int16_t*>(p + pb), int16_t(30000));
        return true;
    }, nullptr), 0);
    deliver(960);
    EXPECT_EQ(rec(*dev).m_reverseMono[5], 32767);
}

TEST_F(Pipeline, BlockCountersAdvancePerTenMillisecondBlock)
{
    open(16000);
    for (int k = 0; k < 5; ++k)
        deliver(960);
    const TAudio2UniversalDevice_p& p = rec(*dev);
    EXPECT_EQ(p.m_captureFrameId, 10u);
    EXPECT_EQ(p.m_captureTimestamp, 100u);
    EXPECT_EQ(p.m_reverseFrameId, 10u);
    EXPECT_EQ(p.m_reverseTimestamp, 100u);

    // 25 ms chunks are not whole blocks: three blocks each, the last one partial.
    dev->closeStream();
    ASSERT_EQ(dev->openStream(config(16000, 25), counting(), nullptr), 0);
    deliver(1200);
    EXPECT_EQ(p.m_captureFrameId, 3u);
    EXPECT_EQ(p.m_captureTimestamp, 30u);
}

TEST_F(Pipeline, TraceLinesOnlyAtLevelEight)
{
    open(16000);
    deliver(960);
    EXPECT_EQ(log.countStartingWith("TAudio2UniversalDevice_p::rtAudioCallback"), 0);
    DebugStream::setLevel("audio2", 8);
    deliver(960);
    EXPECT_EQ(log.countStartingWith("TAudio2UniversalDevice_p::rtAudioCallback " +
                                    std::to_string(reinterpret_cast<uintptr_t>(input.data())) + ", " +
                                    std::to_string(reinterpret_cast<uintptr_t>(output.data())) + ", 960, 960"),
              1);
    EXPECT_EQ(log.countStartingWith("TAudio2UniversalDevice_p::rtAudioCallback callback processed playbackBuffer=0x"),
              1);
    EXPECT_EQ(log.countStartingWith("TAudio2UniversalDevice_p::rtAudioCallback callback processed playbackBuffer="),
              1);
    EXPECT_TRUE(log.lines.back().text.find(" playbackSize=640") != std::string::npos);
}

TEST_F(Pipeline, NoAllocationPerBufferOnceRunning)
{
    for (int clientRate : {16000, 48000}) {
        for (int channels : {1, 2}) {
            SCOPED_TRACE(std::to_string(clientRate) + " Hz, " + std::to_string(channels) + " channels");
            open(clientRate, channels);
            seen.clear();
            seen.reserve(1000);   // the test's own bookkeeping must not count
            std::vector<int16_t> in(1920 * 2, 100), out(1920 * 2);
            for (int k = 0; k < 20; ++k)   // let every lazily built state settle
                fakecard::deliver(out.data(), in.data(), 1920);
            const long before = allocations.load();
            for (int k = 0; k < 200; ++k)
                fakecard::deliver(out.data(), in.data(), 1920);
            EXPECT_EQ(allocations.load() - before, 0);
            dev->closeStream();
        }
    }
}
