// A client of the installed libraries, built out of tree. Lists the devices;
// with --call SECONDS also runs a call on the default devices and tells
// whether the frame callback kept pace with the clock.
// Exit status: 0 good, 1 failure, 3 the call ran but was disturbed (late or
// missing callbacks: a loaded machine, worth another try).
#include <taudio2universaldevice/taudio2universaldevice.h>

#include <boost/make_shared.hpp>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <thread>

int main(int argc, char** argv)
{
    using namespace tamrel;
    using Device = TAudio2UniversalDevice;
    auto device = boost::make_shared<Device>(Device::DEFAULT_SAMPLE_RATE);
    const auto both = TAudio2DeviceInfo::DeviceType(TAudio2DeviceInfo::PLAYBACK_DEVICE | TAudio2DeviceInfo::CAPTURE_DEVICE);
    const auto list = device->devices(both);
    for (const auto& d : list)
        std::cout << (d->m_type == TAudio2DeviceInfo::CAPTURE_DEVICE ? "capture  " : "playback ") << d->m_name
                  << (d->m_isDefault ? " (default)" : "") << "\n";
    if (list.empty()) {
        std::cerr << "no devices\n";
        return 1;
    }
    if (argc < 3 || std::strcmp(argv[1], "--call") != 0)
        return 0;

    const int seconds = std::atoi(argv[2]);
    TAudio2StreamConfiguration conf;   // 16000 Hz, 20 ms, mono
    std::atomic<int> calls{0}, captured{0};
    std::string error;
    const int code = device->openStream(conf, [&](const char* capture, int captureBytes, char* playback, int playbackBytes, int) {
        std::memset(playback, 0, static_cast<size_t>(playbackBytes));
        if (capture && captureBytes == 640)
            ++captured;
        ++calls;
        return true;
    }, &error);
    if (code != Device::STREAM_OPENED) {
        std::cerr << "openStream failed (" << code << "): " << error << "\n";
        return 1;
    }
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    device->closeStream();

    // 50 periods a second; the first buffers may pass before the callback is in place.
    const int expected = seconds * 50;
    std::cout << "call: " << calls << " periods in " << seconds << " s (" << expected << " due), " << captured
              << " with 640 bytes of capture\n";
    if (calls == 0 || captured != calls)
        return 1;
    return calls >= expected * 9 / 10 ? 0 : 3;
}
