#pragma once
// CodeAnalysis: read-only questions that front ends (a notebook kernel, a command window) ask
// about code of the language without running it: whether a piece of typed code is complete or
// still has an open block, where the statement whose value would be displayed starts, which
// names the built-ins have, which function files a search path holds, and the help text of a
// function file (its leading comment).
//
// Stateless: every function may be called from any thread at any time. Nothing here touches an
// interpreter or a workspace. helpText and functionFiles read the file system and return an
// empty result for what they cannot read; nothing throws except std::bad_alloc.
#include <cstddef>
#include <string>
#include <vector>

namespace quorl {
namespace language {

class CodeAnalysis {
public:
    enum class Completeness {
        Complete,   // parses as it stands
        Incomplete, // an open block, bracket, block comment or a continuation "..." at the end
        Invalid     // a syntax error that more lines cannot mend
    };
    static Completeness completeness(std::string const& code);

    // The byte offset at which the last statement of `code` starts when that statement is an
    // expression statement that shows its value (no semicolon after it) and the code before it
    // parses on its own; npos otherwise (also for code that defines functions).
    static std::size_t displayedStatementStart(std::string const& code);

    // The names under which an expression statement's value is shown: "ans", and the name of a
    // lone identifier statement (`x` shows "x = ..."). `statement` is the text from
    // displayedStatementStart on.
    static std::vector<std::string> displayNames(std::string const& statement);

    // Names of the built-in functions, sorted.
    static std::vector<std::string> builtinNames();
    // Keywords of the language, sorted.
    static std::vector<std::string> keywords();
    // Names (without ".qrl") of the function files in `folders`, sorted and without repeats.
    static std::vector<std::string> functionFiles(std::vector<std::string> const& folders);
    // The path of NAME.qrl in the first of `folders` that has it; empty when none has.
    static std::string findFunctionFile(std::string const& name,
                                        std::vector<std::string> const& folders);
    // The leading comment of a function or script file: the first block of "%" comment lines,
    // before the first statement or right after the "function" line, without the "%" marks.
    // Empty when the file has no such comment or cannot be read.
    static std::string helpText(std::string const& path);
};

} // namespace language
} // namespace quorl
