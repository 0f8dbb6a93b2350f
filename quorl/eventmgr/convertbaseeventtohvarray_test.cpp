#include <foundation/msg_svc/serialization/archives.hpp>

#include <quorl/eventmgr/convertbaseeventtohvarray.hpp>

#include <quorl/cmddistributor/iipcompletedevent.hpp>
#include <quorl/eventmgr/preshutdownevent.hpp>

#include <foundation/msg_svc/eventmgr/typeinformation.hpp>
#include <hv/hvarray.hpp>

#include <boost/serialization/base_object.hpp>
#include <boost/serialization/vector.hpp>

#include <gtest/gtest.h>

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

} // namespace

BOOST_CLASS_EXPORT_GUID(ContainerEvent, "quorl_testing::ContainerEvent")

TEST(ConvertBaseEventToHvArray, PairNamesBecomeNestedFields) {
    cmddistributor::IIPCompletedEvent done(foundation::msg_svc::exchange::IDType(),
                                           quorl::cmddistributor::ExecutionSuccess);
    HvArrayPtr a = convertBaseEventToHvArray(done);
    ASSERT_EQ(hvGetClassID(a.get()), hvSTRUCT_CLASS) << errorOf(a.get());
    EXPECT_EQ(fieldNames(a.get()), (std::vector<std::string>{"IIPEvent", "exception"}));
    const hvArray* exception = hvGetField(a.get(), 0, "exception");
    ASSERT_EQ(hvGetClassID(exception), hvSTRUCT_CLASS);
    const hvArray* initialized = hvGetField(exception, 0, "initialized");
    ASSERT_EQ(hvGetClassID(initialized), hvLOGICAL_CLASS);
    EXPECT_EQ(hvGetScalar(initialized), 0);
    // The state event's base and packet id stand deeper, under their own pair names.
    const hvArray* level = hvGetField(a.get(), 0, "IIPEvent");
    while (level && hvGetFieldNumber(level, "BaseEvent") < 0)
        level = hvGetField(level, 0, "IIPEvent");
    ASSERT_NE(level, nullptr);
    EXPECT_EQ(fieldNames(level), (std::vector<std::string>{"BaseEvent", "IIP"}));
}

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
