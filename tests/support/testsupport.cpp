#include "testsupport.h"

#include "taudio2universaldevice_p.h"

#include <shared/debugstream.h>

#include <boost/make_shared.hpp>
#include <sndfile.h>

#include <cmath>
#include <cstdlib>

namespace testsupport {

int16_t ramp(size_t frame, unsigned channel)
{
    return static_cast<int16_t>(static_cast<int>((frame * 7 + channel * 5003) % 20000) - 10000);
}

Signal tone(double hz, double rateHz, double amplitude)
{
    return [=](size_t frame, unsigned) {
        return static_cast<int16_t>(std::lround(amplitude * std::sin(2 * M_PI * hz * double(frame) / rateHz)));
    };
}

double toneLevel(const std::vector<int16_t>& samples, unsigned channels, unsigned channel, double hz, double rateHz)
{
    const double w = 2 * M_PI * hz / rateHz;
    double s1 = 0, s2 = 0;
    size_t n = 0;
    for (size_t i = channel; i < samples.size(); i += channels, ++n) {
        const double s = samples[i] + 2 * std::cos(w) * s1 - s2;
        s2 = s1;
        s1 = s;
    }
    return n ? 2 * std::sqrt(s1 * s1 + s2 * s2 - 2 * std::cos(w) * s1 * s2) / double(n) : 0;
}

std::vector<int16_t> readWav(const std::string& path, int* rateHz, int* channels)
{
    SF_INFO info{};
    SNDFILE* f = sf_open(path.c_str(), SFM_READ, &info);
    if (!f)
        return {};
    std::vector<int16_t> samples(static_cast<size_t>(info.frames * info.channels));
    sf_read_short(f, samples.data(), static_cast<sf_count_t>(samples.size()));
    sf_close(f);
    if (rateHz)
        *rateHz = info.samplerate;
    if (channels)
        *channels = info.channels;
    return samples;
}

void DeviceTest::fresh()
{
    for (auto& d : m_devices)
        d->closeStream();
    m_devices.clear();
    device.reset();
    fakecard::reset();
    fakecard::Card& c = fakecard::card();
    c.devices = {fakecard::Device{"Speakers", 2, 0, 0, {44100, 48000}},
                 fakecard::Device{"Microphone", 0, 1, 0, {16000, 44100, 48000}}};
    c.defaultOutput = 0;
    c.defaultInput = 1;
    std::lock_guard<std::mutex> lock(mutex);
    calls = 0;
    heard.clear();
    captureBytes.clear();
    playbackBytes.clear();
    played.clear();
    warnings.clear();
    m_clientFrames = m_microphoneFrames = 0;
}

void DeviceTest::SetUp()
{
    fresh();
    const char* home = std::getenv("HOME");
    m_oldHome = home ? home : "";
    ASSERT_TRUE(m_home.isValid());
    setenv("HOME", m_home.path().toUtf8().constData(), 1);
    tamrel::DebugStream::resetLevels();
    tamrel::DebugStream::setSink([this](const tamrel::LogRecord& r) {
        if (r.severity == tamrel::LogSeverity::Warning) {
            std::lock_guard<std::mutex> lock(mutex);
            warnings.emplace_back(r.text);
        }
    });
}

void DeviceTest::TearDown()
{
    fresh();
    tamrel::DebugStream::setSink(tamrel::LogSink());
    setenv("HOME", m_oldHome.c_str(), 1);
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

boost::shared_ptr<tamrel::TAudio2UniversalDevice> DeviceTest::makeDevice(bool voiceProcessing)
{
    auto d = boost::make_shared<tamrel::TAudio2UniversalDevice>(16000);
    tamrel::TAudio2UniversalDevice_p::voicePreprocessorFlag(*d) = voiceProcessing;
    m_devices.push_back(d);
    return d;
}

int DeviceTest::open(const tamrel::TAudio2StreamConfiguration& c, std::string* error)
{
    if (!device)
        device = makeDevice();
    m_clientChannels = c.playbackChannels;
    return device->openStream(c, [this](const char* capture, int cBytes, char* playback, int pBytes, int) {
        std::lock_guard<std::mutex> lock(mutex);
        const int call = calls++;
        captureBytes.push_back(cBytes);
        playbackBytes.push_back(pBytes);
        if (capture) {
            const int16_t* s = reinterpret_cast<const int16_t*>(capture);
            heard.insert(heard.end(), s, s + cBytes / 2);
        }
        int16_t* out = reinterpret_cast<int16_t*>(playback);
        const size_t frames = static_cast<size_t>(pBytes) / 2 / static_cast<size_t>(std::max(1, m_clientChannels));
        for (size_t f = 0; f < frames; ++f, ++m_clientFrames)
            for (int ch = 0; ch < m_clientChannels; ++ch)
                out[f * m_clientChannels + ch] = clientPlays(m_clientFrames, static_cast<unsigned>(ch));
        return answer ? answer(call) : true;
    }, error);
}

int DeviceTest::deliver(unsigned frames, bool withInput, bool withOutput)
{
    const unsigned in = std::max(1u, cardInputChannels()), out = std::max(1u, cardOutputChannels());
    std::vector<int16_t> input(static_cast<size_t>(frames) * in);
    for (size_t f = 0; f < frames; ++f, ++m_microphoneFrames)
        for (unsigned ch = 0; ch < in; ++ch)
            input[f * in + ch] = microphone(m_microphoneFrames, ch);
    std::vector<int16_t> output(static_cast<size_t>(frames) * out, 0x7777);
    const int result = fakecard::deliver(withOutput ? output.data() : nullptr, withInput ? input.data() : nullptr,
                                         frames);
    if (withOutput)
        played.insert(played.end(), output.begin(), output.end());
    return result;
}

std::string DeviceTest::homeFile(const char* name) const
{
    return m_home.path().toStdString() + "/" + name;
}

int DeviceTest::warningsStartingWith(const std::string& prefix)
{
    std::lock_guard<std::mutex> lock(mutex);
    int n = 0;
    for (const auto& w : warnings)
        n += w.compare(0, prefix.size(), prefix) == 0;
    return n;
}

} // namespace testsupport
