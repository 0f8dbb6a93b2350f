#include "framework_testbundle.hpp"

#include <cppmicroservices/framework.hpp>
#include <foundation/cppmicroservices/framework.hpp>
#include <tests/support/errorof.hpp>
#include <tests/support/tempdir.hpp>

#include <boost/filesystem.hpp>

#include <gtest/gtest.h>

#include <fstream>

namespace fs = boost::filesystem;
using cppmicroservices::Any;
using cppmicroservices::Bundle;
using cppmicroservices::Framework;
using quorl_testing::errorOf;
using quorl_testing::TempDir;

namespace {

std::string greeterManifest() {
    return "# a comment\n\n bundle.library = " + std::string(TEST_BUNDLE) + "\nkind=greeter\n";
}

} // namespace

TEST(CppMicroServicesAny, TextFormsAndCasts) {
    EXPECT_EQ(Any(std::string("x y")).ToString(), "x y");
    EXPECT_EQ(Any("lit").ToString(), "lit");
    EXPECT_EQ(Any(42).ToString(), "42");
    EXPECT_EQ(Any(2.5).ToString(), "2.5");
    EXPECT_EQ(Any(true).ToString(), "true");
    EXPECT_EQ(Any().ToString(), "");
    EXPECT_TRUE(Any().Empty());
    EXPECT_EQ(cppmicroservices::any_cast<int>(Any(7)), 7);
    EXPECT_THROW(cppmicroservices::any_cast<long>(Any(7)), std::bad_cast);
}

TEST(CppMicroServicesFramework, ManifestsInstallOnceWithTheirProperties) {
    TempDir dir;
    dir.write("b.manifest", greeterManifest());
    dir.write("a.manifest", "bundle.library=liba.so\nbundle.symbolic_name=alpha\n");
    dir.write("notes.txt", "not a manifest");
    Framework fw(dir.path());
    auto ctx = fw.GetBundleContext();
    ASSERT_TRUE(ctx);
    auto b = ctx.InstallBundles("b.manifest"); // relative to the bundle root
    ASSERT_EQ(b.size(), 1u);
    EXPECT_EQ(b[0].GetSymbolicName(), "b");
    EXPECT_EQ(b[0].GetProperty("kind").ToString(), "greeter");
    EXPECT_TRUE(b[0].GetProperty("missing").Empty());
    EXPECT_EQ(b[0].GetState(), Bundle::STATE_INSTALLED);
    EXPECT_EQ(ctx.InstallBundles((dir.path() / "b.manifest").string())[0], b[0]);
    EXPECT_EQ(ctx.InstallBundles("a.manifest")[0].GetSymbolicName(), "alpha");
    EXPECT_EQ(fw.GetBundles().size(), 2u);

    // A malformed or unreadable manifest: the error names the file and the fault.
    std::pair<std::string, std::string> const refusals[] = {
        {dir.write("c.manifest", "bundle.library=x\nno"), "c.manifest line 2: expected key=value"},
        {dir.write("d.manifest", "k=1\nk=2\n"), "d.manifest line 2: repeated key \"k\""},
        {dir.write("e.manifest", "k=1\n"), "has no \"bundle.library\""},
        {"nonexistent.manifest", "Cannot read"}};
    for (auto const& r : refusals)
        EXPECT_NE(errorOf([&] { ctx.InstallBundles(r.first); }).find(r.second), std::string::npos)
            << r.first;
    EXPECT_THROW(Bundle().GetState(), std::invalid_argument);
}

TEST(CppMicroServicesFramework, StartedBundleServesUntilStopped) {
    TempDir dir;
    Framework fw(dir.path());
    auto ctx = fw.GetBundleContext();
    auto bundle = ctx.InstallBundles(dir.write("g.manifest", greeterManifest()))[0];
    EXPECT_FALSE(ctx.GetServiceReference<TestGreeter>());
    EXPECT_FALSE(bundle.GetBundleContext());

    bundle.Start();
    bundle.Start(); // already active: nothing happens
    EXPECT_EQ(bundle.GetState(), Bundle::STATE_ACTIVE);
    auto ref = ctx.GetServiceReference<TestGreeter>();
    ASSERT_TRUE(ref);
    EXPECT_EQ(ref.GetBundle(), bundle);
    EXPECT_EQ(ref.GetProperty("language").ToString(), "en");
    auto greeter = ctx.GetServiceObjects(ref).GetService();
    ASSERT_TRUE(greeter);
    EXPECT_EQ(greeter->greet(), "hello from the bundle");
    EXPECT_EQ(errorOf([&] { ctx.GetServiceReference<UndeclaredService>(); }),
              "The service interface class has no CPPMICROSERVICES_DECLARE_SERVICE_INTERFACE "
              "macro");

    bundle.Stop();
    EXPECT_EQ(bundle.GetState(), Bundle::STATE_RESOLVED);
    EXPECT_FALSE(ref);
    EXPECT_FALSE(ctx.GetServiceObjects(ref).GetService());
    EXPECT_EQ(greeter->greet(), "hello from the bundle"); // its library stays loaded

    bundle.Start();
    EXPECT_TRUE(ctx.GetServiceReference<TestGreeter>());
    fw.Stop();
    EXPECT_FALSE(ctx);
    EXPECT_EQ(bundle.GetState(), Bundle::STATE_UNINSTALLED);
    EXPECT_TRUE(fw.GetBundles().empty());
    EXPECT_THROW(ctx.GetServiceReference<TestGreeter>(), std::logic_error);
}

TEST(CppMicroServicesFramework, StartFailuresLeaveTheBundleInactive) {
    TempDir dir;
    Framework fw(dir.path());
    auto ctx = fw.GetBundleContext();
    // A library that does not load, and one that loads but has no activator.
    std::pair<std::string, std::string> const failures[] = {
        {"nothing.so", "cannot load"}, {PLAIN_LIBRARY, "exports no bundle activator"}};
    for (auto const& f : failures) {
        auto bundle = ctx.InstallBundles(dir.write(fs::path(f.first).stem().string() + ".manifest",
                                                   "bundle.library=" + f.first + "\n"))[0];
        EXPECT_NE(errorOf([&] { bundle.Start(); }).find(f.second), std::string::npos) << f.first;
        EXPECT_EQ(bundle.GetState(), Bundle::STATE_RESOLVED);
    }
}

TEST(CppMicroServicesFramework, ProcessFrameworkInstallsFolders) {
    namespace fcms = foundation::cppmicroservices;
    ASSERT_FALSE(fcms::getFramework());
    EXPECT_THROW(fcms::install("anything"), std::logic_error);

    TempDir dir;
    fs::create_directories(dir.path() / "plugins");
    std::ofstream((dir.path() / "plugins" / "z.manifest").string()) << greeterManifest();
    std::ofstream((dir.path() / "plugins" / "y.manifest").string()) << "bundle.library=y.so\n";
    auto fw = fcms::startFramework(dir.path());
    EXPECT_EQ(fcms::startFramework(), fw);
    EXPECT_EQ(fcms::getFramework(), fw);

    auto bundles = fcms::install("plugins");
    ASSERT_EQ(bundles.size(), 2u);
    EXPECT_EQ(bundles[0].GetSymbolicName(), "y");
    EXPECT_EQ(bundles[1].GetSymbolicName(), "z");
    EXPECT_EQ(fcms::install(dir.path() / "plugins"), bundles);
    EXPECT_TRUE(fcms::install("no/such/folder").empty());

    bundles[1].Start();
    fcms::stopFramework();
    EXPECT_FALSE(fcms::getFramework());
    EXPECT_EQ(bundles[1].GetState(), Bundle::STATE_UNINSTALLED);
    EXPECT_THROW(fcms::install("plugins"), std::logic_error);
}
