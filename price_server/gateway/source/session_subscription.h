#pragma once

#include "book_stream.h"
#include "composite_instrument/composite_instrument_def.h"
#include "composite_instrument/composite_subscription_info.h"
#include "gateway/protocol.h"
#include "mailbox.h"
#include "simple_subscription/instrument_directory.h"
#include "subscriber.h"

#include <cstdint>
#include <memory>
#include <string>

namespace ps_ns::gateway
{

/// What a session has subscribed, and how far it is with it.
///
/// Threads: the gateway's I/O thread.
struct SessionSubscription
{
    unsigned long id = 0;
    std::string request;
    CompositeInstrumentDef def;
    DirectoryEntry entry;            ///< what the client has last heard of its instrument
    CompositeSubscriptionInfo scope; ///< with a literal depth
    Kinds kinds;
    std::shared_ptr<BookStream> stream;
    std::shared_ptr<Subscriber> subscriber;
    SharedBook latest;           ///< whatever the client wants or has been sent
    SharedBook sent;             ///< the client's state; null: it needs an image
    std::uint64_t toldEpoch = 0; ///< that the client knows of, with the name that the instrument had then
    SharedBook waiting;          ///< the latest of those that conflate
    SharedFields waitingFields;  ///< the latest of those that conflate
    bool isWaiting = false;      ///< it is among those of its session that wait
    std::uint64_t skipped = 0;   ///< books left out since the one that was sent last
    std::uint64_t lostTrades = 0;
};

} // namespace ps_ns::gateway
