// The replacement operator new at the end of this file allocates with malloc and its delete
// frees; GCC pairs the two names and would warn at every inlined allocation.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"

#include <gtest/gtest.h>
#include <libCommon/Array.h>
#include <libCommon/HashTable.h>
#include <libCommon/OrderedHashTable.h>
#include <libCommon/SharedResource.h>
#include <libCommon/String.h>

#include <cstdlib>
#include <new>
#include <set>
#include <thread>
#include <vector>

namespace zrn {
namespace {

TEST(ArrayTest, AppendRemoveContains) {
    Array<String> names{"a", "b"};
    names.append("c");
    names.remove(1);
    ASSERT_EQ(names.size(), 2u);
    EXPECT_EQ(names[1], "c");
    EXPECT_TRUE(names.contains("a"));
    EXPECT_FALSE(names.contains("A"));  // exact comparison
    EXPECT_FALSE(names.contains("b"));
}

TEST(HashTableTest, InsertLookupRemoveAndIterateEveryEntryOnce) {
    HashTable<String, String> table;
    EXPECT_GE(table.bucketCount(), 32u);
    for (int i = 0; i < 100; ++i)
        table.insert(String(std::to_string(i)), String("v" + std::to_string(i)));
    table.insert("7", "seven");  // replaces
    EXPECT_EQ(table.size(), 100u);
    String out("untouched");
    EXPECT_TRUE(table.lookup("7", out));
    EXPECT_EQ(out, "seven");
    EXPECT_FALSE(table.lookup("missing", out));
    EXPECT_EQ(out, "seven");
    EXPECT_TRUE(table.remove("7"));
    EXPECT_FALSE(table.remove("7"));
    std::set<std::string> seen;
    for (auto const& entry : table) EXPECT_TRUE(seen.insert(entry.first.str()).second);
    EXPECT_EQ(seen.size(), 99u);
}

TEST(OrderedHashTableTest, KeepsInsertionOrderThroughReplaceAndRemove) {
    OrderedHashTable<String, String> columns;
    columns.insert("setID", "INTEGER");
    columns.insert("key", "TEXT");
    columns.insert("value", "TEXT");
    columns.insert("key", "BLOB");  // replaced in place, position kept
    ASSERT_EQ(columns.size(), 3u);
    EXPECT_EQ(columns.keyAt(1), "key");
    EXPECT_EQ(columns.valueAt(1), "BLOB");
    EXPECT_TRUE(columns.remove("setID"));
    EXPECT_EQ(columns.keyAt(0), "key");
    EXPECT_EQ(*columns.lookup("value"), "TEXT");  // index shifted with the arrays
    std::vector<std::string> order;
    for (auto const& entry : columns) order.push_back(entry.first.str() + "=" + entry.second.str());
    EXPECT_EQ(order, (std::vector<std::string>{"key=BLOB", "value=TEXT"}));
}

// Small tables are searched in order, larger ones through an index built when they outgrow
// the limit: inserts, replacements, look-ups and removals must agree with a plain list on both
// sides of it and across it, in both directions.
TEST(OrderedHashTableTest, SearchesInOrderOrByIndexAlikeAcrossTheLimit) {
    OrderedHashTable<String, int> table;
    std::vector<std::pair<std::string, int>> expected;
    auto check = [&](char const* when) {
        ASSERT_EQ(table.size(), expected.size()) << when;
        for (std::size_t i = 0; i < expected.size(); ++i) {
            EXPECT_EQ(table.keyAt(i).str(), expected[i].first) << when;
            ASSERT_NE(table.lookup(expected[i].first), nullptr) << when;
            EXPECT_EQ(*table.lookup(expected[i].first), expected[i].second) << when;
        }
        EXPECT_FALSE(table.contains("absent")) << when;
        EXPECT_FALSE(table.contains("Key 1")) << when;  // exact comparison
    };
    std::size_t const limit = OrderedHashTable<String, int>::kLinearLimit;
    for (int i = 0; i < static_cast<int>(2 * limit); ++i) {
        table.insert("key " + std::to_string(i), i);
        expected.emplace_back("key " + std::to_string(i), i);
        if (i % 3 == 0) {
            table.insert("key 0", -i);  // replaced in place
            expected[0].second = -i;
        }
        check("growing");
    }
    while (!expected.empty()) {
        std::size_t const victim = expected.size() / 2;
        EXPECT_TRUE(table.remove(expected[victim].first));
        EXPECT_FALSE(table.remove(expected[victim].first));
        expected.erase(expected.begin() + static_cast<std::ptrdiff_t>(victim));
        check("shrinking");
        table.insert("late", 99);  // appended after the others, then removed again
        EXPECT_EQ(table.keyAt(table.size() - 1), "late");
        EXPECT_TRUE(table.remove("late"));
    }
}

TEST(OrderedHashTableDeathTest, IndexPastTheEndStopsTheProcess) {
    OrderedHashTable<String, String> columns;
    columns.insert("a", "TEXT");
    EXPECT_DEATH(columns.keyAt(1), "index < size\\(\\)");
    EXPECT_DEATH(columns.valueAt(5), "index < size\\(\\)");
}

// How many of the next allocations of this thread fail with bad_alloc (0: none).
int& failingAllocations() {
    static thread_local int count = 0;
    return count;
}

struct Counted {
    static int alive;
    Counted() { ++alive; }
    ~Counted() { --alive; }
};
int Counted::alive = 0;

TEST(SharedResourceTest, LastOwnerFreesTheObject) {
    {
        SharedResource<PointerStorage<Counted>> first(new Counted());
        SharedResource<PointerStorage<Counted>> second = first;
        EXPECT_EQ(first.useCount(), 2);
        EXPECT_TRUE(first.sharesWith(second));
        first.reset();
        EXPECT_EQ(Counted::alive, 1);
        SharedResource<PointerStorage<Counted>> moved(std::move(second));
        EXPECT_TRUE(second.isNull());
        moved = moved;  // self-assignment keeps the object
        EXPECT_EQ(Counted::alive, 1);
    }
    EXPECT_EQ(Counted::alive, 0);
    {
        // One allocation for object and count: still freed exactly once, by the last owner.
        auto made = SharedResource<PointerStorage<Counted>>::make();
        auto copy = made;
        made.reset();
        EXPECT_EQ(Counted::alive, 1);
        EXPECT_EQ(copy.useCount(), 1);
    }
    EXPECT_EQ(Counted::alive, 0);
    SharedResource<PointerStorage<Counted>, false> plain(new Counted());
    SharedResource<PointerStorage<Counted>, false> copy(plain);
    EXPECT_EQ(copy.useCount(), 2);
}

TEST(SharedResourceTest, AnAdoptedObjectIsFreedWhenItsCountCannotBeAllocated) {
    auto* object = new Counted();
    ASSERT_EQ(Counted::alive, 1);
    failingAllocations() = 1;  // the count, the only allocation of the constructor
    EXPECT_THROW((SharedResource<PointerStorage<Counted>>(object)), std::bad_alloc);
    failingAllocations() = 0;
    EXPECT_EQ(Counted::alive, 0);
}

TEST(SharedResourceTest, LockedCountSurvivesCopiesOnManyThreads) {
    SharedResource<PointerStorage<Counted>> shared(new Counted());
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&shared] {
            for (int i = 0; i < 20000; ++i) {
                SharedResource<PointerStorage<Counted>> copy(shared);
                SharedResource<PointerStorage<Counted>> other;
                other = copy;
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(shared.useCount(), 1);
    EXPECT_EQ(Counted::alive, 1);
    shared.reset();
    EXPECT_EQ(Counted::alive, 0);
}

}  // namespace
}  // namespace zrn

// Allocation for the whole test program, so a test can make the next allocation fail.
void* operator new(std::size_t size) {
    if (zrn::failingAllocations() > 0) {
        --zrn::failingAllocations();
        throw std::bad_alloc();
    }
    if (void* block = std::malloc(size ? size : 1)) return block;
    throw std::bad_alloc();
}
void operator delete(void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }
