// What the device costs per buffer against the bare calls it makes: far-end
// speech through the device (built on the scripted fake card) and through
// the bare reference, with the card's microphone hearing the output again
// 180 ms later, as on a desktop sound server. Prints a Markdown table.
//
//   bench_pipeline [--rounds N] [--seconds S] [far-end WAV at 16 kHz]
#include "bare_reference.h"

#include "fakecard.h"

#include <taudio2universaldevice/taudio2universaldevice.h>

#include <boost/make_shared.hpp>
#include <sndfile.h>

#include <time.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <new>
#include <string>
#include <vector>

// Counts C++ allocations, to show that the steady state makes none.
namespace {
std::atomic<long> Allocations{0};
}
void* operator new(std::size_t size)
{
    Allocations.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(size ? size : 1))
        return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }

namespace {

const int CARD_FRAMES = 960;     // 20 ms at 48 kHz
const int CLIENT_FRAMES = 320;   // 20 ms at 16 kHz
const int ECHO_MS = 180;
// PulseAudio's round trip with a short playback queue (TAUDIO2_LATENCY=low).
const int LOW_LATENCY_ECHO_MS = 70;
const int TOLD_MS = 60;          // one output channel, 20 ms period
// The canceller adapts during the first seconds; cost and echo are judged after.
const int SETTLE_BUFFERS = 150;

double threadCpuMicros()
{
    timespec t;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return t.tv_sec * 1e6 + t.tv_nsec / 1e3;
}

std::vector<int16_t> readSpeech(const std::string& path)
{
    SF_INFO info{};
    SNDFILE* f = sf_open(path.c_str(), SFM_READ, &info);
    if (!f || info.samplerate != 16000 || info.channels != 1) {
        std::fprintf(stderr, "bench_pipeline: %s must be mono 16 kHz speech\n", path.c_str());
        std::exit(2);
    }
    std::vector<int16_t> s(static_cast<size_t>(info.frames));
    sf_read_short(f, s.data(), info.frames);
    sf_close(f);
    return s;
}

struct Run {
    double microsPerBuffer = 0;
    double allocationsPerBuffer = 0;
    double erleDb = 0;
};

// The far end the client hands over, period by period, and what is left
// of the echo in the processed capture it gets back.
struct Talk {
    const std::vector<int16_t>& speech;
    size_t cursor = 0;
    bool measuring = false;
    double left = 0;
    long measuredSamples = 0;

    void farEnd(int16_t* playback)
    {
        if (cursor + CLIENT_FRAMES > speech.size())
            cursor = 0;
        std::copy_n(speech.begin() + static_cast<long>(cursor), CLIENT_FRAMES, playback);
        cursor += CLIENT_FRAMES;
    }
    void processed(const int16_t* capture, int samples)
    {
        if (!measuring)
            return;
        for (int i = 0; i < samples; ++i)
            left += double(capture[i]) * capture[i];
        measuredSamples += samples;
    }
};

// One process step: the 48 kHz input heard and the output to play, `frames` each.
using Step = std::function<void(const int16_t*, int16_t*, int, Talk&)>;

// Plays `seconds` of far-end speech through `step` in the room, in buffers
// of `cardFrames`; the cost is per 20 ms of audio.
Run runCall(const std::vector<int16_t>& speech, double seconds, int cardFrames, int echoMs, const Step& step)
{
    const size_t echo = static_cast<size_t>(echoMs) * 48;
    const int buffers = static_cast<int>(seconds * 48000 / cardFrames);
    const int settle = SETTLE_BUFFERS * CARD_FRAMES / cardFrames;
    std::vector<int16_t> played(static_cast<size_t>(buffers) * cardFrames + echo, 0);
    std::vector<int16_t> input(cardFrames), output(cardFrames);
    Talk talk{speech};
    uint32_t noise = 12345;
    double cpu = 0, heard = 0;
    long allocations = 0, measuredFrames = 0;
    for (int b = 0; b < buffers; ++b) {
        const size_t start = static_cast<size_t>(b) * cardFrames;
        for (int i = 0; i < cardFrames; ++i) {
            noise = noise * 1664525u + 1013904223u;
            const size_t t = start + i;
            const int echoSample = t >= echo ? played[t - echo] / 2 : 0;
            input[i] = static_cast<int16_t>(echoSample + static_cast<int>(noise >> 28) - 8);
        }
        talk.measuring = b >= settle;
        const long allocationsBefore = Allocations.load(std::memory_order_relaxed);
        const double before = threadCpuMicros();
        step(input.data(), output.data(), cardFrames, talk);
        const double spent = threadCpuMicros() - before;
        if (talk.measuring) {
            cpu += spent;
            allocations += Allocations.load(std::memory_order_relaxed) - allocationsBefore;
            for (int i = 0; i < cardFrames; ++i)
                heard += double(input[i]) * input[i];
            measuredFrames += cardFrames;
        }
        std::copy(output.begin(), output.end(), played.begin() + static_cast<long>(start));
    }
    const double perPeriod = double(CARD_FRAMES) / measuredFrames;
    const double left = talk.left / std::max(1L, talk.measuredSamples);
    return Run{cpu * perPeriod, allocations * perPeriod, 10.0 * std::log10(heard / measuredFrames / std::max(left, 1.0))};
}

Run bareCall(const std::vector<int16_t>& speech, double seconds, bool robust, int echoMs)
{
    // What the device tells robust mode, so the bare reference is told the same.
    const bool shortRoundTrip = echoMs == LOW_LATENCY_ECHO_MS;
    bench::BareReference bare(robust, robust ? tamrel::TAudio2UniversalDevice::toldDelayMs("robust", 20, 1, shortRoundTrip) : TOLD_MS);
    std::vector<int16_t> processed(CLIENT_FRAMES), far(CLIENT_FRAMES);
    return runCall(speech, seconds, CARD_FRAMES, echoMs, [&](const int16_t* in, int16_t* out, int, Talk& talk) {
        talk.farEnd(far.data());
        bare.process(in, out, processed.data(), far.data());
        talk.processed(processed.data(), CLIENT_FRAMES);
    });
}

Run deviceCall(const std::vector<int16_t>& speech, double seconds, bool robust, int cardFrames, int echoMs)
{
    // The mode and the latency are read when the stream opens, the sound
    // layer when the device is made. The fake card has no playback queue to
    // shorten: a low-latency stream, on the fake card as PulseAudio, differs
    // in the shorter echo it hears and the shorter delay robust mode is told.
    if (robust)
        setenv("TAUDIO2_AEC", "robust", 1);
    else
        unsetenv("TAUDIO2_AEC");
    if (echoMs == LOW_LATENCY_ECHO_MS) {
        setenv("TAUDIO2_LATENCY", "low", 1);
        setenv("TAUDIO2_API", "pulseaudio", 1);
    } else {
        unsetenv("TAUDIO2_LATENCY");
        unsetenv("TAUDIO2_API");
    }
    fakecard::reset();
    fakecard::Card& card = fakecard::card();
    fakecard::Device speakers, microphone;
    speakers.name = "Speakers";
    speakers.outputChannels = 1;
    microphone.name = "Microphone";
    microphone.inputChannels = 1;
    card.devices = {speakers, microphone};
    card.defaultOutput = 0;
    card.defaultInput = 1;

    auto device = boost::make_shared<tamrel::TAudio2UniversalDevice>(16000);
    tamrel::TAudio2StreamConfiguration conf;   // 16 kHz, 20 ms, one channel each way
    Talk* current = nullptr;
    const tamrel::TAudio2FrameCallback client = [&](const char* capture, int captureBytes, char* playback, int, int) {
        current->processed(reinterpret_cast<const int16_t*>(capture), std::min(captureBytes / 2, CLIENT_FRAMES));
        current->farEnd(reinterpret_cast<int16_t*>(playback));
        return true;
    };
    if (device->openStream(conf, client, nullptr) != 0) {
        std::fprintf(stderr, "bench_pipeline: the device did not open on the fake card\n");
        std::exit(1);
    }
    const Run run = runCall(speech, seconds, cardFrames, echoMs, [&](const int16_t* in, int16_t* out, int frames, Talk& talk) {
        current = &talk;
        fakecard::deliver(out, const_cast<int16_t*>(in), static_cast<unsigned>(frames));
    });
    device->closeStream();
    return run;
}

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

} // namespace

int main(int argc, char** argv)
{
    int rounds = 5;
    double seconds = 20;
    std::string speechPath = TAUDIO2_SPEECH;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--rounds" && i + 1 < argc)
            rounds = std::max(1, std::atoi(argv[++i]));
        else if (arg == "--seconds" && i + 1 < argc)
            seconds = std::max(5.0, std::atof(argv[++i]));
        else
            speechPath = arg;
    }
    // Silences the device's set-up lines; the table is the output.
    setenv("TAMREL_LOG", "audio2=-1", 1);
    const std::vector<int16_t> speech = readSpeech(speechPath);

    // A 1024-frame buffer is not a whole number of periods: the FIFOs carry
    // the rest over, which the 960-frame rows never need.
    struct Variant {
        const char* name;
        bool device;
        bool robust;
        int cardFrames;
        int echoMs;
        int bare;   // the row a device row is measured against
        std::vector<Run> runs;
    } variants[] = {{"bare, standard", false, false, CARD_FRAMES, ECHO_MS, 0, {}},
                    {"device, standard", true, false, CARD_FRAMES, ECHO_MS, 0, {}},
                    {"device, standard, 1024-frame buffers", true, false, 1024, ECHO_MS, 0, {}},
                    {"bare, robust", false, true, CARD_FRAMES, ECHO_MS, 3, {}},
                    {"device, robust", true, true, CARD_FRAMES, ECHO_MS, 3, {}},
                    {"device, robust, 1024-frame buffers", true, true, 1024, ECHO_MS, 3, {}},
                    {"bare, robust, low-latency echo", false, true, CARD_FRAMES, LOW_LATENCY_ECHO_MS, 6, {}},
                    {"device, robust, low latency", true, true, CARD_FRAMES, LOW_LATENCY_ECHO_MS, 6, {}},
                    {"device, robust, low latency, 1024-frame buffers", true, true, 1024, LOW_LATENCY_ECHO_MS, 6, {}}};
    // Interleaved, so that a busy moment of the machine hits every variant alike.
    for (int r = 0; r < rounds; ++r)
        for (Variant& v : variants)
            v.runs.push_back(v.device ? deviceCall(speech, seconds, v.robust, v.cardFrames, v.echoMs)
                                      : bareCall(speech, seconds, v.robust, v.echoMs));

    std::printf("Per 20 ms of audio, 48 kHz card, 16 kHz client, one output channel (told %d ms, robust %d ms, %d ms at low "
                "latency), echo %d ms later (%d ms at low latency), median of %d interleaved runs of %.0f s:\n\n",
                TOLD_MS, tamrel::TAudio2UniversalDevice::toldDelayMs("robust", 20, 1),
                tamrel::TAudio2UniversalDevice::toldDelayMs("robust", 20, 1, true), ECHO_MS, LOW_LATENCY_ECHO_MS, rounds, seconds);
    std::printf("| pipeline | CPU µs per 20 ms | device / bare | allocations per 20 ms | echo removed (dB) |\n");
    std::printf("|---|---|---|---|---|\n");
    const auto medianOf = [](const Variant& v, double Run::*field) {
        std::vector<double> values;
        for (const Run& run : v.runs)
            values.push_back(run.*field);
        return median(values);
    };
    for (const Variant& v : variants) {
        char ratio[16] = "";
        if (v.device)
            std::snprintf(ratio, sizeof ratio, "%.2f",
                          medianOf(v, &Run::microsPerBuffer) / medianOf(variants[v.bare], &Run::microsPerBuffer));
        std::printf("| %s | %.1f | %s | %.2f | %.1f |\n", v.name, medianOf(v, &Run::microsPerBuffer), ratio,
                    medianOf(v, &Run::allocationsPerBuffer), medianOf(v, &Run::erleDb));
    }
    std::printf("\nrobust / standard: bare %.2f, device %.2f\n",
                medianOf(variants[3], &Run::microsPerBuffer) / medianOf(variants[0], &Run::microsPerBuffer),
                medianOf(variants[4], &Run::microsPerBuffer) / medianOf(variants[1], &Run::microsPerBuffer));
    for (const Variant& v : variants) {
        for (const Run& run : v.runs) {
            if (v.device && run.allocationsPerBuffer > 0) {
                std::printf("the device allocated on the real-time path (%s)\n", v.name);
                return 1;
            }
        }
    }
    return 0;
}
