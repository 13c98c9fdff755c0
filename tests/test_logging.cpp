#include <shared/debugstream.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <vector>

using namespace tamrel;
using Lines = std::vector<std::string>;

// Counts allocations: a suppressed line may sit in real-time code, so it must cost none.
static std::atomic<long> allocations{0};
void* operator new(std::size_t size) { return ++allocations, std::malloc(size ? size : 1); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }

struct Sink {   // takes the lines emitted while it exists, in place of stderr
    Lines lines;
    Sink() { DebugStream::setSink([this](const LogRecord& r) { lines.emplace_back(r.text); }); }
    ~Sink() { DebugStream::setSink(LogSink()); }
};

TEST(DebugLevels, EachSettingLetsThroughItsLinesAndTheRestCostsNothing)
{
    std::string big(1000, 'x');   // formatted, it would outgrow a line's own storage
    // Any pointer but a const char* shows its address, never what it points to.
    const std::string warned = fmt::format("warning 0x{:x}", reinterpret_cast<std::uintptr_t>(&big[0]));
    const Lines upToZero{"debug 0", "info", "forced debug 8", warned};
    // A malformed entry is skipped; a library keeps quiet unless asked. The last leaves what the other tests expect.
    const struct { const char* env; Lines shown; } cases[] = {{"audio2=0", upToZero}, {"audio2=x,*=0", upToZero},
        {"audio2=8", {"debug 0", "debug 8", "info", "forced debug 8", warned}}, {"audio2=-1", {}},
        {"*=8,audio2=-1", {}}, {"other=8", {warned}}, {nullptr, {warned}}};
    for (const auto& c : cases) {
        (c.env ? setenv("TAMREL_LOG", c.env, 1) : unsetenv("TAMREL_LOG")), DebugStream::resetLevels();
        Sink sink;
        const long before = allocations;
        debug("audio2", 9, false) << big << &big;
        EXPECT_EQ(allocations - before, 0);
        debug("audio2", 0, false) << "debug 0";
        debug("audio2", 8, false) << "debug 8";
        info("audio2", false) << "info";
        debug("audio2", 8, true) << "forced debug 8";
        warning("audio2", false) << "warning " << &big[0];
        EXPECT_EQ(sink.lines, c.shown) << (c.env ? c.env : "TAMREL_LOG unset");
        // The gate the pipeline asks agrees with what came out.
        EXPECT_EQ(DebugStream::debugEnabled("audio2", 8), sink.lines.size() > 1 && sink.lines[1] == "debug 8");
    }
}

TEST(DebugBursts, RepeatedLinesAreCountedNotWrittenAndTold)
{
    Sink sink;
    for (int i = 0; i < 10000; ++i)   // a dead server: read and write errors in turn
        warning("audio2", false) << (i % 2 ? "write failed" : "read failed");
    for (const char* line : {"other", "another", "new"})   // four lines are tracked: the oldest burst makes room
        warning("audio2", false) << line;
    Sink later;   // the old sink hears the end of the others
    EXPECT_EQ(sink.lines, (Lines{"read failed", "write failed", "read failed", "write failed", "read failed",
                                 "write failed", "other", "another", "... repeated 4997 times: read failed", "new",
                                 "... repeated 4997 times: write failed"}));
    // A burst that goes on is told once a second, between its lines.
    const auto start = std::chrono::steady_clock::now();
    while (later.lines.size() < 5 && std::chrono::steady_clock::now() - start < std::chrono::seconds(10))
        warning("audio2", false) << "lost";
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    EXPECT_TRUE(later.lines.size() == 5 && later.lines[3].rfind("... repeated ", 0) == 0 && later.lines[4] == "lost");
}
