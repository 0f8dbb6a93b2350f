#include <quorl/matrixref/matrixreftable.hpp>

#include <quorl/matrixref/matrixrefserviceapi.hpp>
#include <quorl/matrixref/releaserefmessage.hpp>
#include <tests/matrixref/countedarrays.hpp>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <mutex>
#include <stdexcept>
#include <vector>

using namespace quorl::matrixref;
using foundation::msg_svc::exchange::Address;
using foundation::msg_svc::exchange::ExchangeApi;
using foundation::msg_svc::exchange::ExchangeConfig;
using foundation::msg_svc::exchange::Message;
using quorl::contextmgr::TarnID;
using quorl_testing::makeCounted;

namespace {

// An exchange that records what is submitted to it instead of sending it.
class RecordingExchange : public ExchangeApi {
public:
    RecordingExchange() : ExchangeApi(ExchangeConfig()) {}
    void submit(boost::shared_ptr<Message const> const& message, Address const& address) override {
        std::lock_guard<std::mutex> guard(mutex);
        if (failWith)
            throw std::runtime_error("transport down");
        auto release = boost::dynamic_pointer_cast<ReleaseRefMessage const>(message);
        ASSERT_TRUE(release) << "only releases are sent";
        sent.emplace_back(address, release->serverTag());
    }
    std::vector<std::pair<Address, RefTag>> taken() {
        std::lock_guard<std::mutex> guard(mutex);
        return std::move(sent);
    }
    std::mutex mutex;
    std::vector<std::pair<Address, RefTag>> sent;
    bool failWith = false;
};

struct Table {
    boost::shared_ptr<RecordingExchange> exchange = boost::make_shared<RecordingExchange>();
    MatrixRefTable table{0, exchange};
};

TarnID const S{3}, C{7}, Other{9};

} // namespace

TEST(MatrixRefTable, LocalEntriesCountAndHandOutTheirArray) {
    Table t;
    long freed = quorl_testing::countedFreed();
    auto array = makeCounted();
    hvArray_tag* raw = array.get();
    RefTag tag = t.table.insertLocal(S, array);
    EXPECT_NE(tag, UndefinedRefTag);
    EXPECT_FALSE(array) << "the table takes the array";

    // The same array again: one entry, two counts, and the caller's pointer is left alone.
    HvArrayPtr alias(raw);
    EXPECT_EQ(t.table.insertLocal(Other, alias), tag);
    EXPECT_EQ(alias.get(), raw);
    (void)alias.release();
    auto entry = t.table.find(tag);
    ASSERT_TRUE(entry);
    EXPECT_EQ(entry->count, 2u);
    EXPECT_EQ(entry->tarn, S);
    EXPECT_TRUE(entry->isLocal());

    // Count 2: a shared copy, the entry keeps its array; count 1: the array itself, entry gone.
    auto copy = t.table.takeArray(tag, true);
    ASSERT_TRUE(copy);
    EXPECT_NE(copy.get(), raw);
    EXPECT_EQ(t.table.find(tag)->count, 1u);
    auto last = t.table.takeArray(tag, true);
    EXPECT_EQ(last.get(), raw);
    EXPECT_FALSE(t.table.find(tag));
    EXPECT_EQ(t.table.addReference(tag), UndefinedRefTag);
    EXPECT_FALSE(t.table.takeArray(tag, false));
    copy.reset();
    last.reset();
    EXPECT_EQ(quorl_testing::countedFreed(), freed + 1);

    // Tags are never reused, also across tables.
    auto again = makeCounted();
    RefTag next = t.table.insertLocal(S, again);
    EXPECT_GT(next, tag);
    MatrixRefTable other(0, t.exchange);
    auto third = makeCounted();
    EXPECT_GT(other.insertLocal(S, third), next);
    other.clearTable(false);
    EXPECT_EQ(quorl_testing::countedFreed(), freed + 2);

    // Releasing more than the count removes the entry and destroys the array once.
    EXPECT_EQ(t.table.addReference(next), next);
    t.table.releaseTag(next, 5);
    EXPECT_FALSE(t.table.find(next));
    t.table.releaseTag(next, 1);
    EXPECT_EQ(quorl_testing::countedFreed(), freed + 3);
    EXPECT_TRUE(t.exchange->taken().empty()) << "local entries send nothing";
}

TEST(MatrixRefTable, RemoteEntriesAreOnePerDistantArrayAndReleaseOnce) {
    Table t;
    RefTag a = t.table.insertRemote(C, 41, C, "Thing", {2, 3}, true);
    EXPECT_EQ(t.table.insertRemote(C, 41, C, "Thing", {2, 3}, true), a);
    RefTag b = t.table.insertRemote(Other, 41, Other, "Thing", {2, 3}, true);
    EXPECT_NE(a, b);
    EXPECT_EQ(t.table.countActive(false), 2u);
    EXPECT_EQ(t.table.countActive(true), 0u);
    EXPECT_EQ(t.table.countTotal(false), 3u);
    auto entry = t.table.find(a);
    ASSERT_TRUE(entry && entry->remote());
    EXPECT_EQ(entry->remote()->className, "Thing");
    EXPECT_EQ(entry->remote()->dimensions, (std::vector<std::size_t>{2, 3}));

    // A remote entry has no array to hand out, and keeps its count.
    EXPECT_FALSE(t.table.takeArray(a, true));
    EXPECT_EQ(t.table.find(a)->count, 2u);

    // No exchange registered for the context: the entry goes, nothing is sent.
    t.table.releaseTag(b, 1);
    EXPECT_FALSE(t.table.find(b));
    EXPECT_TRUE(t.exchange->taken().empty());

    // Registered: one release, to the service of that exchange, with the distant tag, only when
    // the last count goes. The latest registration counts.
    t.table.registerExchange(C, "first");
    t.table.registerExchange(C, "server-exchange");
    t.table.releaseTag(a, 1);
    EXPECT_TRUE(t.exchange->taken().empty());
    t.table.releaseTag(a, 1);
    auto sent = t.exchange->taken();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].first, Address("server-exchange", "TarnServer"));
    EXPECT_EQ(sent[0].second, 41u);
    EXPECT_FALSE(t.table.find(a));

    // The same distant array arriving later is a new entry; a failing send is swallowed.
    RefTag c = t.table.insertRemote(C, 41, C, "Thing", {2, 3}, true);
    EXPECT_NE(c, a);
    t.exchange->failWith = true;
    EXPECT_NO_THROW(t.table.releaseTag(c, 1));
    EXPECT_FALSE(t.table.find(c));
    t.exchange->failWith = false;

    // After releaseExchange nothing is sent.
    RefTag d = t.table.insertRemote(C, 42, C, "Thing", {1, 1}, false);
    t.table.releaseExchange(C);
    t.table.releaseTag(d, 1);
    EXPECT_TRUE(t.exchange->taken().empty());
    EXPECT_EQ(t.table.countActive(false), 0u);
}

TEST(MatrixRefTable, ServiceReleasesTakeOneCountOffLocalEntriesOnly) {
    Table t;
    long freed = quorl_testing::countedFreed();
    auto array = makeCounted();
    RefTag tag = t.table.insertLocal(S, array);
    t.table.addReference(tag);
    RefTag remote = t.table.insertRemote(C, tag, C, "x", {1, 1}, false);

    t.table.releaseServiceTag(tag);
    EXPECT_EQ(t.table.find(tag)->count, 1u) << "one count off, the array stays";
    t.table.releaseServiceTag(remote);
    t.table.releaseServiceTag(UndefinedRefTag);
    t.table.releaseServiceTag(999999999);
    EXPECT_EQ(t.table.find(remote)->count, 1u) << "a release never touches a remote entry";
    t.table.releaseServiceTag(tag);
    EXPECT_FALSE(t.table.find(tag));
    t.table.releaseServiceTag(tag); // late and repeated: harmless
    EXPECT_EQ(quorl_testing::countedFreed(), freed + 1);
}

TEST(MatrixRefTable, ClearsRemoveWithoutSendingAndKeepExchanges) {
    long freed = quorl_testing::countedFreed();
    Table t;
    t.table.registerExchange(C, "server-exchange");
    auto ofS = makeCounted();
    auto ofOther = makeCounted();
    RefTag local = t.table.insertLocal(S, ofS);
    RefTag kept = t.table.insertLocal(Other, ofOther);
    RefTag remote = t.table.insertRemote(S, 5, C, "x", {1, 1}, false);
    RefTag remoteKept = t.table.insertRemote(Other, 6, C, "x", {1, 1}, false);

    t.table.clearTarn(S);
    EXPECT_FALSE(t.table.find(local));
    EXPECT_FALSE(t.table.find(remote));
    EXPECT_TRUE(t.table.find(kept));
    EXPECT_TRUE(t.table.find(remoteKept));
    EXPECT_EQ(quorl_testing::countedFreed(), freed + 1);
    EXPECT_TRUE(t.exchange->taken().empty());
    // The cleared remote entry's key is free again: the same distant array is a new entry.
    EXPECT_NE(t.table.insertRemote(S, 5, C, "x", {1, 1}, false), remote);

    t.table.clearTable(false);
    EXPECT_EQ(t.table.countActive(false), 0u);
    EXPECT_EQ(quorl_testing::countedFreed(), freed + 2);
    EXPECT_TRUE(t.exchange->taken().empty());
    RefTag late = t.table.insertRemote(S, 8, C, "x", {1, 1}, false);
    t.table.releaseTag(late, 1);
    EXPECT_EQ(t.exchange->taken().size(), 1u) << "registered exchanges survive a clear";

    // Keeping the arrays abandons them: nothing is destroyed.
    {
        MatrixRefTable ending(1, t.exchange);
        auto abandoned = makeCounted();
        hvArray_tag* raw = abandoned.get();
        ending.insertLocal(S, abandoned);
        ending.clearTable(true);
        EXPECT_EQ(ending.countActive(false), 0u);
        EXPECT_EQ(quorl_testing::countedFreed(), freed + 2);
        hvDestroyArray(raw);
    }
    EXPECT_EQ(quorl_testing::countedFreed(), freed + 3);
}

TEST(MatrixRefTable, ArraysHoldingReferencesMayBeReleasedWithoutDeadlock) {
    // Destroying a local array whose destruction releases another entry of the same table (as a
    // container of references does) must not re-enter the table's lock.
    Table t;
    auto inner = makeCounted();
    RefTag innerTag = t.table.insertLocal(S, inner);
    MatrixRefTable* table = &t.table;
    auto outer = makeCounted(1, [table, innerTag] { table->releaseTag(innerTag, 1); });
    RefTag outerTag = t.table.insertLocal(S, outer);
    t.table.releaseTag(outerTag, 1);
    EXPECT_EQ(t.table.countActive(false), 0u);

    auto again = makeCounted();
    innerTag = t.table.insertLocal(S, again);
    auto holder = makeCounted(1, [table, innerTag] { table->releaseTag(innerTag, 1); });
    t.table.insertLocal(S, holder);
    t.table.clearTarn(S);
    EXPECT_EQ(t.table.countActive(false), 0u);
}
