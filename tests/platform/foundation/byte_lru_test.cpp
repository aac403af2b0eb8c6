#include "foundation/byte_lru.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace sorvan {
namespace {

using Lru = ByteLru<std::string, int>;

// Keys from the most recent to the least recent.
std::vector<std::string> order(const Lru& lru) {
    std::vector<std::string> keys;
    lru.forEach([&](const std::string& k, int) { keys.push_back(k); });
    return keys;
}

TEST(ByteLru, EvictsTheLeastRecentlyUsedByBytes) {
    Lru lru(100);
    lru.put("a", 1, 40);
    lru.put("b", 2, 40);
    EXPECT_EQ(lru.bytes(), 80u);
    lru.put("c", 3, 40);
    EXPECT_EQ(order(lru), (std::vector<std::string>{"c", "b"}));
    EXPECT_EQ(lru.bytes(), 80u);
    EXPECT_EQ(lru.find("a"), nullptr);

    // A hit makes an entry the most recent; a peek does not.
    ASSERT_NE(lru.find("b"), nullptr);
    EXPECT_EQ(*lru.peek("c"), 3);
    EXPECT_EQ(order(lru), (std::vector<std::string>{"b", "c"}));
    lru.put("d", 4, 30);
    EXPECT_EQ(order(lru), (std::vector<std::string>{"d", "b"}));

    // Several may go for one; a lower limit evicts at once.
    lru.put("e", 5, 90);
    EXPECT_EQ(order(lru), (std::vector<std::string>{"e"}));
    lru.put("f", 6, 10);
    lru.setLimit(50);
    EXPECT_EQ(order(lru), (std::vector<std::string>{"f"}));
    EXPECT_EQ(lru.bytes(), 10u);
    EXPECT_EQ(lru.limit(), 50u);
}

TEST(ByteLru, AnEntryLargerThanTheLimitIsRefusedAndReplacesNothing) {
    Lru lru(100);
    lru.put("a", 1, 30);
    lru.put("b", 2, 30);
    EXPECT_FALSE(lru.put("huge", 9, 101));
    EXPECT_EQ(order(lru), (std::vector<std::string>{"b", "a"})) << "nothing evicted for it";
    EXPECT_FALSE(lru.contains("huge"));
    // A refused replacement still removes the value it was to replace.
    EXPECT_FALSE(lru.put("a", 10, 500));
    EXPECT_FALSE(lru.contains("a"));
    EXPECT_EQ(lru.bytes(), 30u);
    // Exactly the limit fits, alone.
    EXPECT_TRUE(lru.put("all", 7, 100));
    EXPECT_EQ(order(lru), (std::vector<std::string>{"all"}));
    EXPECT_EQ(lru.bytes(), 100u);
}

TEST(ByteLru, ReplacingAndResizingKeepOneEntryWithItsLatestCost) {
    Lru lru(100);
    lru.put("a", 1, 10);
    lru.put("b", 2, 10);
    lru.put("a", 11, 50);
    EXPECT_EQ(lru.size(), 2u);
    EXPECT_EQ(lru.bytes(), 60u);
    EXPECT_EQ(*lru.peek("a"), 11);
    EXPECT_EQ(order(lru), (std::vector<std::string>{"a", "b"})) << "a replacement is a use";

    // Resizing keeps the entry's place; growing past the limit evicts from the old end, which
    // may be the entry itself.
    lru.put("c", 3, 10);
    EXPECT_TRUE(lru.resize("b", 40));
    EXPECT_EQ(order(lru), (std::vector<std::string>{"c", "a", "b"}));
    EXPECT_EQ(lru.bytes(), 100u);
    EXPECT_TRUE(lru.resize("b", 41));
    EXPECT_EQ(order(lru), (std::vector<std::string>{"c", "a"}));
    EXPECT_EQ(lru.bytes(), 60u);
    EXPECT_FALSE(lru.resize("b", 1));
    EXPECT_TRUE(lru.resize("c", 51));
    EXPECT_EQ(order(lru), (std::vector<std::string>{"c"}));

    EXPECT_TRUE(lru.erase("c"));
    EXPECT_FALSE(lru.erase("c"));
    EXPECT_TRUE(lru.empty());
    EXPECT_EQ(lru.bytes(), 0u);
}

struct Job {
    bool busy = false;
};
struct Busy {
    bool operator()(const Job& j) const { return j.busy; }
};

TEST(ByteLru, PinnedEntriesCountButAreNeverEvicted) {
    ByteLru<int, Job, std::hash<int>, Busy> lru(100);
    lru.put(1, {true}, 60);
    lru.put(2, {false}, 30);
    lru.put(3, {true}, 30);
    EXPECT_TRUE(lru.contains(1)) << "the least recent, but pinned";
    EXPECT_FALSE(lru.contains(2));
    lru.put(4, {false}, 20);
    EXPECT_FALSE(lru.contains(4)) << "only pinned ones left older: the newest goes";
    EXPECT_EQ(lru.bytes(), 90u);
    lru.put(5, {false}, 5);
    lru.peek(1)->busy = false;  // unpinned: the next trim may take it
    lru.put(6, {false}, 10);
    EXPECT_EQ(lru.size(), 3u);
    EXPECT_FALSE(lru.contains(1));
    EXPECT_EQ(lru.bytes(), 45u);

    EXPECT_EQ(lru.eraseIf([](int k, const Job&) { return k % 2 == 1; }), 2u);
    EXPECT_EQ(lru.size(), 1u);
    EXPECT_EQ(lru.bytes(), 10u);
    lru.clear();
    EXPECT_EQ(lru.bytes(), 0u);
}

}  // namespace
}  // namespace sorvan
