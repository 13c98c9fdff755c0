// The universal device against a real sound server: a private PulseAudio
// "virtual room" whose speaker is heard, delayed and quieter, on its
// microphone. Nothing is faked between the device, RtAudio and the server.
//
// Lines starting "real server:" report what was measured; the echo delay
// they show is what the two-channel delay constant is chosen from.

#include "callprobe.h"
#include "signals.h"
#include "virtualroom.h"

#include <taudio2universaldevice/taudio2universaldevice.h>
#include <shared/debugstream.h>

#include <RtAudio.h>

#include <QDir>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>
#include <sndfile.h>

#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <functional>
#include <future>
#include <iomanip>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <thread>

#ifndef TAUDIO2_SOURCE_DIR
#error "TAUDIO2_SOURCE_DIR must name the source tree (for scripts/virtual-room.sh)"
#endif

using namespace tamrel;
using namespace realserver;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

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
const std::string ROOM = "--echo-ms " + std::to_string(ECHO_PATH_MS);

const char* const FAR_END_TEXT =
    "The quick brown fox jumps over the lazy dog. A journey of a thousand miles begins with a single step. "
    "We are testing the echo canceller of a voice client with a few plain sentences. "
    "Every sentence here is spoken by the far end of the call, and it comes back through the room. "
    "The weather today is mild, with a light breeze from the west and a few clouds over the hills.";
const char* const NEAR_END_TEXT =
    "Hello from the near end of the call. I am sitting in the room and talking over the far end.";

// Keeps the library's log lines for the tests instead of stderr. Once the
// server is gone RtAudio reports errors without pause, so only the first
// lines are kept; the rest are counted.
class LogTap {
public:
    void install()
    {
        DebugStream::setSink([this](const LogRecord& r) {
            std::lock_guard<std::mutex> lock(m_mutex);
            ++m_total;
            if (m_lines.size() < 2000)
                m_lines.emplace_back(r.text);
        });
    }
    void remove() { DebugStream::setSink(LogSink()); }

    void clear()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_lines.clear();
        m_total = 0;
    }
    // The last kept line that starts with prefix, without the prefix.
    std::string lastAfter(const std::string& prefix)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (auto it = m_lines.rbegin(); it != m_lines.rend(); ++it)
            if (it->compare(0, prefix.size(), prefix) == 0)
                return it->substr(prefix.size());
        return std::string();
    }
    long total()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_total;
    }
    bool has(const std::string& text)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return std::find(m_lines.begin(), m_lines.end(), text) != m_lines.end();
    }

private:
    std::mutex m_mutex;
    std::vector<std::string> m_lines;
    long m_total = 0;
};

// One room, one private home directory, one log tap for the whole run.
class RoomEnvironment : public ::testing::Environment {
public:
    // A room that cannot start fails every test with the reason; none is skipped.
    void SetUp() override { m_failure = prepare(); }
    const std::string& failure() const { return m_failure; }

    void TearDown() override
    {
        if (m_room) {
            std::string error;
            EXPECT_TRUE(m_room->stop(&error)) << error;
            m_room.reset();
        }
        m_log.remove();
        if (!m_home.empty())
            QDir(QString::fromStdString(m_home)).removeRecursively();
    }

    VirtualRoom& room() { return *m_room; }
    LogTap& log() { return m_log; }
    std::string home() const { return m_home; }

    // Far-end and near-end speech in two different voices, made once.
    const std::vector<int16_t>& farEnd(std::string* error) { return speech("en-us", FAR_END_TEXT, "far.wav", error); }
    std::string nearEndFile(std::string* error)
    {
        return speech("en-gb+f3", NEAR_END_TEXT, "near.wav", error).empty() ? std::string()
                                                                          : m_home + "/speech/near.wav";
    }

private:
    std::string prepare()
    {
        for (const char* tool : {"pulseaudio", "pactl", "pacat", "paplay"}) {
            if (!haveProgram(tool))
                return std::string("pulseaudio is not installed (") + tool + " is missing): the real-server tests "
                       "need the Debian packages pulseaudio and pulseaudio-utils (scripts/setup.sh installs them)";
        }
        const char* tmp = getenv("TMPDIR");
        std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/taudio2-realserver.XXXXXX";
        if (!mkdtemp(&pattern[0]))
            return "mkdtemp " + pattern + " failed";
        m_home = pattern;
        // The recordings go to $HOME, and libpulse keeps its cookie there.
        setenv("HOME", m_home.c_str(), 1);
        // The room's clients must never autospawn a server of their own,
        // least of all after the test kills the room's.
        const std::string clientConf = m_home + "/pulse-client.conf";
        std::ofstream(clientConf) << "autospawn = no\n";
        setenv("PULSE_CLIENTCONFIG", clientConf.c_str(), 1);
        QDir().mkpath(QString::fromStdString(m_home + "/speech"));

        m_log.install();
        m_room.reset(new VirtualRoom(TAUDIO2_SOURCE_DIR "/scripts/virtual-room.sh", m_home + "/room.state", m_home));
        std::string error;
        return m_room->start(ROOM, &error) ? std::string() : error;
    }

    const std::vector<int16_t>& speech(const char* voice, const char* text, const std::string& name, std::string* error)
    {
        std::vector<int16_t>& samples = m_speech[name];
        if (!samples.empty())
            return samples;
        for (const char* tool : {"espeak-ng", "sox"}) {
            if (!haveProgram(tool)) {
                *error = std::string(tool) + " is not installed; the echo measurements speak with espeak-ng "
                                             "and convert with sox (scripts/setup.sh installs both)";
                return samples;
            }
        }
        const std::string path = m_home + "/speech/" + name;
        if (speak(voice, text, path, error))
            samples = readSamples16(path);
        if (samples.empty() && error->empty())
            *error = "no speech in " + path;
        return samples;
    }

    std::string m_failure;
    std::string m_home;
    std::unique_ptr<VirtualRoom> m_room;
    LogTap m_log;
    std::map<std::string, std::vector<int16_t>> m_speech;
};

RoomEnvironment* Room = nullptr;

TAudio2StreamConfiguration byName(int playbackChannels = 1, bool measureAec = false)
{
    TAudio2StreamConfiguration c;
    c.sampleRate = CLIENT_RATE;
    c.periodMs = PERIOD_MS;
    c.playbackDeviceName = SPEAKER;
    c.captureDeviceName = MICROPHONE;
    c.playbackChannels = playbackChannels;
    c.captureChannels = 1;
    c.measureAec = measureAec;
    return c;
}

boost::shared_ptr<TAudio2UniversalDevice> makeDevice()
{
    return boost::make_shared<TAudio2UniversalDevice>(CLIENT_RATE);
}

std::string describe(const std::vector<ServerStream>& streams)
{
    std::string text;
    for (const auto& s : streams)
        text += "[" + s.device + " " + s.format + "] ";
    return text.empty() ? "none" : text;
}

std::string homeFile(const char* name)
{
    return Room->home() + "/" + name;
}

std::string fixed(double value, int decimals = 1)
{
    std::ostringstream out;
    out << std::fixed << std::setprecision(decimals) << value;
    return out.str();
}

// The three recordings of one call, and what its callback saw.
struct Recording {
    Wav capture, captureAec, playback;
    std::shared_ptr<CallProbe> probe;
    Clock::time_point opened;
    int aecDelayMs = -1;   // the delay the echo canceller was told
};

// A call with recording on, on the room's speaker and microphone, while the
// far end speaks. `whileOpen` runs right after the stream has opened.
void recordCall(int playbackChannels, std::chrono::milliseconds length, const std::vector<int16_t>& farEnd,
                const std::function<void()>& whileOpen, Recording* out)
{
    auto device = makeDevice();
    out->probe = std::make_shared<CallProbe>(farEnd, playbackChannels);
    Room->log().clear();
    std::string error = "unset";
    ASSERT_EQ(device->openStream(byName(playbackChannels, true), CallProbe::callback(out->probe), &error), 0) << error;
    out->opened = Clock::now();
    const std::string delay = Room->log().lastAfter("Universal device buffer period=20, pimpl->m_aecDelay=");
    out->aecDelayMs = delay.empty() ? -1 : std::atoi(delay.c_str());
    if (whileOpen)
        whileOpen();
    std::this_thread::sleep_until(out->opened + length);
    device->closeStream();

    out->capture = readWav(homeFile("capture.wav"));
    out->captureAec = readWav(homeFile("capture_aec.wav"));
    out->playback = readWav(homeFile("playback.wav"));
    for (const Wav* w : {&out->capture, &out->captureAec, &out->playback}) {
        ASSERT_TRUE(w->ok) << w->error;
        EXPECT_EQ(w->sampleRate, CLIENT_RATE);
        EXPECT_EQ(w->channels, 1);
        EXPECT_EQ(w->format, SF_FORMAT_WAV | SF_FORMAT_PCM_16);
    }
}

double erleDb(const Recording& r, std::size_t from, std::size_t to)
{
    return ratioDb(meanSquare(r.capture.samples, from, to), meanSquare(r.captureAec.samples, from, to));
}

double lagMs(const Lag& lag)
{
    return lag.samples * 1000.0 / CLIENT_RATE;
}

class RealServer : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(Room->failure().empty()) << Room->failure(); }
    VirtualRoom& room() { return Room->room(); }
};

// ---------------------------------------------------------------------------

TEST_F(RealServer, ListsTheServersDevicesWithDirectionsAndDefaults)
{
    RtAudio rtAudio;
    ASSERT_EQ(rtAudio.getCurrentApi(), RtAudio::LINUX_PULSE) << "RtAudio did not reach the room's server";

    // What RtAudio reports is what the device must list, index for index.
    struct Expected {
        unsigned index;
        std::string name;
        bool isDefault;
        TAudio2DeviceInfo::DeviceType type;
    };
    std::vector<Expected> expected;
    const unsigned count = rtAudio.getDeviceCount();
    for (unsigned i = 0; i < count; ++i) {
        const RtAudio::DeviceInfo info = rtAudio.getDeviceInfo(i);
        if (!info.probed)
            continue;
        if (info.inputChannels > 0 || info.duplexChannels > 0)
            expected.push_back({i, info.name, info.isDefaultInput, TAudio2DeviceInfo::CAPTURE_DEVICE});
        if (info.outputChannels > 0 || info.duplexChannels > 0)
            expected.push_back({i, info.name, info.isDefaultOutput, TAudio2DeviceInfo::PLAYBACK_DEVICE});
    }

    auto device = makeDevice();
    const auto both = device->devices(
        static_cast<TAudio2DeviceInfo::DeviceType>(TAudio2DeviceInfo::CAPTURE_DEVICE | TAudio2DeviceInfo::PLAYBACK_DEVICE));
    ASSERT_EQ(both.size(), expected.size());
    for (std::size_t k = 0; k < both.size(); ++k) {
        SCOPED_TRACE(expected[k].name);
        EXPECT_EQ(both[k]->m_deviceId, static_cast<int>(expected[k].index));
        EXPECT_EQ(both[k]->m_name, expected[k].name);
        EXPECT_EQ(both[k]->m_isDefault, expected[k].isDefault);
        EXPECT_EQ(both[k]->m_type, expected[k].type);
        EXPECT_EQ(both[k]->m_kind, 1);
    }

    // And that is the room as the script built it.
    std::map<std::string, std::pair<int, bool>> seen;   // "C name"/"P name" -> (count, default)
    for (const auto& d : both) {
        auto& entry = seen[(d->m_type == TAudio2DeviceInfo::CAPTURE_DEVICE ? "C " : "P ") + d->m_name];
        ++entry.first;
        entry.second = d->m_isDefault;
    }
    const std::map<std::string, std::pair<int, bool>> built = {
        {"C Room microphone", {1, true}},
        {"P Room speaker", {1, true}},
        {"P Room near-end talker", {1, false}},
        {"C Monitor of Room speaker", {1, false}},
        {"C Monitor of Room near-end talker", {1, false}},
    };
    EXPECT_EQ(seen, built);

    const auto capture = device->devices(TAudio2DeviceInfo::CAPTURE_DEVICE);
    const auto playback = device->devices(TAudio2DeviceInfo::PLAYBACK_DEVICE);
    EXPECT_EQ(capture.size(), 3u);
    EXPECT_EQ(playback.size(), 2u);
    for (const auto& d : capture)
        EXPECT_EQ(d->m_type, TAudio2DeviceInfo::CAPTURE_DEVICE) << d->m_name;
    for (const auto& d : playback)
        EXPECT_EQ(d->m_type, TAudio2DeviceInfo::PLAYBACK_DEVICE) << d->m_name;
    EXPECT_TRUE(device->devices(static_cast<TAudio2DeviceInfo::DeviceType>(0)).empty());
}

TEST_F(RealServer, DuplexStreamByNameRunsOnePeriodPerCallAndReopens)
{
    auto device = makeDevice();
    for (int round = 0; round < 3; ++round) {
        SCOPED_TRACE("open number " + std::to_string(round + 1));
        auto probe = std::make_shared<CallProbe>();
        Room->log().clear();
        std::string error = "unset";
        ASSERT_EQ(device->openStream(byName(), CallProbe::callback(probe), &error), 0) << error;
        EXPECT_EQ(error, "");
        EXPECT_TRUE(Room->log().has("In universal device using sample rate 48000"));

        // The server carries one 48000 Hz mono stream each way, on the named devices.
        std::string pactlError;
        const auto out = room().playbackStreams(&pactlError);
        const auto in = room().captureStreams(&pactlError);
        EXPECT_EQ(pactlError, "");
        EXPECT_EQ(describe(out), "[speaker s16le 1ch 48000Hz] ");
        EXPECT_EQ(describe(in), "[mic s16le 1ch 48000Hz] ");

        ASSERT_TRUE(probe->waitForCalls(1, 10s)) << "the frame callback never ran";
        if (round == 0) {
            // 20 ms periods: 50 calls a second, measured over 4 s of steady running.
            std::this_thread::sleep_for(STARTUP_ALLOWANCE);
            const int before = probe->calls();
            const auto start = Clock::now();
            std::this_thread::sleep_for(4s);
            const int calls = probe->calls() - before;
            const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
            const double perSecond = calls / seconds;
            std::cout << "real server: " << fixed(perSecond) << " frame callbacks/s over " << fixed(seconds)
                      << " s at a 20 ms period" << std::endl;
            EXPECT_NEAR(perSecond, 50.0, 5.0);
        } else {
            EXPECT_TRUE(probe->waitForCalls(50, 5s)) << "only " << probe->calls() << " calls after reopening";
        }
        EXPECT_EQ(probe->captureBytesMin(), PERIOD_BYTES);
        EXPECT_EQ(probe->captureBytesMax(), PERIOD_BYTES);
        EXPECT_EQ(probe->playbackBytesMin(), PERIOD_BYTES);
        EXPECT_EQ(probe->playbackBytesMax(), PERIOD_BYTES);
        EXPECT_EQ(probe->callsWithoutCapture(), 0);

        device->closeStream();
        const int atClose = probe->calls();
        std::this_thread::sleep_for(200ms);
        EXPECT_EQ(probe->calls(), atClose) << "the callback ran after closeStream() returned";
        EXPECT_EQ(describe(room().playbackStreams(nullptr)), "none");
        EXPECT_EQ(describe(room().captureStreams(nullptr)), "none");
    }
}

// RtAudio's PulseAudio backend lists the server's default source first and
// its default sink second, and flags them as the defaults. An open without
// names must land on the room's speaker and microphone; index 0 for both
// directions would be the input-only microphone and fail.
TEST_F(RealServer, DefaultDevicesAreTheServersDefaultSinkAndSource)
{
    RtAudio rtAudio;
    const unsigned defaultOutput = rtAudio.getDefaultOutputDevice();
    const unsigned defaultInput = rtAudio.getDefaultInputDevice();
    EXPECT_EQ(rtAudio.getDeviceInfo(defaultOutput).name, SPEAKER);
    EXPECT_EQ(rtAudio.getDeviceInfo(defaultInput).name, MICROPHONE);
    EXPECT_EQ(rtAudio.getDeviceInfo(0).name, MICROPHONE) << "the room's list no longer starts with an input-only device";

    auto device = makeDevice();
    auto probe = std::make_shared<CallProbe>();
    TAudio2StreamConfiguration conf = byName();
    conf.playbackDeviceName.clear();
    conf.captureDeviceName.clear();
    std::string error = "unset";
    ASSERT_EQ(device->openStream(conf, CallProbe::callback(probe), &error), 0) << error;
    EXPECT_EQ(error, "");
    EXPECT_EQ(describe(room().playbackStreams(nullptr)), "[speaker s16le 1ch 48000Hz] ");
    EXPECT_EQ(describe(room().captureStreams(nullptr)), "[mic s16le 1ch 48000Hz] ");
    EXPECT_TRUE(probe->waitForCalls(25, 10s)) << "only " << probe->calls() << " calls";
    device->closeStream();
}

// The far end talks for 20 s; from 12 s on a near-end talker with another
// voice talks over it. The canceller must remove the echo of the far end
// and let the near end through.
TEST_F(RealServer, EchoCancellerRemovesFarEndEchoAndKeepsTheNearEnd)
{
    std::string error;
    const std::vector<int16_t>& farEnd = Room->farEnd(&error);
    ASSERT_FALSE(farEnd.empty()) << error;
    const std::string nearEnd = Room->nearEndFile(&error);
    ASSERT_FALSE(nearEnd.empty()) << error;

    const auto talkerAfter = 12s;
    Clock::time_point talkerCalled;
    Recording r;
    // Two-channel output: the device then tells the canceller its constant
    // delay, meant for a sound server's round trip. A one-channel output is
    // told three periods, far short of it (see the echo delay test).
    ASSERT_NO_FATAL_FAILURE(recordCall(2, 20s, farEnd, [&] {
        talkerCalled = Clock::now();
        std::string talkError;
        ASSERT_TRUE(room().talk(nearEnd, std::chrono::duration<double>(talkerAfter).count(), &talkError)) << talkError;
    }, &r));

    // One period per call in each file; the capture files may hold a period
    // or two from before the frame callback was set.
    const std::size_t calls = static_cast<std::size_t>(r.probe->calls());
    EXPECT_EQ(r.playback.samples.size(), calls * PERIOD_FRAMES);
    EXPECT_EQ(r.capture.samples.size(), r.captureAec.samples.size());
    const auto lengths = {r.capture.samples.size(), r.captureAec.samples.size(), r.playback.samples.size()};
    EXPECT_LE(std::max(lengths) - std::min(lengths), PERIOD_FRAMES)
        << "capture " << r.capture.samples.size() << ", capture_aec " << r.captureAec.samples.size() << ", playback "
        << r.playback.samples.size() << " frames";

    // Far end only: after 3 s of settling, until half a second before the
    // talker can be heard. The stretch is found from when the periods were
    // handed over, since a stall of the server delays the files against the
    // clock.
    const std::size_t second = CLIENT_RATE;
    const std::size_t farFrom = 3 * second;
    const std::size_t beforeTalker = r.probe->callsBefore(talkerCalled + talkerAfter) * PERIOD_FRAMES;
    ASSERT_GE(beforeTalker, farFrom + 6 * second + second / 2) << "too little far-end-only audio: the stream stalled";
    const std::size_t farTo = beforeTalker - second / 2;
    const double erle = erleDb(r, farFrom, farTo);
    std::cout << "real server: ERLE " << fixed(erle) << " dB over " << fixed(double(farTo - farFrom) / second)
              << " s of far-end-only speech (echo canceller told " << r.aecDelayMs << " ms)" << std::endl;
    EXPECT_GE(erle, 10.0);

    // The near-end talker (about 6 s of speech): well above the echo in the
    // raw capture, and not suppressed by the canceller.
    const std::size_t nearFrom = r.probe->callsBefore(talkerCalled + talkerAfter + 1500ms) * PERIOD_FRAMES;
    const std::size_t nearTo = r.probe->callsBefore(talkerCalled + talkerAfter + 4500ms) * PERIOD_FRAMES;
    ASSERT_GE(nearTo, nearFrom + 2 * second);
    const double nearOverEcho = ratioDb(meanSquare(r.capture.samples, nearFrom, nearTo),
                                        meanSquare(r.capture.samples, farFrom, farTo));
    const double nearLoss = ratioDb(meanSquare(r.capture.samples, nearFrom, nearTo),
                                    meanSquare(r.captureAec.samples, nearFrom, nearTo));
    std::cout << "real server: near-end talk " << fixed(nearOverEcho) << " dB above the echo, "
              << fixed(-nearLoss) << " dB through the canceller" << std::endl;
    EXPECT_GE(nearOverEcho, 10.0) << "the near-end talker was not heard in the room";
    EXPECT_LE(nearLoss, 10.0) << "the canceller suppressed the near end";
}

// How much later the far end comes back in the capture than the device
// handed it out: the delay the echo canceller has to cover, through the
// room's default 40 ms echo path. The canceller's figures are printed with
// it, since they depend on the delay it is told.
TEST_F(RealServer, EchoDelayWithOneAndTwoOutputChannels)
{
    std::string error;
    const std::vector<int16_t>& farEnd = Room->farEnd(&error);
    ASSERT_FALSE(farEnd.empty()) << error;

    double delay[3] = {}, erle[3] = {};
    int told[3] = {};
    for (int channels : {1, 2}) {
        SCOPED_TRACE(std::to_string(channels) + "-channel output");
        Recording r;
        ASSERT_NO_FATAL_FAILURE(recordCall(channels, 7s, farEnd, nullptr, &r));
        const Lag lag = findLag(r.playback.samples, r.capture.samples, CLIENT_RATE);
        delay[channels] = lagMs(lag);
        erle[channels] = erleDb(r, 3 * CLIENT_RATE, r.capture.samples.size());
        told[channels] = r.aecDelayMs;
        // A short loopback keeps adjusting its rate, which smears the peak.
        EXPECT_GE(lag.correlation, 0.2) << "no clear echo; best match at " << delay[channels] << " ms";
        EXPECT_GT(delay[channels], ECHO_PATH_MS);
        EXPECT_LT(delay[channels], 500.0) << "beyond what the echo canceller can be told";
    }
    std::cout << "real server: echo delay " << fixed(delay[1], 0) << " ms (one-channel output), " << fixed(delay[2], 0)
              << " ms (two-channel output)" << std::endl;
    std::cout << "real server: ERLE " << fixed(erle[1]) << " dB (one-channel output, canceller told " << told[1]
              << " ms), " << fixed(erle[2]) << " dB (two-channel output, told " << told[2] << " ms)" << std::endl;
}

// kill -9 of the server while a stream runs: the client lives on, closing
// returns, and a new stream on the restarted server works.
TEST_F(RealServer, SurvivesTheServerDyingMidStream)
{
    auto device = makeDevice();
    auto probe = std::make_shared<CallProbe>();
    std::string error = "unset";
    ASSERT_EQ(device->openStream(byName(), CallProbe::callback(probe), &error), 0) << error;
    ASSERT_TRUE(probe->waitForCalls(25, 10s)) << "only " << probe->calls() << " calls";
    Room->log().clear();

    const pid_t server = room().serverPid();
    ASSERT_TRUE(VirtualRoom::isPulseProcess(server)) << "no pulseaudio at pid " << server;
    ASSERT_EQ(kill(server, SIGKILL), 0);
    for (int i = 0; i < 100 && VirtualRoom::isPulseProcess(server); ++i)
        std::this_thread::sleep_for(50ms);
    ASSERT_FALSE(VirtualRoom::isPulseProcess(server));
    // Let the stream run into the dead connection.
    const int atKill = probe->calls();
    std::this_thread::sleep_for(1s);
    const int spun = probe->calls() - atKill;
    const long errorLines = Room->log().total();

    const auto closeStarted = Clock::now();
    auto closing = std::async(std::launch::async, [device] { device->closeStream(); });
    if (closing.wait_for(10s) != std::future_status::ready) {
        // Leave the hung close behind rather than block on it here.
        new std::future<void>(std::move(closing));
        FAIL() << "closeStream() did not return within 10 s of the server's death";
    }
    const auto closeMs = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - closeStarted).count();
    const int atClose = probe->calls();
    // RtAudio's stream thread does not stop on a lost connection: it keeps
    // calling back without waiting, and every failed read and write is logged.
    std::cout << "real server: with the server dead the frame callback ran " << spun << " times in 1 s and "
              << errorLines << " lines were logged; closeStream() returned in " << closeMs << " ms" << std::endl;
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(probe->calls(), atClose) << "the callback ran after closeStream() returned";

    ASSERT_TRUE(room().start(ROOM, &error)) << error;
    auto fresh = makeDevice();
    auto freshProbe = std::make_shared<CallProbe>();
    error = "unset";
    ASSERT_EQ(fresh->openStream(byName(), CallProbe::callback(freshProbe), &error), 0) << error;
    EXPECT_EQ(error, "");
    EXPECT_TRUE(freshProbe->waitForCalls(50, 10s)) << "only " << freshProbe->calls() << " calls on the new server";
    fresh->closeStream();
}

} // namespace

// RtAudio 5.2's PulseAudio backend leaves a libpulse allocation behind each
// time it lists the server's devices; with LeakSanitizer's fast unwinding
// the report shows only libpulse frames. Not the device's, so not reported.
extern "C" __attribute__((visibility("default"))) const char* __lsan_default_suppressions()
{
    return "leak:libpulse.so\n";
}

int main(int argc, char** argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    Room = new RoomEnvironment;
    ::testing::AddGlobalTestEnvironment(Room);   // gtest owns it
    return RUN_ALL_TESTS();
}
