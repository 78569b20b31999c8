#include "program_test_kit.h"

#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <utility>

namespace ps_ns
{
namespace
{

class CountingObserver final : public ICompositePriceObserver
{
public:
    explicit CountingObserver(std::shared_ptr<CallbackCounts> counts)
        : ICompositePriceObserver("direct")
        , m_counts(std::move(counts))
    {
    }
    void OnSubscribe(const CompositeInstrumentDef&, const EventInfo&, Result, unsigned long, const PriceFormat&,
                     CompositeComponentType::Type, const CompositeSubscriptionState&) override
    {
        ++m_counts->answers;
    }
    void OnAddScope(const CompositeInstrumentDef&, unsigned long, Result) override {}
    void OnChangeScope(const CompositeInstrumentDef&, unsigned long, Result) override {}
    void OnRemoveScope(const CompositeInstrumentDef&, unsigned long, Result) override {}
    void OnOrderBook(const CompositeInstrumentDef&, const std::shared_ptr<const MergedOrderBook>&) override
    {
        ++m_counts->books;
    }
    void OnTrades(const CompositeInstrumentDef&, const std::shared_ptr<const std::vector<Trade>>&) override
    {
        ++m_counts->trades;
    }
    void OnCustomFields(const CompositeInstrumentDef&, const std::shared_ptr<const CustomFields>&) override {}
    void OnUnsubscribe(const CompositeInstrumentDef&, Result, CompositeComponentType::Type,
                       const CompositeSubscriptionState&) override
    {
    }

private:
    const std::shared_ptr<CallbackCounts> m_counts;
};

class CountingFlexibleObserver final : public IFlexiblePriceObserver
{
public:
    explicit CountingFlexibleObserver(std::shared_ptr<CallbackCounts> counts)
        : IFlexiblePriceObserver("flexible")
        , m_counts(std::move(counts))
    {
    }
    void OnSubscribe(unsigned long, const CompositeInstrumentDef&, const EventInfo&, Result, unsigned long,
                     const PriceFormat&, CompositeComponentType::Type, const CompositeSubscriptionState&) override
    {
        ++m_counts->answers;
    }
    void OnChangeScope(unsigned long, const CompositeInstrumentDef&, Result) override {}
    void OnOrderBook(unsigned long, const CompositeInstrumentDef&,
                     const std::shared_ptr<const MergedOrderBook>&) override
    {
        ++m_counts->books;
    }
    void OnTrades(unsigned long, const CompositeInstrumentDef&,
                  const std::shared_ptr<const std::vector<Trade>>&) override
    {
        ++m_counts->trades;
    }
    void OnCustomFields(unsigned long, const CompositeInstrumentDef&,
                        const std::shared_ptr<const CustomFields>&) override
    {
    }
    void OnUnsubscribe(unsigned long, const CompositeInstrumentDef&, Result, CompositeComponentType::Type,
                       const CompositeSubscriptionState&) override
    {
    }

private:
    const std::shared_ptr<CallbackCounts> m_counts;
};

} // namespace

std::shared_ptr<ICompositePriceObserver> MakeCountingObserver(std::shared_ptr<CallbackCounts> counts)
{
    return std::make_shared<CountingObserver>(std::move(counts));
}

std::shared_ptr<IFlexiblePriceObserver> MakeCountingFlexibleObserver(std::shared_ptr<CallbackCounts> counts)
{
    return std::make_shared<CountingFlexibleObserver>(std::move(counts));
}

ServerConfig MakeQuietConfig(unsigned updatesPerSecond)
{
    ServerConfig config = MakeBuiltInServerConfig();
    config.gateway->port = 0; // several servers run at a time
    config.mds->simulation->updatesPerSecond = updatesPerSecond;
    config.logging.level = 100;
    return config;
}

std::string GetRecording(const std::string& name)
{
    const std::string path = std::string(PRICE_SERVER_DATA) + "/" + name;
    if (!std::filesystem::exists(path))
    {
        throw std::runtime_error("the recorded data is missing: there is no " + path +
                                 "; configure with -DPRICE_SERVER_DATA=<folder of the recordings>");
    }
    return path;
}

TemporaryFolder::TemporaryFolder()
{
    std::string name = (std::filesystem::temp_directory_path() / "price_server_XXXXXX").string();
    if (::mkdtemp(name.data()) == nullptr)
    {
        throw std::runtime_error("no temporary folder can be made: " + name);
    }
    m_path = name;
}

TemporaryFolder::~TemporaryFolder()
{
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

std::string TemporaryFolder::Write(const std::string& name, const std::string& text) const
{
    const std::filesystem::path path = m_path / name;
    std::ofstream(path) << text;
    return path.string();
}

} // namespace ps_ns
