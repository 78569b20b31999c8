#pragma once

#include "composite_instrument/composite_subscription_info.h"
#include "price_unifier/source/client_scope.h"

#include <algorithm>
#include <cstddef>
#include <memory>
#include <utility>
#include <vector>

namespace ps_ns
{

/// A client's scope on a composite subscription, as the data-queue thread sees it.
struct Scope
{
    unsigned long id = 0;
    CompositeSubscriptionInfo info;
    std::shared_ptr<ClientScope> client; ///< the delivery's record; empty for a direct client's
};

/// The scopes of one composite subscription by id. Most have one, which lies in place; the others, if there are any,
/// are in a sorted array.
///
/// Threads: one at a time. References and pointers hold until a scope is added or removed.
class ScopeTable
{
public:
    bool IsEmpty() const noexcept { return !m_hasFirst; }
    std::size_t GetSize() const noexcept { return (m_hasFirst ? 1 : 0) + (m_others != nullptr ? m_others->size() : 0); }

    /// Null: the id is not known.
    Scope* Find(unsigned long id) noexcept
    {
        if (m_hasFirst && m_first.id == id)
        {
            return &m_first;
        }
        const auto place = FindPlace(id);
        return m_others != nullptr && place != m_others->end() && place->id == id ? &*place : nullptr;
    }
    const Scope* Find(unsigned long id) const noexcept { return const_cast<ScopeTable*>(this)->Find(id); }

    /// The id must not be known. On an exception nothing has changed.
    void Add(Scope scope)
    {
        if (!m_hasFirst)
        {
            m_first = std::move(scope);
            m_hasFirst = true;
            return;
        }
        if (m_others == nullptr)
        {
            m_others = std::make_unique<std::vector<Scope>>();
        }
        m_others->insert(FindPlace(scope.id), std::move(scope));
    }

    /// Takes a scope of this table out of it.
    Scope Remove(Scope& scope) noexcept
    {
        Scope removed = std::move(scope);
        if (&scope != &m_first)
        {
            m_others->erase(m_others->begin() + (&scope - m_others->data()));
        }
        else if (m_others != nullptr && !m_others->empty())
        {
            m_first = std::move(m_others->back());
            m_others->pop_back();
        }
        else
        {
            m_hasFirst = false;
        }
        return removed;
    }

    /// Calls `visit(const Scope&)` for each, in no order.
    template <class Visit>
    void ForEach(const Visit& visit) const
    {
        if (m_hasFirst)
        {
            visit(m_first);
        }
        if (m_others != nullptr)
        {
            std::for_each(m_others->begin(), m_others->end(), visit);
        }
    }

private:
    /// Where the id's scope is among the others, or belongs.
    std::vector<Scope>::iterator FindPlace(unsigned long id) noexcept
    {
        return m_others == nullptr
                   ? std::vector<Scope>::iterator()
                   : std::lower_bound(m_others->begin(), m_others->end(), id,
                                      [](const Scope& scope, unsigned long wanted) { return scope.id < wanted; });
    }

    Scope m_first; ///< whichever came first of those that are there
    std::unique_ptr<std::vector<Scope>> m_others;
    bool m_hasFirst = false;
};

} // namespace ps_ns
