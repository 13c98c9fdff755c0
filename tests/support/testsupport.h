// Shared fixture for device tests: a fresh fake card, a private home
// directory for the recordings, and captured log lines.
#pragma once

#include "fakecard.h"
#include "taudio2universaldevice_p.h"

#include <shared/debugstream.h>

#include <QTemporaryDir>
#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace testsupport {

struct LogLine {
    std::string category;
    tamrel::LogSeverity severity;
    int level;
    std::string text;
};

// Collects every emitted line while it lives.
class CapturedLog {
public:
    CapturedLog();
    ~CapturedLog();
    std::vector<LogLine> lines;
    bool has(const std::string& text) const;                     // a line equal to text
    int countStartingWith(const std::string& prefix) const;
    std::vector<std::string> texts() const;
    void clear() { lines.clear(); }
};

// Speakers (index 0, two channels) and a microphone (index 1, one channel),
// both at 48000 Hz and defaults for their direction.
void standardCard();

class DeviceTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    boost::shared_ptr<tamrel::TAudio2UniversalDevice> makeDevice(unsigned sampleRate = 16000);
    static tamrel::TAudio2UniversalDevice_p& rec(tamrel::TAudio2UniversalDevice& device)
    {
        return tamrel::TAudio2UniversalDevice_p::of(device);
    }
    static tamrel::TAudio2StreamConfiguration config(int sampleRate = 16000, int periodMs = 20, int playbackChannels = 1,
                                                     int captureChannels = 1);
    // A frame callback that counts calls and answers `answer`.
    tamrel::TAudio2FrameCallback counting(bool answer = true);

    std::string homePath() const;
    static bool registered(unsigned id);

    QTemporaryDir m_home;
    std::string m_oldHome;
    CapturedLog log;
    int callbackCalls = 0;
    std::vector<boost::shared_ptr<tamrel::TAudio2UniversalDevice>> m_devices;
};

} // namespace testsupport
