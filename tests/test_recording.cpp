#include "testsupport.h"

#include <QDir>
#include <QFile>
#include <sndfile.h>

using namespace tamrel;
using testsupport::DeviceTest;

namespace {

struct WavInfo {
    bool exists = false;
    SF_INFO info{};
};

WavInfo readInfo(const std::string& path)
{
    WavInfo w;
    SNDFILE* f = sf_open(path.c_str(), SFM_READ, &w.info);
    w.exists = f != nullptr;
    if (f)
        sf_close(f);
    return w;
}

class Recording : public DeviceTest {
protected:
    std::string file(const char* name) const { return homePath() + "/" + name; }
    sf_count_t frames(const char* name) const { return readInfo(file(name)).info.frames; }

    boost::shared_ptr<TAudio2UniversalDevice> openMeasuring(int sampleRate = 16000, bool answer = true)
    {
        auto dev = makeDevice();
        TAudio2StreamConfiguration conf = config(sampleRate);
        conf.measureAec = true;
        EXPECT_EQ(dev->openStream(conf, counting(answer), nullptr), 0);
        return dev;
    }

    void deliver(unsigned frames, bool withInput = true)
    {
        std::vector<int16_t> in(frames, 500), out(frames);
        fakecard::deliver(out.data(), withInput ? in.data() : nullptr, frames);
    }
};

} // namespace

TEST_F(Recording, ThreeAlignedMonoFilesAtTheClientRate)
{
    auto dev = openMeasuring();
    EXPECT_EQ(log.countStartingWith("Measure AEC enabled, files path=0x"), 1);
    for (const auto& line : log.lines) {
        if (line.text.rfind("Measure AEC enabled", 0) == 0) {
            EXPECT_EQ(line.severity, LogSeverity::Info);
        }
    }
    for (int k = 0; k < 7; ++k)
        deliver(960);
    deliver(9600);             // resynch: nothing written
    deliver(960, false);       // no input: only the playback grows
    dev->closeStream();

    for (const char* name : {"capture.wav", "capture_aec.wav", "playback.wav"}) {
        SCOPED_TRACE(name);
        const WavInfo w = readInfo(file(name));
        ASSERT_TRUE(w.exists);
        EXPECT_EQ(w.info.samplerate, 16000);
        EXPECT_EQ(w.info.channels, 1);
        EXPECT_EQ(w.info.format, SF_FORMAT_WAV | SF_FORMAT_PCM_16);
    }
    EXPECT_EQ(frames("capture.wav"), 7 * 320);
    EXPECT_EQ(frames("capture_aec.wav"), 7 * 320);
    EXPECT_EQ(frames("playback.wav"), 8 * 320);
}

TEST_F(Recording, RefusedPlaybackIsNotRecordedButCaptureIs)
{
    auto dev = openMeasuring(16000, false);
    deliver(960);
    dev->closeStream();
    EXPECT_EQ(frames("capture.wav"), 320);
    EXPECT_EQ(frames("capture_aec.wav"), 320);
    EXPECT_EQ(frames("playback.wav"), 0);
}

TEST_F(Recording, UnwritableHomeGivesOneLinePerFileAndTheStreamRuns)
{
    const std::string missing = homePath() + "/does/not/exist";
    setenv("HOME", missing.c_str(), 1);
    auto dev = openMeasuring();
    EXPECT_EQ(log.countStartingWith("Failed to open " + missing + "/"), 3);
    EXPECT_EQ(log.countStartingWith("Failed to open " + missing + "/capture_aec.wav "), 1);
    EXPECT_EQ(rec(*dev).m_captureFile, nullptr);
    EXPECT_EQ(rec(*dev).m_playbackFile, nullptr);
    deliver(960);
    EXPECT_EQ(callbackCalls, 1);
}

TEST_F(Recording, ConstructionRemovesEarlierRecordings)
{
    for (const char* name : {"capture.wav", "capture_aec.wav", "playback.wav", "other.wav"}) {
        QFile f(QString::fromStdString(file(name)));
        ASSERT_TRUE(f.open(QIODevice::WriteOnly));
    }
    makeDevice();
    EXPECT_FALSE(QFile::exists(QString::fromStdString(file("capture.wav"))));
    EXPECT_FALSE(QFile::exists(QString::fromStdString(file("capture_aec.wav"))));
    EXPECT_FALSE(QFile::exists(QString::fromStdString(file("playback.wav"))));
    EXPECT_TRUE(QFile::exists(QString::fromStdString(file("other.wav"))));
}

TEST_F(Recording, WithoutVoiceProcessingOnlyAnOpenCaptureFileIsWritten)
{
    // The handles alone decide the raw capture; processing decides the rest.
    auto dev = makeDevice();
    TAudio2UniversalDevice_p::voicePreprocessorFlag(*dev) = false;
    TAudio2StreamConfiguration conf = config();
    conf.measureAec = true;
    ASSERT_EQ(dev->openStream(conf, counting(), nullptr), 0);
    TAudio2UniversalDevice_p& p = rec(*dev);
    ASSERT_EQ(p.m_captureFile, nullptr);
    p.m_sampleRate = 16000;
    p.openRecordings();
    deliver(960);
    dev->closeStream();
    EXPECT_EQ(frames("capture.wav"), 320);
    EXPECT_EQ(frames("capture_aec.wav"), 0);
    EXPECT_EQ(frames("playback.wav"), 0);
}
