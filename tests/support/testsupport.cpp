#include "testsupport.h"

#include <boost/thread/locks.hpp>

#include <cstdlib>

namespace testsupport {

CapturedLog::CapturedLog()
{
    tamrel::DebugStream::setSink([this](const tamrel::LogRecord& r) {
        lines.push_back(LogLine{r.category, r.severity, r.level, std::string(r.text)});
    });
}

CapturedLog::~CapturedLog()
{
    tamrel::DebugStream::setSink(tamrel::LogSink());
}

bool CapturedLog::has(const std::string& text) const
{
    for (const auto& line : lines)
        if (line.text == text)
            return true;
    return false;
}

int CapturedLog::countStartingWith(const std::string& prefix) const
{
    int n = 0;
    for (const auto& line : lines)
        if (line.text.compare(0, prefix.size(), prefix) == 0)
            ++n;
    return n;
}

std::vector<std::string> CapturedLog::texts() const
{
    std::vector<std::string> result;
    for (const auto& line : lines)
        result.push_back(line.text);
    return result;
}

void standardCard()
{
    fakecard::reset();
    fakecard::Card& c = fakecard::card();
    fakecard::Device speakers;
    speakers.name = "Speakers";
    speakers.outputChannels = 2;
    speakers.sampleRates = {44100, 48000};
    fakecard::Device microphone;
    microphone.name = "Microphone";
    microphone.inputChannels = 1;
    microphone.sampleRates = {16000, 44100, 48000};
    c.devices = {speakers, microphone};
    c.defaultOutput = 0;
    c.defaultInput = 1;
}

void DeviceTest::SetUp()
{
    standardCard();
    const char* home = std::getenv("HOME");
    m_oldHome = home ? home : "";
    ASSERT_TRUE(m_home.isValid());
    setenv("HOME", m_home.path().toUtf8().constData(), 1);
    tamrel::DebugStream::resetLevels();
    tamrel::DebugStream::setLevel("audio2", 0);   // the lifecycle lines the tests read
}

void DeviceTest::TearDown()
{
    for (auto& device : m_devices)
        device->closeStream();
    m_devices.clear();
    setenv("HOME", m_oldHome.c_str(), 1);
    tamrel::DebugStream::resetLevels();
}

boost::shared_ptr<tamrel::TAudio2UniversalDevice> DeviceTest::makeDevice(unsigned sampleRate)
{
    auto device = boost::make_shared<tamrel::TAudio2UniversalDevice>(sampleRate);
    m_devices.push_back(device);
    return device;
}

tamrel::TAudio2StreamConfiguration DeviceTest::config(int sampleRate, int periodMs, int playbackChannels,
                                                      int captureChannels)
{
    tamrel::TAudio2StreamConfiguration c;
    c.sampleRate = sampleRate;
    c.periodMs = periodMs;
    c.playbackChannels = playbackChannels;
    c.captureChannels = captureChannels;
    return c;
}

tamrel::TAudio2FrameCallback DeviceTest::counting(bool answer)
{
    return [this, answer](const char*, int, char*, int, int) {
        ++callbackCalls;
        return answer;
    };
}

std::string DeviceTest::homePath() const
{
    return m_home.path().toStdString();
}

bool DeviceTest::registered(unsigned id)
{
    boost::shared_lock<boost::shared_mutex> lock(tamrel::DevicesMutex);
    return tamrel::Devices.count(id) != 0;
}

} // namespace testsupport
