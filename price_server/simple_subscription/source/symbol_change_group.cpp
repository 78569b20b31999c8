#include "simple_subscription/symbol_change_group.h"

namespace ps_ns
{

void SymbolChangeGroup::Join(const std::weak_ptr<ISymbolChangeMember>& member)
{
    {
        const std::lock_guard lock(m_mutex);
        if (!m_failed)
        {
            m_members.push_back(member);
            return;
        }
    }
    if (const auto held = member.lock())
    {
        held->OnSymbolChangeFailed();
    }
}

void SymbolChangeGroup::Fail()
{
    std::vector<std::weak_ptr<ISymbolChangeMember>> members;
    {
        const std::lock_guard lock(m_mutex);
        m_failed = true;
        members.swap(m_members);
    }
    for (const auto& member : members)
    {
        if (const auto held = member.lock())
        {
            held->OnSymbolChangeFailed();
        }
    }
}

std::shared_ptr<SymbolChangeGroup> SymbolChangeGroups::Get(short marketId, const std::string& oldSymbol)
{
    const std::lock_guard lock(m_mutex);
    std::shared_ptr<SymbolChangeGroup>& group = m_groups[{marketId, oldSymbol}];
    if (group == nullptr)
    {
        group = std::make_shared<SymbolChangeGroup>();
    }
    return group;
}

void SymbolChangeGroups::Drop(short marketId, const std::string& oldSymbol)
{
    const std::lock_guard lock(m_mutex);
    m_groups.erase({marketId, oldSymbol});
}

} // namespace ps_ns
