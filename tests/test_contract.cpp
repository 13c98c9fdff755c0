// What reaches the recordings and the client, device choice corner cases and
// the per-chunk trace, each pinned where a slip would go unnoticed.
#include "testsupport.h"

#include <sndfile.h>

#include <sstream>

using namespace tamrel;
using fakecard::Call;
using testsupport::DeviceTest;

using Contract = DeviceTest;

namespace {

std::vector<int16_t> readWav(const std::string& path)
{
    SF_INFO info{};
    SNDFILE* f = sf_open(path.c_str(), SFM_READ, &info);
    std::vector<int16_t> samples(f ? static_cast<size_t>(info.frames) : 0);
    if (f) {
        sf_read_short(f, samples.data(), info.frames);
        sf_close(f);
    }
    return samples;
}

int16_t leftAt(size_t frame) { return static_cast<int16_t>(frame * 7 % 20000); }
int16_t rightAt(size_t frame) { return static_cast<int16_t>(-1 - static_cast<int>(frame % 5000)); }

} // namespace

// Equal rates with voice processing on: no converter, the client gets the
// processed capture, the card gets the client's own samples, and the three
// recordings hold raw capture, processed capture and the first (left)
// channel of the playback, on a stereo and on a mono output.
TEST_F(Contract, RecordingsHoldRawProcessedAndLeftPlayback)
{
    for (unsigned outputChannels : {2u, 1u}) {
        SCOPED_TRACE(std::to_string(outputChannels) + "-channel output");
        testsupport::standardCard();
        fakecard::card().devices[0].outputChannels = outputChannels;
        auto dev = makeDevice(48000);
        TAudio2UniversalDevice_p& p = rec(*dev);
        TAudio2StreamConfiguration conf = config(48000, 20, 2, 1);
        conf.measureAec = true;
        std::vector<int16_t> seenCapture;
        size_t played = 0;
        ASSERT_EQ(dev->openStream(conf, [&](const char* c, int cb, char* out, int pb, int) {
            EXPECT_EQ(c, p.m_processedCapture.data());
            const int16_t* s = reinterpret_cast<const int16_t*>(c);
            seenCapture.insert(seenCapture.end(), s, s + cb / 2);
            int16_t* o = reinterpret_cast<int16_t*>(out);
            for (int f = 0; f < pb / 4; ++f, ++played) {
                o[2 * f] = leftAt(played);
                o[2 * f + 1] = rightAt(played);
            }
            return true;
        }, nullptr), 0);
        EXPECT_FALSE(p.m_captureResampler || p.m_playbackResampler);

        std::vector<int16_t> raw, output;
        for (int k = 0; k < 4; ++k) {
            std::vector<int16_t> in(1920), out(1920 * outputChannels);
            for (size_t i = 0; i < in.size(); ++i)
                in[i] = static_cast<int16_t>(3000 + (k * 1920 + i) % 100);   // a DC offset the high-pass filter removes
            fakecard::deliver(out.data(), in.data(), 1920);
            raw.insert(raw.end(), in.begin(), in.end());
            output.insert(output.end(), out.begin(), out.end());
        }
        dev->closeStream();

        std::vector<int16_t> left(played), stereo(2 * played);
        for (size_t f = 0; f < played; ++f) {
            left[f] = leftAt(f);
            stereo[2 * f] = leftAt(f);
            stereo[2 * f + 1] = rightAt(f);
        }
        EXPECT_EQ(output, outputChannels == 2 ? stereo : left);
        EXPECT_EQ(readWav(homePath() + "/capture.wav"), raw);
        EXPECT_EQ(readWav(homePath() + "/capture_aec.wav"), seenCapture);
        EXPECT_NE(seenCapture, raw);
        EXPECT_EQ(readWav(homePath() + "/playback.wav"), left);
    }
}

// When the output cannot be queried it counts as taking 48000 Hz only.
TEST_F(Contract, OutputQueryFailureOffersOnly48000)
{
    struct Case { std::vector<unsigned> inputRates; int captureChannels; int code; unsigned rate; };
    for (const Case& c : {Case{{16000, 48000}, 1, 0, 48000}, Case{{8000, 16000}, 1, -3, 0}, Case{{16000}, 0, 0, 48000}}) {
        SCOPED_TRACE(c.inputRates.size());
        testsupport::standardCard();
        fakecard::Card& card = fakecard::card();
        card.devices[0].sampleRates = {16000};   // would be chosen if the query worked
        card.devices[1].sampleRates = c.inputRates;
        card.failures[Call::DeviceInfo] = "output gone";
        card.failingDeviceIndex = 0;
        auto dev = makeDevice();
        EXPECT_EQ(dev->openStream(config(16000, 20, 1, c.captureChannels), counting(), nullptr), c.code);
        if (c.code == 0) {
            EXPECT_EQ(card.opened.sampleRate, c.rate);
        }
        dev->closeStream();
    }
}

TEST_F(Contract, CaptureDeviceWithOnlyDuplexChannelsIsFoundByName)
{
    fakecard::Device duplex;
    duplex.name = "Duplex only";
    duplex.duplexChannels = 2;
    fakecard::card().devices.push_back(duplex);
    auto dev = makeDevice();
    TAudio2StreamConfiguration conf = config();
    conf.captureDeviceName = "Duplex only";
    ASSERT_EQ(dev->openStream(conf, counting(), nullptr), 0);
    EXPECT_EQ(fakecard::card().opened.input.deviceId, 2u);
    EXPECT_EQ(fakecard::card().opened.output.deviceId, 0u);
}

TEST_F(Contract, RefusedPlaybackIsTracedAtLevelEightOnly)
{
    auto dev = makeDevice();
    ASSERT_EQ(dev->openStream(config(), counting(false), nullptr), 0);
    const std::string failed = "TAudio2UniversalDevice_p::rtAudioCallback callback failed playbackBuffer=";
    std::vector<int16_t> in(960), out(960);
    for (int level : {0, 8}) {
        DebugStream::setLevel("audio2", level);
        log.clear();
        EXPECT_EQ(fakecard::deliver(out.data(), in.data(), 960), -1);
        EXPECT_EQ(log.countStartingWith(failed), level == 8 ? 1 : 0);
    }
    std::ostringstream address;
    address << static_cast<const void*>(rec(*dev).m_playbackBuffer.data());
    EXPECT_TRUE(log.has(failed + address.str() + " playbackSize=640"));
}
