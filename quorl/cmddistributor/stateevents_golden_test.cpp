// Old and current wire forms of the state and completion events, against archives kept in
// tests/golden/stateevents. Set QUORL_WRITE_GOLDEN=1 to rewrite the current-form files after an
// intended change of a wire form.
#include <tests/support/golden.hpp>

#include <quorl/cmddistributor/defaultiipstateevent.hpp>
#include <quorl/cmddistributor/iipcompletedevent.hpp>

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

using namespace cmddistributor;
using foundation::msg_svc::eventmgr::BaseEvent;
using foundation::msg_svc::exchange::IDType;
using quorl_testing::Family;

namespace {

std::string goldenPath(std::string const& name) {
    char const* src = std::getenv("QUORL_SOURCE_DIR");
    return std::string(src ? src : ".") + "/tests/golden/stateevents/" + name;
}

std::string kept(std::string const& stem, Family f) {
    return quorl_testing::readGolden("stateevents/" + stem + (f == Family::Xml ? ".xml" : ".txt"));
}

boost::shared_ptr<BaseEvent> readGolden(std::string const& stem, Family f) {
    std::string bytes = kept(stem, f);
    BaseEvent* p = nullptr;
    quorl_testing::read(f, bytes, p);
    return boost::shared_ptr<BaseEvent>(p);
}

// The current form must stay byte for byte what the golden file holds.
void checkCurrentForm(std::string const& stem, BaseEvent const& event) {
    for (Family f : {Family::Text, Family::Xml}) {
        BaseEvent const* p = &event;
        std::string const bytes = quorl_testing::write(f, p);
        std::string const path = goldenPath(stem + (f == Family::Xml ? ".xml" : ".txt"));
        if (std::getenv("QUORL_WRITE_GOLDEN")) {
            std::ofstream(path, std::ios::binary) << bytes;
            continue;
        }
        EXPECT_EQ(bytes, kept(stem, f)) << "the wire form of " << stem << " changed";
        auto back = readGolden(stem, f);
        ASSERT_TRUE(back);
        EXPECT_TRUE(*back == event);
    }
}

} // namespace

TEST(StateEventGoldens, OldVersionsAreRead) {
    for (Family f : {Family::Text, Family::Xml}) {
        SCOPED_TRACE(quorl_testing::familyName(f));
        // IIPStateEvent version 0 had no id: the null id, and the flag set.
        auto discarded = readGolden("iipdiscardedevent.statev0", f);
        auto* d = dynamic_cast<IIPDiscardedEvent*>(discarded.get());
        ASSERT_TRUE(d);
        EXPECT_EQ(d->getIdOfChangedIIP(), IDType(0, 0));
        EXPECT_TRUE(d->getIIPWasSerialized());
        EXPECT_TRUE(d->canBeSerialized());

        // IIPCompletedEvent version 1 carried a status: 0 is no exception, anything else an
        // exception with that status and nothing else.
        auto ok = readGolden("iipcompletedevent.v1.status0", f);
        auto* o = dynamic_cast<IIPCompletedEvent*>(ok.get());
        ASSERT_TRUE(o);
        EXPECT_EQ(o->getIdOfChangedIIP(), IDType(77, 5));
        EXPECT_FALSE(o->getException());
        auto failed = readGolden("iipcompletedevent.v1.status2", f);
        auto* x = dynamic_cast<IIPCompletedEvent*>(failed.get());
        ASSERT_TRUE(x);
        EXPECT_EQ(x->getIdOfChangedIIP(), IDType(77, 6));
        ASSERT_TRUE(x->getException());
        EXPECT_EQ(x->getExecutionStatus(), 2);
        EXPECT_TRUE(x->getException()->GetUnicodeMessageTxt().empty());
        EXPECT_TRUE(x->getException()->getStackFrames().empty());

        // Version 2 as written before the optional gained its item version.
        auto boostForm = readGolden("iipcompletedevent.v2.failure.optionalv1", f);
        auto* b = dynamic_cast<IIPCompletedEvent*>(boostForm.get());
        ASSERT_TRUE(b);
        ASSERT_TRUE(b->getException());
        EXPECT_EQ(b->getException()->GetID(), "golden:outer");
        ASSERT_EQ(b->getException()->getCauses().size(), 1u);
        EXPECT_EQ(b->getException()->getCauses()[0].GetID(), "golden:inner");
    }
}

TEST(StateEventGoldens, CurrentFormsStayAsTheyAre) {
    checkCurrentForm("iipstartedevent.v1", IIPStartedEvent(IDType(77, 7)));
    checkCurrentForm("iipcompletedevent.v2.success",
                     IIPCompletedEvent(IDType(77, 8), quorl::cmddistributor::ExecutionSuccess));
    RuntimeException::StackFrame frame;
    RuntimeException cause(quorl::cmddistributor::ExecutionError, ustring(u"inner"), "golden:inner",
                           "inner", {}, {});
    checkCurrentForm(
        "iipcompletedevent.v2.failure",
        IIPCompletedEvent(IDType(77, 9), RuntimeException(quorl::cmddistributor::ExecutionError,
                                                          ustring(u"outer \u00e9"), "golden:outer",
                                                          "outer", {}, {cause})));
}
