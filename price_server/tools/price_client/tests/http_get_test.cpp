#include "price_client/connection.h"

#include <gtest/gtest.h>

namespace ps_ns::price_client
{
namespace
{

TEST(MakeReplyError, TellsAnswersThatMayBeOtherSoonFromOthers)
{
    const Access access;
    for (const unsigned status : {429U, 502U, 503U, 504U})
    {
        EXPECT_TRUE(MakeReplyError(access, {status, ""}).MayPass()) << status;
    }
    for (const unsigned status : {400U, 401U, 403U, 404U, 421U})
    {
        EXPECT_FALSE(MakeReplyError(access, {status, ""}).MayPass()) << status;
    }
    EXPECT_EQ(
        MakeReplyError(access, {404, R"({"error":{"code":"unknown_instrument","message":"no X"}})"}).GetExitCode(),
        ExitCode::NotFound);
}

} // namespace
} // namespace ps_ns::price_client
