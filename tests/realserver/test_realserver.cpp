// The universal device against a real sound server: a private "virtual room"
// (scripts/virtual-room.sh) whose speaker is heard, delayed and quieter, on its microphone.
// Nothing is faked between the device, RtAudio and the server. --server=pulseaudio (default)
// or pipewire runs the RealServer tests (and on pulseaudio the AlsaPlugin one), --server=jack the
// JackServer ones, --server=pipewire-jack (under pw-jack) the PipeWireJack ones and the echo
// matrix. Lines starting "real server:" report what was measured.

#include <taudio2universaldevice/taudio2universaldevice.h>
#include <shared/debugstream.h>

#include <RtAudio.h>
#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonValue>
#include <QTemporaryDir>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>
#include <sndfile.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <complex>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <functional>
#include <future>
#include <map>
#include <numeric>
#include <set>
#include <sstream>
#include <thread>
#include <tuple>

using namespace tamrel;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Samples = std::vector<short>;

namespace {

const char* const SCRIPT = TAUDIO2_SOURCE_DIR "/scripts/virtual-room.sh";
const char* const SPEAKER = "Room speaker";
const char* const MICROPHONE = "Room microphone";
const int CLIENT_RATE = 16000;
const int PERIOD_MS = 20;
const std::size_t PERIOD_FRAMES = CLIENT_RATE * PERIOD_MS / 1000;   // 320
const int PERIOD_BYTES = static_cast<int>(PERIOD_FRAMES) * 2;         // mono 16-bit

// A fresh server's first stream can stall for about two seconds after its
// first period; every timing below starts after that.
const auto STARTUP_ALLOWANCE = 2500ms;

// Speaker and microphone side by side, as on a laptop: the echo's delay is
// the server's own round trip plus a short acoustic path.
const int ECHO_PATH_MS = 15;
std::string server = "pulseaudio";   // --server=
std::string roomOptions()
{
    return "--server " + server + (server == "jack" ? " --jack-period 960" : " --echo-ms " + std::to_string(ECHO_PATH_MS));
}
// The sound layer RtAudio picks by itself in this room (TAUDIO2_API unset).
std::string roomLayer()
{
    return RtAudio::getApiDisplayName(server.find("jack") != std::string::npos ? RtAudio::UNIX_JACK
                                                                                : RtAudio::LINUX_PULSE);
}

const char* const FAR_END_TEXT =
    "The quick brown fox jumps over the lazy dog. A journey of a thousand miles begins with a single step. We are "
    "testing the echo canceller of a voice client with a few plain sentences. Every sentence here is spoken by the "
    "far end of the call, and it comes back through the room. The weather today is mild, with a light breeze from "
    "the west and a few clouds over the hills.";
const char* const NEAR_END_TEXT =
    "Hello from the near end of the call. I am sitting in the room and talking over the far end.";

// The exit status (-1 when the command could not run) and stdout and stderr together.
struct CommandResult { int status; std::string output; };
CommandResult run(const std::string& command)
{
    CommandResult result{-1, ""};
    FILE* pipe = popen(("{ " + command + "\n} </dev/null 2>&1").c_str(), "r");
    if (!pipe)
        return {-1, "could not run: " + command};
    char buffer[4096];
    while (const std::size_t n = fread(buffer, 1, sizeof buffer, pipe))
        result.output.append(buffer, n);
    const int status = pclose(pipe);
    result.status = (status != -1 && WIFEXITED(status)) ? WEXITSTATUS(status) : -1;
    return result;
}

std::string quote(const std::string& text)
{
    std::string quoted = "'";
    for (char c : text)
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

// One room, one private home directory and one log tap for the whole run.
// Calls on the room return an empty string on success, the reason otherwise.
class Room : public ::testing::Environment {
public:
    // A room that cannot start fails every test with the reason; none is skipped.
    void SetUp() override { failure = prepare(); }
    void TearDown() override
    {
        EXPECT_EQ(script("stop"), "");
        if (guard > 0)
            kill(guard, SIGKILL);
        homeDir.remove();
        DebugStream::setSink(LogSink());
    }

    std::string script(const std::string& verb, std::string* output = nullptr)
    {
        const CommandResult r = run("VIRTUAL_ROOM_STATE=" + quote(home + "/room.state") + " bash " + quote(SCRIPT) +
                                    " " + verb);
        if (output)
            *output = r.output;
        return r.status == 0 ? std::string() : "virtual-room.sh " + verb + " failed:\n" + r.output;
    }

    // Starts the room (or changes the echo path of the running one) and
    // points this process's PulseAudio clients at it.
    std::string start(const std::string& options)
    {
        std::string env, error = script("start " + options);
        if (error.empty())
            error = script("env", &env);
        std::istringstream lines(env);   // export NAME=VALUE, shell-quoted where needed
        for (std::string line; error.empty() && std::getline(lines, line);) {
            const auto eq = line.find('=');
            if (line.find_first_of("\\'\"$ ", eq) != std::string::npos)
                return "cannot use the room's environment line: " + line;
            // A room started again keeps its values; a device reopening its
            // stream meanwhile reads them, so they are not written again.
            const std::string name = line.substr(7, eq - 7), value = line.substr(eq + 1);
            const char* now = std::getenv(name.c_str());
            if (line.compare(0, 7, "export ") == 0 && (!now || value != now))
                setenv(name.c_str(), value.c_str(), 1);
        }
        return error;
    }

    pid_t serverPid() { return std::atoi(run("sed -n 's/^pid=//p' " + quote(home + "/room.state")).output.c_str()); }
    // Kills the server with SIGKILL; empty once it is gone, the reason otherwise.
    std::string killServer()
    {
        const pid_t pid = serverPid();
        const auto comm = [pid] {
            std::string name;
            std::getline(std::ifstream("/proc/" + std::to_string(pid) + "/comm"), name);
            return name;
        };
        const std::string name = comm();
        if (name.empty() || kill(pid, SIGKILL) != 0)
            return "no server at pid " + std::to_string(pid);
        for (int i = 0; i < 100 && comm() == name; ++i)
            std::this_thread::sleep_for(20ms);
        return comm() == name ? name + " survived SIGKILL" : "";
    }

    // This process's streams on the sinks (kind "sink") or sources ("source"):
    // "[device format] " each, "none" when there are none.
    std::string streams(const std::string& kind)
    {
        const CommandResult clients = run("pactl -f json list clients");
        const CommandResult devices = run("pactl list short " + kind + "s");
        const CommandResult list = run("pactl list short " + kind + (kind == "sink" ? "-inputs" : "-outputs"));
        if (clients.status != 0 || devices.status != 0 || list.status != 0)
            return "pactl failed:\n" + clients.output + devices.output + list.output;
        std::set<std::string> ours;
        for (const QJsonValue c : QJsonDocument::fromJson(clients.output.c_str()).array()) {
            if (c["properties"]["application.process.id"].toString().toInt() == getpid())
                ours.insert(std::to_string(c["index"].toInt()));
        }
        // Device lines: index, name, ...; stream lines: index, device, client ("-" for a module), driver, format.
        std::map<std::string, std::string> names;
        std::string text, index, device, client, driver, format;
        for (std::istringstream in(devices.output); in >> index >> device && in.ignore(1 << 20, '\n');)
            names[index] = device;
        for (std::istringstream in(list.output); in >> index >> device >> client >> driver >> std::ws;) {
            if (std::getline(in, format) && ours.count(client))
                text += "[" + names[device] + " " + format + "] ";
        }
        return text.empty() ? "none" : text;
    }

    std::string failure, home;
    std::atomic<int> warnings{0};   // warning lines logged; the rest goes nowhere

private:
    std::string prepare()
    {
        home = homeDir.path().toStdString();
        if (!homeDir.isValid())
            return "no private home directory: " + homeDir.errorString().toStdString();
        // The recordings go to $HOME, and libpulse keeps its cookie there.
        setenv("HOME", home.c_str(), 1);
        // The room's clients must never autospawn a server of their own,
        // least of all after the test kills the room's.
        std::ofstream(home + "/pulse-client.conf") << "autospawn = no\n";
        setenv("PULSE_CLIENTCONFIG", (home + "/pulse-client.conf").c_str(), 1);
        // ALSA's default device is the room's server, through ALSA's pulse
        // plugin (libasound2-plugins), which follows PULSE_SERVER.
        std::ofstream(home + "/.asoundrc") << "pcm.!default { type pulse }\nctl.!default { type pulse }\n";
        // The test picks the sound layer where it means to; else RtAudio's choice.
        unsetenv("TAUDIO2_API");
        if (server == "pipewire-jack") {
            // libjack is linked, so it must be PipeWire's from the start.
            std::string line, jack;
            for (std::ifstream maps("/proc/self/maps"); std::getline(maps, line);)
                if (line.find("/libjack.so") != std::string::npos)
                    jack = line.substr(line.find('/'));
            if (jack.find("/pipewire-") == std::string::npos)
                return "this process uses " + (jack.empty() ? "no libjack" : jack) + ", not PipeWire's: run it under "
                       "pw-jack (Debian's pipewire-jack) to reach PipeWire's JACK";
        }
        DebugStream::setSink([this](const LogRecord& r) { warnings += r.severity == LogSeverity::Warning; });
        // The room's pulseaudio is a daemon that outlives this process. If the
        // test is killed (a crash, ctest's timeout) before its teardown, a
        // watcher in a session of its own stops the room once this process is gone.
        guard = std::atoi(run("setsid bash -c 'while kill -0 " + std::to_string(getpid()) + "; do sleep 1; done; "
                              "VIRTUAL_ROOM_STATE=\"$1/room.state\" bash \"$0\" stop; rm -rf -- \"$1\"' " + quote(SCRIPT) +
                              " " + quote(home) + " </dev/null >/dev/null 2>&1 & echo $!").output.c_str());
        return start(roomOptions());
    }

    QTemporaryDir homeDir{QDir::tempPath() + "/taudio2-realserver.XXXXXX"};
    pid_t guard = -1;
};

Room* room = nullptr;

// A frame callback that plays the far end on every output channel, then silence, and notes
// when each call came; no locks or allocation on the audio thread.
struct Probe : std::enable_shared_from_this<Probe> {
    explicit Probe(Samples far = {}, int playbackChannels = 1) : farEnd(std::move(far)), channels(playbackChannels) {}

    bool onFrame(const char* capture, int captureBytes, char* playback, int playbackBytes)
    {
        const int index = calls.load(std::memory_order_relaxed);
        if (index < static_cast<int>(times.size()))
            times[index].store(Clock::now().time_since_epoch().count(), std::memory_order_relaxed);
        if (!capture || captureBytes != PERIOD_BYTES || playbackBytes != PERIOD_BYTES * channels)
            irregular.fetch_add(1, std::memory_order_relaxed);
        auto* out = reinterpret_cast<short*>(playback);
        for (int f = 0; f < playbackBytes / 2 / channels; ++f)
            std::fill_n(out + f * channels, channels, position < farEnd.size() ? farEnd[position++] : short(0));
        calls.store(index + 1, std::memory_order_release);
        return true;
    }
    bool waitForCalls(int count, std::chrono::seconds timeout) const
    {
        for (const auto deadline = Clock::now() + timeout; calls < count && Clock::now() < deadline;)
            std::this_thread::sleep_for(10ms);
        return calls >= count;
    }
    int timed() const { return std::min(calls.load(), int(times.size())); }
    Clock::time_point at(int call) const { return Clock::time_point(Clock::duration(times[call].load())); }
    int callsBefore(Clock::time_point t) const
    {
        int n = 0;
        while (n < timed() && at(n) < t)
            ++n;
        return n;
    }
    // The longest pause between calls from call `from` on, in ms.
    long worstGapMs(int from) const
    {
        Clock::duration worst{};
        for (int k = std::max(from, 1); k < timed(); ++k)
            worst = std::max(worst, at(k) - at(k - 1));
        return std::chrono::duration_cast<std::chrono::milliseconds>(worst).count();
    }
    // Calls per second from call `from` on: the least-squares slope of the
    // call count over time, so that the periods of one large buffer, called
    // in a burst, average out. 0 without enough calls.
    double rate(int from) const
    {
        const int n = timed() - from;
        if (n < 10)
            return 0;
        double st = 0, sk = 0, stt = 0, stk = 0;
        for (int k = from; k < timed(); ++k) {
            const double t = std::chrono::duration<double>(at(k) - at(from)).count();
            st += t, sk += k, stt += t * t, stk += t * k;
        }
        return (n * stk - st * sk) / (n * stt - st * st);
    }
    // Keeps the probe alive as long as the device keeps the callback.
    TAudio2FrameCallback callback()
    {
        return [self = shared_from_this()](const char* capture, int captureBytes, char* playback, int playbackBytes,
                                           int) { return self->onFrame(capture, captureBytes, playback, playbackBytes); };
    }

    const Samples farEnd;
    const int channels;
    std::size_t position = 0;
    std::array<std::atomic<Clock::rep>, 8192> times;   // a few minutes of 20 ms periods
    std::atomic<int> calls{0};
    std::atomic<int> irregular{0};   // calls without a period of capture and playback
};

// Rate, capture and playback device, period, playback and capture channels, recording.
TAudio2StreamConfiguration byName(int playbackChannels = 1, bool measureAec = false)
{
    return {CLIENT_RATE, MICROPHONE, SPEAKER, PERIOD_MS, playbackChannels, 1, measureAec};
}

// Opens a duplex stream whose frames go to probe.
void openStream(TAudio2UniversalDevice& device, const TAudio2StreamConfiguration& conf, Probe& probe)
{
    std::string error = "unset";
    ASSERT_EQ(device.openStream(conf, probe.callback(), &error), 0) << error;
    EXPECT_EQ(error, "");
}

// A 16-bit mono WAV at the client rate: the speech made here and every recording.
void readWav(const std::string& path, Samples* samples)
{
    SF_INFO info = {};
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
    ASSERT_TRUE(file) << path << ": " << sf_strerror(nullptr);
    samples->resize(static_cast<std::size_t>(info.frames));
    const sf_count_t read = sf_read_short(file, samples->data(), info.frames);
    sf_close(file);
    EXPECT_EQ(info.samplerate, CLIENT_RATE) << path;
    ASSERT_EQ(info.channels, 1) << path;
    EXPECT_EQ(info.format, SF_FORMAT_WAV | SF_FORMAT_PCM_16) << path;
    ASSERT_GT(read, 0) << path << " holds no sound";
    ASSERT_EQ(read, info.frames) << path << ": short read";
}

// Speech in the given voice into home/name, made once per run (espeak-ng
// renders at its own rate; sox converts).
void speak(const char* voice, const char* text, const std::string& name, Samples* samples)
{
    const std::string path = room->home + "/" + name, raw = path + ".espeak.wav";
    if (access(path.c_str(), F_OK) != 0) {
        const CommandResult r = run("espeak-ng -v " + quote(voice) + " -w " + quote(raw) + " " + quote(text) +
                                    " && sox " + quote(raw) + " -r 16000 -c 1 -b 16 " + quote(path));
        ASSERT_EQ(r.status, 0) << "the echo measurements speak with espeak-ng and convert with sox (scripts/setup.sh "
                                  "installs both); for voice " << voice << " they failed:\n" << r.output;
    }
    ASSERT_NO_FATAL_FAILURE(readWav(path, samples));
}

double meanSquare(const Samples& x, std::size_t from, std::size_t to)
{
    to = std::min(to, x.size());
    return from < to ? std::inner_product(x.begin() + from, x.begin() + to, x.begin() + from, 0.0) / double(to - from) : 0;
}

// 10·log10(a / b); a silent b counts as a very small number, not zero.
double ratioDb(double a, double b)
{
    return 10.0 * std::log10((a + 1e-9) / (b + 1e-9));
}

// Radix-2 FFT; a.size() must be a power of two.
void fft(std::vector<std::complex<double>>& a, bool inverse)
{
    const std::size_t n = a.size();
    if (n < 2)
        return;
    std::vector<std::complex<double>> even(n / 2), odd(n / 2);
    for (std::size_t i = 0; i < n; ++i)
        (i % 2 ? odd : even)[i / 2] = a[i];
    fft(even, inverse);
    fft(odd, inverse);
    for (std::size_t k = 0; k < n / 2; ++k) {
        const auto t = std::polar(1.0, (inverse ? 2 : -2) * std::acos(-1.0) * double(k) / double(n)) * odd[k];
        a[k] = even[k] + t;
        a[k + n / 2] = even[k] - t;
    }
}

// How much later y carries x, within [0, maxLag] samples, and the normalised
// cross-correlation (-1..1) there.
std::pair<std::size_t, double> findLag(const Samples& x, const Samples& y, std::size_t maxLag)
{
    std::size_t n = 1;
    while (n < 2 * std::max(x.size(), y.size()))
        n <<= 1;
    std::vector<std::complex<double>> fx(n), fy(n);
    std::copy(x.begin(), x.end(), fx.begin());
    std::copy(y.begin(), y.end(), fy.begin());
    fft(fx, false);
    fft(fy, false);
    for (std::size_t i = 0; i < n; ++i)
        fy[i] *= std::conj(fx[i]);
    fft(fy, true);   // fy[k] = n · sum over i of x[i]·y[i + k]
    const auto peak = std::max_element(fy.begin(), fy.begin() + std::min(maxLag + 1, n),
                                       [](auto a, auto b) { return std::abs(a.real()) < std::abs(b.real()); });
    const double energies = meanSquare(x, 0, x.size()) * double(x.size()) * meanSquare(y, 0, y.size()) * double(y.size());
    return {peak - fy.begin(), peak->real() / double(n) / std::sqrt(energies)};
}

// The three recordings of one call (when recorded), what its callback saw and
// what the device said about its stream just before closing.
struct Recording {
    Samples capture, captureAec, playback;
    std::shared_ptr<Probe> probe;
    TAudio2UniversalDevice::StreamInfo info;
    long closeMs = -1;   // how long closeStream() took
};

// Closes the stream; how long that took in ms, or -1 (and a failure) when it
// did not return within 10 s: the hung close is left behind.
long closeTimed(const boost::shared_ptr<TAudio2UniversalDevice>& device)
{
    const auto started = Clock::now();
    auto closing = std::async(std::launch::async, [device] { device->closeStream(); });
    if (closing.wait_for(10s) != std::future_status::ready) {
        new std::future<void>(std::move(closing));   // not joined: its destructor would wait
        ADD_FAILURE() << "closeStream() did not return within 10 s";
        return -1;
    }
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - started).count();
}

// A call on conf while the far end speaks. `whileOpen` runs right after the
// stream has opened; the call lasts `length` or until whileOpen returns.
void recordCall(const TAudio2StreamConfiguration& conf, Clock::duration length, const Samples& farEnd,
                const std::function<void(TAudio2UniversalDevice&)>& whileOpen, Recording* out)
{
    auto device = boost::make_shared<TAudio2UniversalDevice>(CLIENT_RATE);
    out->probe = std::make_shared<Probe>(farEnd, conf.playbackChannels);
    ASSERT_NO_FATAL_FAILURE(openStream(*device, conf, *out->probe));
    const auto opened = Clock::now();
    whileOpen(*device);
    std::this_thread::sleep_until(opened + length);
    out->info = device->streamInfo();
    ASSERT_GE(out->closeMs = closeTimed(device), 0);
    const int atClose = out->probe->calls;
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(out->probe->calls.load(), atClose) << "the callback ran after closeStream() returned";
    if (!conf.measureAec)
        return;
    ASSERT_GT(out->probe->calls, 0) << "not one period reached the client";
    ASSERT_NO_FATAL_FAILURE(readWav(room->home + "/capture.wav", &out->capture));
    ASSERT_NO_FATAL_FAILURE(readWav(room->home + "/capture_aec.wav", &out->captureAec));
    ASSERT_NO_FATAL_FAILURE(readWav(room->home + "/playback.wav", &out->playback));
}

double erleDb(const Recording& r, std::size_t from, std::size_t to)
{
    return ratioDb(meanSquare(r.capture, from, to), meanSquare(r.captureAec, from, to));
}

// The median ERLE of the one-second windows in [from, to) that carry echo
// (the pauses between sentences carry too little to measure), and how many
// there were.
std::pair<double, int> medianErleDb(const Recording& r, std::size_t from, std::size_t to)
{
    const std::size_t second = CLIENT_RATE;
    std::vector<std::pair<double, double>> windows;   // echo level, ERLE
    for (std::size_t w = from; w + second <= std::min(to, r.capture.size()); w += second)
        windows.emplace_back(meanSquare(r.capture, w, w + second), erleDb(r, w, w + second));
    const double loudest = windows.empty() ? 0 : std::max_element(windows.begin(), windows.end())->first;
    if (loudest == 0)
        return {0, 0};
    std::vector<double> erles;
    for (const auto& w : windows) {
        if (w.first > loudest / 100)
            erles.push_back(w.second);
    }
    std::sort(erles.begin(), erles.end());
    return {erles[erles.size() / 2], int(erles.size())};
}

class RealServer : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(room->failure.empty()) << room->failure; }
};

TEST_F(RealServer, ListsTheServersDevicesWithDirectionsAndDefaults)
{
    RtAudio rtAudio;
    ASSERT_EQ(rtAudio.getCurrentApi(), RtAudio::LINUX_PULSE) << "RtAudio did not reach the room's server";

    // What RtAudio reports is what the device must list, index for index.
    std::vector<std::tuple<int, std::string, bool, TAudio2DeviceInfo::DeviceType>> expected;
    for (unsigned i = 0; i < rtAudio.getDeviceCount(); ++i) {
        const RtAudio::DeviceInfo info = rtAudio.getDeviceInfo(i);
        if (info.probed && (info.inputChannels > 0 || info.duplexChannels > 0))
            expected.emplace_back(i, info.name, info.isDefaultInput, TAudio2DeviceInfo::CAPTURE_DEVICE);
        if (info.probed && (info.outputChannels > 0 || info.duplexChannels > 0))
            expected.emplace_back(i, info.name, info.isDefaultOutput, TAudio2DeviceInfo::PLAYBACK_DEVICE);
    }
    auto device = boost::make_shared<TAudio2UniversalDevice>(CLIENT_RATE);
    const auto both = device->devices(
        static_cast<TAudio2DeviceInfo::DeviceType>(TAudio2DeviceInfo::CAPTURE_DEVICE | TAudio2DeviceInfo::PLAYBACK_DEVICE));
    ASSERT_EQ(both.size(), expected.size());
    std::multiset<std::string> seen;
    for (std::size_t k = 0; k < both.size(); ++k) {
        const auto& d = *both[k];
        EXPECT_EQ(std::make_tuple(d.m_deviceId, d.m_name, d.m_isDefault, d.m_type), expected[k]);
        EXPECT_EQ(d.m_kind, 1) << d.m_name;
        seen.insert((d.m_type == TAudio2DeviceInfo::CAPTURE_DEVICE ? "C " : "P ") + d.m_name + (d.m_isDefault ? " *" : ""));
    }
    // And that is the room as the script built it (* marks the defaults);
    // PipeWire names a sink's monitor after the sink itself.
    const std::string monitor = server == "pipewire" ? "C " : "C Monitor of ";
    EXPECT_EQ(seen, std::multiset<std::string>({"C Room microphone *", "P Room speaker *", "P Room near-end talker",
                                                monitor + "Room speaker", monitor + "Room near-end talker"}));

    for (const auto type : {TAudio2DeviceInfo::CAPTURE_DEVICE, TAudio2DeviceInfo::PLAYBACK_DEVICE}) {
        const auto list = device->devices(type);
        EXPECT_EQ(list.size(), type == TAudio2DeviceInfo::CAPTURE_DEVICE ? 3u : 2u);
        for (const auto& d : list)
            EXPECT_EQ(d->m_type, type) << d->m_name;
    }
    EXPECT_TRUE(device->devices(static_cast<TAudio2DeviceInfo::DeviceType>(0)).empty());
}

TEST_F(RealServer, DuplexStreamByNameRunsOnePeriodPerCallAndReopens)
{
    auto device = boost::make_shared<TAudio2UniversalDevice>(CLIENT_RATE);
    for (int round = 0; round < 3; ++round) {
        SCOPED_TRACE("open number " + std::to_string(round + 1));
        auto probe = std::make_shared<Probe>();
        ASSERT_NO_FATAL_FAILURE(openStream(*device, byName(), *probe));
        EXPECT_EQ(device->streamInfo().cardRateHz, 48000u);

        // The server carries one 48000 Hz mono stream each way, on the named devices.
        EXPECT_EQ(room->streams("sink"), "[speaker s16le 1ch 48000Hz] ");
        EXPECT_EQ(room->streams("source"), "[mic s16le 1ch 48000Hz] ");

        ASSERT_TRUE(probe->waitForCalls(1, 10s)) << "the frame callback never ran";
        if (round == 0) {
            // 20 ms periods: 50 calls a second, measured over 4 s of steady running.
            std::this_thread::sleep_for(STARTUP_ALLOWANCE);
            const int before = probe->calls;
            const auto start = Clock::now();
            std::this_thread::sleep_for(4s);
            const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
            const double perSecond = (probe->calls - before) / seconds;
            printf("real server: %.1f frame callbacks/s over %.1f s at a 20 ms period\n", perSecond, seconds);
            EXPECT_NEAR(perSecond, 50.0, 5.0);
        } else {
            EXPECT_TRUE(probe->waitForCalls(50, 5s)) << "only " << probe->calls << " calls after reopening";
        }
        EXPECT_EQ(probe->irregular.load(), 0) << "calls without " << PERIOD_BYTES << " bytes of capture and playback";

        device->closeStream();
        const int atClose = probe->calls;
        std::this_thread::sleep_for(200ms);
        EXPECT_EQ(probe->calls.load(), atClose) << "the callback ran after closeStream() returned";
        EXPECT_EQ(room->streams("sink"), "none");
        EXPECT_EQ(room->streams("source"), "none");
    }
}

// RtAudio's PulseAudio backend lists the server's default source first and
// its default sink second, and flags them as the defaults. An open without
// names must land on the room's speaker and microphone; index 0 for both
// directions would be the input-only microphone and fail.
TEST_F(RealServer, DefaultDevicesAreTheServersDefaultSinkAndSource)
{
    RtAudio rtAudio;
    EXPECT_EQ(rtAudio.getDeviceInfo(rtAudio.getDefaultOutputDevice()).name, SPEAKER);
    EXPECT_EQ(rtAudio.getDeviceInfo(rtAudio.getDefaultInputDevice()).name, MICROPHONE);
    EXPECT_EQ(rtAudio.getDeviceInfo(0).name, MICROPHONE) << "the room's list no longer starts with an input-only device";

    auto device = boost::make_shared<TAudio2UniversalDevice>(CLIENT_RATE);
    auto probe = std::make_shared<Probe>();
    ASSERT_NO_FATAL_FAILURE(openStream(*device, {CLIENT_RATE, "", "", PERIOD_MS, 1, 1, false}, *probe));
    EXPECT_EQ(room->streams("sink"), "[speaker s16le 1ch 48000Hz] ");
    EXPECT_EQ(room->streams("source"), "[mic s16le 1ch 48000Hz] ");
    EXPECT_TRUE(probe->waitForCalls(25, 10s)) << "only " << probe->calls << " calls";
    device->closeStream();
}

// A call of each kind: far end alone, then the near end alone. Per cell the
// echo delay, the median ERLE over the far-end seconds and the near-end level
// through the canceller. Robust mode must cancel everywhere; the standard mode
// only where its told delay fits the server (two channels on PulseAudio), and
// its other cells are printed, not asserted.
struct CallFigures {
    double delayMs = 0, erleDb = 0, nearKeptDb = 0;
    int toldMs = -1;
    std::string layer;         // the sound layer the call ran on
    std::string disturbance;   // empty for a clean call
};

const auto FAR_END_LENGTH = 10s;
const auto TALKER_AFTER = 11s;
const auto CALL_LENGTH = 17s;

// The longest echo delay each server shows at rest (its round trip at
// 960-frame buffers plus the room's acoustic path, with some headroom). Some
// machines sit past it for good, and the canceller copes there, so a longer
// echo only explains a call that missed its bar: a busy machine made the round
// trip grow out of the window the canceller is built for.
int usualMaxEchoMs()
{
    return server == "pulseaudio" ? 200 : 150;
}

// What made the part of a call from call `from` to `end` unfit for measuring:
// late callbacks or a stalled stream, signs of a loaded machine.
std::string disturbance(const Recording& r, int from, Clock::time_point end)
{
    const Probe& p = *r.probe;
    std::string why;
    if (const long late = p.worstGapMs(from); late > 100)
        why += "a callback " + std::to_string(late) + " ms late";
    if (p.timed() > from && p.callsBefore(end) - from < 0.9 * ((end - p.at(from)) / 20ms))
        why += std::string(why.empty() ? "" : "; ") + "the stream stalled";
    return why;
}

// The echo's delay in ms: how much later the capture carries what was played
// (from sample `from`, for `length` samples).
double echoDelayMs(const Recording& r, std::size_t from, std::size_t length)
{
    const auto part = [&](const Samples& x) {
        return Samples(x.begin() + std::min(from, x.size()), x.begin() + std::min(from + length, x.size()));
    };
    return findLag(part(r.playback), part(r.capture), CLIENT_RATE / 2).first * 1000.0 / CLIENT_RATE;
}

// The sample of the recordings played at time t: one period per call.
std::size_t sampleAt(const Probe& p, Clock::time_point t) { return p.callsBefore(t) * PERIOD_FRAMES; }

CallFigures measureCall(int channels, const char* mode, const Samples& farEnd)
{
    CallFigures f;
    setenv("TAUDIO2_AEC", mode, 1);
    Clock::time_point opened;
    Recording r;
    const std::size_t second = CLIENT_RATE, farEndFrames = std::min(farEnd.size(), 10 * second);
    const Samples far(farEnd.begin(), farEnd.begin() + farEndFrames);
    recordCall(byName(channels, true), CALL_LENGTH, far, [&](auto&) {
        opened = Clock::now();
        const std::string after = std::to_string(TALKER_AFTER.count());
        EXPECT_EQ(room->script("talk " + quote(room->home + "/near.wav") + " --after " + after), "");
    }, &r);
    unsetenv("TAUDIO2_AEC");
    if (::testing::Test::HasFatalFailure())
        return f;
    f.toldMs = r.info.toldDelayMs;
    f.layer = r.info.soundLayer;
    f.delayMs = echoDelayMs(r, 0, farEndFrames);
    f.disturbance = disturbance(r, 50, opened + CALL_LENGTH);   // from the second second on
    if (r.info.framesLost > 0)
        f.disturbance += (f.disturbance.empty() ? "" : "; ") + std::to_string(r.info.framesLost) + " frames lost";
    // An echo path that moved during the call (the room's loopback
    // re-adjusting its latency) makes any canceller start over.
    const double drift = echoDelayMs(r, farEndFrames / 2, farEndFrames / 2) - echoDelayMs(r, 0, farEndFrames / 2);
    if (std::abs(drift) > 10)
        f.disturbance += (f.disturbance.empty() ? "" : "; ") + std::string("the echo path moved by ") +
                         std::to_string(int(drift)) + " ms";
    // From the second second while the far end talks.
    f.erleDb = medianErleDb(r, 2 * second, farEndFrames).first;

    const std::size_t nearFrom = sampleAt(*r.probe, opened + TALKER_AFTER + 1500ms);
    const std::size_t nearTo = sampleAt(*r.probe, opened + TALKER_AFTER + 4500ms);
    EXPECT_GE(nearTo, nearFrom + 2 * second);
    f.nearKeptDb = -ratioDb(meanSquare(r.capture, nearFrom, nearTo), meanSquare(r.captureAec, nearFrom, nearTo));
    return f;
}

TEST_F(RealServer, EchoCancellationMatrix)
{
    Samples farEnd, nearEnd;
    ASSERT_NO_FATAL_FAILURE(speak("en-us", FAR_END_TEXT, "far.wav", &farEnd));
    ASSERT_NO_FATAL_FAILURE(speak("en-gb+f3", NEAR_END_TEXT, "near.wav", &nearEnd));

    // Retries are shared by the whole matrix, so a machine busy for good
    // still finishes it in bounded time (and the last call is asserted).
    int retriesLeft = 10;
    // On PipeWire's JACK only robust mode is meant to cancel.
    for (const char* mode : server == "pipewire-jack" ? std::vector<const char*>{"robust"}
                                                      : std::vector<const char*>{"standard", "robust"}) {
        for (int channels : {1, 2}) {
            const std::string cell = server + ", " + std::to_string(channels) + " output channel" +
                                     (channels == 1 ? "" : "s") + ", " + mode;
            SCOPED_TRACE(cell);
            const bool robust = std::strcmp(mode, "robust") == 0;
            const bool asserted = robust || (channels == 2 && server == "pulseaudio");
            const double erleBarDb = robust ? 30.0 : 20.0, nearKeptBarDb = robust ? -6.0 : -INFINITY;
            const auto meetsBar = [&](const CallFigures& f) {
                return !asserted || (f.erleDb >= erleBarDb && f.nearKeptDb >= nearKeptBarDb);
            };
            CallFigures f;
            for (int attempt = 1;; ++attempt) {
                ASSERT_NO_FATAL_FAILURE(f = measureCall(channels, mode, farEnd));
                if (f.disturbance.empty() && !meetsBar(f) && f.delayMs > usualMaxEchoMs())
                    f.disturbance = "ERLE " + std::to_string(int(f.erleDb)) + " dB with an echo delay of " +
                                    std::to_string(int(f.delayMs)) + " ms, past this server's usual " +
                                    std::to_string(usualMaxEchoMs()) + " ms";
                if (f.disturbance.empty())
                    break;
                const bool retry = attempt < 4 && retriesLeft > 0;
                printf("real server: %s: call %d disturbed (%s), %s\n", cell.c_str(), attempt,
                       f.disturbance.c_str(), retry ? "retrying" : "keeping it");
                fflush(stdout);
                if (!retry)
                    break;
                --retriesLeft;
                std::this_thread::sleep_for(5s);   // let a passing load go by
            }
            printf("real server: %s: on %s, echo delay %.0f ms, told %d ms, ERLE median %.1f dB, near end kept "
                   "%+.1f dB\n", cell.c_str(), f.layer.c_str(), f.delayMs, f.toldMs, f.erleDb, f.nearKeptDb);
            fflush(stdout);
            EXPECT_EQ(f.layer, roomLayer()) << "RtAudio's own choice of sound layer";
            EXPECT_GT(f.delayMs, ECHO_PATH_MS);
            // A machine too busy to measure on says so rather than fails;
            // a quiet one always asserts.
            if (!f.disturbance.empty() && asserted) {
                printf("real server: %s: not asserted, the machine was too busy to measure\n", cell.c_str());
                fflush(stdout);
                continue;
            }
            if (asserted) {
                EXPECT_GE(f.erleDb, erleBarDb);
                EXPECT_GE(f.nearKeptDb, nearKeptBarDb);
            }
        }
    }
}

// Odd configurations against the real server: the refused ones never reach
// it; the others open and are called back, or fail with the sound layer's
// reason (printed, as what a client would see).
TEST_F(RealServer, OddConfigurationsAreRefusedOrRun)
{
    struct Row { const char* what; TAudio2StreamConfiguration conf; bool refused; };
    const auto with = [](void (*change)(TAudio2StreamConfiguration&)) {
        TAudio2StreamConfiguration c = byName();
        change(c);
        return c;
    };
    const Row rows[] = {
        {"sampleRate 0", with([](TAudio2StreamConfiguration& c) { c.sampleRate = 0; }), true},
        {"periodMs 0", with([](TAudio2StreamConfiguration& c) { c.periodMs = 0; }), true},
        {"periodMs 200", with([](TAudio2StreamConfiguration& c) { c.periodMs = 200; }), true},
        {"playbackChannels -1", with([](TAudio2StreamConfiguration& c) { c.playbackChannels = -1; }), true},
        {"sampleRate 1", with([](TAudio2StreamConfiguration& c) { c.sampleRate = 1; }), false},
        {"sampleRate 44100", with([](TAudio2StreamConfiguration& c) { c.sampleRate = 44100; }), false},
        {"periodMs 1", with([](TAudio2StreamConfiguration& c) { c.periodMs = 1; }), false},
        {"periodMs 199", with([](TAudio2StreamConfiguration& c) { c.periodMs = 199; }), false},
        {"playbackChannels 3", with([](TAudio2StreamConfiguration& c) { c.playbackChannels = 3; }), false},
        {"captureChannels 2", with([](TAudio2StreamConfiguration& c) { c.captureChannels = 2; }), false},
        {"captureChannels 1000", with([](TAudio2StreamConfiguration& c) { c.captureChannels = 1000; }), false},
        {"unknown names", with([](TAudio2StreamConfiguration& c) { c.playbackDeviceName = c.captureDeviceName = "\xff no such"; }), false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        auto device = boost::make_shared<TAudio2UniversalDevice>(CLIENT_RATE);
        auto calls = std::make_shared<std::atomic<int>>(0);
        std::string error = "unset";
        const int code = device->openStream(row.conf, [calls](const char*, int, char* p, int bytes, int) {
            std::fill(p, p + bytes, 0);
            ++*calls;
            return true;
        }, &error);
        if (row.refused) {
            EXPECT_EQ(code, -2);
            EXPECT_EQ(error.rfind(row.what, 0), 0u) << error;
            EXPECT_EQ(room->streams("sink"), "none");
        } else if (code == 0) {
            const auto deadline = Clock::now() + 10s;
            while (*calls < 5 && Clock::now() < deadline)
                std::this_thread::sleep_for(10ms);
            EXPECT_GE(calls->load(), 5) << "opened but hardly called back";
        } else {
            EXPECT_EQ(code, -4);
            EXPECT_FALSE(error.empty());
        }
        device->closeStream();
        EXPECT_EQ(room->streams("sink"), "none");
        printf("real server: %s: code %d%s%s\n", row.what, code, error.empty() ? "" : ", ", error.c_str());
    }
}

// Robust-mode calls by `call` until one is not disturbed, at most `attempts`.
// `call` gets whether it may still be retried, asserts only when it may not
// or when the machine let it measure, and returns what disturbed it.
void retryDisturbed(const std::string& what, int attempts, const std::function<std::string(Recording&, bool)>& call)
{
    for (int attempt = 1;; ++attempt) {
        Recording r;
        const bool last = attempt == attempts;
        setenv("TAUDIO2_AEC", "robust", 1);
        const std::string disturbed = call(r, !last);
        unsetenv("TAUDIO2_AEC");
        if (disturbed.empty() || ::testing::Test::HasFatalFailure())
            return;
        printf("real server: %s: call %d disturbed (%s), %s\n", what.c_str(), attempt, disturbed.c_str(),
               last ? "asserted anyway" : "retrying");
        fflush(stdout);
        if (last)
            return;
        std::this_thread::sleep_for(5s);   // let a passing load go by
    }
}

// This process's CPU time, in seconds.
double cpuSeconds()
{
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return double(t.tv_sec) + double(t.tv_nsec) / 1e9;
}

// The server killed 4 s into a robust call and started again (same address,
// same options) a second later: the device stops calling the client (and
// spins on nothing) while the server is gone, reopens its stream by itself
// once the server is back, and the rest of the call is cancelled as before.
TEST_F(RealServer, CallComesBackWhenTheServerRestarts)
{
    Samples farEnd;
    ASSERT_NO_FATAL_FAILURE(speak("en-us", FAR_END_TEXT, "far.wav", &farEnd));
    retryDisturbed(server + " restart", 3, [&](Recording& r, bool mayRetry) {
        Clock::time_point killed, back;
        int deadCalls = -1, warnings = 0;
        double cpuShare = -1;
        bool deadDelivering = true;
        recordCall(byName(1, true), 0s, farEnd, [&](TAudio2UniversalDevice& device) {
            std::this_thread::sleep_for(4s);
            const int before = r.probe->calls;
            warnings = room->warnings;
            const double cpu = cpuSeconds();
            ASSERT_EQ(room->killServer(), "");
            killed = Clock::now();
            std::this_thread::sleep_for(1s);
            deadCalls = r.probe->calls - before;
            deadDelivering = device.streamInfo().delivering;
            cpuShare = (cpuSeconds() - cpu) / std::chrono::duration<double>(Clock::now() - killed).count();
            // The room's devices are there when start returns: the server is back for a client of those.
            ASSERT_EQ(room->start(roomOptions()), "");
            back = Clock::now();
            std::this_thread::sleep_for(10s);
            warnings = room->warnings - warnings;
        }, &r);
        if (::testing::Test::HasFatalFailure())
            return std::string();
        const Probe& p = *r.probe;
        const int resumed = p.callsBefore(killed + 1s);   // the first call after the dead second
        if (resumed >= p.timed()) {
            ADD_FAILURE() << "the frame callback never resumed";
            return std::string();
        }
        const double resumeS = std::chrono::duration<double>(p.at(resumed) - back).count();
        const int from = p.callsBefore(p.at(resumed) + 1s);
        const std::size_t killedAt = sampleAt(p, killed), afterFrom = sampleAt(p, p.at(from) + 1s);
        const double before = medianErleDb(r, CLIENT_RATE, killedAt).first;
        const auto [after, windows] = medianErleDb(r, afterFrom, r.capture.size());
        const char* name = server.c_str();
        printf("real server: %s restart: in the dead second %d frame callbacks, %.0f %% of a core, delivering %s; back "
               "%.1f s after the kill; resumed %+.2f s from then; %llu recoveries, %d warning lines; close %ld ms\n",
               name, deadCalls, 100 * cpuShare, deadDelivering ? "true" : "false",
               std::chrono::duration<double>(back - killed).count(), resumeS,
               static_cast<unsigned long long>(r.info.recoveries), warnings, r.closeMs);
        const double delayAfter = echoDelayMs(r, afterFrom, r.capture.size());
        printf("real server: %s restart: echo delay %.0f ms before, %.0f ms after, told %d ms; ERLE median %.1f dB "
               "before, %.1f dB over %d s after\n", name, echoDelayMs(r, 0, killedAt), delayAfter,
               r.info.toldDelayMs, before, after, windows);
        fflush(stdout);
        // Late callbacks or a stall after the recovery explain a missed bar (a
        // fresh PulseAudio stalls its first stream for about 2 s, so they are
        // common there), and so does a restarted server whose round trip left
        // the robust canceller's sure reach (50 ms before to 100 ms after the
        // told delay; between 50 and 60 ms before it cancels some calls, not
        // all): that is the server's doing, not the recovery's.
        const bool outOfReach = delayAfter < r.info.toldDelayMs - 50 || delayAfter > r.info.toldDelayMs + 100;
        std::string unfit = after < 30 || windows < 4 ? disturbance(r, from, back + 10s) : "";
        if (unfit.empty() && after < 30 && outOfReach)
            unfit = "the restarted server's echo at " + std::to_string(static_cast<int>(delayAfter)) +
                    " ms is outside robust mode's reach";
        if (!unfit.empty() && mayRetry)
            return unfit;
        EXPECT_LE(deadCalls, 50) << "the device kept calling the client with the server gone";
        EXPECT_LT(cpuShare, 0.5) << "a core spins on the dead stream";
        EXPECT_FALSE(deadDelivering) << "streamInfo() says the dead stream delivers";
        EXPECT_LE(resumeS, 3.0) << "the frame callback did not resume within 3 s of the server's return";
        EXPECT_GE(r.info.recoveries, 1u);
        EXPECT_LT(warnings, 50) << "the log is flooded while the server is gone";
        EXPECT_GE(windows, 4) << "too little far end after the recovery to measure";
        if (after < 30 && outOfReach)
            printf("real server: %s restart: ERLE not asserted: the echo stayed outside robust mode's reach\n", name);
        else
            EXPECT_GE(after, 30.0);
        EXPECT_LT(r.closeMs, 1000);
        return unfit;
    });
}

// JACK hands every client buffers of the server's own period, at its own
// rate. Whatever they are, the client gets 20 ms periods, 50 a second, and
// no frame is lost.
class JackServer : public RealServer {};

TEST_F(JackServer, EveryPeriodAndRateReachesTheClientWhole)
{
    struct Case { int frames, rateHz; };
    int retriesLeft = 6;   // shared, so that a machine busy for good still finishes
    for (const Case c : {Case{64, 48000}, {128, 48000}, {256, 48000}, {512, 48000}, {960, 48000}, {1024, 48000},
                         {2048, 48000}, {1024, 44100}}) {
        const std::string what = "jack " + std::to_string(c.rateHz) + " Hz, period " + std::to_string(c.frames);
        SCOPED_TRACE(what);
        ASSERT_EQ(room->start("--server jack --jack-period " + std::to_string(c.frames) + " --jack-rate " +
                              std::to_string(c.rateHz)), "");
        Recording r;
        double rate = 0;
        for (int attempt = 1;; ++attempt) {
            const TAudio2StreamConfiguration defaults{CLIENT_RATE, "", "", PERIOD_MS, 1, 1, false};
            ASSERT_NO_FATAL_FAILURE(recordCall(defaults, 3s, {}, [](auto&) {}, &r));
            // From half a second after the first call: start-up excluded.
            const int from = r.probe->timed() ? r.probe->callsBefore(r.probe->at(0) + 500ms) : 0;
            rate = r.probe->rate(from);
            const long late = r.probe->worstGapMs(from);
            if (late <= 100 + 1000 * c.frames / c.rateHz)   // a busy machine holds callbacks back longer
                break;
            const bool retry = attempt < 3 && retriesLeft-- > 0;
            printf("real server: %s: a callback %ld ms late, %s\n", what.c_str(), late,
                   retry ? "retrying" : "asserted anyway");
            if (!retry)
                break;
        }
        const auto& i = r.info;
        printf("real server: %s frames: %.2f frame callbacks/s, %s at %u Hz, buffers of %u frames (granted %u), "
               "%llu frames lost, %llu carried over, close %ld ms\n", what.c_str(), rate, i.soundLayer.c_str(),
               i.cardRateHz, i.lastBufferFrames, i.grantedBufferFrames, static_cast<unsigned long long>(i.framesLost),
               static_cast<unsigned long long>(i.framesCarried), r.closeMs);
        fflush(stdout);
        EXPECT_EQ(i.soundLayer, roomLayer());
        EXPECT_NEAR(rate, 50.0, 1.0);
        EXPECT_EQ(i.framesLost, 0u);
        EXPECT_EQ(i.lastBufferFrames, unsigned(c.frames));
        EXPECT_EQ(i.cardRateHz, unsigned(c.rateHz));
        EXPECT_EQ(r.probe->irregular.load(), 0);
        EXPECT_LT(r.closeMs, 1000);
    }
}

// PipeWire's JACK: a JACK client there gets buffers of the graph's quantum,
// which PipeWire changes at run time. Forced to 256 and then 1024 frames
// mid-call, the call goes on (the device follows or reopens) with the echo
// cancelled after each change.
class PipeWireJack : public RealServer {};

TEST_F(PipeWireJack, CallGoesOnThroughQuantumChanges)
{
    Samples farEnd;
    ASSERT_NO_FATAL_FAILURE(speak("en-us", FAR_END_TEXT, "far.wav", &farEnd));
    const auto force = [](int quantum) {
        const CommandResult r = run("pw-metadata -n settings 0 clock.force-quantum " + std::to_string(quantum));
        EXPECT_EQ(r.status, 0) << r.output;
    };
    const auto phase = 6s;
    const int quanta[] = {0, 256, 1024};   // 0: PipeWire's own choice
    retryDisturbed("quantum changes", 3, [&](Recording& r, bool mayRetry) {
        Clock::time_point changed[3];
        TAudio2UniversalDevice::StreamInfo info[3];   // at the end of each phase
        recordCall(byName(1, true), 0s, farEnd, [&](TAudio2UniversalDevice& device) {
            for (int k = 0; k < 3; ++k) {
                if (k > 0)
                    force(quanta[k]);
                changed[k] = Clock::now();
                std::this_thread::sleep_for(phase);
                info[k] = device.streamInfo();
            }
        }, &r);
        force(0);
        if (::testing::Test::HasFatalFailure())
            return std::string();
        const Probe& p = *r.probe;
        std::string unfit;
        struct { double erle; int windows, calls; } figures[3];
        printf("real server: pipewire-jack quantum changes: %s, %llu recoveries, %llu frames lost, "
               "last buffer %u frames, close %ld ms\n", r.info.soundLayer.c_str(),
               static_cast<unsigned long long>(r.info.recoveries), static_cast<unsigned long long>(r.info.framesLost),
               r.info.lastBufferFrames, r.closeMs);
        for (int k = 0; k < 3; ++k) {
            // The last 3 s of each phase: the canceller has had time to follow.
            const auto from = changed[k] + phase - 3s, to = changed[k] + phase;
            const auto [erle, windows] = medianErleDb(r, sampleAt(p, from), sampleAt(p, to));
            const int calls = p.callsBefore(to) - p.callsBefore(from);
            printf("real server: pipewire-jack quantum %s: buffers of %u frames, %llu recoveries so far, %d frame "
                   "callbacks in the last 3 s, ERLE median %.1f dB over %d s\n",
                   quanta[k] ? std::to_string(quanta[k]).c_str() : "as PipeWire chose", info[k].lastBufferFrames,
                   static_cast<unsigned long long>(info[k].recoveries), calls, erle, windows);
            figures[k] = {erle, windows, calls};
            // A call that went on, but late or stalling, was disturbed.
            const std::string late = calls > 0 && erle < 30 ? disturbance(r, p.callsBefore(from), to) : "";
            if (!late.empty())
                unfit = late + " at quantum " + std::to_string(quanta[k]);
        }
        fflush(stdout);
        if (!unfit.empty() && mayRetry)
            return unfit;
        for (int k = 0; k < 3; ++k) {
            SCOPED_TRACE("quantum " + std::to_string(quanta[k]));
            EXPECT_GE(figures[k].calls, 135) << "the call did not go on";
            EXPECT_GE(figures[k].windows, 2);
            EXPECT_GE(figures[k].erle, 30.0);
        }
        EXPECT_EQ(r.info.soundLayer, roomLayer());
        EXPECT_LT(r.closeMs, 1000);
        return unfit;
    });
}

// ALSA, picked by TAUDIO2_API, into the PulseAudio room through ALSA's pulse
// plugin: whatever period ALSA grants, the client gets 20 ms periods and no
// frame is lost.
class AlsaPlugin : public RealServer {};

TEST_F(AlsaPlugin, CallRunsAtThePeriodAlsaGrants)
{
    setenv("TAUDIO2_API", "alsa", 1);
    Recording r;
    recordCall({CLIENT_RATE, "", "", PERIOD_MS, 1, 1, false}, 5s, {}, [&](auto&) {
        std::this_thread::sleep_for(2s);
        EXPECT_EQ(room->streams("sink"), "[speaker s16le 1ch 48000Hz] ") << "not the room's speaker";
    }, &r);
    unsetenv("TAUDIO2_API");
    ASSERT_FALSE(HasFatalFailure()) << "ALSA reaches PulseAudio through libasound2-plugins' pulse plugin";
    const int from = r.probe->timed() ? r.probe->callsBefore(r.probe->at(0) + 500ms) : 0;
    const auto& i = r.info;
    printf("real server: ALSA through the pulse plugin: %s, card %u Hz, buffers of %u frames (granted %u), "
           "%.2f frame callbacks/s, %llu frames lost, %llu carried over, close %ld ms\n", i.soundLayer.c_str(),
           i.cardRateHz, i.lastBufferFrames, i.grantedBufferFrames, r.probe->rate(from),
           static_cast<unsigned long long>(i.framesLost), static_cast<unsigned long long>(i.framesCarried), r.closeMs);
    EXPECT_EQ(i.soundLayer, RtAudio::getApiDisplayName(RtAudio::LINUX_ALSA));
    EXPECT_EQ(i.framesLost, 0u);
    EXPECT_NEAR(r.probe->rate(from), 50.0, 2.5);
    EXPECT_EQ(r.probe->irregular.load(), 0);
    EXPECT_LT(r.closeMs, 1000);
}

// Threads, a second open and exit, on the real server. The ThreadSanitizer
// build runs this suite on its own.
using RealServerStress = RealServer;

int envOr(const char* name, int fallback)
{
    const char* value = std::getenv(name);
    return value ? std::atoi(value) : fallback;
}

TEST_F(RealServerStress, SecondOpenIsRefusedAndTheStreamRunsOn)
{
    auto device = boost::make_shared<TAudio2UniversalDevice>(CLIENT_RATE);
    auto probe = std::make_shared<Probe>();
    ASSERT_NO_FATAL_FAILURE(openStream(*device, byName(), *probe));
    ASSERT_TRUE(probe->waitForCalls(10, 10s)) << "only " << probe->calls << " calls";

    // Other buffer sizes: had the record been resized, the running callback
    // would get (and the sanitizers see) periods of the wrong length.
    std::string error;
    EXPECT_EQ(device->openStream({48000, MICROPHONE, SPEAKER, 10, 2, 2, false}, probe->callback(), &error), -4);
    EXPECT_EQ(error, "a stream is already open");
    const int atRefusal = probe->calls;
    EXPECT_TRUE(probe->waitForCalls(atRefusal + 25, 10s)) << "the stream stopped after the refused open";
    EXPECT_EQ(probe->irregular.load(), 0);
    device->closeStream();
}

// Threads each construct a device, list, open a stream by name, wait for its
// first period and close, over and over. A watchdog ends the process when a
// thread makes no progress: an unserialised sound layer hangs in its device
// query. TAUDIO2_STRESS_THREADS and TAUDIO2_STRESS_SECONDS lengthen it.
TEST_F(RealServerStress, ConcurrentOpensAndClosesNeverHang)
{
    const int threads = envOr("TAUDIO2_STRESS_THREADS", 4);
    const auto length = std::chrono::seconds(envOr("TAUDIO2_STRESS_SECONDS", 5));
    const auto stall = 30s;
    struct Worker { std::atomic<Clock::rep> progress{0}; std::atomic<const char*> step{"start"}; };
    std::vector<Worker> workers(threads);
    std::atomic<int> cycles{0}, failedOpens{0}, silent{0};
    std::atomic<int> running{threads};
    const auto deadline = Clock::now() + length;
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t) {
        pool.emplace_back([&, t] {
            Worker& w = workers[t];
            const auto mark = [&w](const char* step) {
                w.step = step;
                w.progress = Clock::now().time_since_epoch().count();
            };
            for (int n = 0; Clock::now() < deadline; ++n) {
                mark("construct");
                auto device = boost::make_shared<TAudio2UniversalDevice>(CLIENT_RATE);
                mark("list");
                if (n % 2 == 0)
                    device->devices(TAudio2DeviceInfo::DeviceType(3));
                mark("open");
                auto probe = std::make_shared<Probe>();
                std::string error;
                if (device->openStream(byName(), probe->callback(), &error) != 0) {
                    ++failedOpens;
                    printf("real server: open failed: %s\n", error.c_str());
                }
                mark("first period");
                if (!probe->waitForCalls(1, 10s))
                    ++silent;
                mark("close");
                device->closeStream();
                ++cycles;
            }
            mark("done");
            --running;
        });
    }
    const auto start = Clock::now();
    while (running > 0) {
        std::this_thread::sleep_for(100ms);
        for (int t = 0; t < threads; ++t) {
            const Clock::time_point last{Clock::duration(workers[t].progress.load())};
            if (workers[t].progress != 0 && Clock::now() - last > stall) {
                printf("real server: thread %d hung for %lld s in %s; giving up\n", t,
                       static_cast<long long>(std::chrono::duration_cast<std::chrono::seconds>(stall).count()),
                       workers[t].step.load());
                fflush(stdout);
                std::_Exit(1);   // the hung threads cannot be joined; the room's guard stops the room
            }
        }
    }
    for (auto& thread : pool)
        thread.join();
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    printf("real server: %d threads opened and closed %d streams in %.0f s, %d failed to open, %d without a period "
           "within 10 s (a loaded machine)\n", threads, cycles.load(), seconds, failedOpens.load(), silent.load());
    EXPECT_EQ(failedOpens, 0);
    EXPECT_GT(cycles, 0);
    EXPECT_LT(silent, cycles) << "no stream ever ran";
}

// A client that returns from main with a stream open (the child mode at the
// end of this file), run again and again: every exit must be clean, which
// the sanitizer builds check. TAUDIO2_EXIT_RUNS sets the count.
TEST_F(RealServerStress, ExitWithAStreamOpenIsClean)
{
    const int runs = envOr("TAUDIO2_EXIT_RUNS", 10);
    int clean = 0;
    for (int run = 0; run < runs; ++run) {
        const CommandResult r = ::run("/proc/" + std::to_string(getpid()) + "/exe --exit-with-open-stream");
        if (r.status == 0 && r.output.find("Sanitizer") == std::string::npos)
            ++clean;
        else
            ADD_FAILURE() << "run " << run << " exited with " << r.status << ":\n" << r.output;
    }
    printf("real server: %d of %d exits with a stream open were clean\n", clean, runs);
}

int exitWithOpenStream()
{
    auto device = boost::make_shared<TAudio2UniversalDevice>(CLIENT_RATE);
    auto probe = std::make_shared<Probe>();
    std::string error;
    if (device->openStream(byName(1, true), probe->callback(), &error) != 0) {
        fprintf(stderr, "open failed: %s\n", error.c_str());
        return 2;
    }
    if (!probe->waitForCalls(5, 10s))
        fprintf(stderr, "the stream did not run\n");   // still exits with it open
    return 0;
}

} // namespace

// RtAudio 5.2's PulseAudio backend leaves a libpulse allocation behind each
// time it lists the server's devices; with LeakSanitizer's fast unwinding
// the report shows only libpulse frames. Not the device's, so not reported.
extern "C" __attribute__((visibility("default"))) const char* __lsan_default_suppressions()
{
    // The sound servers' client libraries keep what they allocate for a
    // client past its close: PipeWire's libjack its ports and properties.
    return "leak:libpulse.so\nleak:libjack.so\nleak:libpipewire-0.3.so\n";
}

int main(int argc, char** argv)
{
    if (argc == 2 && std::string(argv[1]) == "--exit-with-open-stream")
        return exitWithOpenStream();   // in the room of the parent test, whose environment it inherits
    ::testing::InitGoogleTest(&argc, argv);
    for (int i = 1; i < argc; ++i) {
        if (std::strncmp(argv[i], "--server=", 9) == 0)
            server = argv[i] + 9;
    }
    room = new Room;
    ::testing::AddGlobalTestEnvironment(room);   // gtest owns it
    return RUN_ALL_TESTS();
}
