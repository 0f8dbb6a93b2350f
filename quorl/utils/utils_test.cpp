#include <quorl/utils/fennmutex.hpp>
#include <quorl/utils/processutils.hpp>

#include <fl/filesystem/installpath.hpp>
#include <fl/i18n/messagecatalog.hpp>
#include <foundation/msg_svc/shutdown/shutdown.hpp>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <thread>

TEST(FennMutex, CountsNestedHolds) {
    EXPECT_FALSE(fenn_mutex_is_acquired());
    EXPECT_FALSE(quorl::utils::getFennMutexIfLocked());
    fenn_acquire_mutex();
    fenn_acquire_mutex();
    EXPECT_TRUE(fenn_mutex_is_acquired());
    EXPECT_EQ(quorl::utils::getFennMutexIfLocked(), quorl::utils::getFennMutex());
    fenn_release_mutex();
    EXPECT_TRUE(fenn_mutex_is_acquired());
    std::thread([] { EXPECT_FALSE(quorl::utils::getFennMutex()->try_lock()); }).join();
    fenn_release_mutex();
    EXPECT_FALSE(fenn_mutex_is_acquired());
    EXPECT_THROW(fenn_release_mutex(), std::logic_error);
}

TEST(ProcessUtils, MessageCatalogStartsOnceWithEnvironmentFirst) {
    ::setenv("VELDRA_ADDITIONAL_RESOURCE_LOCATIONS", "a;;b", 1);
    quorl::utils::initMessageCatalog({u"given1", u"given2"});
    auto locations = fl::i18n::MessageCatalog::locations();
    std::vector<ustring> expected{u"a", u"b", u"given1", u"given2",
                                  fl::filesystem::get_install_path()};
    EXPECT_EQ(locations, expected);
    // A second call with other arguments changes nothing.
    ::unsetenv("VELDRA_ADDITIONAL_RESOURCE_LOCATIONS");
    quorl::utils::initMessageCatalog({u"other"});
    EXPECT_EQ(fl::i18n::MessageCatalog::locations(), expected);
}

TEST(ProcessUtils, IdentityConversionAndUnloadEntry) {
    EXPECT_EQ(quorl::PnP::convertToUString("abc 123"), u"abc 123");
    EXPECT_THROW(quorl::PnP::convertToUString("caf\xC3\xA9"), std::runtime_error);
    EXPECT_EQ(std::count(quorl_version, quorl_version + std::strlen(quorl_version), '.'), 3);
    EXPECT_EQ(std::strlen(quorl_build_date), 11u);
    EXPECT_NE(std::string(quorl_relative_path).find("libquorl.so"), std::string::npos);

    EXPECT_FALSE(foundation::msg_svc::shutdown::processExitStarted());
    EXPECT_TRUE(DllMain(nullptr, 0, reinterpret_cast<void*>(1)));
    EXPECT_TRUE(foundation::msg_svc::shutdown::isProcessTerminating());
    EXPECT_TRUE(DllMain(nullptr, 0, nullptr)); // unloaded outside process exit
    EXPECT_FALSE(foundation::msg_svc::shutdown::isProcessTerminating());
    EXPECT_TRUE(DllMain(nullptr, 1, reinterpret_cast<void*>(1))); // other reasons change nothing
    EXPECT_FALSE(foundation::msg_svc::shutdown::isProcessTerminating());
}
