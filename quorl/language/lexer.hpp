#pragma once
// Lexer: splits source text into tokens with their line and column. Inside [ ] and { } it
// turns the separators that blanks and line ends imply into commas and semicolons, and it
// tells a transpose quote from a text quote by what precedes it. A statement that starts with
// a name followed by a word ("clear x", "format long") is command syntax: the words come out as
// text tokens.
//
// Plain value, used by one thread. Errors: LanguageError quorl:syntaxError naming line and column.
#include <string>
#include <vector>

namespace quorl {
namespace language {

enum class Tok {
    Number,
    CharLit,
    StringLit,
    Ident,
    Keyword,
    Op,
    Comma,
    Semi,
    Newline,
    CommandWord,
    Eof
};

struct Token {
    Tok type;
    std::string text;
    double num = 0;
    int line = 0;
    int col = 0;
};

class Lexer {
public:
    static std::vector<Token> tokenize(std::string const& source);
};

bool isKeyword(std::string const& word);

} // namespace language
} // namespace quorl
