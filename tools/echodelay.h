// Echo delay as the call program sees it: the probe that measures the
// round trip between the device's output and its input, the delay the
// device tells its echo canceller, whether the canceller can work with
// the pair, and the record of a call that the report reads.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tamrel {
namespace call {

// The device reads this variable when a stream opens: "robust" or "standard".
extern const char* const AEC_MODE_VARIABLE;

// The mode the device will run in for a value of AEC_MODE_VARIABLE (null:
// unset); anything it does not know falls back to "standard", as there.
std::string effectiveAecMode(const char* value);

// The standard canceller removes echo that comes this much later than the
// delay it is told, and little outside (README, "Echo delay").
const int AEC_WINDOW_EARLIEST_MS = 15;
const int AEC_WINDOW_LATEST_MS = 55;
// The robust canceller also takes an echo up to this much earlier than told
// (told 100 ms, echoes at 44 and 47 ms on PipeWire were cancelled by 45 and
// 54 to 59 dB).
const int ROBUST_EARLIEST_MS = 60;
// Robust mode is told this many periods whatever the output.
const int ROBUST_TOLD_PERIODS = 5;

// The told delay from the device's set-up log line
// "Universal device buffer period=20, pimpl->m_aecDelay=N"; -1 for other lines.
int toldDelayFromLog(std::string_view text);

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

enum class Verdict { Cancels, UseRobust, WillNotCancel, NoEcho };

// What a canceller told `toldMs` makes of an echo `roundTripMs` late.
// Standard mode needs the echo inside its window. Robust mode estimates the
// delay itself and copes with an echo later than told, or a little earlier;
// a standard miss is worth robust mode when robust, told `robustToldMs`
// (ROBUST_TOLD_PERIODS periods), would take the echo.
Verdict judgeEchoDelay(double roundTripMs, int toldMs, const std::string& mode, int robustToldMs);
const char* verdictText(Verdict verdict);

// What the device tells the canceller for a configuration in standard
// mode: 3 periods for one output channel, the base library's constant for two.
int standardToldDelay(int playbackChannels, int periodMs);

// The configuration of a call, written beside its recordings as call.json.
struct CallRecord {
    int rate = 0;
    int periodMs = 0;
    int playbackChannels = 0;
    int captureChannels = 0;
    int toldDelayMs = -1;   // -1: the device did not say
    std::string mode;
};

const char* const CALL_RECORD_FILE = "call.json";
std::string callRecordJson(const CallRecord& record);

} // namespace call
} // namespace tamrel
