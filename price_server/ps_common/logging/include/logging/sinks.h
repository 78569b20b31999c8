#pragma once

/// The sinks that ship with the server; all but the capturing one write through spdlog.

#include "logging/logging.h"

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

namespace zel::logging
{

enum class Format
{
    /// 2026-01-31T12:00:00.123456Z INFO  [source] text (file:line tag=13), the time in UTC. Control characters print
    /// escaped (\n, \r, \x1b), except the tab.
    Text,
    /// One JSON object a line: time, level, severity, tag, decode_type, source, file, line, thread, text. A byte that
    /// is not UTF-8 becomes U+FFFD.
    JsonLines
};

/// Writes to standard error, or appends to a file, one line for each record. `path` empty means standard error. Folders
/// of the path that are missing are made. A file is flushed after each record of level 30 or more, and by Flush.
/// Throws std::runtime_error, naming the path, when the file cannot be opened. When a record cannot be written later
/// (the disk is full), it goes to standard error with the reason.
std::shared_ptr<ISink> MakeStreamSink(Format format, const std::string& path = {});

/// Takes records without waiting for the destination: they are copied into a bounded queue that one background thread
/// writes to `next`. When the queue is full the record is dropped and counted; the next record that finds room is
/// preceded by one of level 30 that says how many were lost. The destructor writes what is queued, then reports what
/// was lost since. `next` is flushed whenever the queue has run empty.
class AsyncSink final : public ISink
{
public:
    /// `capacity` is in records, beside the one that is being written. Throws std::invalid_argument when it is 0 or
    /// when `next` is null.
    AsyncSink(std::shared_ptr<ISink> next, std::size_t capacity);
    ~AsyncSink() override;

    void Write(const Record& record) noexcept override;
    void Flush() noexcept override;

    /// Records dropped since the start because the queue was full.
    std::uint64_t GetDroppedCount() const noexcept;

private:
    class Impl;
    std::unique_ptr<Impl> m_impl;
};

/// A record with its own copies of everything: what CapturingSink keeps.
struct CapturedRecord
{
    int level;
    unsigned tag;
    unsigned decodeType;
    std::string source;
    std::string file;
    int line;
    std::string text;
};

/// Keeps every record, for tests.
class CapturingSink final : public ISink
{
public:
    void Write(const Record& record) noexcept override;
    std::vector<CapturedRecord> GetRecords() const;
    void Clear();

private:
    mutable std::mutex m_mutex;
    std::vector<CapturedRecord> m_records; ///< under m_mutex
};

} // namespace zel::logging
