#include <quorl/language/codecompleteness.hpp>

#include <quorl/language/languageerror.hpp>
#include <quorl/language/lexer.hpp>

#include <string>
#include <vector>

namespace quorl {
namespace language {

namespace {

bool opensBlock(std::string const& keyword) {
    return keyword == "if" || keyword == "for" || keyword == "while" || keyword == "switch" ||
           keyword == "try" || keyword == "function";
}

// Whether the lexer refuses `code` only because a [ ] or { } is still open at its end: closing
// the innermost open one, again and again, makes it lexable.
bool onlyMatricesOpen(std::string code, std::string message) {
    for (int closed = 0; closed < 256; ++closed) {
        char closer = 0;
        if (message.rfind("Unbalanced '['", 0) == 0)
            closer = ']';
        else if (message.rfind("Unbalanced '{'", 0) == 0)
            closer = '}';
        else
            return false;
        code += closer;
        try {
            Lexer::tokenize(code);
            return true;
        } catch (LanguageError const& e) {
            message = e.what();
        }
    }
    return false;
}

} // namespace

CodeCompleteness codeCompleteness(std::string const& code) {
    std::vector<Token> tokens;
    try {
        tokens = Lexer::tokenize(code);
    } catch (LanguageError const& e) {
        return onlyMatricesOpen(code, e.what()) ? CodeCompleteness::Incomplete
                                                : CodeCompleteness::Invalid;
    }
    // `end` inside ( ), [ ] or { } is an index value, not the end of a block; the lexer has
    // checked that brackets pair up.
    int depth = 0;  // brackets open at this point
    int blocks = 0; // blocks waiting for their end
    for (Token const& t : tokens) {
        if (t.type == Tok::Op && (t.text == "(" || t.text == "[" || t.text == "{")) {
            ++depth;
        } else if (t.type == Tok::Op && (t.text == ")" || t.text == "]" || t.text == "}")) {
            --depth;
        } else if (t.type == Tok::Keyword && depth == 0) {
            if (opensBlock(t.text)) {
                ++blocks;
            } else if (t.text == "end") {
                if (blocks == 0)
                    return CodeCompleteness::Complete; // the parser will say what is wrong
                --blocks;
            }
        }
    }
    return blocks > 0 ? CodeCompleteness::Incomplete : CodeCompleteness::Complete;
}

} // namespace language
} // namespace quorl
