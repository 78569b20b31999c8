#include "server/output_writer.h"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <thread>
#include <unistd.h>

namespace ps_ns
{
namespace
{

using namespace std::chrono_literals;

class OutputWriterTest : public ::testing::Test
{
protected:
    OutputWriterTest()
    {
        std::signal(SIGPIPE, SIG_IGN);
        EXPECT_EQ(::pipe(m_ends.data()), 0);
    }
    ~OutputWriterTest() override
    {
        CloseReadEnd();
        CloseWriteEnd();
    }

    int GetWriteEnd() const { return m_ends[1]; }
    void CloseReadEnd() { Close(m_ends[0]); }
    void CloseWriteEnd() { Close(m_ends[1]); }

    /// Until the write end is closed.
    std::string ReadAll() const
    {
        std::string text;
        std::array<char, 65536> buffer{};
        for (ssize_t count = 0; (count = ::read(m_ends[0], buffer.data(), buffer.size())) > 0;)
        {
            text.append(buffer.data(), static_cast<std::size_t>(count));
        }
        return text;
    }

private:
    static void Close(int& descriptor)
    {
        if (descriptor >= 0)
        {
            ::close(descriptor);
        }
        descriptor = -1;
    }

    std::array<int, 2> m_ends{-1, -1};
};

TEST_F(OutputWriterTest, WritesEverythingInItsOrder)
{
    std::string expected;
    std::string read;
    std::thread reader([&] { read = ReadAll(); });
    {
        OutputWriter writer(GetWriteEnd(), 1000, OutputWriter::WhenFull::Wait);
        for (int i = 0; i < 20000; ++i)
        {
            const std::string line = std::to_string(i) + "\n";
            expected += line;
            EXPECT_TRUE(writer.Write(line));
        }
        writer.Close(60s);
        EXPECT_EQ(writer.GetDroppedCount(), 0U);
        EXPECT_EQ(writer.GetError(), 0);
        EXPECT_TRUE(writer.IsIdle());
    }
    CloseWriteEnd();
    reader.join();
    EXPECT_EQ(read, expected);
}

TEST_F(OutputWriterTest, DropsAndCountsWhatAReaderWhoDoesNotReadHasNoRoomFor)
{
    OutputWriter writer(GetWriteEnd(), 10'000, OutputWriter::WhenFull::Drop);
    const std::string line(1000, 'x');
    unsigned taken = 0;
    for (int i = 0; i < 1000; ++i)
    {
        taken += writer.Write(line) ? 1U : 0U;
    }
    EXPECT_EQ(writer.GetDroppedCount(), 1000 - taken);
    EXPECT_GT(writer.GetDroppedCount(), 0U);
    writer.Close(0ms); // returns although nobody reads
}

TEST_F(OutputWriterTest, LetsGoOfWhoWaitsForAReader)
{
    OutputWriter writer(GetWriteEnd(), 10'000, OutputWriter::WhenFull::Wait);
    std::thread waiter(
        [&]
        {
            while (writer.Write(std::string(1000, 'x')))
            {
            }
        });
    writer.Release();
    waiter.join();
    EXPECT_GT(writer.GetDroppedCount(), 0U);
}

TEST_F(OutputWriterTest, NoticesAReaderThatHasGone)
{
    CloseReadEnd();
    OutputWriter writer(GetWriteEnd(), 1000, OutputWriter::WhenFull::Wait);
    while (writer.Write("text"))
    {
    }
    EXPECT_EQ(writer.GetError(), EPIPE);
    EXPECT_FALSE(writer.Write("more"));
}

TEST_F(OutputWriterTest, TakesATextThatIsLongerThanItsQueue)
{
    std::string read;
    std::thread reader([&] { read = ReadAll(); });
    const std::string text(300'000, 'x');
    OutputWriter writer(GetWriteEnd(), 10, OutputWriter::WhenFull::Wait);
    EXPECT_TRUE(writer.Write(text));
    writer.Close(60s);
    CloseWriteEnd();
    reader.join();
    EXPECT_EQ(read, text);
}

TEST_F(OutputWriterTest, RefusesTextsOnceItIsClosed)
{
    OutputWriter writer(GetWriteEnd(), 10, OutputWriter::WhenFull::Wait);
    writer.Close(1s);
    EXPECT_FALSE(writer.Write("text"));
    writer.Close(1s);
}

} // namespace
} // namespace ps_ns
