// Line-oriented logging: one DebugStream collects one line from << insertions
// and emits it when the statement ends. A suppressed stream formats nothing
// and allocates nothing, so trace lines may stay in real-time code.
// A line is written at most three times a second; further copies are told
// as "... repeated N times: line" when the second is up.
#pragma once

#include <fmt/format.h>

#include <functional>
#include <string>
#include <string_view>

namespace tamrel {

enum class LogSeverity { Debug, Info, Warning };

struct LogRecord {
    const std::string& category;
    LogSeverity severity;
    int level;           // debug level; 0 for info and warning lines
    std::string_view text;
};

// Receives every emitted line instead of stderr. Called under the logging
// lock, from whichever thread logs.
using LogSink = std::function<void(const LogRecord&)>;

class DebugStream {
public:
    DebugStream(const std::string& category, LogSeverity severity, int level, bool forced);
    ~DebugStream();

    DebugStream(const DebugStream&) = delete;
    DebugStream& operator=(const DebugStream&) = delete;

    DebugStream& operator<<(const char* v) { return append(v); }
    DebugStream& operator<<(const std::string& v) { return append(v); }
    DebugStream& operator<<(int v) { return append(v); }
    DebugStream& operator<<(unsigned int v) { return append(v); }
    DebugStream& operator<<(unsigned long long v) { return append(v); }
    DebugStream& operator<<(bool v) { return append(v); }

    // Any other pointer shows its address, never what it points to.
    template <typename T>
    DebugStream& operator<<(T* p)
    {
        if (!wanted())
            return *this;
        const auto address = reinterpret_cast<std::uintptr_t>(p);
        if (m_quoted)
            fmt::format_to(std::back_inserter(*m_buffer), "{}\"0x{:x}\"", separator(), address);
        else
            fmt::format_to(std::back_inserter(*m_buffer), "{}0x{:x}", separator(), address);
        return *this;
    }

    // Whether a debug line of this level would be emitted for the category.
    static bool debugEnabled(const std::string& category, int level);

    // Per-category threshold for debug lines; 0 and above also lets info
    // lines out, a negative level silences the category entirely (warnings
    // and forced lines included). A category never set passes warnings only.
    static void setLevel(const std::string& category, int level);
    // Drops every setLevel() and re-reads TAMREL_LOG ("audio2=8,net=-1,*=0").
    static void resetLevels();
    // Installs a sink (an empty one restores stderr); returns the previous one.
    static LogSink setSink(LogSink sink);

private:
    bool wanted() const { return !m_suppressed || m_forced; }
    const char* separator() const { return m_spaced ? " " : ""; }

    template <typename T>
    DebugStream& append(const T& v)
    {
        if (!wanted())
            return *this;
        if (m_quoted)
            fmt::format_to(std::back_inserter(*m_buffer), "{}\"{}\"", separator(), v);
        else
            fmt::format_to(std::back_inserter(*m_buffer), "{}{}", separator(), v);
        return *this;
    }

    fmt::memory_buffer* m_buffer;
    fmt::memory_buffer m_storage;   // inline storage: short lines never touch the heap
    std::string m_category;        // short names stay in the string's own storage
    LogSeverity m_severity;
    int m_level;

public:
    // Formatting flags; the factories below leave spacing and quoting off,
    // since callers write their own separators.
    bool m_spaced = false;
    bool m_suppressed = false;
    bool m_quoted = false;
    bool m_forced = false;
};

// `flag` forces the line out past the category's debug level, as long as
// the category is on (level 0 or more).
DebugStream debug(const std::string& category, int level, bool flag);
DebugStream info(const std::string& category, bool flag);
DebugStream warning(const std::string& category, bool flag);

} // namespace tamrel
