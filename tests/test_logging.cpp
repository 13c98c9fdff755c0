#include <shared/debugstream.h>

#include <gtest/gtest.h>

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

TEST(DebugLevels, CategoryThresholdsDecideWhatIsEmitted)
{
    Sink sink;
    DebugStream::resetLevels();
    EXPECT_TRUE(DebugStream::debugEnabled("audio2", 0));
    EXPECT_FALSE(DebugStream::debugEnabled("audio2", 8));
    debug("audio2", 8, false) << "hidden";
    debug("audio2", 0, false) << "shown";
    warning("audio2", false) << "warned";

    DebugStream::setLevel("audio2", 8);
    EXPECT_TRUE(DebugStream::debugEnabled("audio2", 8));
    EXPECT_FALSE(DebugStream::debugEnabled("other", 8));
    debug("audio2", 8, false) << "trace";

    DebugStream::setLevel("audio2", -1);
    debug("audio2", 0, false) << "silenced";
    warning("audio2", false) << "silenced warning";
    info("audio2", true) << "forced info";
    DebugStream::resetLevels();

    EXPECT_EQ(sink.lines, (std::vector<std::string>{"shown", "warned", "trace", "forced info"}));
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
    EXPECT_FALSE(DebugStream::debugEnabled("audio2", 8));
}
