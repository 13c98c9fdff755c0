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
//
// Echo cancellation mode: read from the environment variable TAUDIO2_AEC each
// time a stream opens.
//   unset or "standard"  the canceller trusts the delay it is told:
//            3 x the period on a one-channel output, UNIVERSAL_DEVICE_DELAY
//            (libtaudio2base) on a two-channel one. It cancels only where
//            the server's round trip fits that delay (two channels on
//            PulseAudio; not on PipeWire, not one channel on PulseAudio).
//   "robust" webrtc's extended filter and delay-agnostic estimation, told
//            4 x the period whatever the output: cancels on PulseAudio and
//            PipeWire with one or two output channels (see the README).
//   other    one warning line naming the value, then "standard".
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
