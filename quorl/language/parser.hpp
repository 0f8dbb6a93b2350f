#pragma once
// Parser: recursive descent over the Lexer's tokens, making a Unit. A text whose first
// statement is "function" is a function file (the first function is public, the others are
// local); any other text is a script, which may define functions after its statements.
//
// Used by one thread. Errors: LanguageError quorl:syntaxError, with line and column in the
// message.
#include <quorl/language/ast.hpp>

#include <memory>
#include <string>

namespace quorl {
namespace language {

class Parser {
public:
    // `file` is the path shown in stacks (may be empty), `name` the unit's name.
    static std::shared_ptr<Unit> parse(std::string const& source, std::string const& file,
                                       std::string const& name);
};

} // namespace language
} // namespace quorl
