#include <quorl/language/lexer.hpp>

#include <quorl/language/languageerror.hpp>

#include <cctype>
#include <cstdlib>

namespace quorl {
namespace language {

namespace {

char const* const kKeywords[] = {
    "if",     "elseif", "else",      "end", "for",   "while",    "break",  "continue",  "return",
    "switch", "case",   "otherwise", "try", "catch", "function", "global", "persistent"};

bool identStart(char c) {
    return std::isalpha(static_cast<unsigned char>(c)) || c == '_';
}
bool identChar(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || c == '_';
}

class Scanner {
public:
    explicit Scanner(std::string const& s) : src_(s) {}

    std::vector<Token> run();

private:
    [[noreturn]] void fail(std::string const& what) const {
        throw LanguageError(errid::syntax, what + " at line " + std::to_string(line_) +
                                               ", column " + std::to_string(col()) + ".");
    }
    int col() const { return static_cast<int>(pos_ - lineStart_) + 1; }
    char peek(std::size_t k = 0) const { return pos_ + k < src_.size() ? src_[pos_ + k] : '\0'; }
    bool inMatrix() const { return !brackets_.empty() && brackets_.back() != '('; }
    bool lastEndsValue() const;
    void push(Tok t, std::string text, int line, int col, double num = 0) {
        out_.push_back(Token{t, std::move(text), num, line, col});
    }
    bool atStatementStart() const {
        if (!brackets_.empty()) {
            return false;
        }
        if (out_.empty()) {
            return true;
        }
        Tok t = out_.back().type;
        return t == Tok::Newline || t == Tok::Semi || t == Tok::Comma;
    }
    void newline() {
        ++pos_;
        ++line_;
        lineStart_ = pos_;
    }
    bool lineIsOnly(std::size_t at, char const* marker) const;
    void skipBlockComment();
    void lexNumber();
    void lexQuoted(char quote);
    [[noreturn]] void failAt(int line, int col, std::string const& what) const {
        throw LanguageError(errid::syntax, what + " at line " + std::to_string(line) + ", column " +
                                               std::to_string(col) + ".");
    }
    bool tryCommand(std::size_t identEnd);

    std::string const& src_;
    std::size_t pos_ = 0;
    std::size_t lineStart_ = 0;
    int line_ = 1;
    std::vector<char> brackets_;
    std::vector<std::pair<int, int>> openedAt_;
    std::vector<Token> out_;
    std::vector<bool> lambdaStack_;
    bool suppressComma_ = false;
};

bool Scanner::lastEndsValue() const {
    if (out_.empty()) {
        return false;
    }
    Token const& t = out_.back();
    switch (t.type) {
    case Tok::Number:
    case Tok::CharLit:
    case Tok::StringLit:
    case Tok::Ident:
        return true;
    case Tok::Keyword:
        return t.text == "end";
    case Tok::Op:
        return t.text == ")" || t.text == "]" || t.text == "}" || t.text == "'" || t.text == ".'";
    default:
        return false;
    }
}

bool Scanner::lineIsOnly(std::size_t at, char const* marker) const {
    // The line holding `at` consists of blanks and `marker` only.
    std::size_t b = at;
    while (b > 0 && src_[b - 1] != '\n') {
        --b;
    }
    std::size_t e = at;
    while (e < src_.size() && src_[e] != '\n') {
        ++e;
    }
    std::string line = src_.substr(b, e - b);
    std::size_t f = line.find_first_not_of(" \t\r");
    std::size_t l = line.find_last_not_of(" \t\r");
    return f != std::string::npos && line.substr(f, l - f + 1) == marker;
}

void Scanner::skipBlockComment() {
    int depth = 0;
    while (pos_ < src_.size()) {
        if (peek() == '%' && peek(1) == '{' && lineIsOnly(pos_, "%{")) {
            ++depth;
        } else if (peek() == '%' && peek(1) == '}' && lineIsOnly(pos_, "%}")) {
            if (--depth == 0) {
                while (pos_ < src_.size() && peek() != '\n') {
                    ++pos_;
                }
                return;
            }
        }
        if (peek() == '\n') {
            newline();
        } else {
            ++pos_;
        }
    }
    fail("Unterminated block comment");
}

void Scanner::lexNumber() {
    int c0 = col();
    char const* begin = src_.c_str() + pos_;
    char* end = nullptr;
    double v = std::strtod(begin, &end);
    std::size_t n = static_cast<std::size_t>(end - begin);
    // strtod reads hexadecimal and "inf"/"nan"; the language has neither as literals.
    if (n > 1 && (begin[1] == 'x' || begin[1] == 'X')) {
        n = 1;
        v = begin[0] - '0';
    }
    std::string text(begin, n);
    pos_ += n;
    if (identStart(peek())) {
        fail("Unexpected character '" + std::string(1, peek()) + "' after a number");
    }
    push(Tok::Number, text, line_, c0, v);
}

void Scanner::lexQuoted(char quote) {
    int c0 = col();
    ++pos_;
    std::string text;
    for (;;) {
        if (pos_ >= src_.size() || peek() == '\n') {
            failAt(line_, c0,
                   quote == '\'' ? "Unterminated character vector" : "Unterminated string");
        }
        if (peek() == quote) {
            if (peek(1) == quote) {
                text += quote;
                pos_ += 2;
                continue;
            }
            ++pos_;
            break;
        }
        text += peek();
        ++pos_;
    }
    push(quote == '\'' ? Tok::CharLit : Tok::StringLit, text, line_, c0);
}

bool Scanner::tryCommand(std::size_t identEnd) {
    // name<blank>word...: command syntax, unless what follows reads as an expression or an
    // assignment.
    std::size_t p = identEnd;
    if (p >= src_.size() || (src_[p] != ' ' && src_[p] != '\t')) {
        return false;
    }
    while (p < src_.size() && (src_[p] == ' ' || src_[p] == '\t')) {
        ++p;
    }
    if (p >= src_.size()) {
        return false;
    }
    char c = src_[p];
    bool wordStart = identStart(c) || std::isdigit(static_cast<unsigned char>(c)) ||
                     (c == '-' && p + 1 < src_.size() && identStart(src_[p + 1]));
    if (!wordStart) {
        return false;
    }
    // "a b = 1" and "a b(1)" are not commands; neither is "x y" when y is followed by an
    // operator with blanks on both sides.
    std::size_t q = p;
    while (q < src_.size() && identChar(src_[q])) {
        ++q;
    }
    std::size_t r = q;
    while (r < src_.size() && (src_[r] == ' ' || src_[r] == '\t')) {
        ++r;
    }
    if (r < src_.size() && src_[r] == '=' && (r + 1 >= src_.size() || src_[r + 1] != '=')) {
        return false;
    }
    if (q < src_.size() && src_[q] == '(') {
        return false;
    }
    std::string name = src_.substr(pos_, identEnd - pos_);
    if (isKeyword(name)) {
        return false;
    }
    int c0 = col();
    push(Tok::Ident, name, line_, c0);
    out_.back().type = Tok::CommandWord; // marks the command name
    pos_ = p;
    while (pos_ < src_.size()) {
        char ch = peek();
        if (ch == '\n' || ch == ';' || ch == ',' || ch == '%') {
            break;
        }
        if (ch == ' ' || ch == '\t' || ch == '\r') {
            ++pos_;
            continue;
        }
        int wc = col();
        std::string word;
        if (ch == '\'') {
            ++pos_;
            while (pos_ < src_.size() && peek() != '\n') {
                if (peek() == '\'' && peek(1) == '\'') {
                    word += '\'';
                    pos_ += 2;
                } else if (peek() == '\'') {
                    ++pos_;
                    break;
                } else {
                    word += peek();
                    ++pos_;
                }
            }
        } else {
            while (pos_ < src_.size() && !std::isspace(static_cast<unsigned char>(peek())) &&
                   peek() != ';' && peek() != ',') {
                word += peek();
                ++pos_;
            }
        }
        push(Tok::CharLit, word, line_, wc);
    }
    return true;
}

std::vector<Token> Scanner::run() {
    while (pos_ < src_.size()) {
        char c = peek();
        bool spaceBefore = false;
        if (c == ' ' || c == '\t' || c == '\r') {
            while (peek() == ' ' || peek() == '\t' || peek() == '\r') {
                ++pos_;
            }
            spaceBefore = true;
            c = peek();
            if (c == '\0') {
                break;
            }
        }
        // Separators implied by blanks inside [ ] and { }.
        if (spaceBefore && inMatrix() && lastEndsValue() && !suppressComma_) {
            bool startsValue = identStart(c) || std::isdigit(static_cast<unsigned char>(c)) ||
                               c == '\'' || c == '"' || c == '(' || c == '[' || c == '{' ||
                               c == '@' ||
                               (c == '.' && std::isdigit(static_cast<unsigned char>(peek(1))));
            bool signedValue = (c == '-' || c == '+' || c == '~') && peek(1) != ' ' &&
                               peek(1) != '\t' && peek(1) != '=';
            if (startsValue || signedValue) {
                push(Tok::Comma, ",", line_, col());
            }
        }
        suppressComma_ = false;
        if (c == '.' && peek(1) == '.' && peek(2) == '.') {
            while (pos_ < src_.size() && peek() != '\n') {
                ++pos_;
            }
            if (pos_ < src_.size()) {
                newline();
            }
            continue;
        }
        if (c == '%') {
            if (peek(1) == '{' && lineIsOnly(pos_, "%{")) {
                skipBlockComment();
                continue;
            }
            while (pos_ < src_.size() && peek() != '\n') {
                ++pos_;
            }
            continue;
        }
        if (c == '\n') {
            if (inMatrix()) {
                if (!out_.empty() && out_.back().type != Tok::Semi && lastEndsValue()) {
                    push(Tok::Semi, ";", line_, col());
                }
            } else if (brackets_.empty()) {
                push(Tok::Newline, "\n", line_, col());
            }
            newline();
            continue;
        }
        if (std::isdigit(static_cast<unsigned char>(c)) ||
            (c == '.' && std::isdigit(static_cast<unsigned char>(peek(1))))) {
            lexNumber();
            continue;
        }
        if (identStart(c)) {
            std::size_t e = pos_;
            while (e < src_.size() && identChar(src_[e])) {
                ++e;
            }
            if (atStatementStart() && tryCommand(e)) {
                continue;
            }
            std::string word = src_.substr(pos_, e - pos_);
            int c0 = col();
            pos_ = e;
            bool kw = isKeyword(word);
            // Inside an index, "end" is a value; a field name after '.' is never a keyword.
            bool afterDot = !out_.empty() && out_.back().type == Tok::Op && out_.back().text == ".";
            if (kw && !afterDot && !(word == "end" && !brackets_.empty())) {
                push(Tok::Keyword, word, line_, c0);
            } else if (word == "end" && !brackets_.empty()) {
                push(Tok::Keyword, word, line_, c0);
            } else {
                push(Tok::Ident, word, line_, c0);
            }
            continue;
        }
        if (c == '"') {
            lexQuoted('"');
            continue;
        }
        if (c == '\'') {
            bool transpose = lastEndsValue() && !(spaceBefore && inMatrix());
            if (transpose) {
                push(Tok::Op, "'", line_, col());
                ++pos_;
            } else {
                lexQuoted('\'');
            }
            continue;
        }
        int c0 = col();
        std::string two = src_.substr(pos_, 2);
        static char const* const kTwo[] = {"==", "~=", "!=", "<=",  ">=", "&&",
                                           "||", ".*", "./", ".\\", ".^", ".'"};
        bool matched = false;
        for (char const* t : kTwo) {
            if (two == t) {
                push(Tok::Op, two == "!=" ? "~=" : two, line_, c0);
                pos_ += 2;
                matched = true;
                break;
            }
        }
        if (matched) {
            continue;
        }
        ++pos_;
        switch (c) {
        case '(':
        case '[':
        case '{':
            brackets_.push_back(c);
            openedAt_.emplace_back(line_, c0);
            lambdaStack_.push_back(c == '(' && !out_.empty() && out_.back().type == Tok::Op &&
                                   out_.back().text == "@");
            push(Tok::Op, std::string(1, c), line_, c0);
            break;
        case ')':
        case ']':
        case '}': {
            char open = c == ')' ? '(' : (c == ']' ? '[' : '{');
            if (brackets_.empty() || brackets_.back() != open) {
                --pos_;
                fail("Unbalanced '" + std::string(1, c) + "'");
            }
            bool lambda = lambdaStack_.back();
            brackets_.pop_back();
            openedAt_.pop_back();
            lambdaStack_.pop_back();
            if (c != ')' && !out_.empty() && out_.back().type == Tok::Semi) {
                out_.pop_back(); // a line end before the closing bracket separates nothing
            }
            push(Tok::Op, std::string(1, c), line_, c0);
            suppressComma_ = lambda;
            break;
        }
        case ',':
            push(Tok::Comma, ",", line_, c0);
            break;
        case ';':
            if (!brackets_.empty() && brackets_.back() == '(') {
                failAt(line_, c0, "Unexpected ';' inside parentheses");
            }
            push(Tok::Semi, ";", line_, c0);
            break;
        case '!':
            push(Tok::Op, "~", line_, c0);
            break;
        case '+':
        case '-':
        case '*':
        case '/':
        case '\\':
        case '^':
        case '<':
        case '>':
        case '=':
        case '&':
        case '|':
        case '~':
        case ':':
        case '.':
        case '@':
            push(Tok::Op, std::string(1, c), line_, c0);
            break;
        default:
            --pos_;
            fail("Unexpected character '" + std::string(1, c) + "'");
        }
    }
    if (!brackets_.empty()) {
        failAt(openedAt_.back().first, openedAt_.back().second,
               "Unbalanced '" + std::string(1, brackets_.back()) + "'");
    }
    push(Tok::Newline, "\n", line_, col());
    push(Tok::Eof, "", line_, col());
    return out_;
}

} // namespace

bool isKeyword(std::string const& word) {
    for (char const* k : kKeywords) {
        if (word == k) {
            return true;
        }
    }
    return false;
}

std::vector<Token> Lexer::tokenize(std::string const& source) {
    Scanner s(source);
    return s.run();
}

} // namespace language
} // namespace quorl
