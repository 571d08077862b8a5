#ifndef INFRA_SRC_COMPONENT_ORDEREDINDEX_H
#define INFRA_SRC_COMPONENT_ORDEREDINDEX_H

// A list in the order of arrival with a hash index beside it: the first entry that fits is found
// without a look at the others, and an entry leaves in the same time however many there are.
//
// Entries of one hash form a chain, in the order of arrival too.

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <list>
#include <unordered_map>
#include <utility>

namespace Tarsel
{
namespace Component
{

/// Always true: every node stands in the chain of its hash, chains ascend by number, and no chain
/// is empty. Threads: under the owner's lock. Ownership: the index owns its nodes.
template <typename T>
class TOrderedIndex
{
public:
    struct Node
    {
        T value;

    private:
        friend class TOrderedIndex;
        size_t hash = 0;
        uint64_t number = 0; ///< order of arrival
        Node* before = nullptr;
        Node* behind = nullptr;
        typename std::list<Node>::iterator self{};

    public:
        explicit Node(T entry) : value(std::move(entry)) {}
    };

    typedef typename std::list<Node>::iterator iterator;
    iterator begin() { return m_nodes.begin(); }
    iterator end() { return m_nodes.end(); }

    /// Appends `value`. The node stays where it is until it is removed.
    Node* append(T value, size_t hash)
    {
        m_nodes.emplace_back(std::move(value));
        Node& node = m_nodes.back();
        node.self = std::prev(m_nodes.end());
        node.number = ++m_lastNumber;
        chain(node, hash);
        return &node;
    }

    void remove(Node* node)
    {
        unchain(*node);
        m_nodes.erase(node->self);
    }

    /// Has `node` be found under another hash. Its place in the list stays.
    void rehash(Node* node, size_t hash)
    {
        unchain(*node);
        chain(*node, hash);
    }

    /// The first node with this hash for which `matches(value)` is true, or null.
    template <typename Matches>
    Node* first(size_t hash, const Matches& matches)
    {
        const auto found = m_chains.find(hash);
        Node* node = found == m_chains.end() ? nullptr : found->second.first;
        while (node != nullptr && !matches(node->value)) {
            node = node->behind;
        }
        return node;
    }

private:
    struct Chain
    {
        Node* first = nullptr;
        Node* last = nullptr;
    };

    void chain(Node& node, size_t hash)
    {
        node.hash = hash;
        Chain& chain = m_chains[hash];
        node.before = chain.last;
        while (node.before != nullptr && node.before->number > node.number) {
            node.before = node.before->before;
        }
        node.behind = node.before == nullptr ? chain.first : node.before->behind;
        (node.before == nullptr ? chain.first : node.before->behind) = &node;
        (node.behind == nullptr ? chain.last : node.behind->before) = &node;
    }

    void unchain(Node& node)
    {
        const auto found = m_chains.find(node.hash);
        Chain& chain = found->second;
        (node.before == nullptr ? chain.first : node.before->behind) = node.behind;
        (node.behind == nullptr ? chain.last : node.behind->before) = node.before;
        if (chain.first == nullptr) {
            m_chains.erase(found);
        }
    }

    std::list<Node> m_nodes;
    std::unordered_map<size_t, Chain> m_chains;
    uint64_t m_lastNumber = 0;
};

/// Adds one value to a hash over several.
inline size_t mixHash(size_t hash, size_t value)
{
    hash = (hash ^ value) * 0x9E3779B97F4A7C15;
    return hash ^ (hash >> 32);
}

} // namespace Component
} // namespace Tarsel

#endif
