// Runs every conformance script and compares its transcript (output and error streams as they
// were written) with the expected one, line by line; an .err file names the error the script
// must end with. Each expected line and each error field counts as one check.
#include <quorl/language/interpreter.hpp>
#include <quorl/language/localworkspace.hpp>

#include <boost/filesystem.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <sstream>

namespace {

using namespace quorl::language;
namespace fs = boost::filesystem;

std::size_t gChecks = 0;

class Transcript : public std::basic_streambuf<char16_t> {
public:
    std::string text() const { return toUtf8(s_); }

protected:
    std::streamsize xsputn(char16_t const* p, std::streamsize n) override {
        s_.append(p, static_cast<std::size_t>(n));
        return n;
    }
    int_type overflow(int_type c) override {
        s_ += traits_type::to_char_type(c);
        return c;
    }

private:
    std::u16string s_;
};

std::string slurp(fs::path const& p) {
    std::ifstream in(p.string(), std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

std::vector<std::string> lines(std::string const& s) {
    std::vector<std::string> r;
    std::istringstream in(s);
    std::string l;
    while (std::getline(in, l)) {
        r.push_back(l);
    }
    return r;
}

std::vector<std::string> scripts() {
    std::vector<std::string> r;
    for (fs::recursive_directory_iterator it(QUORL_LANGUAGE_SCRIPTS), end; it != end; ++it) {
        fs::path p = it->path();
        if (p.extension() == ".qrl" && fs::exists(fs::path(p).replace_extension(".out"))) {
            r.push_back(fs::relative(p, QUORL_LANGUAGE_SCRIPTS).string());
        }
    }
    std::sort(r.begin(), r.end());
    return r;
}

class Conformance : public ::testing::TestWithParam<std::string> {};

TEST_P(Conformance, TranscriptAndErrorMatch) {
    fs::path script = fs::path(QUORL_LANGUAGE_SCRIPTS) / GetParam();
    Interpreter in;
    in.setSearchPath({script.parent_path().string()});
    LocalWorkspace ws;
    Transcript t;
    EvalIo io;
    io.out = &t;
    io.err = &t;
    bool failed = false;
    std::string id, message;
    int line = -1;
    try {
        in.runFile(script.string(), ws, io);
    } catch (LanguageError const& e) {
        failed = true;
        id = e.identifier();
        message = e.message();
        line = e.stack().empty() ? 0 : e.stack().front().line;
    }
    std::vector<std::string> got = lines(t.text());
    std::vector<std::string> want = lines(slurp(fs::path(script).replace_extension(".out")));
    for (std::size_t i = 0; i < std::max(got.size(), want.size()); ++i) {
        ++gChecks;
        EXPECT_EQ(i < got.size() ? got[i] : "<no line>", i < want.size() ? want[i] : "<no line>")
            << GetParam() << " line " << i + 1 << " of the transcript";
    }
    fs::path errFile = fs::path(script).replace_extension(".err");
    if (!fs::exists(errFile)) {
        gChecks += 1;
        EXPECT_FALSE(failed) << GetParam() << " failed: " << id << ": " << message;
        return;
    }
    ASSERT_TRUE(failed) << GetParam() << " was expected to fail";
    for (std::string const& l : lines(slurp(errFile))) {
        ++gChecks;
        if (l.rfind("identifier: ", 0) == 0) {
            EXPECT_EQ(id, l.substr(12)) << GetParam();
        } else if (l.rfind("message: ", 0) == 0) {
            EXPECT_EQ(message, l.substr(9)) << GetParam();
        } else if (l.rfind("line: ", 0) == 0) {
            EXPECT_EQ(line, std::stoi(l.substr(6))) << GetParam();
        } else {
            ADD_FAILURE() << "unknown line in " << errFile << ": " << l;
        }
    }
}

std::string testName(::testing::TestParamInfo<std::string> const& info) {
    std::string n = info.param;
    for (char& c : n) {
        if (!std::isalnum(static_cast<unsigned char>(c))) {
            c = '_';
        }
    }
    return n;
}

INSTANTIATE_TEST_SUITE_P(Scripts, Conformance, ::testing::ValuesIn(scripts()), testName);

class CountChecks : public ::testing::Environment {
public:
    void TearDown() override { std::printf("language conformance: %zu checks\n", gChecks); }
};

::testing::Environment* const gCount = ::testing::AddGlobalTestEnvironment(new CountChecks);

} // namespace
