#include <tests/support/archivetesting.hpp>

#include <quorl/contextmgr/contextregistry.hpp>

#include <foundation/usm/detail.hpp>

#include <foundation/msg_svc/serialization/optional.hpp>
#include <gtest/gtest.h>

#include <thread>

using namespace quorl::contextmgr;
using foundation::usm::Context;
using foundation::usm::ContextScope;

// Runs on a fresh thread so no context is active and defaults start undefined in this process.
TEST(ContextRegistry, DefaultsOutsideAndSlotsInsideAContext) {
    // No context, no defaults.
    EXPECT_EQ(ContextRegistry::getFennID(), UndefinedFennID);
    EXPECT_EQ(ContextRegistry::getTarnID(), UndefinedTarnID);
    auto any = ContextRegistry::getFennIDIfFennActive();
    ASSERT_TRUE(any); // engaged although it holds the undefined value
    EXPECT_EQ(*any, UndefinedFennID);
    EXPECT_EQ(ContextRegistry::getEffectiveFennID(AnyFennID), UndefinedFennID);

    for (int v : {0, 7})
        EXPECT_EQ(ContextRegistry::getEffectiveFennID(FennID{v}).value, v);
    for (int v : {-2, -3, -100})
        EXPECT_EQ(ContextRegistry::getEffectiveFennID(FennID{v}), UndefinedFennID);

    ContextRegistry::setDefaultIDs(FennID{5}, TarnID{9});
    EXPECT_EQ(ContextRegistry::getEffectiveFennID(AnyFennID).value, 5);
    EXPECT_EQ(ContextRegistry::getTarnID().value, 9u);
    EXPECT_EQ(*ContextRegistry::getFennIDIfFennActive(), (FennID{5}));

    auto ctx = Context::create("interpreter");
    {
        ContextScope inside(ctx);
        // Active context without setIDs: only the optional accessor copes.
        EXPECT_FALSE(ContextRegistry::getFennIDIfFennActive());
        EXPECT_THROW(ContextRegistry::getFennID(), foundation::usm::SlotNotFound);
        EXPECT_THROW(ContextRegistry::getTarnID(), foundation::usm::SlotNotFound);
        EXPECT_THROW(ContextRegistry::getEffectiveFennID(AnyFennID), foundation::usm::SlotNotFound);
        // Real and reserved ids do not touch the store.
        EXPECT_EQ(ContextRegistry::getEffectiveFennID(FennID{3}).value, 3);
        EXPECT_EQ(ContextRegistry::getEffectiveFennID(GroundFennID), UndefinedFennID);

        ContextRegistry::setIDs(FennID{2}, TarnID{4});
        EXPECT_EQ(ContextRegistry::getFennID().value, 2); // the defaults are ignored
        EXPECT_EQ(ContextRegistry::getTarnID().value, 4u);
        EXPECT_EQ(ContextRegistry::getEffectiveFennID(AnyFennID).value, 2);
        ContextRegistry::setIDs(FennID{3}, TarnID{6});
        EXPECT_EQ(*ContextRegistry::getFennIDIfFennActive(), (FennID{3}));

        // Another thread, outside any context, sees the defaults.
        std::thread([] {
            EXPECT_EQ(ContextRegistry::getFennID().value, 5);
            EXPECT_EQ(ContextRegistry::getTarnID().value, 9u);
        }).join();
    }
    EXPECT_EQ(ContextRegistry::getFennID().value, 5);
    EXPECT_THROW(ContextRegistry::setIDs(FennID{1}, TarnID{1}), foundation::usm::NoActiveContext);
    ContextRegistry::setDefaultIDs(UndefinedFennID, UndefinedTarnID);
}

TEST(TarnID, WireFormIsOneNamedValue) {
    using quorl_testing::Family;
    for (Family f : quorl_testing::allFamilies()) {
        TarnID back{0};
        quorl_testing::read(f, quorl_testing::write(f, TarnID{42}, "tarnid"), back, "tarnid");
        EXPECT_EQ(back.value, 42u) << quorl_testing::familyName(f);
        boost::optional<TarnID> opt(TarnID{7}), optBack;
        quorl_testing::read(f, quorl_testing::write(f, opt, "tarn"), optBack, "tarn");
        ASSERT_TRUE(optBack);
        EXPECT_EQ(optBack->value, 7u);
    }
    std::string xml = quorl_testing::write(Family::Xml, TarnID{42}, "tarnid");
    EXPECT_NE(xml.find("<TarnID>42</TarnID>"), std::string::npos) << xml;
    EXPECT_EQ(quorl_testing::xmlElementNames(xml), (std::vector<std::string>{"tarnid", "TarnID"}));

    // An optional has class version 0 and writes the item version before its value; an empty
    // one writes only the flag.
    std::string const set =
        quorl_testing::write(Family::Xml, boost::optional<TarnID>(TarnID{7}), "tarn");
    EXPECT_NE(set.find("<tarn class_id=\"0\" tracking_level=\"0\" version=\"0\">"),
              std::string::npos)
        << set;
    EXPECT_EQ(quorl_testing::xmlElementNames(set),
              (std::vector<std::string>{"tarn", "initialized", "item_version", "value", "TarnID"}));
    EXPECT_NE(set.find("<item_version>1</item_version>"), std::string::npos) << set;
    EXPECT_EQ(quorl_testing::xmlElementNames(
                  quorl_testing::write(Family::Xml, boost::optional<TarnID>(), "tarn")),
              (std::vector<std::string>{"tarn", "initialized"}));
    // The form of class version 1, without an item version, is read too.
    std::string const older = "<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"yes\" ?>\n"
                              "<!DOCTYPE boost_serialization>\n"
                              "<boost_serialization signature=\"serialization::archive\" "
                              "version=\"18\">\n"
                              "<tarn class_id=\"0\" tracking_level=\"0\" version=\"1\">"
                              "<initialized>1</initialized>"
                              "<value class_id=\"1\" tracking_level=\"0\" version=\"1\">"
                              "<TarnID>8</TarnID></value></tarn>\n</boost_serialization>\n";
    boost::optional<TarnID> olderBack;
    quorl_testing::read(Family::Xml, older, olderBack, "tarn");
    ASSERT_TRUE(olderBack);
    EXPECT_EQ(olderBack->value, 8u);
}
