#include "zel/password_file.h"

#include "test_support.h"

#include <gtest/gtest.h>

namespace ps_ns
{
namespace
{

TEST(PasswordFile, IsItsFirstLineWithoutTheBlanksBehindIt)
{
    const testing_ns::TemporaryFolder folder;
    for (const char* const text : {"a secret", "a secret\n", "a secret\r\n", "a secret \t\r\nanother line\n"})
    {
        EXPECT_EQ(ReadPasswordFile(folder.Write("password", text)), "a secret");
    }
    EXPECT_EQ(ReadPasswordFile(folder.Write("password", " #\"$'\\\n")), " #\"$'\\") << "everything else is of it";
}

TEST(PasswordFile, IsRefusedByNameWhenThereIsNoPassword)
{
    const testing_ns::TemporaryFolder folder;
    for (const char* const text : {"", "\n", " \r\n", "\nin the second line\n"})
    {
        EXPECT_THROW(ReadPasswordFile(folder.Write("password", text)), std::runtime_error);
    }
    try
    {
        ReadPasswordFile(folder.GetPath("no such file"));
        FAIL() << "it was read";
    }
    catch (const std::runtime_error& error)
    {
        EXPECT_NE(std::string(error.what()).find("no such file"), std::string::npos);
    }
}

} // namespace
} // namespace ps_ns
