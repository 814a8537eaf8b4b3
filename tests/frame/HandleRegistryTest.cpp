// The registries that tell handles the library gave out from any other address.
#include "platform/ObjectArena.h"
#include "platform/PointerSet.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <set>

namespace {

TEST(PointerSet, AgreesWithAnOrderedSetUnderInsertAndErase) {
    quillet::PointerSet set;
    std::set<const void *> model;
    std::mt19937 random(7);
    std::vector<char> storage(1 << 16);
    for (int i = 0; i < 200000; ++i) {
        const void *p = &storage[random() % storage.size()];
        switch (random() % 3) {
        case 0:
        case 1:
            set.Insert(p);
            model.insert(p);
            break;
        default:
            set.Erase(p);
            model.erase(p);
            break;
        }
        const void *probe = &storage[random() % storage.size()];
        ASSERT_EQ(set.Contains(probe), model.count(probe) == 1) << "step " << i;
    }
    EXPECT_EQ(set.Size(), model.size());
    EXPECT_FALSE(set.Contains(nullptr));
    set.Clear();
    EXPECT_FALSE(set.Contains(*model.begin()));
}

// The set marks erased slots with the value 1; that value is never an element, whatever the
// probe sequence of 1 meets.
TEST(PointerSet, ErasedSlotsNeverMakeOneALiveElement) {
    quillet::PointerSet set;
    const void *one = reinterpret_cast<const void *>(uintptr_t(1));
    std::vector<const void *> elements;
    for (uintptr_t i = 0; i < 40; ++i)
        elements.push_back(reinterpret_cast<const void *>(0x10000 + 16 * i));
    for (const void *p : elements)
        set.Insert(p);
    for (const void *p : elements) {
        set.Erase(p);
        ASSERT_FALSE(set.Contains(one));
    }
    set.Insert(one);
    set.Erase(one);
    EXPECT_FALSE(set.Contains(one));
    EXPECT_EQ(set.Size(), 0u);
}

TEST(ObjectArena, KnowsExactlyTheLiveObjectStarts) {
    quillet::ObjectArena arena;
    std::vector<std::pair<char *, size_t>> objects;
    for (size_t size : {24, 112, 128, 200, 112, 24, 70000})
        for (int i = 0; i < 1000; ++i)
            objects.push_back({static_cast<char *>(arena.Allocate(size)), size});
    for (auto &[p, size] : objects) {
        ASSERT_TRUE(arena.Contains(p));
        EXPECT_FALSE(arena.Contains(p + 8)) << "an address inside an object";
        std::memset(p, 0xAB, size); // the whole object is usable
    }
    int onStack = 0;
    EXPECT_FALSE(arena.Contains(&onStack));
    EXPECT_FALSE(arena.Contains(nullptr));

    char *released = objects[5].first;
    arena.Release(released);
    EXPECT_FALSE(arena.Contains(released));
    void *again = arena.Allocate(24);
    EXPECT_EQ(again, released) << "a released slot is used again";
    EXPECT_TRUE(arena.Contains(again));
    arena.Clear();
    EXPECT_FALSE(arena.Contains(objects[0].first));
}

} // namespace
