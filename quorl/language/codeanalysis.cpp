#include <quorl/language/codeanalysis.hpp>

#include <quorl/language/ast.hpp>
#include <quorl/language/evaluator.hpp>
#include <quorl/language/lexer.hpp>
#include <quorl/language/parser.hpp>

#include <boost/filesystem.hpp>

#include <algorithm>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

namespace quorl {
namespace language {

namespace {

bool parses(std::string const& code) {
    try {
        Parser::parse(code, "", "eval");
        return true;
    } catch (LanguageError const&) {
        return false;
    }
}

bool opensBlock(std::string const& word) {
    return word == "if" || word == "for" || word == "while" || word == "switch" || word == "try" ||
           word == "function";
}

bool isOpenBracket(Token const& t) {
    return t.type == Tok::Op && (t.text == "(" || t.text == "[" || t.text == "{");
}

bool isCloseBracket(Token const& t) {
    return t.type == Tok::Op && (t.text == ")" || t.text == "]" || t.text == "}");
}

bool isSeparator(Token const& t) {
    return t.type == Tok::Comma || t.type == Tok::Semi || t.type == Tok::Newline;
}

// Byte offsets of the starts of the lines of `code` (line 1 at index 0).
std::vector<std::size_t> lineStarts(std::string const& code) {
    std::vector<std::size_t> starts{0};
    for (std::size_t i = 0; i < code.size(); ++i) {
        if (code[i] == '\n') {
            starts.push_back(i + 1);
        }
    }
    return starts;
}

std::size_t offsetOf(Token const& t, std::vector<std::size_t> const& starts) {
    std::size_t line = static_cast<std::size_t>(std::max(t.line, 1)) - 1;
    if (line >= starts.size()) {
        return std::string::npos;
    }
    return starts[line] + static_cast<std::size_t>(std::max(t.col, 1)) - 1;
}

bool endsWithContinuation(std::string const& code) {
    std::size_t end = code.find_last_not_of(" \t\r\n");
    if (end == std::string::npos || end < 2) {
        return false;
    }
    std::size_t lineStart = code.rfind('\n', end);
    lineStart = lineStart == std::string::npos ? 0 : lineStart + 1;
    std::string line = code.substr(lineStart, end + 1 - lineStart);
    std::size_t dots = line.find("...");
    // A "%" before the dots makes them part of a comment.
    return dots != std::string::npos && line.find('%') > dots;
}

bool blank(std::string const& s) {
    return s.find_first_not_of(" \t\r\n") == std::string::npos;
}

} // namespace

CodeAnalysis::Completeness CodeAnalysis::completeness(std::string const& code) {
    if (parses(code)) {
        return Completeness::Complete;
    }
    if (endsWithContinuation(code)) {
        return Completeness::Incomplete;
    }
    // Brackets still open at the end make the lexer fail; close them one by one, innermost
    // first, as the lexer names them.
    std::string brackets;
    std::vector<Token> tokens;
    for (;;) {
        try {
            tokens = Lexer::tokenize(code + brackets);
            break;
        } catch (LanguageError const& e) {
            std::string const what = e.what();
            if (what.find("Unterminated block comment") != std::string::npos) {
                return Completeness::Incomplete;
            }
            std::string const unbalanced = "Unbalanced '";
            std::size_t const at = what.find(unbalanced);
            char const open = at == std::string::npos ? '\0' : what[at + unbalanced.size()];
            if (brackets.size() > 256 || (open != '(' && open != '[' && open != '{')) {
                return Completeness::Invalid;
            }
            brackets += open == '(' ? ')' : open == '[' ? ']' : '}';
        }
    }
    // What is still open at the end, innermost last; the code is incomplete when closing it
    // makes the code parse.
    std::vector<std::string> open;
    for (Token const& t : tokens) {
        bool inBrackets = !open.empty() && open.back() != "end";
        if (isOpenBracket(t)) {
            open.push_back(t.text == "(" ? ")" : t.text == "[" ? "]" : "}");
        } else if (isCloseBracket(t)) {
            if (open.empty() || open.back() != t.text) {
                return Completeness::Invalid;
            }
            open.pop_back();
        } else if (t.type == Tok::Keyword && !inBrackets) {
            if (opensBlock(t.text)) {
                open.push_back("end");
            } else if (t.text == "end") {
                if (open.empty()) {
                    return Completeness::Invalid;
                }
                open.pop_back();
            }
        }
    }
    if (open.empty() && brackets.empty()) {
        return Completeness::Invalid;
    }
    std::string closed = code + brackets;
    for (auto it = open.rbegin(); it != open.rend(); ++it) {
        closed += (*it == "end" ? "\n" : "") + *it;
    }
    return parses(closed + "\n") ? Completeness::Incomplete : Completeness::Invalid;
}

std::size_t CodeAnalysis::displayedStatementStart(std::string const& code) {
    std::vector<Token> tokens;
    try {
        tokens = Lexer::tokenize(code);
    } catch (LanguageError const&) {
        return std::string::npos;
    }
    // The start of the statement after the last separator at the top level.
    int brackets = 0;
    int blocks = 0;
    bool afterSeparator = true;
    std::size_t startToken = tokens.size();
    for (std::size_t i = 0; i < tokens.size(); ++i) {
        Token const& t = tokens[i];
        if (t.type == Tok::Eof) {
            break;
        }
        if (t.type == Tok::Keyword && t.text == "function") {
            return std::string::npos;
        }
        if (brackets == 0 && blocks == 0 && isSeparator(t)) {
            afterSeparator = true;
            continue;
        }
        if (afterSeparator && brackets == 0 && blocks == 0) {
            startToken = i;
        }
        afterSeparator = false;
        if (isOpenBracket(t)) {
            ++brackets;
        } else if (isCloseBracket(t)) {
            --brackets;
        } else if (t.type == Tok::Keyword && brackets == 0) {
            if (opensBlock(t.text)) {
                ++blocks;
            } else if (t.text == "end") {
                --blocks;
            }
        }
    }
    if (startToken == tokens.size() || brackets != 0 || blocks != 0) {
        return std::string::npos;
    }
    std::size_t const start = offsetOf(tokens[startToken], lineStarts(code));
    if (start == std::string::npos || start >= code.size()) {
        return std::string::npos;
    }
    try {
        std::shared_ptr<Unit> last = Parser::parse(code.substr(start), "", "eval");
        if (!last->main || last->functions.size() > 1 || last->main->body.size() != 1) {
            return std::string::npos;
        }
        Stmt const& s = *last->main->body.front();
        if (s.kind != StmtKind::ExprStmt || !s.print) {
            return std::string::npos;
        }
    } catch (LanguageError const&) {
        return std::string::npos;
    }
    std::string const before = code.substr(0, start);
    if (!blank(before) && !parses(before)) {
        return std::string::npos;
    }
    return start;
}

std::vector<std::string> CodeAnalysis::displayNames(std::string const& statement) {
    std::vector<std::string> names{"ans"};
    try {
        std::shared_ptr<Unit> unit = Parser::parse(statement, "", "eval");
        if (unit->main && unit->main->body.size() == 1) {
            Stmt const& s = *unit->main->body.front();
            if (s.kind == StmtKind::ExprStmt && s.expr && s.expr->kind == ExprKind::Id &&
                s.expr->text != "ans") {
                names.push_back(s.expr->text);
            }
        }
    } catch (LanguageError const&) {
    }
    return names;
}

std::vector<std::string> CodeAnalysis::builtinNames() {
    std::map<std::string, Builtin> table;
    registerBuiltins(table);
    std::vector<std::string> names;
    names.reserve(table.size());
    for (auto const& entry : table) {
        names.push_back(entry.first);
    }
    return names;
}

std::vector<std::string> CodeAnalysis::keywords() {
    std::vector<std::string> words{"if",     "elseif",    "else",     "end",    "for",
                                   "while",  "break",     "continue", "return", "switch",
                                   "case",   "otherwise", "try",      "catch",  "function",
                                   "global", "persistent"};
    words.erase(std::remove_if(words.begin(), words.end(),
                               [](std::string const& w) { return !isKeyword(w); }),
                words.end());
    std::sort(words.begin(), words.end());
    return words;
}

std::vector<std::string> CodeAnalysis::functionFiles(std::vector<std::string> const& folders) {
    namespace fs = boost::filesystem;
    std::set<std::string> names;
    for (std::string const& folder : folders) {
        boost::system::error_code ec;
        for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
            fs::path const& p = it->path();
            if (p.extension() == ".qrl" && fs::is_regular_file(p, ec)) {
                names.insert(p.stem().string());
            }
        }
    }
    return std::vector<std::string>(names.begin(), names.end());
}

std::string CodeAnalysis::findFunctionFile(std::string const& name,
                                           std::vector<std::string> const& folders) {
    namespace fs = boost::filesystem;
    if (name.empty() || name.find_first_of("/\\.") != std::string::npos) {
        return std::string();
    }
    for (std::string const& folder : folders) {
        boost::system::error_code ec;
        fs::path const p = fs::path(folder) / (name + ".qrl");
        if (fs::is_regular_file(p, ec)) {
            return p.string();
        }
    }
    return std::string();
}

std::string CodeAnalysis::helpText(std::string const& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return std::string();
    }
    std::string help;
    std::string line;
    bool inComment = false;
    bool seenFunctionLine = false;
    while (std::getline(in, line)) {
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        std::size_t const first = line.find_first_not_of(" \t");
        bool const isBlank = first == std::string::npos;
        bool const isComment = !isBlank && line[first] == '%';
        if (isComment) {
            inComment = true;
            std::string text = line.substr(first + 1);
            if (!text.empty() && text.front() == ' ') {
                text.erase(0, 1);
            }
            help += text + "\n";
            continue;
        }
        if (inComment) {
            break; // the block of comment lines has ended
        }
        if (isBlank) {
            continue;
        }
        if (!seenFunctionLine && line.compare(first, 8, "function") == 0) {
            seenFunctionLine = true;
            continue;
        }
        break; // a statement before any comment: no help
    }
    return help;
}

} // namespace language
} // namespace quorl
