#include "testsupport.h"

#include "taudio2universaldevice_p.h"

#include <boost/make_shared.hpp>

#include <algorithm>
#include <cstdlib>
#include <tuple>

namespace testsupport {

double toneLevel(const std::vector<int16_t>& samples, unsigned channels, unsigned channel, double hz, double rateHz)
{
    const double c = 2 * std::cos(2 * M_PI * hz / rateHz);
    double s1 = 0, s2 = 0;
    size_t n = 0;
    for (size_t i = channel; i < samples.size(); i += channels, ++n)
        std::tie(s2, s1) = std::make_pair(s1, samples[i] + c * s1 - s2);
    return n ? 2 * std::sqrt(s1 * s1 + s2 * s2 - c * s1 * s2) / double(n) : 0;
}

void DeviceTest::fresh(unsigned speakerChannels, unsigned microphoneChannels)
{
    for (auto& d : m_devices)
        d->closeStream();
    m_devices.clear();
    device.reset();
    fakecard::reset();
    fakecard::card().devices = {fakecard::Device{"Speakers", speakerChannels, 0, 0, {44100, 48000}},
                                fakecard::Device{"Microphone", 0, microphoneChannels, 0, {16000, 44100, 48000}}};
    fakecard::card().defaultInput = 1;
    std::lock_guard<std::mutex> lock(mutex);
    calls = 0;
    heard.clear(), captureBytes.clear(), played.clear(), warnings.clear();
    m_clientFrames = m_microphoneFrames = 0;
}

void DeviceTest::SetUp()
{
    fresh();
    ASSERT_TRUE(m_home.isValid());
    setenv("HOME", m_home.path().toUtf8().constData(), 1);
    tamrel::DebugStream::resetLevels();
    tamrel::DebugStream::setSink([this](const tamrel::LogRecord& r) {
        std::lock_guard<std::mutex> lock(mutex);
        if (r.severity == tamrel::LogSeverity::Warning)
            warnings.emplace_back(r.text);
    });
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
        const auto* samples = reinterpret_cast<const int16_t*>(capture);
        heard.insert(heard.end(), samples, samples + (capture ? cBytes / 2 : 0));
        int16_t* out = reinterpret_cast<int16_t*>(playback);
        for (int i = 0; i < pBytes / 2; ++i)
            out[i] = clientPlays(m_clientFrames + size_t(i / m_clientChannels), unsigned(i % m_clientChannels));
        m_clientFrames += size_t(pBytes / 2 / m_clientChannels);
        return answer ? answer(call) : true;
    }, error);
}

int DeviceTest::deliver(unsigned frames, bool withInput, bool withOutput)
{
    const unsigned in = std::max(1u, cardInputChannels()), out = std::max(1u, cardOutputChannels());
    std::vector<int16_t> input(size_t(frames) * in), output(size_t(frames) * out, 0x7777);
    for (size_t i = 0; i < input.size(); ++i)
        input[i] = microphone(m_microphoneFrames + i / in, unsigned(i % in));
    m_microphoneFrames += frames;
    const int result = fakecard::deliver(withOutput ? output.data() : nullptr, withInput ? input.data() : nullptr, frames);
    if (withOutput)
        played.insert(played.end(), output.begin(), output.end());
    return result;
}

int DeviceTest::warningsStartingWith(const std::string& prefix)
{
    std::lock_guard<std::mutex> lock(mutex);
    return int(std::count_if(warnings.begin(), warnings.end(),
                             [&](const std::string& w) { return w.compare(0, prefix.size(), prefix) == 0; }));
}

} // namespace testsupport
