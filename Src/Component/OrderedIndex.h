#ifndef INFRA_SRC_COMPONENT_ORDEREDINDEX_H
#define INFRA_SRC_COMPONENT_ORDEREDINDEX_H

// A list in the order of arrival with a hash index beside it: the first entry that fits is found
// without a look at the others, and an entry leaves in the same time however many there are.
//
// The index is an array of chains, at least as many as there are entries, and a power of two. A
// chain keeps the order of arrival, too, so many entries of one hash are no trouble: the first is in
// front, and a new one goes to the end.

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <list>
#include <utility>
#include <vector>

namespace Tarsel
{
namespace Component
{

/// Always true: every node stands in the chain of its hash, and chains ascend by number.
/// Threads: under the owner's lock. Ownership: the index owns its nodes.
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
        template <typename... A>
        explicit Node(A&&... arguments) : value(std::forward<A>(arguments)...)
        {}
    };

    typedef typename std::list<Node>::iterator iterator;
    iterator begin() { return m_nodes.begin(); }
    iterator end() { return m_nodes.end(); }

    /// Appends T(arguments...), made in its place. The node stays where it is until it is removed.
    template <typename... A>
    Node* append(size_t hash, A&&... arguments)
    {
        makeRoom();
        m_nodes.emplace_back(std::forward<A>(arguments)...);
        Node& node = m_nodes.back();
        node.self = std::prev(m_nodes.end());
        node.hash = hash;
        node.number = ++m_lastNumber;
        chain(node);
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
        node->hash = hash;
        chain(*node);
    }

    /// The first node with this hash for which `matches(value)` is true, or null.
    template <typename Matches>
    Node* first(size_t hash, const Matches& matches)
    {
        Node* node = chainOf(hash).first;
        while (node != nullptr && !(node->hash == hash && matches(node->value))) {
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

    Chain& chainOf(size_t hash) { return m_chains[hash & (m_chains.size() - 1)]; }

    void chain(Node& node)
    {
        Chain& chain = chainOf(node.hash);
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
        Chain& chain = chainOf(node.hash);
        (node.before == nullptr ? chain.first : node.before->behind) = node.behind;
        (node.behind == nullptr ? chain.last : node.behind->before) = node.before;
    }

    void makeRoom()
    {
        if (m_nodes.size() < m_chains.size()) {
            return;
        }
        std::vector<Chain> larger(m_chains.size() * 2);
        m_chains.swap(larger);
        for (Node& node : m_nodes) {
            chain(node);
        }
    }

    std::list<Node> m_nodes;
    std::vector<Chain> m_chains = std::vector<Chain>(4);
    uint64_t m_lastNumber = 0;
};

} // namespace Component
} // namespace Tarsel

#endif
