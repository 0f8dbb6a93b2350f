#include <tests/support/archivetesting.hpp>
#include <tests/support/errorof.hpp>

#include <quorl/cmddistributor/debugloopevent.hpp>
#include <quorl/cmddistributor/defaultiipstateevent.hpp>
#include <quorl/cmddistributor/iipcompletedevent.hpp>
#include <quorl/cmddistributor/requestidadapter.hpp>
#include <quorl/eventmgr/eventmgraccess.hpp>

#include <foundation/usm/detail.hpp>

#include <gtest/gtest.h>

#include <mutex>
#include <set>

using namespace cmddistributor;
using foundation::msg_svc::eventmgr::BaseEvent;
using foundation::msg_svc::eventmgr::DeliverQueued;
using foundation::msg_svc::exchange::IDType;
using quorl_testing::Family;

namespace {
// Writes `e` through a base pointer and reads it back; null unless it comes back as a T.
template <class T> boost::shared_ptr<T> roundTrip(Family f, T const& e) {
    return quorl_testing::roundTripThroughBase<BaseEvent>(f, e);
}
} // namespace

TEST(StateEvents, SubscribedByTypeOrByOneTransition) {
    auto mgr = quorl::eventmgr::createLocalEventMgr(quorl::contextmgr::TarnID{501});
    std::mutex m;
    std::multiset<ustring> all, discarded;
    auto c1 = mgr->subscribe<IIPStateEvent>([&](IIPStateEvent const& e) {
        std::lock_guard<std::mutex> l(m);
        all.insert(*e.getTypeInformation().getTypeNames().begin());
    });
    auto c2 = mgr->subscribe<IIPDiscardedEvent>([&](IIPDiscardedEvent const& e) {
        std::lock_guard<std::mutex> l(m);
        discarded.insert(*e.getTypeInformation().getTypeNames().begin());
    });
    // By name, as a tag: one of the type's own names is allowed, any other is refused.
    std::atomic<int> byTag{0};
    auto c3 = mgr->subscribe<IIPDiscardedEvent>([&](IIPDiscardedEvent const&) { ++byTag; },
                                                {u"iipDiscarded"});
    EXPECT_EQ(quorl_testing::errorOf<std::runtime_error>(
                  [&] { mgr->subscribe<IIPStateEvent>([](IIPStateEvent const&) {}, {u"blue"}); }),
              "cannot add user tags.");
    IDType const id;
    mgr->notifyIfWatched<IIPStartedEvent>(DeliverQueued, id);
    mgr->notifyIfWatched<IIPSuspendedEvent>(DeliverQueued, id);
    mgr->notifyIfWatched<IIPResumedEvent>(DeliverQueued, id);
    mgr->notifyIfWatched<IIPDiscardedEvent>(DeliverQueued, id);
    mgr->notifyIfWatched<IIPRequeuedEvent>(DeliverQueued, id);
    mgr->notifyIfWatched<IIPReactivatedEvent>(DeliverQueued, id);
    mgr->notifyIfWatched<IIPCompletedEvent>(DeliverQueued, id,
                                            quorl::cmddistributor::ExecutionSuccess);
    mgr->flush();
    std::lock_guard<std::mutex> l(m);
    EXPECT_EQ(all, (std::multiset<ustring>{u"iipStarted", u"iipSuspended", u"iipResumed",
                                           u"iipDiscarded", u"iipRequeued", u"iipReactivated",
                                           u"::cmddistributor::IIPCompletedEvent"}));
    EXPECT_EQ(discarded, (std::multiset<ustring>{u"iipDiscarded"}));
    EXPECT_EQ(byTag.load(), 1);

    IIPDiscardedEvent d(id);
    IIPCompletedEvent c(id, quorl::cmddistributor::ExecutionSuccess);
    EXPECT_TRUE(d.isKindOf(u"iipDiscarded"));
    EXPECT_FALSE(c.isKindOf(u"iipDiscarded"));
    auto names = c.getTypeInformation().getTypeNames();
    ASSERT_EQ(names.size(), 4);
    EXPECT_EQ(names[1], u"iipCompleted");
    EXPECT_EQ(names[2], u"::cmddistributor::IIPStateEvent");
    std::unique_ptr<BaseEvent> clone(d.clone());
    EXPECT_TRUE(dynamic_cast<IIPDiscardedEvent*>(clone.get()));
    EXPECT_TRUE(*clone == d);
}

TEST(StateEvents, SerializabilityAndWireForms) {
    IDType const id;
    IIPStartedEvent e(id);
    EXPECT_FALSE(e.canBeSerialized()); // a packet that never left this process
    e.setIIPWasSerialized(true);
    EXPECT_TRUE(e.canBeSerialized());
    EXPECT_TRUE(IIPStartedEvent(IDType(0, 0)).canBeSerialized());
    for (Family f : quorl_testing::allFamilies()) {
        SCOPED_TRACE(quorl_testing::familyName(f));
        auto typed = roundTrip(f, IIPRequeuedEvent(id));
        ASSERT_TRUE(typed);
        EXPECT_EQ(typed->getIdOfChangedIIP(), id);
        EXPECT_TRUE(typed->canBeSerialized()); // read from an archive
    }
}

TEST(CompletionEvent, StatusExceptionAndWireForm) {
    IDType const id;
    IIPCompletedEvent ok(id, quorl::cmddistributor::ExecutionSuccess);
    EXPECT_EQ(ok.getExecutionStatus(), 0);
    EXPECT_FALSE(ok.getException());
    IIPCompletedEvent aborted(id, quorl::cmddistributor::ExecutionAborted);
    EXPECT_EQ(aborted.getExecutionStatus(), 3);
    ASSERT_TRUE(aborted.getException());
    EXPECT_TRUE(aborted.getException()->GetUnicodeMessageTxt().empty());

    RuntimeException cause(quorl::cmddistributor::ExecutionError, ustring(u"inner"), "q:inner", "f",
                           {}, {});
    RuntimeException failure(quorl::cmddistributor::ExecutionError, ustring(u"outer \u00e9"),
                             "q:outer", "g", {}, {cause});
    IIPCompletedEvent failed(id, failure);
    EXPECT_EQ(failed.getExecutionStatus(), 2);
    std::unique_ptr<BaseEvent> copy(failed.clone());
    EXPECT_TRUE(*copy == failed);
    EXPECT_FALSE(*copy == ok);

    for (Family f : quorl_testing::allFamilies()) {
        SCOPED_TRACE(quorl_testing::familyName(f));
        auto typed = roundTrip(f, failed);
        ASSERT_TRUE(typed);
        ASSERT_TRUE(typed->getException());
        EXPECT_TRUE(*typed->getException() == failure); // its equality covers the causes
        EXPECT_EQ(typed->getIdOfChangedIIP(), id);
        auto okBack = roundTrip(f, ok);
        ASSERT_TRUE(okBack);
        EXPECT_FALSE(okBack->getException());
    }
}

TEST(RequestIds, EventsCarryTheIdOfTheirContext) {
    IDType const id;
    RequestIdAdapter::setRequestId(id); // outside a context: no effect
    EXPECT_EQ(DebugLoopEvent(DebugLoopEvent::Entered, quorl::prompt::DebugPrompt).getRequestId(),
              IDType(0, 0));
    auto ctx = foundation::usm::Context::create();
    IDType other;
    {
        foundation::usm::ContextScope in(ctx);
        EXPECT_EQ(RequestIdAdapter::currentRequestId(), IDType(0, 0)); // not set before
        RequestIdAdapter::setRequestId(other);
        DebugLoopEvent a(DebugLoopEvent::Entered, quorl::prompt::DebugPrompt);
        DebugLoopEvent b(DebugLoopEvent::Left, quorl::prompt::DebugPrompt);
        EXPECT_EQ(a.getRequestId(), other);
        EXPECT_EQ(b.getRequestId(), other);
        RequestIdAdapter::setRequestId(id);
        EXPECT_EQ(a.getRequestId(), other); // made earlier: keeps its id
        // An event read from an archive keeps the archive's id, not the reader's.
        for (Family f : quorl_testing::allFamilies()) {
            auto typed = roundTrip(f, a);
            ASSERT_TRUE(typed);
            EXPECT_EQ(typed->getRequestId(), other);
            EXPECT_EQ(typed->getLoopState(), DebugLoopEvent::Entered);
            EXPECT_EQ(typed->getWhichDebugLoop(), quorl::prompt::DebugPrompt);
            EXPECT_TRUE(*typed == a);
        }
    }
    EXPECT_EQ(quorl_testing::xmlElementNames(quorl_testing::write(
                  Family::Xml, DebugLoopEvent(DebugLoopEvent::Left, quorl::prompt::InputPrompt))),
              (std::vector<std::string>{"object", "DebugLoopEvent", "userTags", "count",
                                        "item_version", "DebugLoopEvent_RequestIdAdapter",
                                        "requestId", "origin", "serial", "state", "loop"}));
}
