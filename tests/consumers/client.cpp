// A client of the installed libraries, built out of tree (the README's
// client lists the devices): fails without devices; with --call SECONDS runs
// a call on the default ones. Exit status 0 good, 1 failure, 3 the callback
// fell behind the clock (a loaded machine, worth another try).
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
    auto device = boost::make_shared<TAudio2UniversalDevice>(TAudio2UniversalDevice::DEFAULT_SAMPLE_RATE);
    const auto both = TAudio2DeviceInfo::DeviceType(TAudio2DeviceInfo::PLAYBACK_DEVICE | TAudio2DeviceInfo::CAPTURE_DEVICE);
    if (device->devices(both).empty()) {
        std::cerr << "no devices\n";
        return 1;
    }
    if (argc < 3 || std::strcmp(argv[1], "--call") != 0)
        return 0;

    const int seconds = std::atoi(argv[2]);
    std::atomic<int> calls{0}, captured{0};
    const auto client = [&](const char* capture, int captureBytes, char* playback, int playbackBytes, int) {
        std::memset(playback, 0, static_cast<size_t>(playbackBytes));
        captured += capture && captureBytes == 640;   // the default configuration: 16000 Hz, 20 ms, mono
        ++calls;
        return true;
    };
    std::string error;
    const int code = device->openStream(TAudio2StreamConfiguration(), client, &error);
    if (code != TAudio2UniversalDevice::STREAM_OPENED) {
        std::cerr << "openStream failed (" << code << "): " << error << "\n";
        return 1;
    }
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    device->closeStream();
    // 50 periods a second; the first buffers may pass before the callback is in place.
    std::cout << "call: " << calls << " periods in " << seconds << " s (" << seconds * 50 << " due), " << captured
              << " with 640 bytes of capture\n";
    if (calls == 0 || captured != calls)
        return 1;
    return calls >= seconds * 45 ? 0 : 3;
}
