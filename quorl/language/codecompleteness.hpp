#pragma once
// CodeCompleteness: whether a piece of typed code is ready to run or is still open, the question a
// command window asks before it runs what was typed (and a notebook kernel before it executes a
// cell). Code is incomplete while a block (if, for, while, switch, try, function) lacks its `end`
// or a [ ] or { } is still open; text the lexer refuses (an unterminated quote, an unbalanced
// parenthesis) is invalid: no more lines would mend it; all else is complete, and errors the
// parser would find are left to the run that follows.
//
// A pure function of its argument: any thread. Throws only std::bad_alloc.
//
//   if (quorl::language::codeCompleteness("for k = 1:3") == CodeCompleteness::Incomplete)
//       ...read another line and ask again with both lines...
#include <string>

namespace quorl {
namespace language {

enum class CodeCompleteness { Complete, Incomplete, Invalid };

CodeCompleteness codeCompleteness(std::string const& code);

} // namespace language
} // namespace quorl
