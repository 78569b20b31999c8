#include "config/detail/bounded_file.h"

#include "config/config_error.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace ps_ns::detail
{

namespace
{

[[noreturn]] void Refuse(const std::string& path, const std::string& why)
{
    throw ConfigError(path, ConfigProblem{1, "cannot read the file: " + why});
}

[[noreturn]] void RefuseForErrno(const std::string& path)
{
    Refuse(path, std::generic_category().message(errno));
}

class Descriptor
{
public:
    /// Not blocking: opening a FIFO that nobody writes to would wait for a writer.
    explicit Descriptor(const std::string& path)
        : m_fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY))
    {
        if (m_fd < 0)
        {
            RefuseForErrno(path);
        }
    }
    ~Descriptor() { ::close(m_fd); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int Get() const noexcept { return m_fd; }

private:
    const int m_fd;
};

void RequireRegularFile(const std::string& path, int fd)
{
    struct stat status = {};
    if (::fstat(fd, &status) != 0)
    {
        RefuseForErrno(path);
    }
    if (S_ISDIR(status.st_mode))
    {
        Refuse(path, "it is a directory");
    }
    if (!S_ISREG(status.st_mode))
    {
        Refuse(path, "it is not a regular file");
    }
}

} // namespace

std::string ReadBounded(const std::string& path, std::size_t limit)
{
    if (path.find('\0') != std::string::npos)
    {
        Refuse(path.substr(0, path.find('\0')), "its name has a NUL byte");
    }
    const Descriptor file(path);
    RequireRegularFile(path, file.Get());
    std::string text;
    while (text.size() < limit)
    {
        constexpr std::size_t kChunkBytes = 64 * 1024;
        const std::size_t had = text.size();
        text.resize(std::min(limit, had + kChunkBytes));
        const ssize_t got = ::read(file.Get(), text.data() + had, text.size() - had);
        if (got < 0 && errno != EINTR)
        {
            RefuseForErrno(path);
        }
        text.resize(had + static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
        if (got == 0)
        {
            break;
        }
    }
    return text;
}

} // namespace ps_ns::detail
