#include "mds/byte_stream.h"

#include <zstd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <vector>

namespace ps_ns
{
namespace
{

struct FileCloser
{
    void operator()(std::FILE* file) const noexcept { std::fclose(file); }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

FilePtr OpenFile(const std::string& path)
{
    FilePtr file(std::fopen(path.c_str(), "rb"));
    if (!file)
    {
        throw std::runtime_error(path + ": cannot be opened: " + std::strerror(errno));
    }
    return file;
}

class PlainStream final : public ByteStream
{
public:
    explicit PlainStream(const std::string& path)
        : m_file(OpenFile(path))
    {
    }

    std::size_t Read(char* to, std::size_t room) override
    {
        const std::size_t got = std::fread(to, 1, room, m_file.get());
        m_offset += got;
        if (got == 0 && std::ferror(m_file.get()) != 0)
        {
            m_failure = "cannot be read at byte " + std::to_string(m_offset) + ": " + std::strerror(errno);
        }
        return got;
    }

private:
    const FilePtr m_file;
    std::uint64_t m_offset = 0;
};

struct DecoderDeleter
{
    void operator()(ZSTD_DCtx* decoder) const noexcept { ZSTD_freeDCtx(decoder); }
};

class ZstdStream final : public ByteStream
{
public:
    explicit ZstdStream(const std::string& path)
        : m_file(path)
        , m_decoder(ZSTD_createDCtx())
        , m_buffer(ZSTD_DStreamInSize())
    {
        if (!m_decoder)
        {
            throw std::runtime_error(path + ": no memory for the decompressor");
        }
    }

    std::size_t Read(char* to, std::size_t room) override
    {
        ZSTD_outBuffer out{to, room, 0};
        while (out.pos == 0 && m_failure.empty())
        {
            // Input that is used up may still owe output; then the decoder gets an empty buffer and goes on.
            if (m_in.pos == m_in.size && !m_owesOutput && !Refill())
            {
                break;
            }
            const std::size_t before = m_in.pos;
            const std::size_t hint = ZSTD_decompressStream(m_decoder.get(), &out, &m_in);
            m_offset += m_in.pos - before;
            if (ZSTD_isError(hint) != 0)
            {
                Fail(std::string("the zstd frame is corrupt (") + ZSTD_getErrorName(hint) + ")");
                break;
            }
            m_insideFrame = hint != 0;
            m_owesOutput = m_insideFrame && out.pos == out.size;
        }
        return out.pos;
    }

private:
    bool Refill()
    {
        const std::size_t got = m_file.Read(m_buffer.data(), m_buffer.size());
        m_in = {m_buffer.data(), got, 0};
        if (got != 0)
        {
            m_isEmpty = false;
            return true;
        }
        if (!m_file.GetFailure().empty())
        {
            m_failure = m_file.GetFailure();
        }
        else if (m_insideFrame || m_isEmpty)
        {
            Fail("the zstd frame is truncated");
        }
        return false;
    }

    void Fail(const std::string& what) { m_failure = what + " at compressed byte " + std::to_string(m_offset); }

    PlainStream m_file;
    const std::unique_ptr<ZSTD_DCtx, DecoderDeleter> m_decoder;
    std::vector<char> m_buffer;
    ZSTD_inBuffer m_in{nullptr, 0, 0};
    std::uint64_t m_offset = 0; ///< compressed bytes taken
    bool m_insideFrame = false;
    bool m_owesOutput = false;
    bool m_isEmpty = true;
};

} // namespace

std::unique_ptr<ByteStream> OpenByteStream(const std::string& path)
{
    if (path.ends_with(".zst"))
    {
        return std::make_unique<ZstdStream>(path);
    }
    return std::make_unique<PlainStream>(path);
}

} // namespace ps_ns
