#include <fl/filesystem/installpath.hpp>
#include <fl/i18n/conversions.hpp>
#include <fl/i18n/messagecatalog.hpp>
#include <tests/support/tempdir.hpp>

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include <fstream>

using namespace fl::i18n;
namespace bfs = boost::filesystem;

TEST(MessageCatalog, ReadsLocationsInOrderAndFormats) {
    quorl_testing::TempDir dir;
    bfs::path const& root = dir.path();
    bfs::create_directories(root / "a" / "messages");
    bfs::create_directories(root / "b");
    std::ofstream(((root / "a" / "messages") / "core.msg").string())
        << "# comment\n\nquorl:greet = Hello, {0} and {1}!\nquorl:only_a = A\n";
    std::ofstream(((root / "b") / "core.msg").string())
        << "quorl:greet = shadowed\nquorl:only_b = B {7}\n";
    MessageCatalog::MessageCatalogInit({to_ustring((root / "a").string()),
                                        to_ustring((root / "missing").string()),
                                        to_ustring((root / "b").string())});
    EXPECT_EQ(MessageCatalog::locations().size(), 3u);
    EXPECT_EQ(*MessageCatalog::lookup("quorl:only_a"), u"A");
    EXPECT_EQ(*MessageCatalog::lookup("quorl:only_b"), u"B {7}");
    EXPECT_EQ(MessageCatalog::format("quorl:greet", {u"x", u"y"}), u"Hello, x and y!");
    EXPECT_EQ(MessageCatalog::format("quorl:only_b", {u"x"}), u"B {7}");
    EXPECT_EQ(MessageCatalog::format("quorl:unknown"), u"quorl:unknown");
    EXPECT_FALSE(MessageCatalog::lookup("quorl:unknown"));

    std::ofstream(((root / "b") / "bad.msg").string()) << "no equals sign here\n";
    EXPECT_THROW(MessageCatalog::MessageCatalogInit({to_ustring((root / "b").string())}),
                 std::runtime_error);
}

TEST(InstallPath, IsTheParentOfTheLibraryFolder) {
    bfs::path lib(to_string(fl::filesystem::get_library_path()));
    EXPECT_TRUE(bfs::exists(lib));
    EXPECT_EQ(bfs::path(to_string(fl::filesystem::get_install_path())), lib.parent_path());
}
