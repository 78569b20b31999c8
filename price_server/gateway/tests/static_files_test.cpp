#include "static_files.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace ps_ns::gateway
{
namespace
{

class StaticFilesTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        std::string name = (std::filesystem::temp_directory_path() / "page-XXXXXX").string();
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        folder = name;
        Write("index.html", "<!doctype html>" + std::string(2000, ' '));
        Write("assets/index-1a2b.js", "tiny");
        Write("odd.unknown", "x");
    }
    void TearDown() override { std::filesystem::remove_all(folder); }

    void Write(const std::string& name, const std::string& content) const
    {
        std::filesystem::create_directories((folder / name).parent_path());
        std::ofstream(folder / name) << content;
    }

    std::filesystem::path folder;
};

TEST_F(StaticFilesTest, AreServedUnderTheirPaths)
{
    const StaticFiles files(folder.string());
    EXPECT_FALSE(files.IsEmpty());
    ASSERT_NE(files.Find("/"), nullptr);
    EXPECT_EQ(files.Find("/")->content, files.Find("/index.html")->content);
    EXPECT_EQ(files.Find("/")->type, "text/html; charset=utf-8");
    EXPECT_EQ(files.Find("/assets/index-1a2b.js")->type, "text/javascript; charset=utf-8");
    EXPECT_EQ(files.Find("/odd.unknown")->type, "application/octet-stream");
}

TEST_F(StaticFilesTest, AreImmutableOnlyBelowAssets)
{
    const StaticFiles files(folder.string());
    EXPECT_TRUE(files.Find("/assets/index-1a2b.js")->isImmutable);
    EXPECT_FALSE(files.Find("/index.html")->isImmutable);
}

TEST_F(StaticFilesTest, ArePackedWhereThatMakesThemSmaller)
{
    const StaticFiles files(folder.string());
    EXPECT_LT(files.Find("/index.html")->gzipped.size(), 200U);
    EXPECT_TRUE(files.Find("/index.html")->gzipped.starts_with("\x1F\x8B"));
    EXPECT_TRUE(files.Find("/assets/index-1a2b.js")->gzipped.empty());
}

TEST_F(StaticFilesTest, HaveTagsThatDifferWithTheirContent)
{
    const StaticFiles files(folder.string());
    EXPECT_NE(files.Find("/index.html")->etag, files.Find("/odd.unknown")->etag);
    EXPECT_EQ(files.Find("/index.html")->etag, files.Find("/")->etag);
    EXPECT_EQ(files.Find("/")->etag.front(), '"');
}

TEST_F(StaticFilesTest, AreNotFoundOutsideTheirFolder)
{
    std::ofstream(folder.string() + "-secret") << "secret";
    Write("inside/x", "y");
    std::filesystem::create_directory_symlink("/etc", folder / "inside" / "link");
    const StaticFiles files(folder.string());
    const std::string name = folder.filename().string();
    for (const std::string& path :
         {"/../" + name + "-secret", std::string("/.."), std::string("/../../etc/passwd"), std::string("//index.html"),
          std::string("/./index.html"), std::string("/assets/../index.html"), std::string("/inside/link/passwd"),
          std::string(""), std::string("index.html"), std::string("/assets"), std::string("/assets/")})
    {
        EXPECT_EQ(files.Find(path), nullptr) << path;
    }
    std::filesystem::remove(folder.string() + "-secret");
}

TEST_F(StaticFilesTest, AreNoneWhenThereIsNoFolder)
{
    EXPECT_TRUE(StaticFiles("").IsEmpty());
    EXPECT_TRUE(StaticFiles((folder / "nothing").string()).IsEmpty());
    EXPECT_TRUE(StaticFiles((folder / "index.html").string()).IsEmpty());
}

} // namespace
} // namespace ps_ns::gateway
