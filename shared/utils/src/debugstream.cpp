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

// Collapses bursts of identical lines: a dead sound server makes RtAudio
// report its read and write errors, in turn, thousands of times a second.
// A line goes out at most three times a second; further copies are counted
// and told as "... repeated N times: line" when the second is up and
// another line comes (or at a sink change, or at exit). The last few
// distinct lines are tracked, so alternating lines collapse too. Fixed
// storage: lines are emitted from the real-time thread as well.
class Bursts {
public:
    static constexpr auto Window = std::chrono::seconds(1);
    static constexpr int Written = 3;   // a short list may repeat a line or two

    struct Line {
        bool used = false;
        char category[64] = {};
        char text[512];
        size_t length = 0;
        LogSeverity severity = LogSeverity::Debug;
        int level = 0;
        int seen = 0;      // in this second
        int repeats = 0;   // of those, not written
        std::chrono::steady_clock::time_point since;

        std::string_view view() const { return std::string_view(text, length); }
    };

    enum Verdict { New, Write, Count };

    // Whether the line is new, or repeats a tracked one within that one's
    // second, and is then written or only counted.
    Verdict judge(const std::string& category, LogSeverity severity, int level, std::string_view text,
                  std::chrono::steady_clock::time_point now)
    {
        for (Line& line : m_lines) {
            if (line.used && now - line.since < Window && line.severity == severity && line.level == level &&
                category == line.category && text == line.view()) {
                if (++line.seen <= Written)
                    return Write;
                ++line.repeats;
                return Count;
            }
        }
        return New;
    }

    // Ends every burst whose second is up (all of them when `all`), oldest
    // first, handing the ones with copies to `tell`.
    template <typename Tell>
    void end(std::chrono::steady_clock::time_point now, bool all, Tell tell)
    {
        for (;;) {
            Line* oldest = nullptr;
            for (Line& line : m_lines)
                if (line.used && (all || now - line.since >= Window) && (!oldest || line.since < oldest->since))
                    oldest = &line;
            if (!oldest)
                return;
            if (oldest->repeats > 0)
                tell(*oldest);
            oldest->used = false;
        }
    }

    // Tracks the line, in place of the oldest when all places are taken.
    template <typename Tell>
    void track(const std::string& category, LogSeverity severity, int level, std::string_view text,
               std::chrono::steady_clock::time_point now, Tell tell)
    {
        if (category.size() >= sizeof(Line::category) || text.size() > sizeof(Line::text))
            return;   // too long to keep: never collapsed
        Line* place = &m_lines[0];
        for (Line& line : m_lines) {
            if (!line.used) {
                place = &line;
                break;
            }
            if (line.since < place->since)
                place = &line;
        }
        if (place->used && place->repeats > 0)
            tell(*place);
        std::memcpy(place->category, category.c_str(), category.size() + 1);
        std::memcpy(place->text, text.data(), text.size());
        place->length = text.size();
        place->severity = severity;
        place->level = level;
        place->seen = 1;
        place->repeats = 0;
        place->since = now;
        place->used = true;
    }

private:
    Line m_lines[4];
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
    std::mutex mutex;   // guards the sink, the bursts and the output
    LogSink sink;
    Levels levels;
    Bursts bursts;
    Logger() { levels.load(); }

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

    void tell(const Bursts::Line& line)
    {
        const std::string category(line.category);
        fmt::basic_memory_buffer<char, 640> text;   // inline storage: fits any tracked line
        fmt::format_to(std::back_inserter(text), "... repeated {} time{}: {}", line.repeats, line.repeats == 1 ? "" : "s",
                       line.view());
        write(category, line.severity, line.level, std::string_view(text.data(), text.size()));
    }

    // Called with the mutex held, or at exit.
    void endBursts(bool all)
    {
        bursts.end(std::chrono::steady_clock::now(), all, [this](const Bursts::Line& line) { tell(line); });
    }

    void emit(const std::string& category, LogSeverity severity, int level, std::string_view text)
    {
        const auto now = std::chrono::steady_clock::now();
        const Bursts::Verdict verdict = bursts.judge(category, severity, level, text, now);
        if (verdict == Bursts::Count)
            return;
        if (verdict == Bursts::New) {
            const auto told = [this](const Bursts::Line& line) { tell(line); };
            bursts.end(now, false, told);
            bursts.track(category, severity, level, text, now, told);
        }
        write(category, severity, level, text);
    }
};

Logger* TheLogger = nullptr;

// Bursts still being counted at exit are told on stderr; a sink may be gone by then.
void tellBurstsAtExit()
{
    std::lock_guard<std::mutex> lock(TheLogger->mutex);
    if (!TheLogger->sink)
        TheLogger->endBursts(true);
}

// Never destroyed: an audio thread may still log while the process exits,
// until the device library's exit-time close has stopped it.
Logger& logger()
{
    static Logger* const instance = [] {
        TheLogger = new Logger;
        std::atexit(tellBurstsAtExit);
        return TheLogger;
    }();
    return *instance;
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
    // The old sink hears the end of its bursts; the new one starts afresh.
    log.endBursts(true);
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
