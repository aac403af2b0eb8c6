// A least-recently-used map bounded by the bytes its entries cost, for the in-memory caches of
// tiles, drawn tiles and URL responses. Each entry carries the cost its owner gives it; storing
// beyond the limit evicts the least recently used entries until the total fits again. An
// owner may pin entries (a predicate on the value): pinned entries count towards the total but
// are never evicted, so the total may stay above the limit while they are pinned.
//
// Recency: find() and put() make an entry the most recent; peek(), resize() and eviction
// leave the order alone. An entry costing more than the whole limit is refused rather than
// emptying the cache for nothing; a refused put still removes what the key held before, so a
// stale value never outlives its replacement.
//
// Not synchronised, like a standard container: one thread at a time. Owners that share a cache
// between threads guard it with their own mutex (usually together with state of their own).
// Pointers returned by find() and peek() stay valid until the entry is removed or evicted.
#pragma once

#include <cstddef>
#include <functional>
#include <iterator>
#include <list>
#include <unordered_map>
#include <utility>

namespace sorvan {

/// The default: nothing is pinned.
struct NeverPinned {
    template <class Value>
    bool operator()(const Value&) const {
        return false;
    }
};

template <class Key, class Value, class Hash = std::hash<Key>, class Pinned = NeverPinned>
class ByteLru {
  public:
    explicit ByteLru(std::size_t limitBytes, Pinned pinned = Pinned{})
        : limit_(limitBytes), pinned_(std::move(pinned)) {}

    /// The value under key, made the most recent; null when absent.
    Value* find(const Key& key) {
        auto it = index_.find(key);
        if (it == index_.end())
            return nullptr;
        order_.splice(order_.begin(), order_, it->second);
        return &it->second->value;
    }
    /// The value under key without changing the order; null when absent.
    Value* peek(const Key& key) {
        auto it = index_.find(key);
        return it == index_.end() ? nullptr : &it->second->value;
    }
    const Value* peek(const Key& key) const {
        auto it = index_.find(key);
        return it == index_.end() ? nullptr : &it->second->value;
    }
    bool contains(const Key& key) const { return index_.count(key) != 0; }

    /// Stores value under key as the most recent entry, replacing what the key held, then
    /// evicts down to the limit. False (and the key holds nothing) when bytes exceed the
    /// limit.
    bool put(const Key& key, Value value, std::size_t bytes) {
        erase(key);
        if (bytes > limit_)
            return false;
        order_.push_front({key, std::move(value), bytes});
        index_.emplace(key, order_.begin());
        bytes_ += bytes;
        trim();
        return true;
    }
    /// Changes what an entry costs, keeping its place in the order, then evicts down to the
    /// limit (the entry itself included, when it is the least recent). False when absent.
    bool resize(const Key& key, std::size_t bytes) {
        auto it = index_.find(key);
        if (it == index_.end())
            return false;
        bytes_ = bytes_ - it->second->bytes + bytes;
        it->second->bytes = bytes;
        trim();
        return true;
    }
    bool erase(const Key& key) {
        auto it = index_.find(key);
        if (it == index_.end())
            return false;
        bytes_ -= it->second->bytes;
        order_.erase(it->second);
        index_.erase(it);
        return true;
    }
    /// Erases every entry for which pred(key, value) holds; returns how many.
    template <class Pred>
    std::size_t eraseIf(Pred pred) {
        std::size_t n = 0;
        for (auto it = order_.begin(); it != order_.end();) {
            if (pred(std::as_const(it->key), std::as_const(it->value))) {
                bytes_ -= it->bytes;
                index_.erase(it->key);
                it = order_.erase(it);
                ++n;
            } else {
                ++it;
            }
        }
        return n;
    }
    void clear() {
        order_.clear();
        index_.clear();
        bytes_ = 0;
    }

    /// Evicts least recent unpinned entries until the total fits the limit (for owners whose
    /// entries were unpinned since the last put).
    void trim() {
        auto it = order_.end();
        while (bytes_ > limit_ && it != order_.begin()) {
            --it;
            if (pinned_(std::as_const(it->value)))
                continue;
            bytes_ -= it->bytes;
            index_.erase(it->key);
            it = order_.erase(it);
        }
    }

    std::size_t bytes() const { return bytes_; }
    std::size_t size() const { return index_.size(); }
    bool empty() const { return index_.empty(); }
    std::size_t limit() const { return limit_; }
    /// A lower limit evicts at once.
    void setLimit(std::size_t bytes) {
        limit_ = bytes;
        trim();
    }

    /// Calls fn(key, value) from the most recent entry to the least recent.
    template <class Fn>
    void forEach(Fn fn) const {
        for (const Node& n : order_)
            fn(n.key, n.value);
    }

  private:
    struct Node {
        Key key;
        Value value;
        std::size_t bytes;
    };

    std::size_t limit_;
    std::size_t bytes_ = 0;
    Pinned pinned_;
    std::list<Node> order_;  // most recent first
    std::unordered_map<Key, typename std::list<Node>::iterator, Hash> index_;
};

}  // namespace sorvan
