#include "config/detail/bounded_file.h"

#include "config/config_error.h"
#include "config_test_kit.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

using namespace ps_ns;
using detail::ReadBounded;

namespace
{

std::string Refusal(const std::string& path)
{
    try
    {
        ReadBounded(path, 100);
        return "accepted";
    }
    catch (const ConfigError& error)
    {
        return std::string(error.what()).substr(path.size());
    }
}

} // namespace

TEST(BoundedFile, ReadsAWholeFileWithinTheLimit)
{
    const TemporaryFolder folder;
    EXPECT_EQ(ReadBounded(folder.Write("a", "text\n"), 5), "text\n");
    EXPECT_EQ(ReadBounded(folder.Write("empty", ""), 5), "");
    const std::string large(200'000, 'x');
    EXPECT_EQ(ReadBounded(folder.Write("large", large), 1'000'000), large);
}

TEST(BoundedFile, ReadsNoMoreThanTheLimit)
{
    const TemporaryFolder folder;
    EXPECT_EQ(ReadBounded(folder.Write("a", "0123456789"), 4), "0123");
    const std::string hole = folder.Write("hole", "");
    std::filesystem::resize_file(hole, 100 * 1024 * 1024);
    EXPECT_EQ(ReadBounded(hole, 100'001).size(), 100'001U);
}

TEST(BoundedFile, ReadsAFileThatDoesNotTellItsSize)
{
    EXPECT_FALSE(ReadBounded("/proc/self/status", 100'000).empty());
}

TEST(BoundedFile, RefusesADirectory)
{
    const TemporaryFolder folder;
    EXPECT_EQ(Refusal(folder.GetPath("")), ":1: cannot read the file: it is a directory");
}

TEST(BoundedFile, RefusesAFifoWithoutWaitingForAWriter)
{
    const TemporaryFolder folder;
    const std::string fifo = folder.GetPath("fifo");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_EQ(Refusal(fifo), ":1: cannot read the file: it is not a regular file");
}

TEST(BoundedFile, RefusesADeviceThatNeverEnds)
{
    EXPECT_EQ(Refusal("/dev/zero"), ":1: cannot read the file: it is not a regular file");
}

TEST(BoundedFile, RefusesAFileWhoseReadFails)
{
    EXPECT_EQ(Refusal("/proc/self/mem"), ":1: cannot read the file: Input/output error");
}

TEST(BoundedFile, RefusesAFileThatItMayNotRead)
{
    const TemporaryFolder folder;
    const std::string path = folder.Write("secret", "x");
    ASSERT_EQ(::chmod(path.c_str(), 0), 0);
    // The superuser may read everything, so it becomes somebody else for the time of the attempt.
    constexpr uid_t kNobody = 65534;
    const bool isSuperuser = ::geteuid() == 0;
    ASSERT_TRUE(!isSuperuser || ::seteuid(kNobody) == 0);
    const std::string refusal = Refusal(path);
    ASSERT_TRUE(!isSuperuser || ::seteuid(0) == 0);
    EXPECT_EQ(refusal, ":1: cannot read the file: Permission denied");
}

TEST(BoundedFile, RefusesAMissingFileAndABrokenLink)
{
    const TemporaryFolder folder;
    EXPECT_EQ(Refusal(folder.GetPath("none")), ":1: cannot read the file: No such file or directory");
    std::filesystem::create_symlink("loop", folder.GetPath("loop"));
    EXPECT_EQ(Refusal(folder.GetPath("loop")), ":1: cannot read the file: Too many levels of symbolic links");
}

TEST(BoundedFile, RefusesANameWithANulByte)
{
    EXPECT_THROW(ReadBounded(std::string("/etc/hostname\0.xml", 18), 10), ConfigError);
}
