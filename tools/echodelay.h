// Echo delay as the call program sees it: the probe that measures the
// round trip between the device's output and its input, the delay the
// device tells its echo canceller, whether the canceller can work with
// the pair, and the record of a call that the report reads.
#pragma once

#include <taudio2universaldevice/taudio2universaldevice.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace tamrel {
namespace call {

// The standard canceller removes echo that comes this much later than the
// delay it is told, and little outside (README, "Echo delay").
const int AEC_WINDOW_EARLIEST_MS = 15;
const int AEC_WINDOW_LATEST_MS = 55;
// The robust canceller also takes an echo up to this much earlier than told:
// measured, reliably from 50 ms before; between 50 and 60 ms before only in
// some calls, too seldom to advise it.
const int ROBUST_EARLIEST_MS = 50;

// A linear chirp with soft edges at -12 dBFS, after `leadSeconds` of
// silence and followed by `tailSeconds` of it, so that an echo up to that
// late is still recorded.
std::vector<int16_t> makeProbe(int rate, double leadSeconds, double probeSeconds, double tailSeconds);

struct RoundTrip {
    double ms = -1;       // lag of `heard` behind `played`; -1 when no echo was found
    double clarity = 0;   // peak of the normalised cross-correlation, 0 to 1
};

// Cross-correlates what was heard with what was played (time-aligned, same
// rate) over lags 0 to maxMs. Only the played signal's audible stretch is
// correlated, which keeps a seconds-long recording cheap.
RoundTrip findRoundTrip(const std::vector<int16_t>& played, const std::vector<int16_t>& heard, int rate, double maxMs);

enum class Verdict { Cancels, UseRobust, WillNotCancel, NoEcho, CancellerOff };

// What a canceller in `mode` ("standard", "robust" or "off", as the device
// reports it) told `toldMs` makes of an echo `roundTripMs` late.
// Standard mode needs the echo inside its window. Robust mode estimates the
// delay itself and copes with an echo later than told, or a little earlier;
// a standard miss is worth robust mode when robust, told `robustToldMs`
// (TAudio2UniversalDevice::toldDelayMs for robust mode), would take the echo.
Verdict judgeEchoDelay(double roundTripMs, int toldMs, const std::string& mode, int robustToldMs);
const char* verdictText(Verdict verdict);

// The record of a call, written beside its recordings as call.json: what
// the call asked for and what the device's stream query said about it.
struct CallRecord {
    int rate = 0;
    int playbackChannels = 0;
    int captureChannels = 0;
    // The stream's facts from the call's last snapshot of an open stream,
    // its counters from the end of the call.
    TAudio2UniversalDevice::StreamInfo stream;
    // What the device would tell robust mode in this configuration, so that
    // the report can weigh robust mode without a copy of the device's rule.
    int robustToldDelayMs = 0;
    bool ended = false;   // false: written while the call runs, the counters still grow
};

const char* const CALL_RECORD_FILE = "call.json";
std::string callRecordJson(const CallRecord& record);

} // namespace call
} // namespace tamrel
