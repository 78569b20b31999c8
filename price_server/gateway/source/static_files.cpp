#include "static_files.h"

#include <zlib.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <stdexcept>
#include <utility>

namespace ps_ns::gateway
{
namespace
{

std::string GetType(const std::string& extension)
{
    static constexpr std::array<std::pair<const char*, const char*>, 9> kTypes{
        {{".html", "text/html; charset=utf-8"},
         {".js", "text/javascript; charset=utf-8"},
         {".css", "text/css; charset=utf-8"},
         {".json", "application/json"},
         {".svg", "image/svg+xml"},
         {".png", "image/png"},
         {".ico", "image/x-icon"},
         {".woff2", "font/woff2"},
         {".txt", "text/plain; charset=utf-8"}}};
    const auto found =
        std::find_if(kTypes.begin(), kTypes.end(), [&](const auto& type) { return extension == type.first; });
    return found == kTypes.end() ? "application/octet-stream" : found->second;
}

std::string Gzip(const std::string& content)
{
    z_stream stream{};
    constexpr int kGzipWindow = 15 + 16;
    constexpr int kMemory = 9;
    if (deflateInit2(&stream, Z_BEST_COMPRESSION, Z_DEFLATED, kGzipWindow, kMemory, Z_DEFAULT_STRATEGY) != Z_OK)
    {
        return "";
    }
    std::string packed(deflateBound(&stream, static_cast<uLong>(content.size())) + 64, '\0');
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(content.data())); // NOLINT: zlib does not write there
    stream.avail_in = static_cast<uInt>(content.size());
    stream.next_out = reinterpret_cast<Bytef*>(packed.data());
    stream.avail_out = static_cast<uInt>(packed.size());
    const int status = deflate(&stream, Z_FINISH);
    packed.resize(stream.total_out);
    deflateEnd(&stream);
    return status == Z_STREAM_END && packed.size() < content.size() ? packed : "";
}

std::string Read(const std::filesystem::path& path)
{
    std::ifstream file(path, std::ios::binary);
    std::string content{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    if (!file.good() && !file.eof())
    {
        throw std::runtime_error(path.string() + ": cannot be read");
    }
    return content;
}

} // namespace

StaticFiles::StaticFiles(const std::string& folder)
{
    namespace fs = std::filesystem;
    if (folder.empty() || !fs::is_directory(folder))
    {
        return;
    }
    for (const auto& entry : fs::recursive_directory_iterator(folder))
    {
        if (!entry.is_regular_file())
        {
            continue;
        }
        StaticFile file;
        file.content = Read(entry.path());
        file.gzipped = Gzip(file.content);
        file.type = GetType(entry.path().extension().string());
        const std::string hash = std::to_string(std::hash<std::string>()(file.content));
        file.etag = '"' + hash + '"';
        file.gzippedEtag = '"' + hash + "-gzip\"";
        const std::string path = "/" + fs::relative(entry.path(), folder).generic_string();
        file.isImmutable = path.starts_with("/assets/");
        m_files.emplace(path, std::move(file));
    }
    if (const auto index = m_files.find("/index.html"); index != m_files.end())
    {
        m_files.emplace("/", index->second);
    }
}

const StaticFile* StaticFiles::Find(std::string_view path) const
{
    const auto found = m_files.find(path);
    return found == m_files.end() ? nullptr : &found->second;
}

} // namespace ps_ns::gateway
