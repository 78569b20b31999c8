#pragma once

#include <map>
#include <string>
#include <string_view>

namespace ps_ns::gateway
{

/// A file of the page, as it is served.
struct StaticFile
{
    std::string content;
    std::string gzipped;      ///< empty: it would not be smaller
    std::string type;         ///< for Content-Type
    std::string etag;         ///< of the content
    std::string gzippedEtag;  ///< of what is gzipped: other bytes
    bool isImmutable = false; ///< its name has a hash of its content in it
};

/// The built page, read once: nothing that a request says is ever made into a file name.
///
/// Threads: any; constant once read.
class StaticFiles
{
public:
    /// Reads a folder and what is in it; an empty name, or a folder that is not there: nothing. Throws
    /// std::runtime_error, naming the file, when one cannot be read.
    explicit StaticFiles(const std::string& folder);

    /// By path: "/", "/index.html", "/assets/index-1a2b3c4d.js"; null when there is none.
    const StaticFile* Find(std::string_view path) const;
    bool IsEmpty() const noexcept { return m_files.empty(); }

private:
    std::map<std::string, StaticFile, std::less<>> m_files;
};

} // namespace ps_ns::gateway
