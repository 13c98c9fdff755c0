#include <shared/debugstream.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

using namespace tamrel;
using Lines = std::vector<std::string>;

// Counts allocations: a suppressed line may sit in real-time code, so it must cost none.
static std::atomic<long> allocations{0};
void* operator new(std::size_t size) { return ++allocations, std::malloc(size ? size : 1); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }

// Takes the lines emitted while it exists, in place of stderr.
struct Sink {
    Lines lines;
    Sink() { DebugStream::setSink([this](const LogRecord& r) { lines.emplace_back(r.text); }); }
    ~Sink() { DebugStream::setSink(LogSink()); }
};

TEST(DebugLevels, EachSettingLetsThroughItsLinesAndTheRestCostsNothing)
{
    const Lines upToZero{"debug 0", "info", "forced info", "forced debug 8", "warning"};
    const struct { const char* env; Lines shown; } cases[] = {
        {nullptr, {"warning"}}, {"other=8", {"warning"}},   // a library keeps quiet unless asked
        {"audio2=0", upToZero}, {"audio2=x,*=0", upToZero},   // a malformed entry is skipped
        {"audio2=8", {"debug 0", "debug 8", "info", "forced info", "forced debug 8", "warning"}},
        {"audio2=-1", {}}, {"*=8,audio2=-1", {}},
    };
    const std::string big(1000, 'x');   // formatted, it would outgrow a line's own storage
    for (const auto& c : cases) {
        c.env ? setenv("TAMREL_LOG", c.env, 1) : unsetenv("TAMREL_LOG");
        DebugStream::resetLevels();
        Sink sink;
        const long before = allocations;
        debug("audio2", 9, false) << big << &big;
        EXPECT_EQ(allocations - before, 0);
        debug("audio2", 0, false) << "debug 0";
        debug("audio2", 8, false) << "debug 8";
        info("audio2", false) << "info";
        info("audio2", true) << "forced info";
        debug("audio2", 8, true) << "forced debug 8";
        warning("audio2", false) << "warning";
        EXPECT_EQ(sink.lines, c.shown) << (c.env ? c.env : "TAMREL_LOG unset");
        const bool debug8 = std::find(sink.lines.begin(), sink.lines.end(), "debug 8") != sink.lines.end();
        EXPECT_EQ(DebugStream::debugEnabled("audio2", 8), debug8);   // the gate the pipeline asks agrees
    }
    unsetenv("TAMREL_LOG");
    DebugStream::resetLevels();
}

TEST(DebugStream, FlagsAndValuesShapeTheLine)
{
    char text[] = "/home/user";   // any pointer but a const char* shows its address, never what it points to
    const std::string at = fmt::format("0x{:x}", reinterpret_cast<std::uintptr_t>(&text[0]));
    const struct { bool spaced, quoted, suppressed, forced; std::string line; } cases[] = {
        {true, false, false, false, " a 5 /home/user " + at}, {false, false, true, true, "a5/home/user" + at},
        {true, true, false, false, R"( "a" "5" "/home/user" ")" + at + "\""},
    };
    for (const auto& c : cases) {
        Sink sink;
        {
            DebugStream s("test", LogSeverity::Warning, 0, false);
            s.m_spaced = c.spaced, s.m_quoted = c.quoted, s.m_suppressed = c.suppressed, s.m_forced = c.forced;
            s << "a" << 5 << static_cast<const char*>(text) << &text[0];
        }
        EXPECT_EQ(sink.lines, Lines{c.line});
    }
}

TEST(DebugBursts, RepeatedLinesAreCountedNotWritten)
{
    Sink sink;
    DebugStream::setLevel("audio2", 0);
    for (int i = 0; i < 5000; ++i) {   // a dead server: read and write errors in turn
        warning("audio2", false) << "read failed";
        warning("audio2", false) << "write failed";
    }
    debug("audio2", 0, false) << "other";
    for (int i = 0; i < 3; ++i)
        warning("audio2", false) << "other";   // same text, other severity: lines of their own
    warning("audio2", false) << "new";      // four lines tracked: the oldest burst is told
    DebugStream::setSink(LogSink());        // the old sink hears the end of the others
    DebugStream::resetLevels();
    EXPECT_EQ(sink.lines, (Lines{"read failed", "write failed", "read failed", "write failed", "read failed",
                                 "write failed", "other", "other", "other", "other",
                                 "... repeated 4997 times: read failed", "new", "... repeated 4997 times: write failed"}));
    // A burst that goes on is told once a second, between its lines.
    Sink later;
    const auto start = std::chrono::steady_clock::now();
    while (later.lines.size() < 5 && std::chrono::steady_clock::now() - start < std::chrono::seconds(10))
        warning("audio2", false) << "lost";
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    ASSERT_EQ(later.lines.size(), 5u);
    EXPECT_TRUE(later.lines[3].rfind("... repeated ", 0) == 0 && later.lines[4] == "lost") << later.lines[3];
}
