#include "cycles/cycles_client.h"

#include <utility>

namespace ps_ns::cycles
{

/// At the provider and at the manager; prices go on under the new symbol, for both keepers, in the next epoch.
void CyclesClient::Rename()
{
    const short marketId = m_instruments.renamed[m_number].def.marketId;
    const SymbolRename rename{marketId, m_symbols[0], m_symbols[1]};
    m_server.GetMds().RenameNow({&rename, 1});
    Expect(m_server.GetMds().GetDirectory().Find(marketId, -1, rename.newSymbol).has_value(), "the provider's rename");
    m_manager.ChangeSymbol(marketId, rename.oldSymbol, rename.newSymbol);
    std::swap(m_symbols[0], m_symbols[1]);
    ++m_keptEpoch;
    ++m_counts.renames;
    for (Delivery* const kept : {&m_keeper->Get(m_keeper->GetFirstId()), &m_keeperDirect.observer->delivery})
    {
        AwaitEpoch(*kept, m_keptEpoch, "prices as " + rename.newSymbol);
        Expect(kept->newestEpoch.load() == m_keptEpoch, "subscribed more often than renamed");
    }
}

/// From one instrument's symbol to its neighbour's or back, under whoever is there; the provider knows both.
void CyclesClient::ChangeSymbol()
{
    const auto symbols = static_cast<unsigned>(m_instruments.contested.size() / kContestedIdentities);
    const unsigned pair = Random(symbols / 2) * 2;
    const unsigned from = Random(2);
    const auto get = [&](unsigned symbol) -> const CompositeInstrumentDef&
    { return m_instruments.contested[symbol * kContestedIdentities].def; };
    const CompositeInstrumentDef& one = get(pair + from);
    const CompositeInstrumentDef& other = get(pair + 1 - from);
    m_manager.ChangeSymbol(one.marketId, one.GetSymbol(), other.GetSymbol());
    ++m_counts.symbolChanges;
}

/// The provider gives a late symbol to its instrument, or takes it away; the server checks; the symbol changes and
/// changes back; the late provider answers.
void CyclesClient::MoveLate()
{
    const unsigned number = Random(static_cast<unsigned>(m_instruments.late.size()));
    const CompositeInstrumentDef& def = m_instruments.late[number].def;
    const std::string& home = m_instruments.lateHomes[number];
    switch (Random(6))
    {
    case 0:
        m_server.PostToQueue(
            [this, &def, &home, number]
            {
                const bool wasLate = m_instruments.isLate[number];
                m_instruments.isLate[number] = !wasLate;
                const SymbolRename rename{def.marketId, wasLate ? def.GetSymbol() : home,
                                          wasLate ? home : def.GetSymbol()};
                m_server.GetMds().RenameNow({&rename, 1});
                m_server.CheckPending();
            });
        break;
    case 1:
        m_server.PostToQueue([this] { m_server.CheckPending(); });
        break;
    case 2:
        m_manager.ChangeSymbol(def.marketId, def.GetSymbol(), kLaterPrefix + home);
        m_manager.ChangeSymbol(def.marketId, kLaterPrefix + home, def.GetSymbol());
        break;
    default:
        m_server.GetLate().AnswerWaiting();
        break;
    }
}

} // namespace ps_ns::cycles
