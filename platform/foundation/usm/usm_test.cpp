#include <foundation/usm/detail.hpp>

#include <gtest/gtest.h>

#include <thread>

using foundation::usm::Context;
using foundation::usm::ContextScope;
typedef foundation::usm::Detail<foundation::usm::scope::Tarn> Store;

namespace {
struct Counted {
    static int live;
    int v;
    explicit Counted(int x) : v(x) { ++live; }
    Counted(Counted const& o) : v(o.v) { ++live; }
    ~Counted() { --live; }
};
int Counted::live = 0;
} // namespace

TEST(SlotStore, SlotsArePerContextAndOwned) {
    auto const slot = Store::getNextID(typeid(Counted));
    EXPECT_NE(Store::getNextID(typeid(Counted)), slot);
    EXPECT_FALSE(Store::isRequiredContextActive());
    EXPECT_EQ(Store::find(slot, typeid(Counted)), nullptr);
    EXPECT_THROW(Store::findOrFail(slot, typeid(Counted)), foundation::usm::NoActiveContext);
    EXPECT_THROW(Store::insertValue(slot, Counted(1)), foundation::usm::NoActiveContext);
    EXPECT_EQ(Counted::live, 0); // the refused value was freed

    auto a = Context::create("a");
    auto b = Context::create("b");
    {
        ContextScope inA(a);
        EXPECT_TRUE(Store::isRequiredContextActive());
        EXPECT_THROW(Store::findOrFail(slot, typeid(Counted)), foundation::usm::SlotNotFound);
        Store::insertValue(slot, Counted(1));
        Store::insertValue(slot, Counted(2)); // replaces and frees the first
        EXPECT_EQ(Counted::live, 1);
        EXPECT_EQ(Store::findOrFailAs<Counted>(slot).v, 2);
        EXPECT_THROW(Store::find(slot, typeid(int)), std::logic_error);
        // findOrInsert keeps what is there and frees the newcomer.
        EXPECT_EQ(Store::findOrInsertValue(slot, Counted(9)).v, 2);
        EXPECT_EQ(Counted::live, 1);
        auto const other = Store::getNextID(typeid(Counted));
        EXPECT_EQ(Store::findOrInsertValue(other, Counted(5)).v, 5);
        EXPECT_TRUE(Context::current()->erase(other));
        {
            ContextScope inB(b); // nesting: b hides a
            EXPECT_EQ(Store::findAs<Counted>(slot), nullptr);
            Store::insertValue(slot, Counted(3));
        }
        EXPECT_EQ(Store::findAs<Counted>(slot)->v, 2);
        // Another thread is outside any context until it enters one.
        std::thread([&] {
            EXPECT_FALSE(Store::isRequiredContextActive());
            ContextScope inA2(a);
            EXPECT_EQ(Store::findAs<Counted>(slot)->v, 2);
        }).join();
    }
    EXPECT_FALSE(Store::isRequiredContextActive());
    EXPECT_EQ(Counted::live, 2);
    b.reset();
    EXPECT_EQ(Counted::live, 1);
    EXPECT_TRUE(a->erase(slot));
    EXPECT_FALSE(a->erase(slot));
    EXPECT_EQ(Counted::live, 0);
}
