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
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>

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
        explicit Entry(std::string_view text) : name(text), hash(hashOf(text)) {}
        const std::string name;
        const size_t hash;
        Value value{};
    };
    /// Ascending byte order.
    typedef std::map<std::string_view, std::unique_ptr<Entry>> Ordered;

    TNameTable() : m_slots(new Slots(16, nullptr)) {}
    TNameTable(const TNameTable&) = delete;
    TNameTable& operator=(const TNameTable&) = delete;

    /// The entry of `name`, or null.
    Entry* find(std::string_view name) const
    {
        const size_t hash = hashOf(name);
        const Slots& slots = *m_slots.load(std::memory_order_acquire);
        for (size_t at = hash;; ++at) {
            Entry* const entry = slots.at(at).load(std::memory_order_acquire);
            if (entry == nullptr || (entry->hash == hash && entry->name == name)) {
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
    struct Slots
    {
        Slots(size_t size, Slots* before)
            : mask(size - 1), entries(new std::atomic<Entry*>[size]()), before(before)
        {}
        std::atomic<Entry*>& at(size_t hash) const { return entries[hash & mask]; }

        const size_t mask;
        const std::unique_ptr<std::atomic<Entry*>[]> entries;
        const std::unique_ptr<Slots> before;
    };

    static size_t hashOf(std::string_view name) { return std::hash<std::string_view>()(name); }

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
            auto larger = std::make_unique<Slots>(size * 2, slots);
            for (const auto& named : m_ordered) {
                put(*larger, *named.second);
            }
            m_slots.store(larger.release(), std::memory_order_release);
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

    std::atomic<Slots*> m_slots; ///< those in use own the ones before them
    Ordered m_ordered;
};

} // namespace Component
} // namespace Tarsel

#endif
