#pragma once

#include <cstddef>
#include <memory>
#include <string>

namespace ps_ns
{

/// The bytes of a file, read once from front to back, with fixed buffers whatever the file's size is.
///
/// Threads: one at a time.
class ByteStream
{
public:
    virtual ~ByteStream() = default;

    /// Puts up to `room` bytes at `to` and returns their number. 0: the file ends here, or GetFailure() says why it
    /// cannot be read further; what was returned before is good.
    virtual std::size_t Read(char* to, std::size_t room) = 0;

    /// Empty unless reading failed: what went wrong and at which byte of the file.
    const std::string& GetFailure() const noexcept { return m_failure; }

protected:
    std::string m_failure;
};

/// Opens a file; a name that ends in ".zst" is decompressed. Throws std::runtime_error, naming the path, when it cannot
/// be opened.
std::unique_ptr<ByteStream> OpenByteStream(const std::string& path);

} // namespace ps_ns
