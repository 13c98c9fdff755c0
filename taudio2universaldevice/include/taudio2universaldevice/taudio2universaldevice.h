#pragma once

#include <taudio2base/taudio2device.h>

#include <boost/shared_ptr.hpp>

#if defined(TAUDIO2UNIVERSALDEV_BUILD)
#define TAUDIO2UNIVERSALDEV_EXPORT __attribute__((visibility("default")))
#else
#define TAUDIO2UNIVERSALDEV_EXPORT
#endif

namespace tamrel {

class TAudio2UniversalDevice_p;

// Full-duplex sound-card device with echo cancellation, noise suppression,
// fixed digital gain and rate conversion between the card and the client.
// Create it in a boost::shared_ptr: opening a stream registers it through
// shared_from_this(), and an open device stays alive until closeStream().
// Configurations that openStream() refuses with -2, before the sound layer
// is asked anything or the device is registered; *error names the field and
// the value, and the same sentence is logged as a warning:
//
//   sampleRate        <= 0 or > 384000   (above, a 10 ms block outgrows the echo canceller)
//   periodMs          <= 0 or >= 200     (0 never advances; from 200 ms every buffer is
//                                          dropped as a resync, so the client is never called)
//   playbackChannels  <= 0 or > 1024     (negative counts size buffers of gigabytes)
//   captureChannels   > 1024             (0 or less still means playback only)
//
// Other odd values run as they are: a client rate below 1000 / periodMs Hz
// makes empty periods (the client is called with 0-byte buffers); rates
// other than 8000, 16000, 32000 and 48000 Hz get no voice processing (the
// capture passes through unchanged); periods of 1 to 19 ms run inside 20 ms
// hardware buffers; no more playback channels are opened than the card
// has, and a client layout that differs from the opened one (other than
// stereo on a mono output) plays as it is, interleaving and all; capture
// channels are asked for as given, and the sound layer may refuse them (-4);
// device names are matched byte for byte, whatever they hold. If the voice
// chain cannot be built after the sound layer opened, the stream is closed
// again and -4 says why.
class TAUDIO2UNIVERSALDEV_EXPORT TAudio2UniversalDevice : public TAudio2Device {
public:
    static const unsigned DEFAULT_SAMPLE_RATE;

    explicit TAudio2UniversalDevice(unsigned sampleRate);
    ~TAudio2UniversalDevice() override;

    std::vector<boost::shared_ptr<TAudio2DeviceInfo>> devices(TAudio2DeviceInfo::DeviceType type) override;
    int openStream(const TAudio2StreamConfiguration& configuration,
                   TAudio2FrameCallback callback,
                   std::string* error) override;
    void closeStream() override;
    bool hasVoicePreprocessor() const override;
    void reset() override;

private:
    friend class TAudio2UniversalDevice_p;

    bool m_hasVoicePreprocessor;
    boost::shared_ptr<TAudio2UniversalDevice_p> d;
};

} // namespace tamrel
