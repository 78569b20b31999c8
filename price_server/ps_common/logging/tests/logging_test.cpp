#include "logging/logging.h"

#include "logging/sinks.h"

#include <gtest/gtest.h>

#include <latch>
#include <thread>

using namespace zel::logging;

namespace
{

/// German figures without asking the machine for a locale: 1.234,5.
class GermanNumbers : public std::numpunct<char>
{
protected:
    char do_thousands_sep() const override { return '.'; }
    char do_decimal_point() const override { return ','; }
    std::string do_grouping() const override { return "\3"; }
};

/// Captures what the process logs, and leaves the logger as it was found.
class LoggerTest : public testing::Test
{
protected:
    LoggerTest() { Logger::SetSink(m_sink); }
    ~LoggerTest() override
    {
        std::locale::global(m_locale);
        g_minLogLevel = m_level;
        Logger::SetSink(nullptr);
    }

    CapturedRecord GetOnlyRecord() const
    {
        const auto records = m_sink->GetRecords();
        EXPECT_EQ(records.size(), 1U);
        return records.size() == 1 ? records.front() : CapturedRecord{};
    }

    const std::shared_ptr<CapturingSink> m_sink = std::make_shared<CapturingSink>();
    const std::shared_ptr<const Source> m_source = std::make_shared<const Source>("unit");
    const int m_level = g_minLogLevel;
    const std::locale m_locale;
};

} // namespace

TEST_F(LoggerTest, StartsWithMinimumLevelTen)
{
    EXPECT_EQ(m_level, 10);
    EXPECT_FALSE(IsEnabled(9));
    EXPECT_TRUE(IsEnabled(10));
}

TEST_F(LoggerTest, DoesNotBuildATextBelowTheLevel)
{
    int built = 0;
    const auto build = [&](std::ostream& text) { text << ++built; };
    g_minLogLevel = 20;
    Log(19, m_source, build);
    Log(0, m_source, build);
    EXPECT_EQ(built, 0);
    EXPECT_TRUE(m_sink->GetRecords().empty());
    Log(20, m_source, build);
    EXPECT_EQ(built, 1);
    EXPECT_EQ(GetOnlyRecord().text, "1");
}

TEST_F(LoggerTest, GivesARecordLevelTagDecodeTypeSourceAndText)
{
    Log({20, 0}, m_source, [](std::ostream& text) { text << "no market " << 7; });
    const CapturedRecord record = GetOnlyRecord();
    EXPECT_EQ(record.level, 20);
    EXPECT_EQ(record.tag, 0U);
    EXPECT_EQ(record.decodeType, 1U);
    EXPECT_EQ(record.source, "unit");
    EXPECT_EQ(record.text, "no market 7");
}

TEST_F(LoggerTest, UsesTagThirteenUnlessTold)
{
    Log(30, m_source, [](std::ostream& text) { text << "x"; });
    EXPECT_EQ(GetOnlyRecord().tag, 13U);
}

TEST_F(LoggerTest, NamesTheCallersFileAndLineAsTheRepositoryDoes)
{
    const int line = __LINE__ + 1;
    Log(10, m_source, [](std::ostream& text) { text << "here"; });
    EXPECT_EQ(GetOnlyRecord().line, line);
    EXPECT_EQ(GetOnlyRecord().file, "price_server/ps_common/logging/tests/logging_test.cpp");
}

TEST_F(LoggerTest, PrintsPlainNumbersUnderAnotherGlobalLocale)
{
    std::locale::global(std::locale(std::locale::classic(), new GermanNumbers));
    std::ostringstream german;
    german << 1234567;
    ASSERT_EQ(german.str(), "1.234.567") << "the locale of the test has no effect";
    Log(10, m_source, [](std::ostream& text) { text << 1234567 << ' ' << 2.5; });
    EXPECT_EQ(GetOnlyRecord().text, "1234567 2.5");
}

TEST_F(LoggerTest, LetsAnExceptionOfTheBuilderPassAndWritesNothing)
{
    EXPECT_THROW(Log(30, m_source, [](std::ostream&) { throw std::runtime_error("broken"); }), std::runtime_error);
    EXPECT_TRUE(m_sink->GetRecords().empty());
}

TEST_F(LoggerTest, StampsARecordWithTheTimeAndThreadThatMadeIt)
{
    const auto before = std::chrono::system_clock::now();
    Record here{10, 13, 1, m_source.get(), "f", 1, "x"};
    Record elsewhere = here;
    std::thread([&] { elsewhere = {10, 13, 1, m_source.get(), "f", 1, "x"}; }).join();
    EXPECT_GE(here.time, before);
    EXPECT_LE(here.time, std::chrono::system_clock::now());
    EXPECT_EQ(here.thread, GetThreadNumber());
    EXPECT_NE(elsewhere.thread, here.thread);
}

TEST_F(LoggerTest, ReturnsThePreviousSinkWhenItIsReplaced)
{
    const auto second = std::make_shared<CapturingSink>();
    EXPECT_EQ(Logger::SetSink(second), m_sink);
    Log(10, m_source, [](std::ostream& text) { text << "to the second"; });
    EXPECT_TRUE(m_sink->GetRecords().empty());
    EXPECT_EQ(second->GetRecords().size(), 1U);
    EXPECT_EQ(Logger::SetSink(m_sink), second);
}

TEST_F(LoggerTest, WritesTextToStandardErrorWithoutASink)
{
    Logger::SetSink(nullptr);
    testing::internal::CaptureStderr();
    Log(20, m_source, [](std::ostream& text) { text << "to the terminal"; });
    Logger::Flush();
    const std::string written = testing::internal::GetCapturedStderr();
    EXPECT_NE(written.find("WARN  [unit] to the terminal (price_server/"), std::string::npos) << written;
    EXPECT_EQ(written.back(), '\n');
}

TEST_F(LoggerTest, ForgetsCapturedRecordsOnClear)
{
    Log(10, m_source, [](std::ostream& text) { text << "x"; });
    m_sink->Clear();
    EXPECT_TRUE(m_sink->GetRecords().empty());
}

TEST_F(LoggerTest, GivesEveryRecordToOneSinkWhileSinksAreSwapped)
{
    constexpr int kWriters = 3;
    constexpr int kRecords = 300;
    const auto other = std::make_shared<CapturingSink>();
    std::latch start(kWriters + 1);
    std::vector<std::thread> threads;
    threads.reserve(kWriters);
    for (int writer = 0; writer < kWriters; ++writer)
    {
        threads.emplace_back(
            [&]
            {
                start.arrive_and_wait();
                for (int i = 0; i < kRecords; ++i)
                {
                    Log(10, m_source, [i](std::ostream& text) { text << i; });
                }
            });
    }
    start.arrive_and_wait();
    for (int i = 0; i < kRecords; ++i)
    {
        Logger::SetSink(i % 2 == 0 ? other : m_sink);
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ(m_sink->GetRecords().size() + other->GetRecords().size(), std::size_t{kWriters} * kRecords);
}
