#include <foundation/msg_svc/serialization/archives.hpp>

#include <quorl/eventmgr/convertbaseeventtohvarray.hpp>

#include <quorl/cmddistributor/debugloopevent.hpp>
#include <quorl/cmddistributor/defaultiipstateevent.hpp>
#include <quorl/cmddistributor/fevalcompletedevent.hpp>
#include <quorl/cmddistributor/iipcompletedevent.hpp>
#include <quorl/cmddistributor/iipsinkevent.hpp>
#include <quorl/cmddistributor/packagedtaskcompletedevent.hpp>
#include <quorl/eventmgr/preshutdownevent.hpp>
#include <quorl/eventmgr/tarnshutdownevent.hpp>
#include <quorl/io/sinktextevent.hpp>

#include <tests/support/archivetesting.hpp>

#include <foundation/msg_svc/eventmgr/typeinformation.hpp>
#include <hv/hvarray.hpp>

#include <boost/property_tree/ptree.hpp>
#include <boost/property_tree/xml_parser.hpp>
#include <boost/serialization/base_object.hpp>
#include <boost/serialization/vector.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <sstream>
#include <vector>

using foundation::msg_svc::eventmgr::BaseEvent;
using quorl::eventmgr::detail::convertBaseEventToHvArray;

namespace {

struct Part {
    int a = 1;
    template <class Archive> void serialize(Archive& ar, unsigned int) {
        ar& boost::serialization::make_nvp("a", a);
    }
};

// An exported event with containers, which can be told to fail inside its serialization.
struct ContainerEvent : BaseEvent {
    typedef BaseEvent EventBaseType;
    static ustring eventTypeName() { return u"quorl_testing::ContainerEvent"; }
    ContainerEvent()
        : BaseEvent(foundation::msg_svc::eventmgr::typeInformationOf<ContainerEvent>()) {}
    BaseEvent* clone() const override { return new ContainerEvent(*this); }

    std::vector<int> numbers{3, 4, 5};
    std::vector<Part> parts;
    int failWith = 0; // 1: a std::exception, 2: something else

    template <class Archive> void serialize(Archive& ar, unsigned int) {
        ar& boost::serialization::make_nvp("BaseEvent",
                                           boost::serialization::base_object<BaseEvent>(*this));
        ar& boost::serialization::make_nvp("numbers", numbers);
        ar& boost::serialization::make_nvp("parts", parts);
        if (failWith == 1)
            throw std::runtime_error("broken on purpose");
        if (failWith == 2)
            throw 42;
    }
};

std::vector<std::string> fieldNames(const hvArray* s) {
    std::vector<std::string> names;
    for (std::size_t i = 0; i < hvGetNumberOfFields(s); ++i)
        names.push_back(hvGetFieldNameByNumber(s, i));
    return names;
}

std::string errorOf(const hvArray* s) {
    if (hvGetClassID(s) != hvSTRUCT_CLASS || hvGetFieldNumber(s, "ERROR") < 0)
        return "(no error)";
    return hvArrayToStdString(hvGetField(s, 0, "ERROR"));
}

// Whether an XML element puts anything into the array: a null pointer (class id -1) stores
// nothing, and neither does an element whose inner elements all store nothing.
bool storesSomething(boost::property_tree::ptree const& element) {
    if (element.get("<xmlattr>.class_id", std::string()) == "-1")
        return false;
    bool inner = false;
    for (auto const& child : element) {
        if (child.first == "<xmlattr>")
            continue;
        if (storesSomething(child.second))
            return true;
        inner = true;
    }
    return !inner;
}

// The names of the elements below `element` that store something, each once, in document order.
std::vector<std::string> childNames(boost::property_tree::ptree const& element) {
    std::vector<std::string> names;
    for (auto const& child : element)
        if (child.first != "<xmlattr>" && storesSomething(child.second) &&
            std::find(names.begin(), names.end(), child.first) == names.end())
            names.push_back(child.first);
    return names;
}

// Checks that `array` has the XML element's children as its fields, in order, at every level
// where a name stands once and its value is a struct.
void expectSameShape(boost::property_tree::ptree const& element, const hvArray* array,
                     std::string const& path) {
    std::vector<std::string> names = childNames(element);
    if (names.empty())
        return;
    ASSERT_NE(array, nullptr) << path;
    ASSERT_EQ(hvGetClassID(array), hvSTRUCT_CLASS) << path << ": " << errorOf(array);
    EXPECT_EQ(fieldNames(array), names) << path;
    for (std::string const& name : names) {
        const hvArray* field = hvGetField(array, 0, name.c_str());
        if (element.count(name) == 1 && field && hvGetClassID(field) == hvSTRUCT_CLASS)
            expectSameShape(element.get_child(name), field, path + "." + name);
    }
}

} // namespace

BOOST_CLASS_EXPORT_GUID(ContainerEvent, "quorl_testing::ContainerEvent")

TEST(ConvertBaseEventToHvArray, ContainersCollectValuesAndFailuresAreReportedInTheResult) {
    ContainerEvent e;
    e.parts = {Part{1}, Part{2}, Part{3}};
    HvArrayPtr a = convertBaseEventToHvArray(e);
    ASSERT_EQ(hvGetClassID(a.get()), hvSTRUCT_CLASS) << errorOf(a.get());
    const hvArray* numbers = hvGetField(a.get(), 0, "numbers");
    ASSERT_NE(numbers, nullptr);
    EXPECT_EQ(fieldNames(numbers), (std::vector<std::string>{"count", "item_version", "item"}));
    const hvArray* items = hvGetField(numbers, 0, "item");
    ASSERT_EQ(hvGetClassID(items), hvINT32_CLASS);
    ASSERT_EQ(hvGetNumberOfElements(items), 3u);
    EXPECT_EQ(static_cast<const std::int32_t*>(hvGetReadOnlyData(items))[2], 5);
    // Elements of a class: a cell of two after the second, growing after that.
    const hvArray* parts = hvGetField(hvGetField(a.get(), 0, "parts"), 0, "item");
    ASSERT_EQ(hvGetClassID(parts), hvCELL_CLASS);
    EXPECT_EQ(hvGetNumberOfElements(parts), 3u);
    const hvArray* third = hvGetCell(parts, 2);
    ASSERT_EQ(hvGetClassID(third), hvSTRUCT_CLASS);
    EXPECT_EQ(hvGetScalar(hvGetField(third, 0, "a")), 3);

    e.failWith = 1;
    EXPECT_EQ(errorOf(convertBaseEventToHvArray(e).get()),
              "(anonymous namespace)::ContainerEvent: conversion error: broken on purpose");
    e.failWith = 2;
    EXPECT_EQ(errorOf(convertBaseEventToHvArray(e).get()),
              "(anonymous namespace)::ContainerEvent: conversion error: unknown");

    quorl::tarnshutdown::PreShutdownEvent unexported;
    std::string const text = errorOf(convertBaseEventToHvArray(unexported).get());
    EXPECT_NE(text.find(": conversion error: does not have boost serialization support (at "
                        "least missing BOOST_CLASS_EXPORT)"),
              std::string::npos)
        << text;
    EXPECT_EQ(text.rfind("quorl::tarnshutdown::PreShutdownEvent", 0), 0u) << text;
}

TEST(ConvertBaseEventToHvArray, EveryEventClassOfTheLibraryHasItsPairNamesAsFields) {
    using namespace cmddistributor;
    using foundation::msg_svc::exchange::IDType;
    RuntimeException error(quorl::cmddistributor::ExecutionError, u"bad value", "test:bad", "f",
                           {RuntimeException::StackFrame(u"f.qrl", "f", 3),
                            RuntimeException::StackFrame(u"g.qrl", "g", 7)},
                           {});
    std::vector<std::unique_ptr<BaseEvent>> events;
    events.emplace_back(new IIPStartedEvent(IDType()));
    events.emplace_back(new IIPSuspendedEvent(IDType()));
    events.emplace_back(new IIPResumedEvent(IDType()));
    events.emplace_back(new IIPDiscardedEvent(IDType()));
    events.emplace_back(new IIPRequeuedEvent(IDType()));
    events.emplace_back(new IIPReactivatedEvent(IDType()));
    events.emplace_back(new BaseCompletedEventType(IDType()));
    events.emplace_back(new IIPCompletedEvent(IDType(), error));
    events.emplace_back(
        new FEvalCompletedEvent(IDType(), std::vector<std::vector<std::uint8_t>>{{1, 2}, {3}}));
    events.emplace_back(new PackagedTaskCompletedEvent(IDType(), error));
    events.emplace_back(new IIPSinkEvent(IDType(), quorl::io::ErrorStream, u"text"));
    events.emplace_back(new DebugLoopEvent(DebugLoopEvent::Entered, quorl::prompt::DebugPrompt));
    events.emplace_back(new quorl::eventmgr::TARNShutdownEvent());
    events.emplace_back(new quorl::io::SinkTextEvent(quorl::io::OutputStream, u"shown"));
    for (auto const& event : events) {
        BaseEvent const* p = event.get();
        std::string const type = typeid(*p).name();
        SCOPED_TRACE(type);
        std::istringstream xml(quorl_testing::write(quorl_testing::Family::Xml, p));
        boost::property_tree::ptree tree;
        boost::property_tree::read_xml(xml, tree);
        HvArrayPtr a = convertBaseEventToHvArray(*event);
        expectSameShape(tree.get_child("boost_serialization.object"), a.get(), type);
    }
    // Values keep their kind: the completion's optional exception says it is set by a logical.
    HvArrayPtr failed = convertBaseEventToHvArray(*events[7]);
    const hvArray* initialized =
        hvGetField(hvGetField(failed.get(), 0, "exception"), 0, "initialized");
    ASSERT_EQ(hvGetClassID(initialized), hvLOGICAL_CLASS);
    EXPECT_EQ(hvGetScalar(initialized), 1);
}
