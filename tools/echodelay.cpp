#include "echodelay.h"

#include <algorithm>
#include <cmath>

namespace tamrel {
namespace call {

namespace {

const double TWO_PI = 6.283185307179586;
const double PROBE_DBFS = -12.0;
const double PROBE_LOW_HZ = 300.0;
const double PROBE_HIGH_HZ = 4000.0;
const double PROBE_FADE_SECONDS = 0.01;
// Below this a correlation peak is as likely noise or near-end sound as echo.
const double MIN_CLARITY = 0.1;

} // namespace

std::vector<int16_t> makeProbe(int rate, double leadSeconds, double probeSeconds, double tailSeconds)
{
    const std::size_t lead = static_cast<std::size_t>(leadSeconds * rate);
    const std::size_t length = static_cast<std::size_t>(probeSeconds * rate);
    const std::size_t tail = static_cast<std::size_t>(tailSeconds * rate);
    std::vector<int16_t> probe(lead + length + tail, 0);
    // Kept well under half the rate, where the device's converters cut.
    const double high = std::min(PROBE_HIGH_HZ, 0.4 * rate);
    const double sweep = (high - PROBE_LOW_HZ) / probeSeconds;
    const double amplitude = std::pow(10.0, PROBE_DBFS / 20.0) * 32767.0;
    const double fade = PROBE_FADE_SECONDS * rate;
    for (std::size_t i = 0; i < length; ++i) {
        const double t = static_cast<double>(i) / rate;
        const double edge = std::min(1.0, std::min(static_cast<double>(i), static_cast<double>(length - 1 - i)) / fade);
        const double gain = 0.5 - 0.5 * std::cos(edge * TWO_PI / 2);
        probe[lead + i] = static_cast<int16_t>(std::lround(amplitude * gain * std::sin(TWO_PI * (PROBE_LOW_HZ * t + 0.5 * sweep * t * t))));
    }
    return probe;
}

RoundTrip findRoundTrip(const std::vector<int16_t>& played, const std::vector<int16_t>& heard, int rate, double maxMs)
{
    RoundTrip result;
    const auto audible = [](int16_t s) { return s != 0; };
    const auto first = std::find_if(played.begin(), played.end(), audible);
    if (first == played.end() || heard.empty())
        return result;
    const std::size_t begin = static_cast<std::size_t>(first - played.begin());
    const std::size_t end = played.size() - static_cast<std::size_t>(std::find_if(played.rbegin(), played.rend(), audible) - played.rbegin());

    double playedEnergy = 0;
    for (std::size_t i = begin; i < end; ++i)
        playedEnergy += static_cast<double>(played[i]) * played[i];
    const std::size_t maxLag = static_cast<std::size_t>(std::max(0.0, maxMs) * rate / 1000.0);
    double best = 0;
    std::size_t bestLag = 0;
    double bestHeardEnergy = 0;
    for (std::size_t lag = 0; lag <= maxLag && begin + lag < heard.size(); ++lag) {
        const std::size_t stop = std::min(end, heard.size() - lag);
        double sum = 0, heardEnergy = 0;
        for (std::size_t i = begin; i < stop; ++i) {
            const double h = heard[i + lag];
            sum += played[i] * h;
            heardEnergy += h * h;
        }
        // Normalised by what was heard at this lag, so a loud near end
        // elsewhere in the recording does not hide the echo.
        const double score = heardEnergy > 0 ? std::fabs(sum) / std::sqrt(playedEnergy * heardEnergy) : 0;
        if (score > best) {
            best = score;
            bestLag = lag;
            bestHeardEnergy = heardEnergy;
        }
    }
    result.clarity = best;
    if (best >= MIN_CLARITY && bestHeardEnergy > 0)
        result.ms = 1000.0 * static_cast<double>(bestLag) / rate;
    return result;
}

Verdict judgeEchoDelay(double roundTripMs, int toldMs, const std::string& mode, int robustToldMs)
{
    if (mode == "off")
        return Verdict::CancellerOff;
    if (roundTripMs < 0)
        return Verdict::NoEcho;
    const auto robustTakes = [roundTripMs](int told) { return roundTripMs >= told - ROBUST_EARLIEST_MS; };
    if (mode == "robust")
        return robustTakes(toldMs) ? Verdict::Cancels : Verdict::WillNotCancel;
    const double late = roundTripMs - toldMs;
    if (late >= AEC_WINDOW_EARLIEST_MS && late <= AEC_WINDOW_LATEST_MS)
        return Verdict::Cancels;
    return robustTakes(robustToldMs) ? Verdict::UseRobust : Verdict::WillNotCancel;
}

const char* verdictText(Verdict verdict)
{
    switch (verdict) {
    case Verdict::Cancels:
        return "cancels";
    case Verdict::UseRobust:
        return "use robust (--aec robust): the echo is outside the standard window";
    case Verdict::WillNotCancel:
        return "will not cancel: the echo comes before the told delay; try the other channel count";
    case Verdict::NoEcho:
        return "no echo heard (is the microphone near the speaker?)";
    case Verdict::CancellerOff:
        return "the device runs no echo canceller for this configuration";
    }
    return "";
}

std::string callRecordJson(const CallRecord& r)
{
    const TAudio2UniversalDevice::StreamInfo& s = r.stream;
    std::string json;
    const auto add = [&json](const char* key, const std::string& value) {
        json += (json.empty() ? "{\"" : ", \"") + std::string(key) + "\": " + value;
    };
    add("rate", std::to_string(r.rate));
    add("period_ms", std::to_string(s.periodMs));
    add("playback_channels", std::to_string(r.playbackChannels));
    add("capture_channels", std::to_string(r.captureChannels));
    add("told_delay_ms", std::to_string(s.toldDelayMs));
    // Both are the device's fixed words: nothing in them needs escaping.
    add("aec_mode", "\"" + s.echoCancellation + "\"");
    add("robust_told_delay_ms", std::to_string(r.robustToldDelayMs));
    add("robust_earliest_ms", std::to_string(ROBUST_EARLIEST_MS));
    add("sound_layer", "\"" + s.soundLayer + "\"");
    add("card_rate_hz", std::to_string(s.cardRateHz));
    add("granted_buffer_frames", std::to_string(s.grantedBufferFrames));
    add("playback_queue_buffers", std::to_string(s.playbackQueueBuffers));
    add("last_buffer_frames", std::to_string(s.lastBufferFrames));
    add("frames_carried", std::to_string(s.framesCarried));
    add("frames_lost", std::to_string(s.framesLost));
    add("recoveries", std::to_string(s.recoveries));
    add("ended", r.ended ? "true" : "false");
    return json + "}\n";
}

} // namespace call
} // namespace tamrel
