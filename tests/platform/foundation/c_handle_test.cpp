#include "foundation/c_handle.hpp"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

namespace sorvan {
namespace {

struct Thing {
    int id;
};

std::vector<int> released;

void releaseThing(Thing* t) {
    released.push_back(t->id);
    delete t;
}

using ThingHandle = CHandle<Thing, releaseThing>;

TEST(CHandle, ReleasesEachObjectOnceAndNeverANullOne) {
    released.clear();
    {
        ThingHandle a(new Thing{1});
        ThingHandle empty;
        ThingHandle moved = std::move(a);
        EXPECT_FALSE(a);
        moved.reset(new Thing{2});
        EXPECT_EQ(released, (std::vector<int>{1}));
        Thing* kept = ThingHandle(new Thing{3}).release();
        EXPECT_EQ(released, (std::vector<int>{1})) << "given up, not released";
        delete kept;
        // Shared owners: released once, with the last of them; a null one never.
        std::shared_ptr<Thing> s(new Thing{4}, CHandleDeleter<releaseThing>{});
        auto copy = s;
        s.reset();
        EXPECT_EQ(released, (std::vector<int>{1}));
        std::shared_ptr<Thing> none(static_cast<Thing*>(nullptr), CHandleDeleter<releaseThing>{});
    }
    EXPECT_EQ(released, (std::vector<int>{1, 4, 2}));
}

}  // namespace
}  // namespace sorvan
