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

// TAudio2UniversalDevice: one full-duplex sound-card stream, with a
// high-pass filter, echo cancellation, noise suppression and fixed digital
// gain between card and client, and rate conversion between the card's rate
// and the client's. Sound goes through RtAudio (JACK, PulseAudio or ALSA).
//
// OWNERSHIP. Create a device with boost::make_shared: openStream() registers
// it through shared_from_this(), so a device on the stack or in another smart
// pointer aborts there with boost::bad_weak_ptr. An open stream holds a strong
// reference: the device lives until closeStream(), even if the client drops
// its pointer. Constructing a device deletes "capture.wav", "capture_aec.wav"
// and "playback.wav" from the home directory (the previous run's recordings).
//
// THREADS. Construction, devices(), openStream() and closeStream() belong to
// the client's threads; calls on different devices may run at once, calls on
// one device must not overlap. The frame callback runs on the sound layer's
// real-time thread. streamInfo() and toldDelayMs() may be called from any
// thread but the frame callback's.
//
// THE FRAME CALLBACK, once per period, under the device's lock:
//     bool callback(const char* capture, int captureBytes,
//                   char* playback, int playbackBytes, int /* always 0 */)
//   capture       16-bit samples at the client's rate: with voice processing
//                 the processed first capture channel (mono, captureBytes =
//                 2 x frames per period, whatever the card delivers);
//                 without it every capture channel, interleaved. Null, with
//                 captureBytes 0, for a playback-only stream or a buffer the
//                 sound layer delivered without input.
//   playback      to be filled whole: frames per period x playbackChannels
//                 interleaved 16-bit samples at the client's rate. The card
//                 plays at most as many channels as it has; a stereo client on
//                 a mono card plays its left channel, any other difference in
//                 layout plays the samples as they are.
//   returns       false abandons the rest of the card's current buffer: that
//                 period and the buffer's later ones are played as silence.
//   It must not allocate, block, throw, or call into the device
//   (closeStream() or streamInfo() from inside it never returns). Hardware
//   buffers last 20 ms or more and servers may hand out buffers of any size,
//   so periods come in bursts (10 ms periods in pairs). Frames that do not
//   fill a period wait for the next buffer; when buffers are not whole
//   periods the playback runs one period behind the capture, otherwise
//   nothing is added. A buffer of 200 ms or more means the stream stalled: it
//   is dropped, played as silence, and the client is not called for it.
//
// VOICE PROCESSING works at client rates of 8000, 16000, 32000 and 48000 Hz;
// at any other rate every block is refused and the capture passes
// unprocessed. The canceller is told an echo delay (toldDelayMs()); it
// removes echo only where the sound server's round trip fits that delay.
//
// ENVIRONMENT.
//   TAUDIO2_AEC   read at every openStream(). Unset or "standard": the
//                 canceller trusts the told delay. "robust": webrtc's
//                 extended filter and delay-agnostic estimation, which also
//                 take echoes some way before and after it. Another value:
//                 one warning naming it, then "standard".
//   TAUDIO2_API   read at construction: "jack", "pulseaudio" or "alsa".
//                 Unset, RtAudio takes the first layer that has a device, in
//                 the order JACK, PulseAudio, ALSA: JACK whenever a JACK
//                 server answers, which PipeWire's JACK library always does.
//                 Another value: one warning naming it, then the default.
//   TAUDIO2_LATENCY  read at every openStream(). Unset or "default": the
//                 sound server chooses its playback queue. "low": on
//                 PulseAudio itself, the stream asks for a queue of three
//                 buffers (streamInfo().playbackQueueBuffers), which
//                 shortens the round trip and with it the echo delay, and
//                 runs libpulse's threads of a duplex stream at the stream
//                 thread's real-time priority (where the system grants it),
//                 so that a busy machine does not run the queue dry. It suits
//                 "robust" (the standard told delays fit the default queue's
//                 round trip, not the short one's). PipeWire's
//                 PulseAudio service, JACK and ALSA are left as they are
//                 (the request is not an error there). Another value: one
//                 warning naming it, then "default".
//   TAMREL_LOG    logging: warnings go to stderr in the category "audio2";
//                 "audio2=0" adds lifecycle lines, "audio2=8" per-buffer
//                 traces, "audio2=-1" silences it.
//   PIPEWIRE_PROPS  set by the device (only if unset) when PipeWire's JACK
//                 library loses a stream, see RECOVERY.
//
// RECOVERY. While a stream is open, a thread of the device watches that the
// sound layer delivers. When it stops for good (a server that died or
// restarted, a JACK period change RtAudio cannot follow, a device that
// vanished, an error on which RtAudio aborted the stream) the frame callback
// is no longer called and the stream is reopened with the same configuration
// and callback, retried every 100 to 500 ms until the server is back or
// closeStream() is called. The client sees a gap, never an error; the
// recordings go on in the same files; one warning says the stream was lost
// and one that it came back. On PipeWire's JACK library, whose graph may run
// at another period than the one a new client is told, a loss sets
// PIPEWIRE_PROPS in the process's environment so that PipeWire holds the
// told period while the stream runs; one warning says so.
class TAUDIO2UNIVERSALDEV_EXPORT TAudio2UniversalDevice : public TAudio2Device {
public:
    // The rate clients are expected to pass to the constructor, 16000 Hz.
    static const unsigned DEFAULT_SAMPLE_RATE;

    // What openStream() returns. On every failure no stream is left open,
    // the device is not registered (it dies with the client's last pointer)
    // and a stream opened before the call, if any, runs on untouched.
    enum OpenResult {
        STREAM_OPENED = 0,
        DEVICE_QUERY_FAILED = -1,   // the sound layer could not list its devices (*error)
        CONFIGURATION_REFUSED = -2, // a configuration that cannot run, see openStream() (*error)
        NO_COMMON_RATE = -3,        // the two devices share no rate; a warning lists their rates
        OPEN_REFUSED = -4,          // the sound layer would not open the stream, a stream is
                                    // already open, or the voice chain failed (*error)
        START_FAILED = -5,          // the stream opened but would not start (*error)
        NO_DEVICES = -6,            // a device was named, but there are no devices (a warning)
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
        unsigned playbackQueueBuffers = 0;  // playback queue asked of the server; 0: its own choice
        bool shortRoundTrip = false;        // JACK, PipeWire or PulseAudio's short queue: see toldDelayMs()
        std::string echoCancellation;       // "standard", "robust" or "off"
        uint64_t framesCarried = 0;         // card frames held over to a later buffer (not whole periods)
        uint64_t framesLost = 0;            // card frames dropped (stalls, a lost stream)
        uint64_t recoveries = 0;            // times the stream was reopened after the sound layer lost it
    };

    // sampleRate: the client's rate until the first openStream(), which
    // takes the configuration's rate instead. Asks the sound layer for
    // nothing but its presence; never fails.
    explicit TAudio2UniversalDevice(unsigned sampleRate);
    // Never runs while a stream is open (the stream holds the device).
    ~TAudio2UniversalDevice() override;

    // Records of the capture and playback devices the sound layer reports;
    // type is a mask (PLAYBACK_DEVICE | CAPTURE_DEVICE for both). A device
    // with duplex channels is listed in both directions; m_deviceId is the
    // sound layer's index, m_isDefault its default flag. A failing query ends
    // the list early; nothing is thrown. Client thread.
    std::vector<boost::shared_ptr<TAudio2DeviceInfo>> devices(TAudio2DeviceInfo::DeviceType type) override;

    // Opens and starts one duplex stream of 16-bit samples and returns an
    // OpenResult; success empties *error, -1, -2, -4 and -5 put the reason
    // there, -3 and -6 leave it alone. Client thread.
    //
    // Devices: the configuration's names, matched byte for byte against the
    // sound layer's list; an empty name, and a name no device carries, open
    // the system's default. The card runs at 48000, 16000 or 8000 Hz, the
    // first both devices list, else at the highest rate both list (44100 Hz
    // on a JACK server at that rate); the client's samples are converted to
    // and from configuration.sampleRate. No more playback channels are opened
    // than the card has; capture channels are asked for as given, and the
    // sound layer may refuse them (-4). Periods of 1 to 19 ms run inside
    // 20 ms hardware buffers.
    //
    // Refused with -2, before the sound layer is asked anything; *error names
    // the field and the value and the same sentence is logged as a warning:
    //   sampleRate        <= 0 or > 384000   (a 10 ms block outgrows the canceller)
    //   periodMs          <= 0 or >= 200     (0 never advances; from 200 ms every
    //                                          buffer is a stall, the client is never called)
    //   playbackChannels  <= 0 or > 1024
    //   captureChannels   > 1024             (0 or less means playback only)
    // Other odd values run: a client rate below 1000 / periodMs Hz makes empty
    // periods (the client is called with 0-byte buffers).
    //
    // One stream per device: a second openStream() without closeStream()
    // returns -4 ("a stream is already open") and leaves the running stream
    // alone. If the voice chain cannot be built after the sound layer opened,
    // the stream is closed again and -4 says why. With measureAec the three
    // recordings are written to the home directory, mono at the client's rate:
    // the raw capture (first channel), the processed capture and the
    // playback's left channel; a file that cannot be opened is left out.
    int openStream(const TAudio2StreamConfiguration& configuration,
                   TAudio2FrameCallback callback,
                   std::string* error) override;

    // Stops the stream, ends a recovery in progress, waits for a running
    // frame callback to finish, releases the callback and closes the
    // recordings; harmless without a stream. A stream that is delivering is
    // drained; one that stopped delivering, and any JACK stream, is aborted,
    // so that the call returns within a second whatever the sound layer does.
    // Client thread. The device can be opened again; it may die here if the
    // stream held its last reference.
    void closeStream() override;

    // True: the device always has its voice chain (it is off only at client
    // rates webrtc does not process).
    bool hasVoicePreprocessor() const override;
    // Does nothing; the stream needs no reset between calls.
    void reset() override;

    // The echo delay, in ms, that a stream's canceller is told (what
    // streamInfo().toldDelayMs shows once it is open): for echoCancellation
    // "robust", 2 x the period where the stream's round trip is short
    // (streamInfo().shortRoundTrip: on JACK, on PipeWire's PulseAudio
    // service, or with TAUDIO2_LATENCY=low on PulseAudio) and 5 x the period
    // elsewhere; otherwise UNIVERSAL_DEVICE_DELAY on a two-channel output and
    // 3 x the period on any other. Periods below 20 ms count as 20 (the
    // hardware buffer's floor). Any thread.
    static int toldDelayMs(const std::string& echoCancellation, int periodMs, unsigned playbackChannels,
                           bool shortRoundTrip = false);

    // A snapshot of the stream. Without an open stream: open false and the
    // facts and counters of the last one. Any thread but the frame
    // callback's (it waits for a running callback).
    StreamInfo streamInfo() const;

private:
    friend class TAudio2UniversalDevice_p;

    bool m_hasVoicePreprocessor;
    boost::shared_ptr<TAudio2UniversalDevice_p> d;
};

} // namespace tamrel
