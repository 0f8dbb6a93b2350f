#include <tests/support/archivetesting.hpp>

#include <quorl/eventmgr/eventmgraccess.hpp>
#include <quorl/eventmgr/flushmessage.hpp>
#include <quorl/eventmgr/preshutdownevent.hpp>
#include <quorl/eventmgr/tarnshutdownevent.hpp>
#include <quorl/utils/fennmutex.hpp>
#include <quorl/utils/scopedfactoryregistration.hpp>

#include <foundation/msg_svc/exchange/exchangeapi.hpp>
#include <foundation/usm/detail.hpp>

#include <boost/archive/xml_archive_exception.hpp>
#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>

using namespace quorl;
using namespace quorl::eventmgr;
using foundation::usm::Context;
using foundation::usm::ContextScope;
using quorl::contextmgr::TarnID;

TEST(EventMgrAccess, ActiveManagerPerContextAndIdentities) {
    EXPECT_FALSE(getActiveEventMgr());
    auto a = createLocalEventMgr(TarnID{7});
    auto b = createLocalEventMgr(TarnID{8});
    EXPECT_THROW(setActiveEventMgr(a), foundation::usm::NoActiveContext);
    auto ctx1 = Context::create();
    auto ctx2 = Context::create();
    {
        ContextScope in(ctx1);
        EXPECT_FALSE(getActiveEventMgr());
        setActiveEventMgr(a);
        setActiveEventMgr(b);
        ASSERT_TRUE(getActiveEventMgr());
        EXPECT_EQ(*getActiveEventMgr(), b);
        ContextScope in2(ctx2);
        EXPECT_FALSE(getActiveEventMgr()); // per context
    }
    EXPECT_FALSE(getActiveEventMgr()); // outside, even though one was set inside

    // Identities: empty and undefined mean the session; equal identities are equal managers.
    EXPECT_TRUE(createLocalEventMgr(boost::none)->equalTo(*createLocalEventMgr(TarnID{0})));
    EXPECT_TRUE(createLocalEventMgr(TarnID{7})->equalTo(*a));
    EXPECT_FALSE(a->equalTo(*b));
    EXPECT_EQ(a->getEmId().value(), 7u);
    auto remote = createRemoteEventMgr("far", TarnID{3}, boost::none);
    EXPECT_EQ(remote->getEmId().value(), 3u);
    EXPECT_EQ(remote->getRemoteEmId(), foundation::msg_svc::eventmgr::SessionEmId);
    EXPECT_FALSE(remote->equalTo(*createLocalEventMgr(TarnID{3})));

    // Managers made here call subscribers under the fenn mutex while someone holds it: a
    // subscriber cannot run while this thread holds it, and runs once flush gives it up.
    std::atomic<int> delivered{0};
    std::promise<void> arrived;
    auto conn = a->subscribe<TARNShutdownEvent>([&](TARNShutdownEvent const&) {
        if (++delivered == 1)
            arrived.set_value();
    });
    fenn_acquire_mutex();
    a->notify<TARNShutdownEvent>(foundation::msg_svc::eventmgr::DeliverQueued);
    // Nothing tells that the event thread is waiting for the mutex, so this wait only gives a
    // delivery that would not wait the time to show; in whatever order the threads run, a
    // correct manager delivers nothing before the flush.
    EXPECT_EQ(arrived.get_future().wait_for(std::chrono::milliseconds(50)),
              std::future_status::timeout);
    EXPECT_EQ(delivered.load(), 0);
    a->flush(); // gives the fenn mutex up while it waits
    EXPECT_EQ(delivered.load(), 1);
    EXPECT_TRUE(fenn_mutex_is_acquired());
    fenn_release_mutex();
}

TEST(EventMgrAccess, LibraryFlushMessageIsReadAndDeliveredAsItsBase) {
    using quorl_testing::Family;
    detail::FlushMessage const m;
    for (Family f : quorl_testing::allFamilies()) {
        SCOPED_TRACE(quorl_testing::familyName(f));
        if (f == Family::Xml || f == Family::PolyXml) {
            // Its pair name holds "::", which XML archives refuse as an element name.
            foundation::msg_svc::exchange::Message const* asBase = &m;
            EXPECT_THROW(quorl_testing::write(f, asBase), boost::archive::xml_archive_exception);
            continue;
        }
        auto typed =
            quorl_testing::roundTripThroughBase<foundation::msg_svc::exchange::Message>(f, m);
        ASSERT_TRUE(typed);
        EXPECT_EQ(typed->getEmId(), foundation::msg_svc::eventmgr::SessionEmId);
        EXPECT_EQ(typed->deliver(foundation::msg_svc::exchange::Routing("x", "noqueue")),
                  foundation::msg_svc::exchange::Reply::defaultReply());
    }
}

TEST(ShutdownEvents, TypesSerializationAndCrossing) {
    TARNShutdownEvent t;
    auto names = t.getTypeInformation().getTypeNames();
    ASSERT_EQ(names.size(), 3);
    EXPECT_EQ(names[0], u"quorl::eventmgr::TARNShutdownEvent");
    EXPECT_EQ(names[1], u"foundation::msg_svc::eventmgr::ShutdownEvent");
    EXPECT_EQ(names[2], u"foundation::msg_svc::eventmgr::BaseEvent");
    EXPECT_TRUE(t.canBeSerialized());
    tarnshutdown::PreShutdownEvent pre;
    EXPECT_FALSE(pre.canBeSerialized());
    EXPECT_EQ(*pre.getTypeInformation().getTypeNames().begin(),
              u"quorl::tarnshutdown::PreShutdownEvent");
    EXPECT_THROW(pre.addTag(u"x"), std::runtime_error);
    for (auto f : quorl_testing::allFamilies()) {
        auto back =
            quorl_testing::roundTripThroughBase<foundation::msg_svc::eventmgr::BaseEvent>(f, t);
        ASSERT_TRUE(back);
        EXPECT_TRUE(*back == t);
    }
    EXPECT_EQ(quorl_testing::xmlElementNames(quorl_testing::write(quorl_testing::Family::Xml, t)),
              (std::vector<std::string>{"object", "ShutdownEvent", "BaseEvent", "userTags", "count",
                                        "item_version"}));
}

namespace {
struct Target {};
} // namespace

TEST(ScopedFactoryRegistration, UndoesOnceWhicheverComesFirst) {
    auto target = boost::make_shared<Target>();
    int calls = 0;
    auto undo = [&] { ++calls; };
    {
        ScopedFactoryRegistration r(
            boost::make_shared<ScopedFactoryRegistration::Impl>(target, undo, false));
        r.unregister();
        r.unregister();
        EXPECT_EQ(calls, 1);
    }
    EXPECT_EQ(calls, 1); // destruction after unregister does nothing more

    // Copies share: only the last one's death undoes.
    calls = 0;
    {
        ScopedFactoryRegistration a(
            boost::make_shared<ScopedFactoryRegistration::Impl>(target, undo, false));
        { ScopedFactoryRegistration b = a; }
        EXPECT_EQ(calls, 0);
    }
    EXPECT_EQ(calls, 1);

    // A dead target: nothing is called, and it counts as done.
    calls = 0;
    auto impl = boost::make_shared<ScopedFactoryRegistration::Impl>(boost::make_shared<Target>(),
                                                                    undo, false);
    impl->unregister();
    EXPECT_EQ(calls, 0);
    EXPECT_TRUE(impl->isUnregistered());

    ScopedFactoryRegistration empty{boost::shared_ptr<ScopedFactoryRegistration::Impl>()};
    EXPECT_NO_THROW(empty.unregister());

    // A throwing function: the exception passes out of unregister, a later call retries, and
    // the destructor swallows it.
    int attempts = 0;
    {
        ScopedFactoryRegistration r(boost::make_shared<ScopedFactoryRegistration::Impl>(
            target,
            [&] {
                ++attempts;
                throw std::runtime_error("registry gone");
            },
            false));
        EXPECT_THROW(r.unregister(), std::runtime_error);
        EXPECT_THROW(r.unregister(), std::runtime_error);
    }
    EXPECT_EQ(attempts, 3);
}

TEST(ScopedFactoryRegistration, ShutdownEventUndoesAndSubscribesOnce) {
    auto target = boost::make_shared<Target>();
    std::atomic<int> calls{0};
    auto manager = createLocalEventMgr(boost::none);
    auto watch = manager->watch<TARNShutdownEvent>();
    auto const before = watch->getSubscriptionCount();
    auto impl = boost::make_shared<ScopedFactoryRegistration::Impl>(
        target, [&] { ++calls; }, true);
    impl->unregisterOnShutdown(); // already subscribed: once only
    impl->unregisterOnShutdown();
    EXPECT_EQ(watch->getSubscriptionCount(), before + 1);
    ScopedFactoryRegistration r(impl);
    impl.reset();
    manager->notify<TARNShutdownEvent>(foundation::msg_svc::eventmgr::DeliverQueued);
    manager->notify<TARNShutdownEvent>(foundation::msg_svc::eventmgr::DeliverQueued);
    manager->flush();
    EXPECT_EQ(calls.load(), 1);
    r.unregister();
    EXPECT_EQ(calls.load(), 1);
    r = ScopedFactoryRegistration(boost::shared_ptr<ScopedFactoryRegistration::Impl>());
    EXPECT_EQ(watch->getSubscriptionCount(), before); // the subscription ended with the Impl
}
