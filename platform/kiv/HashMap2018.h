// The framework's keyed hash map: constant-time operations and a total, stable order of iteration.
//
// Event thread only. Keys offer `hash(unsigned seed)`, `isEq` and `operator<=>`.
//
// What always holds:
//  1. Elements are iterated by (hash, key); growing the map does not change the order.
//  2. A walk that resumes at a key (lowerBound) continues with the first element at or after it,
//     whether or not that key is still there. So a walk may be interrupted by any change.
//  3. Elements keep their address until they are erased.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "platform/brumo/Prefetch.h"
#include "platform/brumo/Recycled.h"

namespace Kiv {

/// What orders the elements of keyed collections, in memory and in shared memory alike.
template <class Key>
struct KeyOrder {
    std::uint32_t hash;
    const Key& key;

    explicit KeyOrder(const Key& k) : hash(k.hash(0)), key(k) {}
    KeyOrder(std::uint32_t h, const Key& k) : hash(h), key(k) {}

    friend bool operator<(const KeyOrder& a, const KeyOrder& b) {
        return a.hash != b.hash ? a.hash < b.hash : (a.key <=> b.key) < 0;
    }
};

template <class Key, class Value>
class HashMap2018 {
public:
    /// An element as iteration shows it.
    struct Node : Brumo::Recycled {
        Key key;
        Value value;

        Node(const Key& k, Value v, std::uint32_t h) : key(k), value(std::move(v)), hash(h) {}

    private:
        friend class HashMap2018;
        std::uint32_t hash;
        std::unique_ptr<Node> next;
    };

    HashMap2018() : buckets_(std::size_t{1} << kSmallestBits) {}
    HashMap2018(const HashMap2018&) = delete;
    HashMap2018& operator=(const HashMap2018&) = delete;
    ~HashMap2018() { clear(); }

    std::size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }

    /// Inserts, or replaces the value under the key.
    Node& insertOrReplace(const Key& key, Value value) {
        const KeyOrder<Key> wanted(key);
        std::unique_ptr<Node>* link = linkAtOrAfter(wanted);
        if (*link != nullptr && matches(**link, wanted)) {
            (*link)->value = std::move(value);
            return **link;
        }
        if (size_ >= buckets_.size()) {
            grow();
            link = linkAtOrAfter(wanted);
        }
        auto node = std::make_unique<Node>(key, std::move(value), wanted.hash);
        node->next = std::move(*link);
        *link = std::move(node);
        ++size_;
        return **link;
    }

    Value* find(const Key& key) { return const_cast<Value*>(std::as_const(*this).find(key)); }
    const Value* find(const Key& key) const {
        if (empty())
            return nullptr;  // nothing is hashed: most look-ups are in maps that hold nothing
        const KeyOrder<Key> wanted(key);
        const Node* node = atOrAfterInBucket(wanted);
        return node != nullptr && matches(*node, wanted) ? &node->value : nullptr;
    }

    /// Asks for the memory that holds the key, most likely, so that it is there when the key is
    /// looked up soon; waits for nothing.
    void prefetch(const Key& key) const {
        if (empty())
            return;
        if (const Node* const first = buckets_[bucketOf(key.hash(0))].get())
            Brumo::prefetch(*first);
    }

    /// True when the key was there.
    bool erase(const Key& key) {
        const KeyOrder<Key> wanted(key);
        std::unique_ptr<Node>* link = linkAtOrAfter(wanted);
        if (*link == nullptr || !matches(**link, wanted))
            return false;
        const std::unique_ptr<Node> gone = std::move(*link);
        *link = std::move(gone->next);
        --size_;
        return true;  // the value ends here, after the map is whole again
    }

    void clear() {
        for (std::unique_ptr<Node>& head : buckets_) {
            while (head != nullptr) {
                const std::unique_ptr<Node> gone = std::move(head);
                head = std::move(gone->next);
                --size_;
            }
        }
    }

    /// First element in the map's order, or null.
    const Node* first() const { return firstFromBucket(0); }

    /// First element at or after the key, or null.
    const Node* lowerBound(const Key& key) const {
        const KeyOrder<Key> wanted(key);
        const Node* node = atOrAfterInBucket(wanted);
        return node != nullptr ? node : firstFromBucket(bucketOf(wanted.hash) + 1);
    }

    /// First element after the key, or null.
    const Node* after(const Key& key) const {
        const Node* node = lowerBound(key);
        return node != nullptr && node->key.isEq(key) ? next(*node) : node;
    }

    /// The element after `node`, or null. REQUIRES: the map was not changed since `node` was found.
    const Node* next(const Node& node) const {
        return node.next != nullptr ? node.next.get() : firstFromBucket(bucketOf(node.hash) + 1);
    }

    /// Calls `visit(key, value)` for each element, in order. `visit` must not change the map.
    template <class Visit>
    void forEach(Visit&& visit) const {
        for (const Node* node = first(); node != nullptr; node = next(*node)) {
            visit(node->key, node->value);
        }
    }

private:
    static constexpr unsigned kSmallestBits = 3;

    static bool matches(const Node& node, const KeyOrder<Key>& wanted) {
        return node.hash == wanted.hash && node.key.isEq(wanted.key);
    }

    /// Buckets divide the hashes by their leading bits, so that bucket order is hash order.
    std::size_t bucketOf(std::uint32_t hash) const { return hash >> (32U - bits_); }

    std::unique_ptr<Node>* linkAtOrAfter(const KeyOrder<Key>& wanted) {
        std::unique_ptr<Node>* link = &buckets_[bucketOf(wanted.hash)];
        while (*link != nullptr && KeyOrder<Key>((*link)->hash, (*link)->key) < wanted) {
            link = &(*link)->next;
        }
        return link;
    }

    const Node* atOrAfterInBucket(const KeyOrder<Key>& wanted) const {
        const Node* node = buckets_[bucketOf(wanted.hash)].get();
        while (node != nullptr && KeyOrder<Key>(node->hash, node->key) < wanted) {
            node = node->next.get();
        }
        return node;
    }

    const Node* firstFromBucket(std::size_t bucket) const {
        for (; bucket < buckets_.size(); ++bucket) {
            if (buckets_[bucket] != nullptr)
                return buckets_[bucket].get();
        }
        return nullptr;
    }

    /// Each bucket splits in two; its chain is sorted, so a split keeps both halves sorted.
    void grow() {
        std::vector<std::unique_ptr<Node>> old(buckets_.size() * 2);
        old.swap(buckets_);
        ++bits_;
        for (std::unique_ptr<Node>& head : old) {
            std::unique_ptr<Node>* tail = nullptr;
            std::size_t tailBucket = 0;
            while (head != nullptr) {
                std::unique_ptr<Node> node = std::move(head);
                head = std::move(node->next);
                const std::size_t bucket = bucketOf(node->hash);
                if (tail == nullptr || bucket != tailBucket)
                    tail = &buckets_[bucket];
                tailBucket = bucket;
                *tail = std::move(node);
                tail = &(*tail)->next;
            }
        }
    }

    std::vector<std::unique_ptr<Node>> buckets_;
    unsigned bits_ = kSmallestBits;
    std::size_t size_ = 0;
};

}  // namespace Kiv
