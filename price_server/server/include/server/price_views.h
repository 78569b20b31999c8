#pragma once

#include "server/ladder.h"
#include "server/output_writer.h"
#include "server/price_watch.h"

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace ps_ns
{

/// Writes one JSON line for each update (json_line.h).
class JsonView final : public IPriceView
{
public:
    /// The writer outlives the server that calls this view.
    JsonView(const std::vector<ListedInstrument>& instruments, OutputWriter& writer);

    void OnFormat(std::size_t, const PriceFormat&) override {}
    void OnBook(std::size_t instrument, const std::shared_ptr<const MergedOrderBook>& book) override;
    void OnTrades(std::size_t instrument, const std::vector<Trade>& trades) override;

private:
    struct Name
    {
        std::string market;
        std::string symbol;
    };
    std::vector<Name> m_names; ///< constant
    OutputWriter& m_writer;
};

/// Keeps what is newest of each instrument, for whoever draws it.
class LadderState final : public IPriceView
{
public:
    explicit LadderState(const std::vector<ListedInstrument>& instruments);

    void OnFormat(std::size_t instrument, const PriceFormat& format) override;
    void OnBook(std::size_t instrument, const std::shared_ptr<const MergedOrderBook>& book) override;
    void OnTrades(std::size_t instrument, const std::vector<Trade>& trades) override;

    /// What there is now, and how many updates have come so far. From any thread.
    std::vector<LadderView> GetViews(std::uint64_t& updates) const;

private:
    mutable std::mutex m_mutex;
    std::vector<LadderView> m_views; ///< under m_mutex
    std::uint64_t m_updates = 0;     ///< under m_mutex
};

} // namespace ps_ns
