#include <quorl/language/codecompleteness.hpp>

#include <gtest/gtest.h>

using quorl::language::CodeCompleteness;
using quorl::language::codeCompleteness;

TEST(CodeCompleteness, OpenBlocksAndMatricesWaitForMoreLines) {
    for (char const* code :
         {"if x > 1", "for k = 1:3\n  disp(k)", "while true,", "function y = f(x)\n  y = x;",
          "try\n  error('a:b', 'c')\ncatch e", "switch k\ncase 1", "if a\n  for k = 1:2\n  end",
          "x = [1 2\n3 4", "c = {1, 'a'", "m = {[1 2", "s = 'it''s'; if s(end) == 's'"})
        EXPECT_EQ(codeCompleteness(code), CodeCompleteness::Incomplete) << code;
}

TEST(CodeCompleteness, ClosedBlocksIndexEndsAndMistakesAreComplete) {
    for (char const* code :
         {"", "x = 1", "if x, y = 2, end", "for k = 1:3\n  disp(k)\nend", "v(end)", "v(end-1:end)",
          "c{end}", "x = [1 2\n3 4]", "while true, end", "if a\n  b = v(end);\nend",
          "function y = f(x)\n  y = x;\nend", "end", "disp('if')", "disp(\"for while\") % if"})
        EXPECT_EQ(codeCompleteness(code), CodeCompleteness::Complete) << code;
}

TEST(CodeCompleteness, TextTheLexerRefusesIsInvalid) {
    EXPECT_EQ(codeCompleteness("x = 'abc"), CodeCompleteness::Invalid);
    EXPECT_EQ(codeCompleteness("if x\n y = \"open"), CodeCompleteness::Invalid);
    // Only [ ] and { } may span lines; the other imbalances are mistakes.
    for (char const* code : {"x = )", "f(1, 2", "x = [1 2)", "c = {[1 2}", "x = ]", "x = [1 (2"})
        EXPECT_EQ(codeCompleteness(code), CodeCompleteness::Invalid) << code;
}
