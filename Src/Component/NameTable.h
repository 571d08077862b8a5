#ifndef INFRA_SRC_COMPONENT_NAMETABLE_H
#define INFRA_SRC_COMPONENT_NAMETABLE_H

// Names that are registered and never taken out, with a value each, for tables that live as long as
// the process.
//
// Hashing with open addressing. A slot goes from null to its entry once, and entries stay where
// they are, so a look-up takes no lock and no memory: it reads the slots that are published and
// walks from the name's place to the first empty one. A table that is three quarters full is copied
// into one of twice the size; readers may still be in the old one, so that is kept: all of them
// together are no larger than the one in use.

#include <atomic>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <utility>

#include "Infra3/Hash.h"

namespace Tarsel
{
namespace Component
{

/// Threads: find from any thread at any time; all else under the caller's lock.
template <typename Value>
class TNameTable
{
public:
    struct Entry
    {
        explicit Entry(std::string_view text) : name(text), hash(Infra::hashText(text)) {}
        const std::string name;
        const size_t hash;
        Value value{};
    };
    /// Ascending byte order.
    typedef std::map<std::string_view, std::unique_ptr<Entry>> Ordered;

    TNameTable() : m_slots(Slots::make(16, nullptr)) {}
    TNameTable(const TNameTable&) = delete;
    TNameTable& operator=(const TNameTable&) = delete;

    /// The entry of `name`, or null.
    Entry* find(std::string_view name) const
    {
        const size_t hash = Infra::hashText(name);
        Slots& slots = *m_slots.load(std::memory_order_acquire);
        for (size_t at = hash;; ++at) {
            Entry* const entry = slots.at(at).load(std::memory_order_acquire);
            if (entry == nullptr || (entry->hash == hash && Infra::isSameText(entry->name, name))) {
                return entry;
            }
        }
    }

    Entry& findOrAddLocked(std::string_view name)
    {
        Entry* const known = find(name);
        return known != nullptr ? *known : addLocked(name);
    }

    const Ordered& orderedLocked() const { return m_ordered; }

private:
    /// Stands before its entries in one piece of memory, which is never given back.
    struct Slots
    {
        const size_t mask;
        Slots* const before; ///< smaller ones, where readers may still be

        static Slots* make(size_t size, Slots* before)
        {
            void* const place = ::operator new(sizeof(Slots) + size * sizeof(std::atomic<Entry*>));
            Slots* const slots = new (place) Slots{size - 1, before};
            std::uninitialized_value_construct_n(slots->first(), size);
            return slots;
        }
        std::atomic<Entry*>* first() { return reinterpret_cast<std::atomic<Entry*>*>(this + 1); }
        std::atomic<Entry*>& at(size_t hash) { return first()[hash & mask]; }
    };

    Entry& addLocked(std::string_view name)
    {
        makeRoomLocked();
        auto made = std::make_unique<Entry>(name);
        Entry& entry = *made;
        m_ordered.emplace(entry.name, std::move(made));
        put(*m_slots.load(std::memory_order_relaxed), entry);
        return entry;
    }

    void makeRoomLocked()
    {
        Slots* const slots = m_slots.load(std::memory_order_relaxed);
        const size_t size = slots->mask + 1;
        if (m_ordered.size() + 1 > size / 4 * 3) {
            Slots* const larger = Slots::make(size * 2, slots);
            for (const auto& named : m_ordered) {
                put(*larger, *named.second);
            }
            m_slots.store(larger, std::memory_order_release);
        }
    }

    static void put(Slots& slots, Entry& entry)
    {
        size_t at = entry.hash;
        while (slots.at(at).load(std::memory_order_relaxed) != nullptr) {
            ++at;
        }
        slots.at(at).store(&entry, std::memory_order_release);
    }

    std::atomic<Slots*> m_slots;
    Ordered m_ordered;
};

} // namespace Component
} // namespace Tarsel

#endif
