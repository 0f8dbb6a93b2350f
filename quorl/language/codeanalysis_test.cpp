#include <quorl/language/codeanalysis.hpp>

#include <tests/support/tempdir.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <utility>

namespace {

using quorl::language::CodeAnalysis;
typedef CodeAnalysis::Completeness Completeness;
namespace fs = boost::filesystem;
using quorl_testing::TempDir;

TEST(CodeAnalysis, CompletenessTellsOpenBlocksFromSyntaxErrors) {
    for (char const* code : {"x = 1", "", "if true, disp(1), end", "a = [1 2\n3 4]",
                             "y = x(end) + 1", "% just a comment", "c{end}", "disp('if')",
                             "disp(\"for while\") % if", "while true, end"}) {
        EXPECT_EQ(CodeAnalysis::completeness(code), Completeness::Complete) << code;
    }
    for (char const* code : {"for i = 1:3", "if x\n  y = 1;", "while true\n  if a\n  end",
                             "function r = f(x)\n r = x;\nif r", "try\n  x = 1;\ncatch e",
                             "m = [1 2", "z = f(1, ...", "s = {1, [2", "%{\nopen comment",
                             "switch k\n case 1", "while true,", "s = 'it''s'; if s(end) == 's'"}) {
        EXPECT_EQ(CodeAnalysis::completeness(code), Completeness::Incomplete) << code;
    }
    for (char const* code : {"x = = 3", "1 +* 2", "end", "x = )", "for i = 1:3\n x = = 1",
                             "m = [1 2)", "s = 'unterminated"}) {
        EXPECT_EQ(CodeAnalysis::completeness(code), Completeness::Invalid) << code;
    }
}

TEST(CodeAnalysis, DisplayedStatementIsTheLastShowingExpressionStatement) {
    auto start = [](std::string const& code) {
        std::size_t at = CodeAnalysis::displayedStatementStart(code);
        return at == std::string::npos ? std::string("<none>") : code.substr(at);
    };
    std::pair<char const*, char const*> const cases[] = {
        {"1 + 1", "1 + 1"},
        {"x = 3; x", "x"},
        {"a = 1\nb = 2, a * b  % product", "a * b  % product"},
        {"for i = 1:2\n  i\nend\ni + 1\n\n", "i + 1\n\n"},
        {"m = [1 2\n3 4];\nm(end, :)", "m(end, :)"},
        // Nothing shows: assignments, suppressed output, blocks, commands, bad code.
        {"x = 3", "<none>"},
        {"x + 1;", "<none>"},
        {"if true\n  1\nend", "<none>"},
        {"format long", "<none>"},
        {"x = = 1\ny", "<none>"},
        {"x\nfunction y = f()\n y = 1;\nend", "<none>"},
        {"", "<none>"},
    };
    for (auto const& c : cases)
        EXPECT_EQ(start(c.first), c.second) << c.first;

    EXPECT_EQ(CodeAnalysis::displayNames("x"), (std::vector<std::string>{"ans", "x"}));
    EXPECT_EQ(CodeAnalysis::displayNames("x + 1"), (std::vector<std::string>{"ans"}));
}

TEST(CodeAnalysis, NamesOfBuiltinsKeywordsAndFunctionFiles) {
    auto builtins = CodeAnalysis::builtinNames();
    EXPECT_TRUE(std::is_sorted(builtins.begin(), builtins.end()));
    for (char const* name : {"disp", "fprintf", "zeros", "who"}) {
        EXPECT_TRUE(std::binary_search(builtins.begin(), builtins.end(), name)) << name;
    }
    auto keywords = CodeAnalysis::keywords();
    EXPECT_TRUE(std::binary_search(keywords.begin(), keywords.end(), "while"));

    TempDir a, b;
    a.write("alpha.qrl", "function y = alpha(x)\n% Doubles x.\n%   y = alpha(x)\ny = 2*x;\n");
    a.write("notes.txt", "not code");
    b.write("alpha.qrl", "function y = alpha(x)\ny = 3*x;\n");
    b.write("beta.qrl", "% Sets z.\n\n% after a blank line: no longer help\nz = 1;\n");
    b.write("gamma.qrl", "x = 1; % a comment after a statement is no help\n");
    EXPECT_EQ(CodeAnalysis::functionFiles({a.str(), b.str(), a.str() + "/missing"}),
              (std::vector<std::string>{"alpha", "beta", "gamma"}));
    std::string const alpha = CodeAnalysis::findFunctionFile("alpha", {a.str(), b.str()});
    EXPECT_EQ(alpha, (fs::path(a.str()) / "alpha.qrl").string()) << "the first folder wins";
    EXPECT_EQ(CodeAnalysis::findFunctionFile("../alpha", {b.str()}), "");
    EXPECT_EQ(CodeAnalysis::findFunctionFile("delta", {a.str(), b.str()}), "");

    EXPECT_EQ(CodeAnalysis::helpText(alpha), "Doubles x.\n  y = alpha(x)\n");
    EXPECT_EQ(CodeAnalysis::helpText(b.str() + "/beta.qrl"), "Sets z.\n");
    EXPECT_EQ(CodeAnalysis::helpText(b.str() + "/alpha.qrl"), "");
    EXPECT_EQ(CodeAnalysis::helpText(b.str() + "/gamma.qrl"), "");
    EXPECT_EQ(CodeAnalysis::helpText(b.str() + "/missing.qrl"), "");
}

} // namespace
