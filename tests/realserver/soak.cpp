// Open/close cycles on a real sound server, printing resident memory and
// open descriptors every 100 cycles; optionally the server killed under a
// running stream and restarted. Run by scripts/soak.sh inside a private room.
//
//   taudio2_soak cycles CYCLES same|fresh    one device reopened, or a new one per cycle
//   taudio2_soak kill                        $SOAK_KILL_COMMAND mid-stream, then $SOAK_RESTART_COMMAND,
//                                            whose "export NAME=VALUE" lines are taken over
//
// Exit status 0 when every open succeeded and every stream was called back.
#include <taudio2universaldevice/taudio2universaldevice.h>
#include <shared/debugstream.h>

#include <boost/make_shared.hpp>

#include <dirent.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <future>
#include <string>
#include <thread>

using namespace tamrel;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

long residentKb()
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.compare(0, 6, "VmRSS:") == 0)
            return std::atol(line.c_str() + 6);
    return -1;
}

int openDescriptors()
{
    DIR* dir = opendir("/proc/self/fd");
    int n = 0;
    while (dir && readdir(dir))
        ++n;
    if (dir)
        closedir(dir);
    return n - 3;   // ".", ".." and the directory's own descriptor
}

// Opens the room's speaker and microphone, waits for `calls` callbacks.
// Empty on success, else what went wrong.
std::string run(TAudio2UniversalDevice& device, int calls, std::chrono::milliseconds hold = 0ms)
{
    auto count = std::make_shared<std::atomic<int>>(0);
    TAudio2StreamConfiguration conf{16000, "Room microphone", "Room speaker", 20, 1, 1, false};
    std::string error;
    const int code = device.openStream(conf, [count](const char*, int, char* playback, int bytes, int) {
        std::memset(playback, 0, static_cast<size_t>(bytes));
        ++*count;
        return true;
    }, &error);
    if (code != 0)
        return "open failed (" + std::to_string(code) + "): " + error;
    const auto deadline = Clock::now() + 10s;
    while (*count < calls && Clock::now() < deadline)
        std::this_thread::sleep_for(5ms);
    std::this_thread::sleep_for(hold);
    const int seen = *count;
    device.closeStream();
    return seen >= calls ? std::string() : "only " + std::to_string(seen) + " callbacks in 10 s";
}

int cycles(int total, bool fresh)
{
    const char* mode = fresh ? "fresh devices" : "one device";
    auto device = boost::make_shared<TAudio2UniversalDevice>(16000);
    int failures = 0;
    const auto started = Clock::now();
    for (int cycle = 0; cycle <= total; ++cycle) {
        if (cycle % 100 == 0 || cycle == total)
            std::printf("soak %s: cycle %4d  rss %6ld kB  fds %3d  failures %d  %.0f s\n", mode, cycle, residentKb(),
                        openDescriptors(), failures, std::chrono::duration<double>(Clock::now() - started).count());
        std::fflush(stdout);
        if (cycle == total)
            break;
        if (fresh)
            device = boost::make_shared<TAudio2UniversalDevice>(16000);
        const std::string problem = run(*device, 3);
        if (!problem.empty()) {
            ++failures;
            std::printf("soak %s: cycle %d: %s\n", mode, cycle, problem.c_str());
        }
    }
    return failures == 0 ? 0 : 1;
}

int killServer()
{
    const char* kill = std::getenv("SOAK_KILL_COMMAND");
    const char* restart = std::getenv("SOAK_RESTART_COMMAND");
    if (!kill || !restart) {
        std::fprintf(stderr, "kill needs SOAK_KILL_COMMAND and SOAK_RESTART_COMMAND\n");
        return 2;
    }
    auto device = boost::make_shared<TAudio2UniversalDevice>(16000);
    auto count = std::make_shared<std::atomic<int>>(0);
    TAudio2StreamConfiguration conf{16000, "Room microphone", "Room speaker", 20, 1, 1, false};
    std::string error;
    if (device->openStream(conf, [count](const char*, int, char* p, int bytes, int) {
            std::memset(p, 0, static_cast<size_t>(bytes));
            ++*count;
            return true;
        }, &error) != 0) {
        std::printf("soak kill: open failed: %s\n", error.c_str());
        return 1;
    }
    std::this_thread::sleep_for(1s);
    const int killed = std::system(kill);
    std::this_thread::sleep_for(1s);
    const auto closing = Clock::now();
    auto closed = std::async(std::launch::async, [device] { device->closeStream(); });
    if (closed.wait_for(10s) != std::future_status::ready) {
        std::printf("soak kill: closeStream() hung after the server died\n");
        std::_Exit(1);
    }
    const long closeMs = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - closing).count();
    const int afterClose = *count;
    std::this_thread::sleep_for(200ms);
    const bool quiet = *count == afterClose;
    // The restarted server may listen elsewhere: take the environment it prints.
    int restarted = -1;
    if (FILE* out = popen(restart, "r")) {
        char line[4096];
        while (std::fgets(line, sizeof line, out)) {
            std::string text(line);
            const size_t eq = text.find('=');
            if (text.compare(0, 7, "export ") == 0 && eq != std::string::npos)
                setenv(text.substr(7, eq - 7).c_str(), text.substr(eq + 1, text.find_last_not_of("\n") - eq).c_str(), 1);
        }
        restarted = pclose(out);
    }
    auto fresh = boost::make_shared<TAudio2UniversalDevice>(16000);
    const std::string problem = run(*fresh, 50);
    std::printf("soak kill: kill %s, closeStream() returned in %ld ms, %s after it; restart %s; new stream: %s\n",
                killed == 0 ? "ok" : "FAILED", closeMs, quiet ? "no callback" : "CALLBACKS", restarted == 0 ? "ok" : "FAILED",
                problem.empty() ? "50 callbacks" : problem.c_str());
    return killed == 0 && quiet && restarted == 0 && problem.empty() ? 0 : 1;
}

} // namespace

int main(int argc, char** argv)
{
    DebugStream::setLevel("audio2", -1);   // a thousand opens would otherwise log ten thousand lines
    if (argc == 4 && std::strcmp(argv[1], "cycles") == 0 &&
        (std::strcmp(argv[3], "same") == 0 || std::strcmp(argv[3], "fresh") == 0))
        return cycles(std::atoi(argv[2]), std::strcmp(argv[3], "fresh") == 0);
    if (argc == 2 && std::strcmp(argv[1], "kill") == 0)
        return killServer();
    std::fprintf(stderr, "usage: %s cycles N same|fresh | kill\n", argv[0]);
    return 2;
}
