#include <tests/support/golden.hpp>

#include <quorl/cmddistributor/fcncmdrequest.hpp>
#include <quorl/cmddistributor/packagedtaskcompletedevent.hpp>
#include <quorl/cmddistributor/packagedtaskiip.hpp>

#include <boost/thread/future.hpp>

#include <gtest/gtest.h>

#include <stdexcept>
#include <type_traits>

using namespace cmddistributor;
using foundation::msg_svc::eventmgr::BaseEvent;
using foundation::msg_svc::exchange::IDType;
using quorl_testing::Family;

static_assert(std::is_void<decltype(CmdRequestTraits<FcnCmdRequest<void>>::extractResult(
                  std::declval<IIPCompletedEvent const&>()))>::value,
              "the future of a void task carries nothing");

namespace {

boost::shared_ptr<PackagedTaskIIP> makeTask(int& runs) {
    return boost::make_shared<PackagedTaskIIP>([&runs]() -> boost::any { return ++runs; },
                                               boost::shared_ptr<quorl::io::VeldraSink>(),
                                               boost::shared_ptr<quorl::io::VeldraSink>());
}

} // namespace

TEST(PackagedTaskIIP, HoldsItsTaskAndRefusesAnEmptyOne) {
    int runs = 0;
    auto task = makeTask(runs);
    EXPECT_EQ(task->getPluginType(), "packaged_task");
    EXPECT_EQ(task->getStreamID(), UnsetIqmStreamID);
    EXPECT_FALSE(task->canBeSerialized());
    EXPECT_FALSE(task->wasSerialized());
    EXPECT_EQ(boost::any_cast<int>(task->getFunction()()), 1);
    EXPECT_EQ(boost::any_cast<int>(task->getFunction()()), 2);
    EXPECT_EQ(runs, 2);

    try {
        PackagedTaskIIP empty(PackagedTaskIIP::Function(), nullptr, nullptr);
        FAIL() << "an empty task was accepted";
    } catch (std::invalid_argument const& e) {
        EXPECT_STREQ(e.what(), "func cannot be empty.");
    }
}

TEST(PackagedTaskCompletedEvent, ResultTypeAndStatusByConstructor) {
    IDType id;
    PackagedTaskCompletedEvent none(id, boost::optional<RuntimeException>());
    EXPECT_EQ(none.type(), typeid(void));
    EXPECT_FALSE(none.canBeSerialized());
    EXPECT_EQ(none.getExecutionStatus(), 0);
    EXPECT_EQ(none.getIdOfChangedIIP(), id);

    PackagedTaskCompletedEvent failed(id,
                                      RuntimeException(quorl::cmddistributor::ExecutionError,
                                                       std::string("boom"), "a:b", "f", {}, {}));
    EXPECT_EQ(failed.getExecutionStatus(), 2);
    ASSERT_TRUE(failed.getException());
    EXPECT_EQ(failed.type(), typeid(void));

    PackagedTaskCompletedEvent valued(id, boost::any(std::string("x")));
    EXPECT_EQ(valued.getExecutionStatus(), 0);
    EXPECT_EQ(boost::any_cast<std::string>(valued.getTaskResult()), "x");
}

TEST(PackagedTaskCompletedEvent, ReferenceWrapperSwapsTheValueOutAndCloneCopiesIt) {
    boost::any source = 42;
    PackagedTaskCompletedEvent event(IDType(), boost::ref(source));
    EXPECT_TRUE(source.empty());
    ASSERT_EQ(event.type(), typeid(int));
    EXPECT_EQ(boost::any_cast<int>(event.getTaskResult()), 42);

    std::unique_ptr<BaseEvent> copy(event.clone());
    auto* typed = dynamic_cast<PackagedTaskCompletedEvent*>(copy.get());
    ASSERT_TRUE(typed);
    EXPECT_EQ(boost::any_cast<int>(typed->getTaskResult()), 42);
    EXPECT_EQ(typed->getIdOfChangedIIP(), event.getIdOfChangedIIP());
    EXPECT_NE(boost::any_cast<int>(&typed->getTaskResult()),
              boost::any_cast<int>(&event.getTaskResult()))
        << "the clone holds its own copy of the result";
    EXPECT_TRUE(typed->isKindOf(u"::cmddistributor::IIPCompletedEvent"));
}

TEST(FcnCmdRequest, WrapsItsTaskIntoAPacketWhoseResultIsAnEmptyVoidFuture) {
    int runs = 0;
    auto request = boost::make_shared<FcnCmdRequest<void>>([&runs] { ++runs; }, nullptr, nullptr);
    auto packet = boost::dynamic_pointer_cast<PackagedTaskIIP>(request->getIIP());
    ASSERT_TRUE(packet);
    EXPECT_EQ(request->getIIP(), request->getIIP());
    EXPECT_EQ(packet->getOutputSink(), request->getOutputSink());
    EXPECT_EQ(packet->getErrorSink(), request->getErrorSink());
    EXPECT_TRUE(packet->getOutputSink()) << "null sinks become the command window's";
    EXPECT_EQ(runs, 0);

    boost::any result = packet->getFunction()();
    EXPECT_EQ(runs, 1);
    auto* future = boost::any_cast<boost::shared_ptr<boost::unique_future<void>>>(&result);
    ASSERT_TRUE(future);
    ASSERT_TRUE(*future);
    EXPECT_FALSE((*future)->valid());

    FcnCmdRequest<void> nothing(boost::function<void()>(), nullptr, nullptr);
    auto emptyPacket = boost::dynamic_pointer_cast<PackagedTaskIIP>(nothing.getIIP());
    ASSERT_TRUE(emptyPacket);
    boost::any emptyResult;
    EXPECT_NO_THROW(emptyResult = emptyPacket->getFunction()());
    EXPECT_TRUE(boost::any_cast<boost::shared_ptr<boost::unique_future<void>>>(&emptyResult));
}

namespace {

// Reads `bytes` in `f` through a pointer to Base named `name`; returns the logic_error's text.
template <class Base> std::string refusalOf(Family f, std::string const& bytes, char const* name) {
    Base* back = nullptr;
    try {
        quorl_testing::read(f, bytes, back, name);
    } catch (std::logic_error const& e) {
        return e.what();
    }
    delete back;
    return "";
}

} // namespace

TEST(PackagedTaskIIP, GoldenArchivesAreReadToTheRefusalAndWrittenAlike) {
    PackagedTaskIIP task([] { return boost::any(); }, nullptr, nullptr);
    for (quorl_testing::GoldenForm const& form : quorl_testing::goldenForms()) {
        std::string const file = std::string("packagedtaskiip_v1") + form.suffix;
        SCOPED_TRACE(file);
        std::string const bytes = quorl_testing::readGolden("packagedtaskiip/" + file);
        ASSERT_FALSE(bytes.empty());
        for (Family f : {form.plain, form.polymorphic})
            EXPECT_EQ(refusalOf<IIP>(f, bytes, "iip"),
                      "cannot deserialize cmddistributor::PackagedTaskIIP");
        if (form.byteExact) {
            IIP const* asBase = &task;
            EXPECT_EQ(quorl_testing::write(form.plain, asBase, "iip"), bytes);
        }
    }
}

TEST(PackagedTaskCompletedEvent, GoldenArchivesAreReadToTheRefusalAndWrittenAlike) {
    IDType const id(1234567, 1001);
    PackagedTaskCompletedEvent withInt(id, boost::any(42));
    PackagedTaskCompletedEvent withError(id, RuntimeException(quorl::cmddistributor::ExecutionError,
                                                              std::string("task failed"), "", "",
                                                              {}, {}));
    struct Case {
        char const* stem;
        PackagedTaskCompletedEvent const* event;
        char const* resultType;
    };
    for (Case const& c : {Case{"packagedtaskcompletedevent_v2_int", &withInt, "int"},
                          Case{"packagedtaskcompletedevent_v2_error", &withError, "void"}}) {
        for (quorl_testing::GoldenForm const& form : quorl_testing::goldenForms()) {
            std::string const file = std::string(c.stem) + form.suffix;
            SCOPED_TRACE(file);
            std::string const bytes =
                quorl_testing::readGolden("packagedtaskcompletedevent/" + file);
            ASSERT_FALSE(bytes.empty());
            for (Family f : {form.plain, form.polymorphic})
                EXPECT_EQ(refusalOf<BaseEvent>(f, bytes, "event"),
                          "cannot deserialize cmddistributor::PackagedTaskCompletedEvent");
            if (form.byteExact) {
                BaseEvent const* asBase = c.event;
                EXPECT_EQ(quorl_testing::write(form.plain, asBase, "event"), bytes);
            }
            if (form.plain == Family::Xml) {
                EXPECT_NE(
                    bytes.find(std::string("<result_type>") + c.resultType + "</result_type>"),
                    std::string::npos);
            }
        }
    }
}
