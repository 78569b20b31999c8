#pragma once

#include "composite_instrument/composite_instrument_id.h"
#include "composite_instrument/i_composite_price_observer.h"
#include "quiet_observers.h"

#include <absl/container/flat_hash_map.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

namespace compare
{

/// The least that keeping a live subscription takes: one heap block with the definition's scalars, its texts and its
/// properties packed behind each other, the scope, and the observer; one flat index by identity, and one by handle. No
/// queue, no components, no delivery, no log: everything is done on the caller's thread. Not what the project could
/// be, but what it is measured against.
class FloorManager
{
public:
    FloorManager() = default;
    ~FloorManager()
    {
        for (const auto& [identity, block] : m_byIdentity)
        {
            Destroy(block);
        }
    }
    FloorManager(const FloorManager&) = delete;
    FloorManager& operator=(const FloorManager&) = delete;

    std::uint64_t Subscribe(const ps_ns::CompositeInstrumentDef& def)
    {
        const auto [entry, isNew] = m_byIdentity.try_emplace(Identity(def), nullptr);
        if (!isNew)
        {
            return 0;
        }
        entry->second = Make(def);
        m_byHandle.push_back(entry->second);
        return m_byHandle.size();
    }
    void ChangeScope(std::uint64_t handle, std::int32_t depth) { m_byHandle[handle - 1]->scope.depth = depth; }
    void Unsubscribe(std::uint64_t handle)
    {
        Block* const block = std::exchange(m_byHandle[handle - 1], nullptr);
        m_byIdentity.erase(block->identity);
        Destroy(block);
    }

    // Flexible clients: a block for the instrument, with a list of them.

    void Join(const ps_ns::CompositeInstrumentDef& def, unsigned long id)
    {
        const auto [entry, isNew] = m_byIdentity.try_emplace(Identity(def), nullptr);
        if (isNew)
        {
            entry->second = Make(def);
        }
        entry->second->clients.push_back({id, {5, 0, false, false}, m_flexibleObserver});
    }
    void ChangeScope(const ps_ns::CompositeInstrumentDef& def, unsigned long id, std::int32_t depth)
    {
        FindClient(*m_byIdentity.find(Identity(def))->second, id)->scope.depth = depth;
    }
    void Leave(const ps_ns::CompositeInstrumentDef& def, unsigned long id)
    {
        const auto entry = m_byIdentity.find(Identity(def));
        Block* const block = entry->second;
        block->clients.erase(FindClient(*block, id));
        if (block->clients.empty())
        {
            m_byIdentity.erase(entry);
            Destroy(block);
        }
    }

private:
    struct Client
    {
        unsigned long id;
        ps_ns::CompositeSubscriptionInfo scope;
        std::shared_ptr<ps_ns::IFlexiblePriceObserver> observer;
    };

    /// The identity of a direct instrument.
    struct Identity
    {
        explicit Identity(const ps_ns::CompositeInstrumentDef& def)
            : instrumentId(def.instrumentId)
            , attrE(def.attrE)
            , rest((static_cast<std::uint64_t>(def.attrC) << 32U) |
                   (static_cast<std::uint64_t>(static_cast<std::uint16_t>(def.marketId)) << 16U) |
                   static_cast<std::uint16_t>(def.submarketId))
            , attrs(static_cast<std::uint32_t>(def.attrA) | (static_cast<std::uint32_t>(def.attrB) << 8U) |
                    (static_cast<std::uint32_t>(static_cast<std::uint8_t>(def.attrD)) << 16U))
        {
        }
        friend bool operator==(const Identity&, const Identity&) = default;
        template <class H>
        friend H AbslHashValue(H h, const Identity& id)
        {
            return H::combine(std::move(h), id.instrumentId, id.attrE, id.rest, id.attrs);
        }
        std::uint64_t instrumentId;
        std::uint64_t attrE;
        std::uint64_t rest;
        std::uint32_t attrs;
    };
    struct Block
    {
        Identity identity;
        std::array<std::uint64_t, 12> scalars;
        ps_ns::CompositeSubscriptionInfo scope;
        std::shared_ptr<ps_ns::ICompositePriceObserver> observer;
        std::uint32_t textBytes;
        std::vector<Client> clients; ///< empty: a direct client has it
    };

    static std::vector<Client>::iterator FindClient(Block& block, unsigned long id)
    {
        return std::find_if(block.clients.begin(), block.clients.end(),
                            [id](const Client& client) { return client.id == id; });
    }

    static std::size_t SizeOfTexts(const ps_ns::CompositeInstrumentDef& def)
    {
        std::size_t size = def.instrument.symbol.size() + def.instrument.exchange.size() + def.currency.size() + 12;
        for (const auto& [id, text] : def.properties)
        {
            size += sizeof(id) + 4 + text.size();
        }
        return size;
    }

    Block* Make(const ps_ns::CompositeInstrumentDef& def)
    {
        const std::size_t texts = SizeOfTexts(def);
        auto* const block = new (::operator new(sizeof(Block) + texts))
            Block{Identity(def),
                  {def.expiry_ns, def.lotSize, static_cast<std::uint64_t>(def.createTime_ns),
                   static_cast<std::uint64_t>(def.changeTime_ns), def.flags, def.priority, def.segment, def.assetClass},
                  {5, 0, false, false},
                  m_observer,
                  static_cast<std::uint32_t>(texts),
                  {}};
        char* out = reinterpret_cast<char*>(block + 1);
        const auto put = [&out](const std::string& text)
        {
            const auto size = static_cast<std::uint32_t>(text.size());
            std::memcpy(out, &size, sizeof(size));
            std::memcpy(out + sizeof(size), text.data(), text.size());
            out += sizeof(size) + text.size();
        };
        put(def.instrument.symbol);
        put(def.instrument.exchange);
        put(def.currency);
        for (const auto& [id, text] : def.properties)
        {
            std::memcpy(out, &id, sizeof(id));
            out += sizeof(id);
            put(text);
        }
        return block;
    }
    static void Destroy(Block* block)
    {
        if (block != nullptr)
        {
            block->~Block();
            ::operator delete(block);
        }
    }

    const std::shared_ptr<ps_ns::ICompositePriceObserver> m_observer = std::make_shared<QuietObserver>();
    absl::flat_hash_map<Identity, Block*> m_byIdentity; ///< owned
    const std::shared_ptr<ps_ns::IFlexiblePriceObserver> m_flexibleObserver = MakeQuietFlexibleObserver(0);
    std::vector<Block*> m_byHandle; ///< of direct clients; the handle is the index and one
};

} // namespace compare
