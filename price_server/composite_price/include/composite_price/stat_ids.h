#pragma once

namespace ps_messages_ns
{

/// Statistics of a session, as custom fields carry them.
struct StatPriceID
{
    enum Value : int
    {
        Open = 0,
        High = 1,
        Low = 2,
        Close = 3,
        Settlement = 4,
        Last = 5
    };
};

struct StatQtyID
{
    enum Value : int
    {
        Volume = 0,
        OpenInterest = 1,
        LastQuantity = 2
    };
};

/// Times are ns since 1970 UTC.
struct StatTimeID
{
    enum Value : int
    {
        SessionStart = 0,
        LastTrade = 1
    };
};

} // namespace ps_messages_ns
