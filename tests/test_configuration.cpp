// Every field of the configuration at its odd values: refused ones change
// nothing, the others open and carry whole periods without touching memory
// beyond the buffers (the sanitizer build checks that).
#include "testsupport.h"

#include <algorithm>
#include <iterator>

#include <climits>
#include <functional>

using namespace tamrel;
using testsupport::DeviceTest;

using Configuration = DeviceTest;

namespace {

struct Row {
    const char* what;
    std::function<void(TAudio2StreamConfiguration&)> change;
    const char* refusal;   // null: the configuration opens
};

void setField(TAudio2StreamConfiguration& c, int TAudio2StreamConfiguration::*field, int value)
{
    c.*field = value;
}

#define FIELD(name, value) #name " " #value, [](TAudio2StreamConfiguration& c) { setField(c, &TAudio2StreamConfiguration::name, value); }

const Row ROWS[] = {
    {FIELD(sampleRate, 0), "sampleRate 0 is refused: the client rate must be 1 to 384000 Hz"},
    {FIELD(sampleRate, -16000), "sampleRate -16000 is refused: the client rate must be 1 to 384000 Hz"},
    {FIELD(sampleRate, 384001), "sampleRate 384001 is refused: the client rate must be 1 to 384000 Hz"},
    {FIELD(sampleRate, INT_MAX), "sampleRate 2147483647 is refused: the client rate must be 1 to 384000 Hz"},
    {FIELD(periodMs, 0), "periodMs 0 is refused: the period must be 1 to 199 ms"},
    {FIELD(periodMs, -20), "periodMs -20 is refused: the period must be 1 to 199 ms"},
    {FIELD(periodMs, 200), "periodMs 200 is refused: the period must be 1 to 199 ms"},
    {FIELD(periodMs, INT_MAX), "periodMs 2147483647 is refused: the period must be 1 to 199 ms"},
    {FIELD(playbackChannels, 0), "playbackChannels 0 is refused: the client must play 1 to 1024 channels"},
    {FIELD(playbackChannels, -1), "playbackChannels -1 is refused: the client must play 1 to 1024 channels"},
    {FIELD(playbackChannels, 1025), "playbackChannels 1025 is refused: the client must play 1 to 1024 channels"},
    {FIELD(captureChannels, INT_MAX),
     "captureChannels 2147483647 is refused: capture takes at most 1024 channels (0 or less for none)"},

    {FIELD(sampleRate, 1), nullptr},   // zero frames per period: the client is called with empty buffers
    {FIELD(sampleRate, 44100), nullptr},
    {FIELD(sampleRate, 384000), nullptr},
    {FIELD(periodMs, 1), nullptr},
    {FIELD(periodMs, 199), nullptr},
    // Chunks that are not whole 10 ms blocks: the last block must stop at the chunk's end.
    {FIELD(periodMs, 25), nullptr},
    {"44100 Hz, 25 ms", [](TAudio2StreamConfiguration& c) { c.sampleRate = 44100; c.periodMs = 25; }, nullptr},
    {FIELD(playbackChannels, 2), nullptr},
    {FIELD(playbackChannels, 3), nullptr},   // more than the card: opened with its two
    {FIELD(playbackChannels, 1000), nullptr},
    {FIELD(captureChannels, 2), nullptr},    // more than the microphone: asked for all the same
    {FIELD(captureChannels, 1000), nullptr},
    {FIELD(captureChannels, INT_MIN), nullptr},   // playback only
    {"a megabyte of name", [](TAudio2StreamConfiguration& c) { c.playbackDeviceName.assign(1 << 20, 'x'); }, nullptr},
    {"names with NUL and invalid UTF-8",
     [](TAudio2StreamConfiguration& c) {
         c.playbackDeviceName = std::string("Speakers\0", 9);
         c.captureDeviceName = "\xff\xfe Microphone";
     },
     nullptr},
};

} // namespace

TEST_F(Configuration, OddValuesAreRefusedUpFrontOrRunInWholePeriods)
{
    for (bool voiceProcessing : {true, false}) {
        for (const Row& row : ROWS) {
            SCOPED_TRACE(std::string(row.what) + (voiceProcessing ? ", voice processing" : ""));
            testsupport::standardCard();
            callbackCalls = 0;
            auto dev = makeDevice();   // fresh, so every buffer is sized exactly for this row
            TAudio2UniversalDevice_p::voicePreprocessorFlag(*dev) = voiceProcessing;
            log.clear();
            TAudio2UniversalDevice_p& p = rec(*dev);
            TAudio2StreamConfiguration conf = config(16000, 20, 1, 1);
            conf.measureAec = true;
            row.change(conf);
            std::string error = "stale";
            const int code = dev->openStream(conf, counting(), &error);

            if (row.refusal) {
                EXPECT_EQ(code, -2);
                EXPECT_EQ(error, row.refusal);
                // Summaries of lines collapsed earlier in the burst may come out too.
                std::vector<testsupport::LogLine> lines;
                std::copy_if(log.lines.begin(), log.lines.end(), std::back_inserter(lines),
                             [](const testsupport::LogLine& l) { return l.text.rfind("... repeated ", 0) != 0; });
                ASSERT_EQ(lines.size(), 1u);
                EXPECT_EQ(lines[0].severity, LogSeverity::Warning);
                EXPECT_EQ(lines[0].text, row.refusal);
                EXPECT_TRUE(fakecard::card().calls.empty());   // the sound layer was never asked
                EXPECT_FALSE(registered(p.m_id));
                EXPECT_EQ(p.m_sampleRate, 16000u);   // as the constructor left it
                EXPECT_TRUE(p.m_playbackBuffer.empty());
                continue;
            }

            ASSERT_EQ(code, 0) << error;
            const fakecard::Opened& o = fakecard::card().opened;
            const unsigned frames = o.bufferFrames;
            std::vector<int16_t> out(frames * o.output.nChannels);
            std::vector<int16_t> in(o.hasInput ? frames * o.input.nChannels : 0, 300);
            for (int k = 0; k < 3; ++k)
                EXPECT_EQ(fakecard::deliver(out.data(), o.hasInput ? in.data() : nullptr, frames), 0);
            EXPECT_EQ(callbackCalls, 3 * static_cast<int>(frames / p.m_deviceChunkFrames));
            dev->closeStream();
        }
    }
}

TEST_F(Configuration, RefusalLeavesAnOpenStreamAlone)
{
    auto dev = makeDevice();
    ASSERT_EQ(dev->openStream(config(), counting(), nullptr), 0);
    EXPECT_EQ(dev->openStream(config(0), counting(), nullptr), -2);
    EXPECT_TRUE(fakecard::card().streamRunning);
    EXPECT_TRUE(registered(rec(*dev).m_id));
    std::vector<int16_t> in(960), out(960);
    fakecard::deliver(out.data(), in.data(), 960);
    EXPECT_EQ(callbackCalls, 1);
}

// A failure while the chain is built, after the sound layer opened: the
// stream is closed again and the reason returned, nothing thrown.
TEST_F(Configuration, VoiceChainFailureClosesTheStreamAndSaysWhy)
{
    auto dev = makeDevice();
    TAudio2UniversalDevice_p& p = rec(*dev);
    fakecard::card().duringOpen = [&p] { p.m_clientPlaybackChannels = 0; };   // no converter takes 0 channels
    std::string error;
    EXPECT_EQ(dev->openStream(config(), counting(), &error), -4);
    EXPECT_EQ(error.rfind("voice processing could not be set up: rate converter 16000 to 48000 Hz: ", 0), 0u) << error;
    EXPECT_TRUE(log.has("TAudio2UniversalDevice::openStream() failed: " + error));
    EXPECT_FALSE(fakecard::card().streamOpen);
    EXPECT_FALSE(registered(p.m_id));
    EXPECT_EQ(fakecard::card().calls[fakecard::Call::StartStream], 0);

    fakecard::card().duringOpen = nullptr;
    EXPECT_EQ(dev->openStream(config(), counting(), &error), 0);
}
