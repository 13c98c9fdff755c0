#pragma once

#include <taudio2base/taudio2device.h>

#include <boost/shared_ptr.hpp>

#include <cstdint>
#include <string>

#if defined(TAUDIO2UNIVERSALDEV_BUILD)
#define TAUDIO2UNIVERSALDEV_EXPORT __attribute__((visibility("default")))
#else
#define TAUDIO2UNIVERSALDEV_EXPORT
#endif

namespace tamrel {

class TAudio2UniversalDevice_p;

// Full-duplex sound-card device: one RtAudio stream, with high-pass filter,
// echo cancellation, noise suppression and fixed digital gain between card
// and client, and rate conversion between the card's rate and the client's.
//
// Ownership: create it with boost::make_shared. openStream() registers the
// device through shared_from_this(), so a device on the stack or in another
// smart pointer aborts there with boost::bad_weak_ptr. An open stream holds a
// strong reference: the device lives until closeStream(), even if the client
// drops its pointer.
//
// Construction deletes "capture.wav", "capture_aec.wav" and "playback.wav"
// from the home directory: the recordings of the previous run are gone.
//
// Logging goes to stderr through the category "audio2": warnings only unless
// TAMREL_LOG asks for more ("audio2=0" lifecycle lines, "audio2=8" per-buffer
// traces, "audio2=-1" nothing).
//
// Echo cancellation mode: read from the environment variable TAUDIO2_AEC each
// time a stream opens.
//   unset or "standard"  the canceller trusts the delay it is told:
//            3 x the period on a one-channel output, UNIVERSAL_DEVICE_DELAY
//            (libtaudio2base) on a two-channel one. It cancels only where
//            the server's round trip fits that delay (see the README).
//   "robust" webrtc's extended filter and delay-agnostic estimation, told
//            5 x the period whatever the output.
//   other    one warning line naming the value, then "standard".
//
// Sound layer: read from the environment variable TAUDIO2_API when the
// device is constructed: "jack", "pulseaudio" or "alsa". Unset, RtAudio
// takes the first layer that has a device, in the order JACK, PulseAudio,
// ALSA: JACK whenever a JACK server answers, which PipeWire's JACK library
// always does. Another value: one warning line naming it, then the default.
//
// Buffers: the sound layer may hand out buffers of any size, and change it
// between buffers (JACK and PipeWire follow their server's period). Frames
// that do not fill a whole period wait for the next buffer, so nothing is
// lost; when buffers are not whole periods the playback runs one period
// behind, otherwise nothing is added. A buffer of 200 ms or more is dropped
// (played as silence): the stream stalled and catches up.
//
// Recovery: while a stream is open, a thread of the device watches that
// the sound layer delivers. When it stops for good (a server that died or
// restarted, a JACK period change RtAudio cannot follow, a device that
// vanished) the frame callback is no longer called, and the stream is
// reopened with the same configuration and callback, retried every 100 to
// 500 ms until the server is back or closeStream() is called. The client
// sees a gap, never an error; the recordings go on in the same files; one
// warning line says the stream was lost and one that it came back. On
// PipeWire's JACK library, whose graph may run at another period than the
// one a new client is told, a loss sets PIPEWIRE_PROPS (unless already set)
// in the process's environment so that PipeWire holds the told period while
// the stream runs; one warning line says so.
//
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
    // The rate clients are expected to pass to the constructor, 16000 Hz.
    static const unsigned DEFAULT_SAMPLE_RATE;

    // What openStream() returns. The sound layer's reason is in *error for
    // the failures marked so; success empties it, the others leave it alone.
    enum OpenResult {
        STREAM_OPENED = 0,
        DEVICE_QUERY_FAILED = -1,   // the sound layer failed a device query (*error)
        CONFIGURATION_REFUSED = -2, // a configuration that cannot run, see above (*error)
        NO_COMMON_RATE = -3,        // the two devices share no rate at all
        OPEN_REFUSED = -4,          // the sound layer would not open the stream, a stream is
                                    // already open, or the voice chain failed (*error)
        START_FAILED = -5,          // the stream opened but would not start (*error)
        NO_DEVICES = -6,            // a device was named, but there are no devices
    };

    // What the stream really is, as negotiated with the sound layer; see
    // streamInfo(). Counters run from openStream() and survive recoveries.
    struct StreamInfo {
        bool open = false;                  // between a successful openStream() and closeStream()
        bool delivering = false;            // false while the stream is lost or being reopened
        std::string soundLayer;             // RtAudio's name of its API ("JACK", "Pulse", "ALSA", ...)
        unsigned cardRateHz = 0;            // the rate the card runs at
        unsigned grantedBufferFrames = 0;   // frames per buffer the sound layer granted at the last open
        unsigned lastBufferFrames = 0;      // frames in the most recent buffer (servers may change it)
        unsigned periodMs = 0;              // the client's period
        unsigned framesPerPeriod = 0;       // at the client's rate
        unsigned cardFramesPerPeriod = 0;   // at the card's rate
        int toldDelayMs = 0;                // echo delay the canceller is told
        std::string echoCancellation;       // "standard", "robust" or "off"
        uint64_t framesCarried = 0;         // card frames held over to a later buffer (not whole periods)
        uint64_t framesLost = 0;            // card frames dropped (resynchronisations, a lost stream)
        uint64_t recoveries = 0;            // times the stream was reopened after the sound layer lost it
    };

    // sampleRate: the client's rate until the first openStream(), which
    // takes the configuration's rate instead.
    explicit TAudio2UniversalDevice(unsigned sampleRate);
    ~TAudio2UniversalDevice() override;

    // Records of the capture and playback devices the sound layer reports;
    // type is a mask (PLAYBACK_DEVICE | CAPTURE_DEVICE for both). A failing
    // query ends the list early; nothing is thrown.
    std::vector<boost::shared_ptr<TAudio2DeviceInfo>> devices(TAudio2DeviceInfo::DeviceType type) override;

    // Opens and starts one duplex stream of 16-bit samples; returns an
    // OpenResult. Devices are the configuration's names, matched exactly; an
    // empty name, and also a name no device carries, opens the system's
    // default. The card runs at 48000, 16000 or 8000 Hz, the first both
    // devices support, or else at the highest rate both support (44100 Hz on
    // a JACK server at that rate); the client's samples are converted to and
    // from configuration.sampleRate. Client thread; a failure leaves no
    // stream open and the device as it was before the call.
    //
    // Voice processing works at client rates of 8000, 16000, 32000 and 48000
    // Hz only; at any other rate (44100 Hz, say) every block is refused and
    // the capture reaches the client unprocessed.
    //
    // The callback is called once per configuration.periodMs, on the sound
    // layer's real-time thread, under the device's lock:
    //   (capture, captureBytes, playback, playbackBytes, 0)
    // capture holds the processed capture at the client's rate (null when
    // the configuration asks for no capture); the callback fills all of
    // playback with playbackChannels interleaved channels. Returning false
    // abandons the rest of the current hardware buffer: that period and the
    // buffer's other whole periods are played as silence. It must not
    // allocate, block, or call back into the device: closeStream() or
    // streamInfo() from inside it hangs. The device asks for hardware
    // buffers of 20 ms or more, so shorter periods arrive in bursts (10 ms
    // periods in pairs), as do periods inside a server's longer buffers; the
    // first buffers of a stream may pass before the callback is in place.
    //
    // One stream per device: a second openStream() without closeStream()
    // returns -4 ("a stream is already open") and leaves the running stream
    // alone.
    int openStream(const TAudio2StreamConfiguration& configuration,
                   TAudio2FrameCallback callback,
                   std::string* error) override;
    // Stops the stream, ends a recovery in progress and waits for a running
    // callback to finish; harmless without a stream. A stream that is
    // delivering is drained; one that stopped delivering, and any JACK
    // stream, is aborted, so that the call returns within a second whatever
    // the sound layer does. Client thread. The device can be opened again.
    void closeStream() override;
    bool hasVoicePreprocessor() const override;
    void reset() override;

    // The echo delay, in ms, that a stream's canceller is told (what
    // streamInfo().toldDelayMs shows once it is open): for echoCancellation
    // "robust", 5 x the period; otherwise UNIVERSAL_DEVICE_DELAY on a
    // two-channel output and 3 x the period on any other. Periods below
    // 20 ms count as 20 (the hardware buffer's floor). Any thread.
    static int toldDelayMs(const std::string& echoCancellation, int periodMs, unsigned playbackChannels);

    // A snapshot of the stream; any thread except the frame callback's (it
    // waits for a running callback). Without an open stream: open false and
    // the counters of the last stream.
    StreamInfo streamInfo() const;

private:
    friend class TAudio2UniversalDevice_p;

    bool m_hasVoicePreprocessor;
    boost::shared_ptr<TAudio2UniversalDevice_p> d;
};

} // namespace tamrel
