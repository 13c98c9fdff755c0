// Threads against the device: a close beside a running callback, many
// devices opened and closed at once, and exit with a stream still open.
#include "testsupport.h"

#include <shared/debugstream.h>

#include <boost/make_shared.hpp>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <future>
#include <thread>

using namespace tamrel;
using namespace std::chrono_literals;
using testsupport::DeviceTest;

namespace {

using Concurrency = DeviceTest;

// Whether f finishes on its own thread within the time; a future that has
// not is left to finish in the background.
template <typename F>
bool finishes(std::future<void>& done, F f, std::chrono::milliseconds within)
{
    done = std::async(std::launch::async, f);
    return done.wait_for(within) == std::future_status::ready;
}

TEST_F(Concurrency, CloseWaitsForARunningCallbackAndNoneStartsAfter)
{
    device = makeDevice();
    std::promise<void> entered, release;
    std::shared_future<void> released = release.get_future().share();
    std::atomic<int> calls{0};
    ASSERT_EQ(device->openStream(config(), [&](const char*, int, char*, int, int) {
        if (calls++ == 0) {
            entered.set_value();
            released.wait();
        }
        return true;
    }, nullptr), 0);
    std::vector<short> in(960), out(960);
    auto callback = std::async(std::launch::async, [&] { fakecard::deliver(out.data(), in.data(), 960); });
    entered.get_future().wait();

    std::future<void> closing;
    EXPECT_FALSE(finishes(closing, [this] { device->closeStream(); }, 100ms)) << "closed under a running callback";
    release.set_value();
    EXPECT_EQ(closing.wait_for(2s), std::future_status::ready);
    callback.get();

    // A buffer the sound layer still hands over after the close finds no stream.
    EXPECT_EQ(fakecard::deliver(out.data(), in.data(), 960), -1);
    EXPECT_EQ(calls, 1);
}

// Devices constructed, listed, opened and closed from several threads while
// each open stream is called back from a thread of its own. Bounded; set
// TAUDIO2_STRESS_SECONDS for a longer run. Under ThreadSanitizer any race
// in the library fails the run.
TEST_F(Concurrency, StressManyDevicesOnManyThreads)
{
    const char* env = std::getenv("TAUDIO2_STRESS_SECONDS");
    const auto length = std::chrono::duration<double>(env ? std::atof(env) : 2.0);
    fakecard::card().callbackThreadPauseUs = 1000;
    DebugStream::setLevel("audio2", -1);   // a minute of lines would only fill the captured log
    const int threads = 6;
    std::atomic<int> cycles{0}, failedOpens{0}, lateCallbacks{0};
    std::atomic<long> callbacks{0};
    const auto deadline = std::chrono::steady_clock::now() + length;

    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&, t] {
            const TAudio2StreamConfiguration confs[] = {config(), config(48000, 10, 2, 1), config(8000, 20, 1, 0)};
            for (int n = 0; std::chrono::steady_clock::now() < deadline; ++n) {
                auto device = boost::make_shared<TAudio2UniversalDevice>(16000);
                if (t == 0) {   // one thread only lists and drops
                    device->devices(TAudio2DeviceInfo::DeviceType(3));
                    std::this_thread::sleep_for(1ms);
                    continue;
                }
                auto closed = std::make_shared<std::atomic<bool>>(false);
                const int code = device->openStream(confs[(t + n) % 3], [&callbacks, &lateCallbacks, closed](const char*, int, char*, int, int) {
                    lateCallbacks += closed->load();
                    ++callbacks;
                    return true;
                }, nullptr);
                failedOpens += code != 0;
                std::this_thread::sleep_for(std::chrono::milliseconds(n % 5));
                device->closeStream();
                closed->store(true);
                ++cycles;
            }
        });
    }
    for (auto& w : workers)
        w.join();
    printf("stress: %d open/close cycles on %d threads, %ld callbacks in %.1f s\n", cycles.load(), threads,
           callbacks.load(), length.count());
    EXPECT_EQ(failedOpens, 0);
    EXPECT_EQ(lateCallbacks, 0) << "a frame callback ran after closeStream() returned";
    EXPECT_GT(callbacks, 0);
}

// Exit (no close, no reference kept) while the stream's thread calls back
// as fast as it can: the exit must be clean, which the sanitizers check.
TEST_F(Concurrency, ExitWithAStreamOpenIsClean)
{
    fakecard::card().callbackThreadPauseUs = 1;
    const char* env = std::getenv("TAUDIO2_EXIT_RUNS");
    for (int run = 0, runs = env ? std::atoi(env) : 10; run < runs; ++run) {
        EXPECT_EXIT({
            auto device = boost::make_shared<TAudio2UniversalDevice>(16000);
            TAudio2StreamConfiguration conf = config();
            conf.measureAec = true;
            if (device->openStream(conf, [](const char*, int, char*, int, int) { return true; }, nullptr) != 0)
                std::_Exit(3);
            device.reset();
            std::this_thread::sleep_for(std::chrono::milliseconds(5 + run % 10));
            std::exit(0);
        }, ::testing::ExitedWithCode(0), "") << "run " << run;
    }
}

} // namespace
