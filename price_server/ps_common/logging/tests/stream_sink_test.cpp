#include "logging/sinks.h"

#include <boost/json/parse.hpp>
#include <gtest/gtest.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <latch>
#include <set>
#include <stdexcept>
#include <thread>

#include <unistd.h>

using namespace zel::logging;
using std::chrono::microseconds;
using std::chrono::sys_days;
using std::chrono::system_clock;

namespace
{

/// A file of its own, gone with the test.
class StreamSinkTest : public testing::Test
{
protected:
    StreamSinkTest() { std::filesystem::create_directories(m_folder); }
    ~StreamSinkTest() override { std::filesystem::remove_all(m_folder); }

    Record MakeRecord(int level, std::string_view text) const
    {
        const system_clock::time_point time = sys_days(std::chrono::year(2026) / 1 / 31) + std::chrono::hours(12);
        return {level, 13, 1, &m_source, "price_server/a.cpp", 42, text, time + microseconds(1234), 99};
    }

    std::vector<std::string> ReadLines() const
    {
        std::ifstream file(m_path);
        std::vector<std::string> lines;
        for (std::string line; std::getline(file, line);)
        {
            lines.push_back(line);
        }
        return lines;
    }

    std::string WriteOne(Format format, const Record& record) const
    {
        MakeStreamSink(format, m_path)->Write(record);
        const auto lines = ReadLines();
        EXPECT_EQ(lines.size(), 1U);
        return lines.empty() ? std::string() : lines.front();
    }

    std::string WriteJsonText(std::string_view text) const
    {
        const std::string line = WriteOne(Format::JsonLines, MakeRecord(10, text));
        return std::string(boost::json::parse(line).at("text").as_string());
    }

    const Source m_source{"unit"};
    const std::filesystem::path m_folder =
        std::filesystem::path(testing::TempDir()) / ("stream_sink_" + std::to_string(::getpid()) + "_" +
                                                     testing::UnitTest::GetInstance()->current_test_info()->name());
    const std::string m_path = m_folder / "log";
};

} // namespace

TEST_F(StreamSinkTest, WritesTimeLevelSourceTextPlaceAndTagOnOneLine)
{
    EXPECT_EQ(WriteOne(Format::Text, MakeRecord(10, "hello")),
              "2026-01-31T12:00:00.001234Z INFO  [unit] hello (price_server/a.cpp:42 tag=13)");
}

TEST_F(StreamSinkTest, PrintsTimesBeforeTheEpoch)
{
    Record record = MakeRecord(10, "old");
    record.time = system_clock::time_point(microseconds(-1));
    EXPECT_EQ(WriteOne(Format::Text, record).substr(0, 27), "1969-12-31T23:59:59.999999Z");
}

TEST_F(StreamSinkTest, NamesLevelsByRange)
{
    const auto sink = MakeStreamSink(Format::Text, m_path);
    const std::vector<std::pair<int, std::string>> names = {{-5, "DEBUG"}, {0, "DEBUG"},  {9, "DEBUG"},
                                                            {10, "INFO "}, {19, "INFO "}, {20, "WARN "},
                                                            {29, "WARN "}, {30, "ERROR"}, {31, "ERROR"}};
    for (const auto& [level, name] : names)
    {
        sink->Write(MakeRecord(level, "x"));
    }
    sink->Flush();
    const auto lines = ReadLines();
    ASSERT_EQ(lines.size(), names.size());
    for (std::size_t i = 0; i < names.size(); ++i)
    {
        EXPECT_EQ(lines[i].substr(28, 6), names[i].second + " ") << "level " << names[i].first;
    }
}

TEST_F(StreamSinkTest, KeepsARecordWithLineBreaksOnOneLine)
{
    const std::string text("a\nb\r\nc\x1b[31m\0\td", 14);
    const std::string line = WriteOne(Format::Text, MakeRecord(10, text));
    EXPECT_NE(line.find("a\\nb\\r\\nc\\x1b[31m\\x00\td ("), std::string::npos) << line;
}

TEST_F(StreamSinkTest, KeepsASourceWithALineBreakOnOneLine)
{
    const Source source("two\nlines");
    Record record = MakeRecord(10, "x");
    record.source = &source;
    EXPECT_NE(WriteOne(Format::Text, record).find("[two\\nlines] x"), std::string::npos);
}

TEST_F(StreamSinkTest, WritesOneJsonObjectWithAllFields)
{
    const auto object =
        boost::json::parse(WriteOne(Format::JsonLines, MakeRecord(20, "say \"no\"\nor \\"))).as_object();
    EXPECT_EQ(object.size(), 10U);
    EXPECT_EQ(object.at("time"), "2026-01-31T12:00:00.001234Z");
    EXPECT_EQ(object.at("level"), 20);
    EXPECT_EQ(object.at("severity"), "WARN");
    EXPECT_EQ(object.at("tag"), 13);
    EXPECT_EQ(object.at("decode_type"), 1);
    EXPECT_EQ(object.at("source"), "unit");
    EXPECT_EQ(object.at("file"), "price_server/a.cpp");
    EXPECT_EQ(object.at("line"), 42);
    EXPECT_EQ(object.at("thread"), 99);
    EXPECT_EQ(object.at("text"), "say \"no\"\nor \\");
}

TEST_F(StreamSinkTest, LeavesValidUtf8AsItIsInJson)
{
    const std::string text =
        "\x7f \xC2\x80 \xC3\xA9 \xE0\xA0\x80 \xED\x9F\xBF \xEE\x80\x80 \xF0\x90\x80\x80 \xF4\x8F\xBF\xBF";
    EXPECT_EQ(WriteJsonText(text), text);
}

TEST_F(StreamSinkTest, ReplacesEveryBadByteInJson)
{
    const std::string bad = "\xEF\xBF\xBD";
    EXPECT_EQ(WriteJsonText("a\xFFz"), "a" + bad + "z") << "no lead byte";
    std::filesystem::remove(m_path);
    EXPECT_EQ(WriteJsonText("\x80"), bad) << "continuation without a lead";
    std::filesystem::remove(m_path);
    EXPECT_EQ(WriteJsonText("\xC0\xAF"), bad + bad) << "overlong";
    std::filesystem::remove(m_path);
    EXPECT_EQ(WriteJsonText("\xE0\x9F\xBF"), bad + bad + bad) << "overlong, three bytes";
    std::filesystem::remove(m_path);
    EXPECT_EQ(WriteJsonText("\xED\xA0\x80"), bad + bad + bad) << "surrogate";
    std::filesystem::remove(m_path);
    EXPECT_EQ(WriteJsonText("\xF4\x90\x80\x80"), bad + bad + bad + bad) << "above U+10FFFF";
    std::filesystem::remove(m_path);
    EXPECT_EQ(WriteJsonText("\xE2\x82"), bad + bad) << "cut off at the end";
    std::filesystem::remove(m_path);
    EXPECT_EQ(WriteJsonText("\xF0\x90\x41\x80"), bad + bad + "A" + bad) << "cut off in the middle";
}

TEST_F(StreamSinkTest, AppendsToAFileThatExists)
{
    MakeStreamSink(Format::Text, m_path)->Write(MakeRecord(10, "first"));
    MakeStreamSink(Format::Text, m_path)->Write(MakeRecord(10, "second"));
    EXPECT_EQ(ReadLines().size(), 2U);
}

TEST_F(StreamSinkTest, FlushesARecordOfLevelThirtyAtOnce)
{
    const auto sink = MakeStreamSink(Format::Text, m_path);
    sink->Write(MakeRecord(30, "alarm"));
    EXPECT_EQ(ReadLines().size(), 1U);
}

TEST_F(StreamSinkTest, NamesThePathThatCannotBeOpened)
{
    try
    {
        MakeStreamSink(Format::Text, m_folder.string());
        FAIL() << "a folder was opened as a file";
    }
    catch (const std::runtime_error& error)
    {
        EXPECT_NE(std::string(error.what()).find("'" + m_folder.string() + "'"), std::string::npos) << error.what();
    }
}

TEST_F(StreamSinkTest, TellsStandardErrorWhatAFullDiskRefused)
{
    const auto sink = MakeStreamSink(Format::Text, "/dev/full");
    testing::internal::CaptureStderr();
    sink->Write(MakeRecord(30, "precious"));
    const std::string written = testing::internal::GetCapturedStderr();
    EXPECT_NE(written.find("log /dev/full: "), std::string::npos) << written;
    EXPECT_NE(written.find("[unit] precious ("), std::string::npos) << written;
}

TEST_F(StreamSinkTest, WritesToStandardErrorWithoutAPath)
{
    const auto sink = MakeStreamSink(Format::JsonLines);
    testing::internal::CaptureStderr();
    sink->Write(MakeRecord(10, "x"));
    sink->Flush();
    EXPECT_EQ(boost::json::parse(testing::internal::GetCapturedStderr()).at("text"), "x");
}

TEST_F(StreamSinkTest, KeepsLinesOfSeveralThreadsApart)
{
    constexpr int kThreads = 4;
    constexpr int kRecords = 100;
    {
        const auto sink = MakeStreamSink(Format::JsonLines, m_path);
        std::latch start(kThreads);
        std::vector<std::thread> threads;
        threads.reserve(kThreads);
        for (int thread = 0; thread < kThreads; ++thread)
        {
            threads.emplace_back(
                [&, thread]
                {
                    start.arrive_and_wait();
                    for (int i = 0; i < kRecords; ++i)
                    {
                        sink->Write(MakeRecord(10, std::to_string(thread) + ":" + std::to_string(i)));
                    }
                });
        }
        for (std::thread& thread : threads)
        {
            thread.join();
        }
    }
    std::set<std::string> texts;
    for (const std::string& line : ReadLines())
    {
        texts.emplace(boost::json::parse(line).at("text").as_string());
    }
    EXPECT_EQ(texts.size(), std::size_t{kThreads} * kRecords);
}
