#include <shared/debugstream.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

using namespace tamrel;

namespace {

// Takes the lines emitted while it exists, in place of stderr.
struct Sink {
    std::vector<std::string> lines;
    Sink() { DebugStream::setSink([this](const LogRecord& r) { lines.emplace_back(r.text); }); }
    ~Sink() { DebugStream::setSink(LogSink()); }
};

} // namespace

TEST(DebugStream, FlagsAndValueTypesShapeTheLine)
{
    char text[] = "/home/user";
    char* pointer = text;   // any pointer but a const char* shows its address
    const std::string address = fmt::format("0x{:x}", reinterpret_cast<std::uintptr_t>(pointer));
    using Insert = std::function<void(DebugStream&)>;
    const Insert aAnd5 = [](DebugStream& s) { s << "a" << 5; }, asPointer = [pointer](DebugStream& s) { s << pointer; };
    const struct { bool spaced, quoted, suppressed, forced; Insert insert; std::string line; } cases[] = {
        {false, false, false, false, aAnd5, "a5"}, {true, false, false, false, aAnd5, " a 5"},
        {true, true, false, false, aAnd5, " \"a\" \"5\""}, {false, true, false, false, asPointer, "\"" + address + "\""},
        {false, false, true, false, aAnd5, "<none>"}, {false, false, true, true, aAnd5, "a5"},
        {false, false, false, false, [pointer](DebugStream& s) { s << static_cast<const char*>(pointer); }, "/home/user"},
        {false, false, false, false, [](DebugStream& s) { s << true << "|" << false << "|" << -7 << "|" << 4000000000u
                                                            << "|" << 18446744073709551615ull << "|" << std::string("s"); },
         "true|false|-7|4000000000|18446744073709551615|s"},
    };
    for (const auto& c : cases) {
        Sink sink;
        {
            DebugStream s("test", LogSeverity::Warning, 0, false);
            s.m_spaced = c.spaced, s.m_quoted = c.quoted, s.m_suppressed = c.suppressed, s.m_forced = c.forced;
            c.insert(s);
        }
        EXPECT_EQ(sink.lines.empty() ? "<none>" : sink.lines.front(), c.line) << &c - cases;
    }
}

TEST(DebugLevels, EachSettingLetsThroughItsLines)
{
    const std::vector<std::string> upToZero{"debug 0", "info", "forced info", "forced debug 8", "warning"};
    const struct { const char* env; std::vector<std::string> shown; } cases[] = {
        {nullptr, {"warning"}}, {"other=8", {"warning"}},   // a library keeps quiet unless asked
        {"audio2=0", upToZero}, {"*=0", upToZero}, {"audio2=x,*=0", upToZero},   // a malformed entry is skipped
        {"audio2=8", {"debug 0", "debug 8", "info", "forced info", "forced debug 8", "warning"}},
        {"audio2=-1", {}}, {"*=8,audio2=-1", {}},
    };
    for (const auto& c : cases) {
        c.env ? setenv("TAMREL_LOG", c.env, 1) : unsetenv("TAMREL_LOG");
        DebugStream::resetLevels();
        Sink sink;
        debug("audio2", 0, false) << "debug 0";
        debug("audio2", 8, false) << "debug 8";
        info("audio2", false) << "info";
        info("audio2", true) << "forced info";
        debug("audio2", 8, true) << "forced debug 8";
        warning("audio2", false) << "warning";
        EXPECT_EQ(sink.lines, c.shown) << (c.env ? c.env : "TAMREL_LOG unset");
    }
    // A level set in code holds until the environment is read again.
    DebugStream::setLevel("audio2", 8);
    EXPECT_TRUE(DebugStream::debugEnabled("audio2", 8));
    unsetenv("TAMREL_LOG");
    DebugStream::resetLevels();
    EXPECT_FALSE(DebugStream::debugEnabled("audio2", 0));
}

TEST(DebugBursts, RepeatedLinesAreCountedNotWritten)
{
    Sink sink;
    DebugStream::setLevel("audio2", 0);
    for (int i = 0; i < 5000; ++i) {   // a dead server: read and write errors in turn
        warning("audio2", false) << "Rt audio error: " << "read failed";
        warning("audio2", false) << "Rt audio error: " << "write failed";
    }
    debug("audio2", 0, false) << "other";
    for (int i = 0; i < 3; ++i)
        warning("audio2", false) << "other";   // same text, other severity: lines of their own
    warning("audio2", false) << "new";      // four lines tracked: the oldest burst is told
    DebugStream::setSink(LogSink());        // the old sink hears the end of the others
    DebugStream::resetLevels();
    const std::string read = "Rt audio error: read failed", write = "Rt audio error: write failed";
    EXPECT_EQ(sink.lines, (std::vector<std::string>{read, write, read, write, read, write, "other", "other", "other",
                                                    "other", "... repeated 4997 times: " + read, "new",
                                                    "... repeated 4997 times: " + write}));

    // A burst that goes on is told once a second, between its lines.
    Sink later;
    const auto start = std::chrono::steady_clock::now();
    while (later.lines.size() < 5 && std::chrono::steady_clock::now() - start < std::chrono::seconds(10))
        warning("audio2", false) << "lost";
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    ASSERT_EQ(later.lines.size(), 5u);
    EXPECT_EQ(later.lines[3].rfind("... repeated ", 0), 0u) << later.lines[3];
    EXPECT_EQ(later.lines[4], "lost");
}
