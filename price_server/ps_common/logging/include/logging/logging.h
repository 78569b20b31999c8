#pragma once

/// The server's log. A record has a numeric level, a message tag, a decode type, a source, the file and line that
/// wrote it, and one line of text. Levels in use:
///
/// | level | for |
/// |---|---|
/// | 0 | lifecycle notes |
/// | 10 | requests that succeeded, detail |
/// | 20 | requests that failed |
/// | 30 | refusals and errors that need attention |
///
/// Threads: everything here may be called from any thread.

#include <atomic>
#include <chrono>
#include <functional>
#include <locale>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>

namespace zel::logging
{

/// Records below this level are neither built nor written. 10 unless configured.
extern std::atomic<int> g_minLogLevel;

/// True when a record of this level would be written.
inline bool IsEnabled(int level) noexcept
{
    return g_minLogLevel.load(std::memory_order_relaxed) <= level;
}

/// Who writes: a component of the server. Made once and shared by its records.
class Source
{
public:
    explicit Source(std::string name)
        : m_name(std::move(name))
    {
    }
    const std::string& GetName() const noexcept { return m_name; }

private:
    const std::string m_name;
};

/// Message tag and decode type of an ordinary record.
inline constexpr unsigned kDefaultTag = 13;
inline constexpr unsigned kDefaultDecodeType = 1;

/// The calling thread, as the operating system numbers it.
unsigned long GetThreadNumber() noexcept;

/// One record, as a sink sees it. The pointers are valid during ISink::Write only. It notes its time and its thread
/// where it is made, so they stay true when another thread writes it later.
struct Record
{
    int level;
    unsigned tag;
    unsigned decodeType;
    const Source* source; ///< never null
    const char* file;     ///< as the repository names it
    int line;
    std::string_view text;
    std::chrono::system_clock::time_point time = std::chrono::system_clock::now(); ///< when it was made
    unsigned long thread = GetThreadNumber();                                      ///< who made it
};

/// Where records go. Write may be called from several threads at once; it must not throw and must not log.
class ISink
{
public:
    virtual ~ISink() = default;
    virtual void Write(const Record& record) noexcept = 0;
    /// Returns when everything written before is at its destination.
    virtual void Flush() noexcept {}
};

/// The process's one logger: hands each record to the current sink. It lives until the process ends and is not
/// destroyed: an owner that set an AsyncSink sets null, or flushes, before it leaves main.
class Logger
{
public:
    /// Replaces the sink and returns the previous one; records under way may still reach the previous sink. Null
    /// brings back the sink of a fresh process, which writes text to standard error.
    static std::shared_ptr<ISink> SetSink(std::shared_ptr<ISink> sink);

    /// Hands a record to the sink whatever its level: the caller has asked IsEnabled.
    static void Write(const Record& record) noexcept;

    static void Flush() noexcept;
};

/// Level, tag and place of a record: written as the first argument of Log, it picks up the caller's file and line.
struct At
{
    // NOLINTNEXTLINE(google-explicit-constructor): Log(20, ...) is the usual spelling
    At(int recordLevel, unsigned recordTag = kDefaultTag, const char* callerFile = __builtin_FILE(),
       int callerLine = __builtin_LINE())
        : level(recordLevel)
        , tag(recordTag)
        , file(callerFile)
        , line(callerLine)
    {
    }
    int level;
    unsigned tag;
    const char* file;
    int line;
};

/// Writes one record when its level is admitted; otherwise `build` is not called, so nothing of the text is made.
/// `build` receives a stream in the classic locale: numbers look the same whatever the process's locale is.
///
///     Log(20, source, [&](std::ostream& text) { text << "no market " << marketId; });
template <class Build>
void Log(const At& at, const std::shared_ptr<const Source>& source, Build&& build)
{
    if (!IsEnabled(at.level))
    {
        return;
    }
    std::ostringstream text;
    text.imbue(std::locale::classic());
    build(static_cast<std::ostream&>(text));
    const std::string line = text.str();
    Logger::Write({at.level, at.tag, kDefaultDecodeType, source.get(), at.file, at.line, line});
}

} // namespace zel::logging
