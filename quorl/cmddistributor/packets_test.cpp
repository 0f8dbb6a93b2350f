// Packets, requests, tracking records and the enqueue message, each on its own.
#include <tests/support/golden.hpp>

#include <quorl/cmddistributor/cmddistributor.hpp>
#include <quorl/cmddistributor/futureexception.hpp>
#include <quorl/cmddistributor/iipcompletedevent.hpp>
#include <quorl/cmddistributor/iipenqueuemessage.hpp>
#include <quorl/io/activecmdwinsinkproxy.hpp>

#include <cpp11compat/u16streams.hpp>

#include <boost/make_shared.hpp>
#include <boost/serialization/utility.hpp>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>

using namespace cmddistributor;
using foundation::msg_svc::exchange::IDType;
using quorl_testing::Family;
namespace WTD = quorl::cmddistributor::WhenToDequeue;

namespace {

class ChattySink : public quorl::io::VeldraSink {
public:
    ChattySink() : VeldraSink(boost::make_shared<cpp11compat::u16stringbuf>()) {}
    bool useDiary() const override { return true; }
    bool useLogging() const override { return true; }
    mutable std::atomic<int> asked{0};
    bool supportsHotlinks() const override {
        ++asked;
        return true;
    }
};

// A packet whose type refuses to cross an archive.
class LocalOnlyIIP : public IIP {
public:
    LocalOnlyIIP()
        : IIP("local", DefaultIqmStreamID, quorl::io::SinkTraits(), quorl::io::SinkTraits()) {}
    bool canBeSerialized() const override { return false; }

private:
    friend class boost::serialization::access;
    template <class A> void serialize(A& ar, unsigned) {
        ar& boost::serialization::make_nvp("iip", boost::serialization::base_object<IIP>(*this));
    }
};

class PlainIIP : public IIP {
public:
    PlainIIP(boost::shared_ptr<quorl::io::VeldraSink> out,
             boost::shared_ptr<quorl::io::VeldraSink> err)
        : IIP("plain", DefaultIqmStreamID, out, err) {}
    PlainIIP() = default;

private:
    friend class boost::serialization::access;
    template <class A> void serialize(A& ar, unsigned) {
        ar& boost::serialization::make_nvp("iip", boost::serialization::base_object<IIP>(*this));
    }
};

class CountingRequest : public CmdRequest {
public:
    CountingRequest() : CmdRequest(DefaultIqmStreamID, nullptr, nullptr) {}
    std::atomic<int> made{0};
    std::function<void()> whileMaking; // runs inside createIIP when set

protected:
    boost::shared_ptr<IIP> createIIP() override {
        ++made;
        if (whileMaking)
            whileMaking();
        return boost::make_shared<PlainIIP>(getOutputSink(), getErrorSink());
    }
};

} // namespace

BOOST_CLASS_EXPORT(LocalOnlyIIP)
BOOST_CLASS_EXPORT(PlainIIP)

TEST(Packets, TraitsAreComputedLateAndCrossArchives) {
    auto out = boost::make_shared<ChattySink>();
    PlainIIP iip(out, nullptr);
    std::string const before = iip.toString();
    EXPECT_NE(before.find("Output Traits:\n--\nError Traits:\n--\n"), std::string::npos) << before;
    EXPECT_EQ(out->asked.load(), 0);
    EXPECT_TRUE(iip.getOutTraits().supportsHotlinks());
    EXPECT_TRUE(iip.getOutTraits().useDiary());
    EXPECT_EQ(out->asked.load(), 1); // computed once
    EXPECT_NE(iip.toString().find("links: true"), std::string::npos);
    EXPECT_FALSE(iip.wasSerialized());

    for (Family f : quorl_testing::allFamilies()) {
        SCOPED_TRACE(quorl_testing::familyName(f));
        auto back = quorl_testing::roundTripThroughBase<IIP>(f, iip);
        ASSERT_TRUE(back);
        EXPECT_TRUE(back->wasSerialized());
        EXPECT_FALSE(back->getOutputSink());
        EXPECT_FALSE(bool(*back->getEventMgrBypass()));
        EXPECT_EQ(back->getPluginType(), "plain");
        EXPECT_EQ(back->getOutTraits().useDiary(), iip.getOutTraits().useDiary());
        EXPECT_EQ(back->getOutTraits().supportsHotlinks(), true);

        // A packet type that cannot be serialized saves, and refuses to load.
        LocalOnlyIIP local;
        IIP const* lp = &local;
        IIP* refused = nullptr;
        try {
            quorl_testing::read(f, quorl_testing::write(f, lp), refused);
            FAIL() << "loading must fail";
        } catch (boost::archive::archive_exception const& e) {
            EXPECT_EQ(e.code, boost::archive::archive_exception::unregistered_cast);
        }
    }
    // Two packets in one archive keep their own traits: the second's differ from the first's
    // and from a loaded packet's defaults.
    PlainIIP plain(nullptr, nullptr);
    ASSERT_EQ(plain.getOutTraits(), quorl::io::SinkTraits());
    ASSERT_NE(iip.getOutTraits(), quorl::io::SinkTraits());
    for (Family f : quorl_testing::allFamilies()) {
        SCOPED_TRACE(quorl_testing::familyName(f));
        std::pair<IIP const*, IIP const*> pair(&plain, &iip);
        std::pair<IIP*, IIP*> back(nullptr, nullptr);
        quorl_testing::read(f, quorl_testing::write(f, pair), back);
        std::unique_ptr<IIP> first(back.first), second(back.second);
        ASSERT_TRUE(first && second);
        EXPECT_EQ(first->getOutTraits(), plain.getOutTraits());
        EXPECT_EQ(second->getOutTraits(), iip.getOutTraits());
        EXPECT_EQ(second->getErrTraits(), iip.getErrTraits());
    }

    auto names = quorl_testing::xmlElementNames(
        quorl_testing::write(Family::Xml, static_cast<IIP const&>(iip)));
    ASSERT_GE(names.size(), 5u);
    names.resize(4);
    EXPECT_EQ(names, (std::vector<std::string>{"object", "streamid", "plugintype", "outtraits"}));

    // The bypass is set in place, so a pointer to it taken earlier sees the new handlers.
    auto const held = iip.getEventMgrBypass();
    int completed = 0;
    iip.setEventMgrBypass(IIP::EventMgrBypass([&](IIPCompletedEvent const&) { ++completed; },
                                              IIP::EventMgrBypass::DiscardedHandler()));
    ASSERT_TRUE(bool(*held));
    (*held)(IIPCompletedEvent(IDType(), quorl::cmddistributor::ExecutionSuccess));
    (*held)(IIPDiscardedEvent(IDType())); // empty handler: skipped
    EXPECT_EQ(completed, 1);
}

TEST(Requests, SinksDefaultToTheCommandWindowAndThePacketIsMadeOnce) {
    auto request = boost::make_shared<CountingRequest>();
    auto out =
        boost::dynamic_pointer_cast<quorl::io::ActiveCmdWinSinkProxy>(request->getOutputSink());
    auto err =
        boost::dynamic_pointer_cast<quorl::io::ActiveCmdWinSinkProxy>(request->getErrorSink());
    ASSERT_TRUE(out && err);
    EXPECT_EQ(out->getStreamType(), quorl::io::OutputStream);
    EXPECT_EQ(err->getStreamType(), quorl::io::ErrorStream);
    // The first maker holds on until all six threads have set off for getIIP, so the others
    // come while the packet is being made. Whatever order they then come in, one packet is made.
    std::mutex m;
    std::condition_variable cv;
    int setOff = 0;
    request->whileMaking = [&] {
        std::unique_lock<std::mutex> l(m);
        EXPECT_TRUE(cv.wait_for(l, std::chrono::seconds(20), [&] { return setOff == 6; }));
    };
    std::vector<boost::shared_ptr<IIP>> seen(6);
    std::vector<std::thread> threads;
    for (int i = 0; i < 6; ++i)
        threads.emplace_back([&, i] {
            {
                std::lock_guard<std::mutex> l(m);
                ++setOff;
            }
            cv.notify_all();
            seen[i] = request->getIIP();
        });
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(request->made.load(), 1);
    for (auto const& s : seen)
        EXPECT_EQ(s, seen[0]);
}

namespace {
// Gives access to the record factory for tests.
struct TrackingFactory : CmdDistributor {
    using CmdDistributor::makeRequestTracking;
};

// Hands the record a cancel promise; returns the promise's future.
template <class Record> auto cancelFuture(Record const& record) {
    auto p = std::make_unique<boost::promise<CmdDistributor::CancelStatus>>();
    auto f = p->get_future();
    record->cancel(std::move(p));
    return f;
}
} // namespace

TEST(RequestTracking, CancelStatusFollowsTheEnd) {
    auto request = boost::make_shared<CountingRequest>();
    {
        auto record = TrackingFactory::makeRequestTracking(request, nullptr, false);
        EXPECT_TRUE(record->isRequestDone());
        record->waitTillReady();
        EXPECT_FALSE(record->needsDeadlockChecking());
        // A cancel promise on a record that dies unfulfilled receives the current status.
        auto f = cancelFuture(record);
        auto second = std::make_unique<boost::promise<CmdDistributor::CancelStatus>>();
        EXPECT_THROW(record->cancel(std::move(second)), AlreadyCancelledException);
        EXPECT_TRUE(second); // stays with the caller
        record.reset();
        EXPECT_EQ(f.get(), CmdDistributor::CancelNotCancelled);
    }
    for (auto status :
         {quorl::cmddistributor::ExecutionInterrupted, quorl::cmddistributor::ExecutionSuccess}) {
        auto delegate = std::make_unique<PromiseDelegateT<void>>(nullptr);
        auto future = delegate->getFuture();
        std::atomic<int> continued{0};
        auto record = TrackingFactory::makeRequestTracking(request, std::move(delegate), true, [&] {
            ++continued;
            throw std::runtime_error("continuation failure is swallowed");
        });
        EXPECT_FALSE(record->needsDeadlockChecking()); // trusted continuation
        auto f = cancelFuture(record);
        record->setValue(IIPCompletedEvent(IDType(), status));
        EXPECT_EQ(continued.load(), 1);
        EXPECT_TRUE(future.is_ready());
        EXPECT_EQ(f.get(), status == 4 ? CmdDistributor::CancelEndedByStatus4
                                       : CmdDistributor::CancelNotCancelled);
    }
    {
        // A failure other than a cancel keeps the status; a cancel's failure sets 2.
        auto record = TrackingFactory::makeRequestTracking(
            request, std::make_unique<PromiseDelegateT<void>>(nullptr), false);
        EXPECT_TRUE(record->needsDeadlockChecking());
        record->cancelled(CmdDistributor::CancelNotFound);
        auto f = cancelFuture(record);
        record->setException(boost::copy_exception(std::runtime_error("other")));
        EXPECT_EQ(f.get(), CmdDistributor::CancelNotFound);
        auto record2 = TrackingFactory::makeRequestTracking(
            request, std::make_unique<PromiseDelegateT<void>>(nullptr), false);
        auto f2 = cancelFuture(record2);
        record2->setException(boost::copy_exception(AlreadyCancelledException()));
        EXPECT_EQ(f2.get(), CmdDistributor::CancelDone);
    }
}

TEST(EnqueueMessage, WireFormsOldVersionsAndEquality) {
    IDType const id(5, 6);
    auto message = [&](boost::shared_ptr<IIP const> const& iip) {
        return IIPEnqueueMessage(iip, id, quorl::contextmgr::FennID{3},
                                 quorl::contextmgr::TarnID{9}, nullptr, WTD::DequeueWhenIdle, true);
    };
    IIPEnqueueMessage const m = message(boost::make_shared<PlainIIP const>(nullptr, nullptr));
    for (Family f : quorl_testing::allFamilies()) {
        SCOPED_TRACE(quorl_testing::familyName(f));
        auto e = quorl_testing::roundTripThroughBase<foundation::msg_svc::exchange::Message>(f, m);
        ASSERT_TRUE(e);
        EXPECT_TRUE(*e == m);
        EXPECT_EQ(e->getIIPId(), id);
        EXPECT_TRUE(e->getIIP()->wasSerialized());
    }
    auto names = quorl_testing::xmlElementNames(quorl_testing::write(Family::Xml, m));
    std::vector<std::string> top;
    for (auto const& n : names) {
        if (n == "message" || n == "fennid" || n == "iip" || n == "iipid" || n == "tarnid" ||
            n == "hasFuture" || n == "dequeueMode")
            top.push_back(n);
    }
    // The second "iip" is the test packet's own name for its base.
    EXPECT_EQ(top, (std::vector<std::string>{"message", "fennid", "iip", "iip", "iipid", "tarnid",
                                             "hasFuture", "dequeueMode"}));
    // Packets of the same presence compare equal; presence differs.
    EXPECT_TRUE(message(boost::make_shared<PlainIIP const>(nullptr, nullptr)) == m);
    IIPEnqueueMessage const none = message(nullptr);
    EXPECT_FALSE(none == m);
}

TEST(EnqueueMessage, OldVersionTwoIsRead) {
    for (Family f : {Family::Text, Family::Xml}) {
        foundation::msg_svc::exchange::Message* back = nullptr;
        quorl_testing::read(
            f,
            quorl_testing::readGolden(std::string("enqueuemessage/iipenqueuemessage.v2") +
                                      (f == Family::Xml ? ".xml" : ".txt")),
            back);
        std::unique_ptr<foundation::msg_svc::exchange::Message> owned(back);
        auto* e = dynamic_cast<IIPEnqueueMessage*>(back);
        ASSERT_TRUE(e);
        EXPECT_EQ(e->getFennId().value, 7);
        ASSERT_TRUE(e->getTarnId());
        EXPECT_EQ(e->getTarnId()->value, 11u);
        EXPECT_FALSE(e->getIIP());
        EXPECT_EQ(e->getIIPId(), IDType(0, 0));
        EXPECT_FALSE(e->getHasFuture());                    // the version had no such field
        EXPECT_EQ(e->getDequeueMode(), WTD::DequeueLegacy); // 3
    }
}
