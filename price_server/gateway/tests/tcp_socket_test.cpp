#include "gateway/source/tcp_socket.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>
#include <gtest/gtest.h>
#include <netinet/tcp.h>

#include <string>

namespace ps_ns::gateway
{
namespace
{

using boost::asio::ip::tcp;

class TcpSocketTest : public testing::Test
{
protected:
    TcpSocketTest()
    {
        tcp::acceptor acceptor(m_io, {boost::asio::ip::address_v4::loopback(), 0});
        m_client.connect(acceptor.local_endpoint());
        m_server = acceptor.accept();
    }

    int GetOption(int option)
    {
        int value = 0;
        socklen_t size = sizeof value;
        return ::getsockopt(m_server.native_handle(), IPPROTO_TCP, option, &value, &size) == 0 ? value : -1;
    }

    boost::asio::io_context m_io;
    tcp::socket m_client{m_io};
    tcp::socket m_server{m_io};
};

TEST_F(TcpSocketTest, TakenBytesGrowByWhatTheClientHasReceived)
{
    const std::uint64_t before = GetTakenBytes(m_server.native_handle());
    std::string text(1000, 'x');
    boost::asio::write(m_server, boost::asio::buffer(text));
    boost::asio::read(m_client, boost::asio::buffer(text));
    // An answer carries the acknowledgement for certain.
    boost::asio::write(m_client, boost::asio::buffer(text, 1));
    boost::asio::read(m_server, boost::asio::buffer(text, 1));
    EXPECT_EQ(GetTakenBytes(m_server.native_handle()) - before, 1000U);
}

TEST_F(TcpSocketTest, NothingIsKnownToBeTakenOfWhatIsNoSocket)
{
    EXPECT_EQ(GetTakenBytes(-1), 0U);
}

TEST_F(TcpSocketTest, PausesBeforeSendingAgainAreBoundedAsFarAsTheSystemCan)
{
    constexpr int kLongestPause = 44;
    BoundResendPause(m_server.native_handle());
    const bool canBound = GetOption(kLongestPause) != -1;
    EXPECT_EQ(canBound ? GetOption(kLongestPause) : GetOption(TCP_THIN_LINEAR_TIMEOUTS), canBound ? 1000 : 1);
}

} // namespace
} // namespace ps_ns::gateway
