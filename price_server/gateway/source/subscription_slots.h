#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace ps_ns::gateway
{

class ClientSession;
struct SessionSubscription;

/// All subscriptions of all sessions, by an id that says where to look: what arrives for hundreds of thousands finds
/// its receiver without a search. An id never comes again.
///
/// Direct and flexible clients of an instrument share one space of ids: the low 2^32 are the server's own.
///
/// Threads: the gateway's I/O thread.
class SubscriptionSlots
{
public:
    struct Slot
    {
        unsigned long id = 0;
        ClientSession* session = nullptr;
        SessionSubscription* subscription = nullptr; ///< null: not subscribed yet
    };

    /// A new id; nothing is found under it until Set.
    unsigned long Add(ClientSession& session)
    {
        std::size_t index = m_slots.size();
        if (m_free.empty())
        {
            m_slots.emplace_back();
        }
        else
        {
            index = m_free.back();
            m_free.pop_back();
        }
        m_slots[index] = {++m_lastSerial << kIndexBits | index, &session, nullptr};
        return m_slots[index].id;
    }
    void Set(unsigned long id, SessionSubscription& subscription)
    {
        m_slots[GetIndex(id)].subscription = &subscription;
    }
    void Remove(unsigned long id)
    {
        m_slots[GetIndex(id)] = {};
        m_free.push_back(GetIndex(id));
    }
    /// Null when it is gone, or not yet subscribed.
    const Slot* Find(unsigned long id) const noexcept
    {
        const std::size_t index = GetIndex(id);
        const bool isThere =
            index < m_slots.size() && m_slots[index].id == id && m_slots[index].subscription != nullptr;
        return isThere ? &m_slots[index] : nullptr;
    }

private:
    static constexpr unsigned kIndexBits = 24;
    static constexpr unsigned long kFirstSerial = 1UL << (32 - kIndexBits);

    static std::size_t GetIndex(unsigned long id) noexcept { return id & ((1UL << kIndexBits) - 1); }

    std::vector<Slot> m_slots;
    std::vector<std::size_t> m_free;
    unsigned long m_lastSerial = kFirstSerial;
};

} // namespace ps_ns::gateway
