#include <shared/debugstream.h>

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <vector>

namespace tamrel {
namespace {

// Levels come from TAMREL_LOG, e.g. "audio2=8,net=-1" or "*=3"; a category
// not named there takes the "*" entry, or 0 (lifecycle and error lines on).
struct Levels {
    std::vector<std::pair<std::string, int>> byCategory;
    int fallback = 0;

    void load()
    {
        byCategory.clear();
        fallback = 0;
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

struct Logger {
    std::mutex mutex;   // guards the sink and the output
    LogSink sink;
    Levels levels;
    Logger() { levels.load(); }
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

const char* severityName(LogSeverity severity)
{
    switch (severity) {
    case LogSeverity::Debug: return "debug";
    case LogSeverity::Info: return "info";
    case LogSeverity::Warning: return "warning";
    }
    return "?";
}

} // namespace

DebugStream::DebugStream(const std::string& category, LogSeverity severity, int level, bool forced)
    : m_buffer(&m_storage)
    , m_category(category)
    , m_severity(severity)
    , m_level(level)
{
    const int threshold = levelOf(category);
    m_suppressed = severity == LogSeverity::Debug ? level > threshold : threshold < 0;
    m_forced = forced;
}

DebugStream::~DebugStream()
{
    if (!wanted())
        return;
    Logger& log = logger();
    const std::string_view text(m_buffer->data(), m_buffer->size());
    const int length = static_cast<int>(text.size());
    std::lock_guard<std::mutex> lock(log.mutex);
    if (log.sink) {
        log.sink(LogRecord{m_category, m_severity, m_level, text});
        return;
    }
    if (m_severity == LogSeverity::Debug)
        std::fprintf(stderr, "[%s %s %d] %.*s\n", m_category.c_str(), severityName(m_severity), m_level, length, text.data());
    else
        std::fprintf(stderr, "[%s %s] %.*s\n", m_category.c_str(), severityName(m_severity), length, text.data());
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
