#include <shared/debugstream.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

namespace tamrel {
namespace {

// Below every real level: warnings only. A library should not talk on a
// client's stderr unless asked to.
constexpr int WarningsOnly = -1000;

// Levels come from TAMREL_LOG, e.g. "audio2=8,net=-1" or "*=3"; a category
// not named there takes the "*" entry, or WarningsOnly.
struct Levels {
    std::vector<std::pair<std::string, int>> byCategory;
    int fallback = WarningsOnly;

    void load()
    {
        byCategory.clear();
        fallback = WarningsOnly;
        const char* env = std::getenv("TAMREL_LOG");
        if (!env)
            return;
        std::string setting(env);
        size_t pos = 0;
        while (pos <= setting.size()) {
            size_t end = setting.find(',', pos);
            if (end == std::string::npos)
                end = setting.size();
            const std::string item = setting.substr(pos, end - pos);
            const size_t eq = item.find('=');
            if (eq != std::string::npos && eq > 0) {
                char* tail = nullptr;
                const long level = std::strtol(item.c_str() + eq + 1, &tail, 10);
                if (tail && *tail == '\0' && eq + 1 < item.size())
                    set(item.substr(0, eq), static_cast<int>(level));
            }
            pos = end + 1;
        }
    }

    void set(const std::string& category, int level)
    {
        if (category == "*") {
            fallback = level;
            return;
        }
        for (auto& entry : byCategory) {
            if (entry.first == category) {
                entry.second = level;
                return;
            }
        }
        byCategory.emplace_back(category, level);
    }

    int of(const std::string& category) const
    {
        for (const auto& entry : byCategory)
            if (entry.first == category)
                return entry.second;
        return fallback;
    }
};

// Collapses a burst of identical lines (a dead sound server makes RtAudio
// report the same error thousands of times a second): the first line goes
// out, the copies are counted, and "... repeated N times" is written when a
// different line comes, or once per window while the burst goes on.
// Fixed storage: lines are emitted from the real-time thread too.
class Burst {
public:
    static constexpr auto Window = std::chrono::seconds(1);

    // Counts the line if it repeats the last one within the window.
    bool isCopy(const std::string& category, LogSeverity severity, int level, std::string_view text)
    {
        if (!m_valid || severity != m_severity || level != m_level || category != m_category ||
            text != std::string_view(m_text, m_length) || std::chrono::steady_clock::now() - m_since >= Window)
            return false;
        ++m_repeats;
        return true;
    }

    // Makes the line the one to compare with; lines too long to keep are never collapsed.
    void start(const std::string& category, LogSeverity severity, int level, std::string_view text)
    {
        m_valid = category.size() < sizeof(m_category) && text.size() <= sizeof(m_text);
        if (!m_valid)
            return;
        std::memcpy(m_category, category.c_str(), category.size() + 1);
        std::memcpy(m_text, text.data(), text.size());
        m_length = text.size();
        m_severity = severity;
        m_level = level;
        m_since = std::chrono::steady_clock::now();
    }

    // The copies not reported yet; the last line is forgotten.
    int drain()
    {
        const int repeats = m_repeats;
        m_repeats = 0;
        m_valid = false;
        return repeats;
    }

    const char* category() const { return m_category; }
    LogSeverity severity() const { return m_severity; }
    int level() const { return m_level; }

private:
    bool m_valid = false;
    char m_category[64] = {};
    char m_text[512];
    size_t m_length = 0;
    LogSeverity m_severity = LogSeverity::Debug;
    int m_level = 0;
    int m_repeats = 0;
    std::chrono::steady_clock::time_point m_since;
};

const char* severityName(LogSeverity severity)
{
    switch (severity) {
    case LogSeverity::Debug: return "debug";
    case LogSeverity::Info: return "info";
    case LogSeverity::Warning: return "warning";
    }
    return "?";
}

struct Logger {
    std::mutex mutex;   // guards the sink, the burst and the output
    LogSink sink;
    Levels levels;
    Burst burst;
    Logger() { levels.load(); }
    // A burst still being counted at exit is told on stderr; a sink may be gone by then.
    ~Logger()
    {
        if (!sink)
            flushRepeats();
    }

    void write(const std::string& category, LogSeverity severity, int level, std::string_view text)
    {
        if (sink) {
            sink(LogRecord{category, severity, level, text});
            return;
        }
        const int length = static_cast<int>(text.size());
        if (severity == LogSeverity::Debug)
            std::fprintf(stderr, "[%s %s %d] %.*s\n", category.c_str(), severityName(severity), level, length, text.data());
        else
            std::fprintf(stderr, "[%s %s] %.*s\n", category.c_str(), severityName(severity), length, text.data());
    }

    // Called with the mutex held, or at exit.
    void flushRepeats()
    {
        const int repeats = burst.drain();
        if (repeats == 0)
            return;
        const std::string category(burst.category());
        fmt::memory_buffer line;
        fmt::format_to(std::back_inserter(line), "... repeated {} time{}", repeats, repeats == 1 ? "" : "s");
        write(category, burst.severity(), burst.level(), std::string_view(line.data(), line.size()));
    }

    void emit(const std::string& category, LogSeverity severity, int level, std::string_view text)
    {
        if (burst.isCopy(category, severity, level, text))
            return;
        flushRepeats();
        burst.start(category, severity, level, text);
        write(category, severity, level, text);
    }
};

Logger& logger()
{
    static Logger instance;
    return instance;
}

// Levels are read without the lock: they change only in set-up code
// (tests, start of a program), never while audio threads log.
int levelOf(const std::string& category)
{
    return logger().levels.of(category);
}

} // namespace

DebugStream::DebugStream(const std::string& category, LogSeverity severity, int level, bool forced)
    : m_buffer(&m_storage)
    , m_category(category)
    , m_severity(severity)
    , m_level(level)
{
    const int threshold = levelOf(category);
    if (severity == LogSeverity::Warning)
        m_suppressed = threshold < 0 && threshold != WarningsOnly;
    else
        m_suppressed = severity == LogSeverity::Debug ? level > threshold : threshold < 0;
    // Forcing lifts a line over the category's debug level, never over a
    // category that is off or left at warnings only.
    m_forced = forced && threshold >= 0;
}

DebugStream::~DebugStream()
{
    if (!wanted())
        return;
    Logger& log = logger();
    std::lock_guard<std::mutex> lock(log.mutex);
    log.emit(m_category, m_severity, m_level, std::string_view(m_buffer->data(), m_buffer->size()));
}

bool DebugStream::debugEnabled(const std::string& category, int level)
{
    return level <= levelOf(category);
}

void DebugStream::setLevel(const std::string& category, int level)
{
    Logger& log = logger();
    std::lock_guard<std::mutex> lock(log.mutex);
    log.levels.set(category, level);
}

void DebugStream::resetLevels()
{
    Logger& log = logger();
    std::lock_guard<std::mutex> lock(log.mutex);
    log.levels.load();
}

LogSink DebugStream::setSink(LogSink sink)
{
    Logger& log = logger();
    std::lock_guard<std::mutex> lock(log.mutex);
    // The old sink hears the end of its burst; the new one starts afresh.
    log.flushRepeats();
    std::swap(log.sink, sink);
    return sink;
}

DebugStream debug(const std::string& category, int level, bool flag)
{
    return DebugStream(category, LogSeverity::Debug, level, flag);
}

DebugStream info(const std::string& category, bool flag)
{
    return DebugStream(category, LogSeverity::Info, 0, flag);
}

DebugStream warning(const std::string& category, bool flag)
{
    return DebugStream(category, LogSeverity::Warning, 0, flag);
}

} // namespace tamrel
