#include "logging/sinks.h"

namespace zel::logging
{

void CapturingSink::Write(const Record& record) noexcept
{
    const std::lock_guard lock(m_mutex);
    m_records.push_back({record.level, record.tag, record.decodeType, record.source->GetName(), record.file,
                         record.line, std::string(record.text)});
}

std::vector<CapturedRecord> CapturingSink::GetRecords() const
{
    const std::lock_guard lock(m_mutex);
    return m_records;
}

void CapturingSink::Clear()
{
    const std::lock_guard lock(m_mutex);
    m_records.clear();
}

} // namespace zel::logging
