// Each scenario that runs a framework runs in a fresh process (a death-test child), because the
// install step of the lookup happens once per process.
#include <quorl/cmddistributor/dataarraypayload.hpp>

#include <tests/support/archivetesting.hpp>
#include <tests/support/errorof.hpp>
#include <tests/support/tempdir.hpp>

#include <foundation/cppmicroservices/framework.hpp>

#include <boost/archive/binary_iarchive.hpp>
#include <boost/archive/binary_oarchive.hpp>
#include <boost/archive/text_iarchive.hpp>
#include <boost/archive/text_oarchive.hpp>
#include <boost/filesystem.hpp>
#include <boost/serialization/split_member.hpp>

#include <gtest/gtest.h>

#include <fstream>
#include <iostream>
#include <thread>

using foundation::extdata::Array;
using quorl::cmddistributor::DataArrayPayload;
using quorl::cmddistributor::getVeldraDataArraySerializationService;
namespace fs = boost::filesystem;

namespace {

// A bundle root whose plug-in folder holds one manifest per (file name, library, method).
struct PluginRoot {
    quorl_testing::TempDir dir;
    fs::path const& root = dir.path();
    fs::path folder = root / "bin" / "win64" / "serializer_plugins";

    PluginRoot() { fs::create_directories(folder); }
    void add(const std::string& file, const std::string& library, const std::string& method,
             const std::string& type = "foundation::extdata::Array") {
        std::ofstream out((folder / file).string());
        out << "bundle.library=" << library << "\nzn.serialization.for_type=" << type
            << "\nzn.serialization.method=" << method << "\n";
    }
};

// Runs body in a fresh process; a failed expectation there fails the child's exit code and
// its output shows up in this test's report.
template <class Body> void inFreshProcess(Body body) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            body();
            std::exit(::testing::Test::HasFailure() ? 1 : 0);
        },
        ::testing::ExitedWithCode(0), "");
}

std::string nameWrittenBy(quorl::cmddistributor::VeldraDataArraySerializationService& s) {
    std::ostringstream out;
    s.serializeDataArray(Array::createScalar(1.0), out);
    return out.str();
}

cppmicroservices::Bundle::State stateOf(const std::string& manifest) {
    for (auto& b : foundation::cppmicroservices::getFramework()->GetBundles()) {
        if (fs::path(b.GetLocation()).filename() == manifest) {
            return b.GetState();
        }
    }
    ADD_FAILURE() << manifest << " not installed";
    return cppmicroservices::Bundle::STATE_UNINSTALLED;
}

Array sample() {
    auto text = Array::createChar(u"caf\u00e9");
    auto cell = Array::createCell({1, 3}, {Array::createString({1, 2}, {u"a", u"\u4e2d"}),
                                           Array::createLogical({1, 2}, {true, false}), Array()});
    auto s = Array::createStruct({1, 2}, {"x", "name"},
                                 {Array::create<std::int32_t>({1, 2}, {-1, 7}), text,
                                  Array::createScalar<std::uint64_t>(1ull << 63), cell});
    return Array::createCell({2, 1}, {s, Array::create<double>({2, 2}, {1.5, -2, 1e300, 0})});
}

// Both payload forms and an Array field inside one element, as every class body writes them. In
// text and XML the bytes go through the archive's base64, whose reader stops at the first white
// space after them; in XML only an enclosing element's end puts one there.
struct Payloads {
    std::vector<Array> list;
    Array one;
    Array field;
    template <class A> void save(A& ar, unsigned) const {
        DataArrayPayload::saveList(ar, list);
        DataArrayPayload::saveOne(ar, one);
        ar << boost::serialization::make_nvp("field", field);
    }
    template <class A> void load(A& ar, unsigned) {
        DataArrayPayload::loadList(ar, list);
        one = DataArrayPayload::loadOne(ar);
        ar >> boost::serialization::make_nvp("field", field);
    }
    BOOST_SERIALIZATION_SPLIT_MEMBER()
};

void roundTripInEveryFamily() {
    Payloads in;
    // Sizes that leave 0, 1 and 2 bytes over a base64 group, and one over many lines.
    in.list = {sample(), Array::createZeros(foundation::extdata::SINGLE, {3, 0, 2}),
               Array::createScalar<std::int8_t>(-5), Array::createChar(u"ab"),
               Array::createZeros(foundation::extdata::UINT8, {1, 4000})};
    in.one = sample();
    in.field = Array::createScalar(2.5);
    for (auto f : quorl_testing::allFamilies()) {
        SCOPED_TRACE(quorl_testing::familyName(f));
        std::string const bytes = quorl_testing::write(f, in);
        Payloads out;
        quorl_testing::read(f, bytes, out);
        EXPECT_EQ(out.list, in.list);
        EXPECT_EQ(out.one, in.one);
        EXPECT_EQ(out.field, in.field);
        if (f == quorl_testing::Family::Xml) {
            // The field is its payload form alone, with no class information.
            std::vector<std::string> expected{"object", "NoOfElement"};
            expected.insert(expected.end(), 6, "PayLoadLength");
            expected.push_back("field");
            expected.push_back("PayLoadLength");
            EXPECT_EQ(quorl_testing::xmlElementNames(bytes), expected);
        }
    }
}

} // namespace

TEST(DataArrayService, WithoutFrameworkEveryPayloadFailsFirst) {
    ASSERT_FALSE(foundation::cppmicroservices::getFramework());
    EXPECT_EQ(getVeldraDataArraySerializationService(), nullptr);

    std::stringstream empty;
    {
        boost::archive::binary_oarchive oa(empty);
        std::uint64_t none = 0;
        oa << none;
        auto expectMissing = [](auto&& f) {
            EXPECT_EQ(quorl_testing::errorOf<std::runtime_error>(f),
                      "Missing Veldra Data Array serialization support.");
        };
        auto before = empty.str().size();
        expectMissing([&] { DataArrayPayload::saveList(oa, std::vector<Array>{}); });
        expectMissing([&] { DataArrayPayload::saveOne(oa, Array()); });
        EXPECT_EQ(empty.str().size(), before) << "nothing may be written";

        boost::archive::binary_iarchive ia(empty);
        std::vector<Array> arrays;
        expectMissing([&] { DataArrayPayload::loadList(ia, arrays); });
        expectMissing([&] { DataArrayPayload::loadOne(ia); });
        std::uint64_t stillThere = 1;
        ia >> stillThere; // the reader failed before taking anything from the archive
        EXPECT_EQ(stillThere, 0u);
    }
}

TEST(DataArrayService, InstalledPluginServesPayloadsInEveryArchiveFamily) {
    inFreshProcess([] {
        // The default bundle root is the installation root, where the build puts the plug-in.
        foundation::cppmicroservices::startFramework();
        auto service = getVeldraDataArraySerializationService();
        ASSERT_NE(service, nullptr);
        EXPECT_EQ(getVeldraDataArraySerializationService(), service);

        roundTripInEveryFamily();

        // An array too large for the plug-in travels as length 0, and a zero length ends a list
        // on reading: what follows it stays unread.
        auto mb = Array::createZeros(foundation::extdata::UINT8, {1, 1 << 20});
        auto huge = Array::createCell({1, 2100}, std::vector<Array>(2100, mb));
        std::stringstream bytes;
        {
            boost::archive::binary_oarchive oa(bytes);
            DataArrayPayload::saveList(oa,
                                       {Array::createScalar(1.0), huge, Array::createScalar(2.0)});
        }
        boost::archive::binary_iarchive ia(bytes);
        std::vector<Array> out;
        DataArrayPayload::loadList(ia, out);
        EXPECT_EQ(out, (std::vector<Array>{Array::createScalar(1.0), Array()}));
    });
}

TEST(DataArrayService, RacingFirstLookupsStartOnlyTheFirstMatchingBundle) {
    inFreshProcess([] {
        PluginRoot dir;
        dir.add("a_other.manifest", TEST_BUNDLE_OTHER, "json");
        dir.add("b_wrongtype.manifest", TEST_BUNDLE_OTHER, "protobuf", "hvArray");
        dir.add("c_first.manifest", TEST_BUNDLE_FIRST, "protobuf");
        dir.add("d_second.manifest", TEST_BUNDLE_SECOND, "protobuf");
        foundation::cppmicroservices::startFramework(dir.root);
        std::vector<std::shared_ptr<quorl::cmddistributor::VeldraDataArraySerializationService>>
            got(8);
        std::vector<std::thread> threads;
        for (auto& g : got) {
            threads.emplace_back([&g] { g = getVeldraDataArraySerializationService(); });
        }
        for (auto& t : threads) {
            t.join();
        }
        for (auto& g : got) {
            ASSERT_NE(g, nullptr);
            EXPECT_EQ(g, got[0]);
        }
        auto service = got[0];
        EXPECT_EQ(nameWrittenBy(*service), "first");
        // Each manifest installed once; only the first matching bundle started.
        EXPECT_EQ(foundation::cppmicroservices::getFramework()->GetBundles().size(), 4u);
        EXPECT_EQ(stateOf("c_first.manifest"), cppmicroservices::Bundle::STATE_ACTIVE);
        EXPECT_EQ(stateOf("d_second.manifest"), cppmicroservices::Bundle::STATE_INSTALLED);
        EXPECT_EQ(stateOf("a_other.manifest"), cppmicroservices::Bundle::STATE_INSTALLED);
        EXPECT_EQ(stateOf("b_wrongtype.manifest"), cppmicroservices::Bundle::STATE_INSTALLED);

        // The service keeps its bundle's library loaded after the framework has stopped.
        foundation::cppmicroservices::stopFramework();
        EXPECT_EQ(getVeldraDataArraySerializationService(), nullptr);
        EXPECT_EQ(nameWrittenBy(*service), "first");
    });
}

TEST(DataArrayService, NoMatchSpendsTheInstallStep) {
    inFreshProcess([] {
        PluginRoot dir;
        dir.add("a_other.manifest", TEST_BUNDLE_OTHER, "json");
        foundation::cppmicroservices::startFramework(dir.root);
        EXPECT_EQ(getVeldraDataArraySerializationService(), nullptr);
        EXPECT_EQ(stateOf("a_other.manifest"), cppmicroservices::Bundle::STATE_INSTALLED);
        // A matching bundle that appears later is not installed: the step ran once.
        dir.add("b_first.manifest", TEST_BUNDLE_FIRST, "protobuf");
        EXPECT_EQ(getVeldraDataArraySerializationService(), nullptr);
        EXPECT_EQ(foundation::cppmicroservices::getFramework()->GetBundles().size(), 1u);
    });
}

TEST(DataArrayService, InstallAndStartFailuresReachTheCaller) {
    inFreshProcess([] {
        PluginRoot dir;
        dir.add("a_missing.manifest", "/nonexistent/libnothing.so", "protobuf");
        foundation::cppmicroservices::startFramework(dir.root);
        EXPECT_THROW(getVeldraDataArraySerializationService(), std::runtime_error);
    });
    inFreshProcess([] {
        PluginRoot dir;
        std::ofstream((dir.folder / "broken.manifest").string()) << "no key value here\n";
        foundation::cppmicroservices::startFramework(dir.root);
        std::string const error = quorl_testing::errorOf<std::runtime_error>(
            [] { getVeldraDataArraySerializationService(); });
        EXPECT_NE(error.find("broken.manifest line 1"), std::string::npos) << error;
    });
}
