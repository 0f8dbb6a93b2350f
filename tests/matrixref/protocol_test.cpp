#include <tests/matrixref/twoexchanges.hpp>

#include <quorl/matrixref/refpersistform.hpp>
#include <quorl/matrixref/releaserefmessage.hpp>

#include <boost/make_shared.hpp>

#include <chrono>
#include <future>
#include <mutex>
#include <vector>

using namespace quorl::matrixref;
using foundation::msg_svc::exchange::Address;
using foundation::msg_svc::exchange::ExchangeApi;
using foundation::msg_svc::exchange::ExchangeConfig;
using foundation::msg_svc::exchange::Reply;
using quorl::contextmgr::TarnID;
using quorl_testing::deserialize;
using quorl_testing::makeCounted;
using quorl_testing::serialize;
using quorl_testing::ServerAsClientKnowsIt;
using quorl_testing::ServerTarn;

namespace {

auto* const environment = ::testing::AddGlobalTestEnvironment(new quorl_testing::TwoExchanges);

MatrixRefTable& table() {
    return *quorl_testing::TwoExchanges::table;
}

std::uint64_t countOf(RefTag tag) {
    auto entry = table().find(tag);
    return entry ? entry->count : 0;
}

RefTag tagOf(hvArray_tag const* ref) {
    hvOpaqueClass const* cls = hvGetOpaqueClass(ref);
    HvArrayPtr form(hvGetOpaqueClassOps(cls)->save(ref));
    return RefPersistForm::fromArray(form.get())->tag;
}

// What the client receives when the server sends `array` (taken) in a 1-by-1 cell of a reply.
HvArrayPtr sentToClient(hvArray_tag* array, TarnID const& knownAs) {
    HvArrayPtr reply(hvCreateCellMatrix(1, 1));
    hvSetCell(reply.get(), 0, array);
    std::string error;
    auto converted = refCopyAndConvertArray(reply, knownAs, ServerTarn, error);
    EXPECT_TRUE(converted) << error;
    return deserialize(serialize(converted.get()));
}

// A server of its own whose release service records what arrives; a release of tag 0 (which
// the table ignores) serves as a barrier: everything sent before it has been served.
class CountingServer {
public:
    class Service : public MatrixRefServiceAPI {
    public:
        explicit Service(CountingServer& owner) : owner_(owner) {}
        boost::shared_ptr<Reply const> serve(ReleaseRefMessage const& m) override {
            std::lock_guard<std::mutex> guard(owner_.mutex_);
            if (m.serverTag() == UndefinedRefTag) {
                owner_.barrier_.set_value();
                return nullptr;
            }
            owner_.served_.push_back(m.serverTag());
            detail::refReleaseServiceTag(m.serverTag());
            return nullptr;
        }

    private:
        CountingServer& owner_;
    };

    CountingServer(std::string const& name, TarnID const& knownAs) : name_(name) {
        ExchangeConfig config;
        config.name = name;
        config.transport = foundation::msg_svc::exchange::makeLoopbackTransport();
        exchange_ = ExchangeApi::create(config);
        foundation::msg_svc::exchange::registerActor<MatrixRefServiceAPI>(
            *exchange_, MatrixRefServiceAPI::serviceName, boost::make_shared<Service>(*this));
        detail::refRegisterExchange(knownAs, name);
    }

    // The releases served since the last call, once all sent before it have arrived.
    std::vector<RefTag> servedSoFar() {
        std::future<void> done;
        {
            std::lock_guard<std::mutex> guard(mutex_);
            barrier_ = std::promise<void>();
            done = barrier_.get_future();
        }
        ExchangeApi::instance()->submit(boost::make_shared<ReleaseRefMessage const>(0),
                                        Address(name_, MatrixRefServiceAPI::serviceName));
        EXPECT_EQ(done.wait_for(std::chrono::seconds(30)), std::future_status::ready);
        std::lock_guard<std::mutex> guard(mutex_);
        return std::move(served_);
    }

    void kill() { exchange_.reset(); }

private:
    std::string name_;
    boost::shared_ptr<ExchangeApi> exchange_;
    std::mutex mutex_; // guards served_ and barrier_
    std::vector<RefTag> served_;
    std::promise<void> barrier_;
};

} // namespace

TEST(ReleaseProtocol, TheLifeOfARemoteReference) {
    std::promise<void> destroyed;
    auto gone = destroyed.get_future();
    long freed = quorl_testing::countedFreed();

    // S: a call's result holds an object; converting it for the client adds the client's count.
    auto object = makeCounted(1, [&] { destroyed.set_value(); });
    void* original = hvGetOpaqueGiblet(object.get());
    HvArrayPtr result(hvCreateCellMatrix(1, 2));
    hvSetCell(result.get(), 0, object.release());
    hvSetCell(result.get(), 1, hvCreateDoubleScalar(42));
    std::string error;
    auto reply = refCopyAndConvertArray(result, ServerAsClientKnowsIt, ServerTarn, error);
    ASSERT_TRUE(reply) << error;
    RefTag serverTag = tagOf(hvGetCell(reply.get(), 0));
    EXPECT_EQ(countOf(serverTag), 2u);
    EXPECT_EQ(detail::refFindTag(serverTag), ServerTarn);
    auto bytes = serialize(reply.get());
    reply.reset();
    EXPECT_EQ(countOf(serverTag), 1u) << "the one count left stands for the client";

    // C: the reply arrives; the object is a remote reference, described without a message.
    auto arrived = deserialize(bytes);
    EXPECT_EQ(hvGetScalar(hvGetCell(arrived.get(), 1)), 42.0);
    HvArrayPtr ref(hvCreateSharedDataCopy(hvGetCell(arrived.get(), 0)));
    ASSERT_TRUE(refIsRemoteRef(ref));
    EXPECT_EQ(tagOf(ref.get()), serverTag) << "saved, a remote reference names the owner's tag";
    EXPECT_EQ(refGetClassname(ref), "CountedTestArray");
    EXPECT_EQ(refGetDimensions(ref), (std::vector<std::size_t>{1, 1}));

    // C copies it, stores it in a cell, makes an element reference of it.
    HvArrayPtr cell(hvCreateCellMatrix(1, 1));
    hvSetCell(cell.get(), 0, hvCreateSharedDataCopy(ref.get()));
    auto element = refElementIndexRef(ref, 0);
    ASSERT_TRUE(refIsRemoteRef(element));
    arrived.reset();

    // C passes it back in a later request: S sees its original object, and its counts balance.
    auto argument = deserialize(serialize(cell.get()));
    hvArray_tag const* back = hvGetCell(argument.get(), 0);
    ASSERT_FALSE(refIsRef(back));
    EXPECT_EQ(hvGetOpaqueGiblet(back), original);
    argument.reset();
    EXPECT_EQ(countOf(serverTag), 1u);

    // C's last reference dies: one release crosses, and S destroys the object.
    ref.reset();
    element.reset();
    EXPECT_EQ(countOf(serverTag), 1u);
    EXPECT_EQ(gone.wait_for(std::chrono::milliseconds(0)), std::future_status::timeout);
    cell.reset();
    ASSERT_EQ(gone.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    EXPECT_EQ(quorl_testing::countedFreed(), freed + 1);
    EXPECT_FALSE(table().find(serverTag));
    EXPECT_EQ(table().countActive(false), 0u);
}

TEST(ReleaseProtocol, TwoArrivalsMeetOneReleaseAndClearsTidyUp) {
    TarnID const knownAs{8};
    CountingServer server("mref-counting-server", knownAs);
    long freed = quorl_testing::countedFreed();

    // S holds a reference of its own and sends the same array to C twice.
    auto object = makeCounted();
    auto held = refCreateRef(knownAs, ServerTarn, object, false);
    RefTag serverTag = tagOf(held.get());
    std::vector<HvArrayPtr> arrivals;
    for (int i = 0; i < 2; ++i)
        arrivals.push_back(sentToClient(hvCreateSharedDataCopy(held.get()), knownAs));
    held.reset();
    EXPECT_EQ(countOf(serverTag), 2u);
    HvArrayPtr first(hvCreateSharedDataCopy(hvGetCell(arrivals[0].get(), 0)));
    HvArrayPtr second(hvCreateSharedDataCopy(hvGetCell(arrivals[1].get(), 0)));
    EXPECT_TRUE(hvAreMatricesEqual(first.get(), second.get())) << "one entry in C";
    EXPECT_EQ(table().countActive(false), 2u);
    EXPECT_EQ(table().countTotal(false), 4u);
    arrivals.clear();
    first.reset();
    EXPECT_TRUE(server.servedSoFar().empty());
    second.reset();

    // One release for the two arrivals: S keeps the array until its context is cleared.
    EXPECT_EQ(server.servedSoFar(), std::vector<RefTag>{serverTag});
    EXPECT_EQ(countOf(serverTag), 1u);
    EXPECT_EQ(quorl_testing::countedFreed(), freed);
    detail::refClearAll(ServerTarn);
    EXPECT_EQ(quorl_testing::countedFreed(), freed + 1);
    EXPECT_TRUE(server.servedSoFar().empty()) << "a clear sends nothing";

    // After refReleaseExchange, a dying remote reference sends nothing.
    auto there = sentToClient(makeCounted().release(), knownAs);
    detail::refReleaseExchange(knownAs);
    there.reset();
    EXPECT_TRUE(server.servedSoFar().empty());
    EXPECT_EQ(table().countActive(false), 1u) << "S's array waits for its context's end";
    detail::refClearAll(ServerTarn);
    EXPECT_EQ(table().countActive(false), 0u);
}

TEST(ReleaseProtocol, AServerThatDiesLeavesCleanFailures) {
    TarnID const knownAs{9};
    CountingServer dying("mref-dying-server", knownAs);
    // A reference to an array of the dying server, as its reply would bring it.
    RefPersistForm const form{12345, true, false, 0, "Thing", {2, 2}, knownAs, true};
    HvArrayPtr empty;
    auto probe = refCreateRef(knownAs, knownAs, empty, false);
    hvOpaqueClass const* cls = hvGetOpaqueClass(probe.get());
    HvArrayPtr ref(hvGetOpaqueClassOps(cls)->load(cls, form.toArray().get()));
    ASSERT_TRUE(refIsRemoteRef(ref));
    auto element = refElementIndexRef(ref, 3);
    ASSERT_TRUE(element);

    dying.kill();
    // Questions are answered from the entry; the releases to the dead server fail quietly.
    EXPECT_EQ(refGetClassname(ref), "Thing");
    EXPECT_EQ(refGetDimensions(ref), (std::vector<std::size_t>{2, 2}));
    EXPECT_FALSE(refGetRef(ref, false));
    EXPECT_NO_THROW(ref.reset());
    EXPECT_NO_THROW(element.reset());
    EXPECT_EQ(table().countActive(false), 0u);

    detail::refReleaseExchange(knownAs);
}
