#include <shared/debugstream.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

using namespace tamrel;

namespace {

struct Sink {
    std::vector<std::string> lines;
    Sink()
    {
        DebugStream::setSink([this](const LogRecord& r) { lines.emplace_back(r.text); });
    }
    ~Sink() { DebugStream::setSink(LogSink()); }
};

// Bytes a stream holds after the insertions, read through the stream's own buffer.
template <typename F>
std::string built(bool spaced, bool quoted, bool suppressed, bool forced, F insert)
{
    Sink sink;
    {
        DebugStream s("test", LogSeverity::Warning, 0, true);
        s.m_spaced = spaced;
        s.m_quoted = quoted;
        s.m_suppressed = suppressed;
        s.m_forced = forced;
        insert(s);
    }
    return sink.lines.empty() ? std::string("<none>") : sink.lines.front();
}

} // namespace

TEST(DebugStreamFormatting, SeparatorsAndQuotesFollowTheFlags)
{
    auto aAnd5 = [](DebugStream& s) { s << "a" << 5; };
    EXPECT_EQ(built(true, false, false, false, aAnd5), " a 5");
    EXPECT_EQ(built(false, false, false, false, aAnd5), "a5");
    EXPECT_EQ(built(true, true, false, false, aAnd5), " \"a\" \"5\"");
    EXPECT_EQ(built(false, true, false, false, aAnd5), "\"a\"\"5\"");
}

TEST(DebugStreamFormatting, EveryValueTypeUsesItsDefaultForm)
{
    const std::string text = built(false, false, false, false, [](DebugStream& s) {
        s << true << "|" << false << "|" << -7 << "|" << 4000000000u << "|" << 18446744073709551615ull << "|"
          << std::string("str");
    });
    EXPECT_EQ(text, "true|false|-7|4000000000|18446744073709551615|str");
}

TEST(DebugStreamFormatting, PointersShowTheirAddressNotTheText)
{
    char path[] = "/home/user";
    char* p = path;
    std::string expected = fmt::format("0x{:x}", reinterpret_cast<std::uintptr_t>(p));
    EXPECT_EQ(built(false, false, false, false, [p](DebugStream& s) { s << p; }), expected);
    EXPECT_EQ(built(true, true, false, false, [p](DebugStream& s) { s << p; }), " \"" + expected + "\"");
    // A const char* is text.
    const char* text = path;
    EXPECT_EQ(built(false, false, false, false, [text](DebugStream& s) { s << text; }), "/home/user");
}

TEST(DebugStreamFormatting, SuppressedStreamsAppendNothingUnlessForced)
{
    Sink sink;
    {
        DebugStream s("test", LogSeverity::Debug, 0, false);
        s.m_suppressed = true;
        s << "x" << 1;
        EXPECT_EQ(sink.lines.size(), 0u);
    }
    EXPECT_TRUE(sink.lines.empty());
    EXPECT_EQ(built(false, false, true, true, [](DebugStream& s) { s << "x" << 1; }), "x1");
}

TEST(DebugLevels, EachSettingLetsThroughItsLines)
{
    struct Case {
        const char* env;
        std::vector<std::string> shown;
    };
    const std::vector<std::string> upToZero{"debug 0", "info", "forced info", "forced debug 8", "warning"};
    const Case cases[] = {
        {nullptr, {"warning"}},   // a library keeps quiet unless asked
        {"other=8", {"warning"}},
        {"audio2=0", upToZero},
        {"*=0", upToZero},
        {"audio2=8", {"debug 0", "debug 8", "info", "forced info", "forced debug 8", "warning"}},
        {"audio2=-1", {}},
        {"*=8,audio2=-1", {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.env ? c.env : "TAMREL_LOG unset");
        if (c.env)
            setenv("TAMREL_LOG", c.env, 1);
        else
            unsetenv("TAMREL_LOG");
        DebugStream::resetLevels();
        Sink sink;
        debug("audio2", 0, false) << "debug 0";
        debug("audio2", 8, false) << "debug 8";
        info("audio2", false) << "info";
        info("audio2", true) << "forced info";
        debug("audio2", 8, true) << "forced debug 8";
        warning("audio2", false) << "warning";
        EXPECT_EQ(sink.lines, c.shown);
    }
    unsetenv("TAMREL_LOG");
    DebugStream::setLevel("audio2", 8);
    EXPECT_TRUE(DebugStream::debugEnabled("audio2", 8));
    DebugStream::resetLevels();
    EXPECT_FALSE(DebugStream::debugEnabled("audio2", 0));
}

TEST(DebugBursts, RepeatedLinesAreCountedNotWritten)
{
    std::vector<std::string> lines;
    DebugStream::setSink([&lines](const LogRecord& r) { lines.emplace_back(r.text); });
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
    EXPECT_EQ(lines, (std::vector<std::string>{read, write, read, write, read, write, "other", "other", "other", "other",
                                               "... repeated 4997 times: " + read, "new",
                                               "... repeated 4997 times: " + write}));
}

TEST(DebugBursts, ALongBurstIsToldOncePerSecond)
{
    Sink sink;
    const auto start = std::chrono::steady_clock::now();
    while (sink.lines.size() < 5 && std::chrono::steady_clock::now() - start < std::chrono::seconds(10))
        warning("audio2", false) << "lost";
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    ASSERT_EQ(sink.lines.size(), 5u);
    EXPECT_EQ(sink.lines[3].rfind("... repeated ", 0), 0u);
    EXPECT_EQ(sink.lines[4], "lost");
}

TEST(DebugLevels, EnvironmentVariableSetsLevelsPerCategoryAndDefault)
{
    setenv("TAMREL_LOG", "audio2=8,net=-1,*=3,broken=x", 1);
    DebugStream::resetLevels();
    EXPECT_TRUE(DebugStream::debugEnabled("audio2", 8));
    EXPECT_FALSE(DebugStream::debugEnabled("net", 0));
    EXPECT_TRUE(DebugStream::debugEnabled("other", 3));
    EXPECT_FALSE(DebugStream::debugEnabled("other", 4));
    EXPECT_TRUE(DebugStream::debugEnabled("broken", 3));
    unsetenv("TAMREL_LOG");
    DebugStream::resetLevels();
    EXPECT_FALSE(DebugStream::debugEnabled("audio2", 0));
}
