// A client of the installed libraries, built out of tree with find_package: `client --call SECONDS` runs a
// call on the default devices. Exit status 0 good, 1 failure, 3 the callback fell behind the clock (a
// loaded machine, worth another try).
#include <taudio2universaldevice/taudio2universaldevice.h>

#include <boost/make_shared.hpp>

#include <atomic>
#include <cstring>
#include <iostream>
#include <string>
#include <thread>

int main(int argc, char** argv)
{
    using namespace tamrel;
    const int seconds = argc == 3 && std::strcmp(argv[1], "--call") == 0 ? std::stoi(argv[2]) : 0;
    auto device = boost::make_shared<TAudio2UniversalDevice>(TAudio2UniversalDevice::DEFAULT_SAMPLE_RATE);
    std::atomic<int> calls{0}, captured{0};
    std::string error;
    const int code = device->devices(TAudio2DeviceInfo::DeviceType(3)).empty() ? -6 : device->openStream(
        TAudio2StreamConfiguration(), [&](const char* capture, int captureBytes, char* playback, int playbackBytes, int) {
            std::memset(playback, 0, static_cast<size_t>(playbackBytes));
            captured += capture && captureBytes == 640;   // the default configuration: 16000 Hz, 20 ms, mono
            ++calls;
            return true;
        }, &error);
    if (seconds <= 0 || code != TAudio2UniversalDevice::STREAM_OPENED) {
        std::cerr << "usage: client --call SECONDS; open: " << code << " " << error << "\n";
        return 1;
    }
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    device->closeStream();
    // 50 periods a second; the first buffers may pass before the callback is in place.
    std::cout << "call: " << calls << " periods in " << seconds << " s, " << captured << " with 640 bytes of capture\n";
    return calls == 0 || captured != calls ? 1 : calls >= seconds * 45 ? 0 : 3;
}
