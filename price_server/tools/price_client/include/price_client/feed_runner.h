#pragma once

#include "price_client/feed.h"
#include "price_client/loop.h"
#include "price_client/options.h"

namespace ps_ns::price_client
{

/// Keeps a feed supplied with sessions until the loop is stopped: once the server has greeted, a session that is lost
/// is followed by another, after a while that grows (BackOff). Throws ClientError when the first one cannot be had, or
/// when trying again would not help.
void RunFeed(Loop& loop, const Access& access, Feed& feed, const Feed::Talk& talk);

} // namespace ps_ns::price_client
