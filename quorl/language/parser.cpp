#include <quorl/language/parser.hpp>

#include <quorl/language/languageerror.hpp>
#include <quorl/language/lexer.hpp>

#include <initializer_list>

namespace quorl {
namespace language {

namespace {

class RecursiveDescent {
public:
    RecursiveDescent(std::vector<Token> tokens, std::shared_ptr<Unit> unit)
        : toks_(std::move(tokens)), unit_(std::move(unit)) {}

    void parseUnit();

private:
    Token const& cur() const { return toks_[pos_]; }
    Token const& at(std::size_t k) const {
        return toks_[pos_ + k < toks_.size() ? pos_ + k : toks_.size() - 1];
    }
    bool isOp(char const* t) const { return cur().type == Tok::Op && cur().text == t; }
    bool isKw(char const* t) const { return cur().type == Tok::Keyword && cur().text == t; }
    [[noreturn]] void fail(std::string const& what) const { failAt(cur(), what); }
    [[noreturn]] static void failAt(Token const& t, std::string const& what) {
        throw LanguageError(errid::syntax, what + " at line " + std::to_string(t.line) +
                                               ", column " + std::to_string(t.col) + ".");
    }
    std::string describe(Token const& t) const {
        switch (t.type) {
        case Tok::Eof:
            return "end of input";
        case Tok::Newline:
            return "end of line";
        default:
            return "'" + t.text + "'";
        }
    }
    void expectOp(char const* t) {
        if (!isOp(t)) {
            fail(std::string("Expected '") + t + "' but found " + describe(cur()));
        }
        ++pos_;
    }
    std::string expectIdent() {
        if (cur().type != Tok::Ident) {
            fail("Expected a name but found " + describe(cur()));
        }
        return toks_[pos_++].text;
    }
    void skipSeparators() {
        while (cur().type == Tok::Newline || cur().type == Tok::Semi || cur().type == Tok::Comma) {
            ++pos_;
        }
    }
    bool atTerminator(std::initializer_list<char const*> kws) const {
        if (cur().type == Tok::Eof) {
            return true;
        }
        if (cur().type != Tok::Keyword) {
            return false;
        }
        for (char const* k : kws) {
            if (cur().text == k) {
                return true;
            }
        }
        return false;
    }

    Block parseBlock(std::initializer_list<char const*> terminators);
    std::unique_ptr<Stmt> parseStatement();
    void endStatement(Stmt& s);
    std::shared_ptr<FunctionDef> parseFunction();
    std::unique_ptr<Stmt> parseIf();
    std::unique_ptr<Stmt> parseFor();
    std::unique_ptr<Stmt> parseWhile();
    std::unique_ptr<Stmt> parseSwitch();
    std::unique_ptr<Stmt> parseTry();
    std::unique_ptr<Stmt> parseAssignment(bool multi);
    LValue toLValue(ExprPtr e, Token const& where);
    bool statementHasAssign() const;

    // Nesting deeper than this is refused, so that no input can exhaust the stack.
    static constexpr int kMaxNesting = 256;
    struct Nesting {
        RecursiveDescent& p;
        explicit Nesting(RecursiveDescent& parser) : p(parser) {
            if (++p.nesting_ > kMaxNesting) {
                --p.nesting_;
                p.fail("Code is nested too deeply");
            }
        }
        ~Nesting() { --p.nesting_; }
        Nesting(Nesting const&) = delete;
        Nesting& operator=(Nesting const&) = delete;
    };
    ExprPtr parseExpr() {
        Nesting n(*this);
        return parseOrOr();
    }
    ExprPtr parseOrOr();
    ExprPtr parseAndAnd();
    ExprPtr parseOr();
    ExprPtr parseAnd();
    ExprPtr parseCompare();
    ExprPtr parseRange();
    ExprPtr parseAdd();
    ExprPtr parseMul();
    ExprPtr parseUnary();
    ExprPtr parsePower();
    ExprPtr parsePowerOperand();
    ExprPtr parsePostfix();
    ExprPtr parsePrimary();
    ExprPtr parseMatrix(bool cell);
    ExprPtr parseAnon(Token const& at);
    std::vector<ExprPtr> parseArgs(char const* close);
    ExprPtr node(ExprKind k, Token const& t) {
        auto e = std::make_unique<Expr>(k);
        e->line = t.line;
        e->col = t.col;
        return e;
    }
    ExprPtr binary(Op op, ExprPtr l, ExprPtr r, Token const& t) {
        ExprPtr e = node(ExprKind::Binary, t);
        e->op = op;
        e->a = std::move(l);
        e->b = std::move(r);
        return e;
    }

    std::vector<Token> toks_;
    std::size_t pos_ = 0;
    std::shared_ptr<Unit> unit_;
    FunctionDef* fn_ = nullptr;
    int indexDepth_ = 0; // inside the parentheses or braces of an index, where 'end' is a value
    int nesting_ = 0;
};

void RecursiveDescent::parseUnit() {
    skipSeparators();
    if (isKw("function")) {
        unit_->isScript = false;
        while (isKw("function")) {
            unit_->functions.push_back(parseFunction());
            skipSeparators();
        }
        if (cur().type != Tok::Eof) {
            fail("Unexpected " + describe(cur()) + " after the functions of a file");
        }
        unit_->main = unit_->functions.front();
        return;
    }
    auto main = std::make_shared<FunctionDef>();
    main->name = unit_->name;
    main->isScript = true;
    main->unit = unit_.get();
    main->line = 1;
    fn_ = main.get();
    main->body = parseBlock({"function"});
    unit_->main = main;
    while (isKw("function")) {
        unit_->functions.push_back(parseFunction());
        skipSeparators();
    }
    if (cur().type != Tok::Eof) {
        fail("Unexpected " + describe(cur()));
    }
}

Block RecursiveDescent::parseBlock(std::initializer_list<char const*> terminators) {
    Block b;
    for (;;) {
        skipSeparators();
        if (atTerminator(terminators)) {
            return b;
        }
        if (cur().type == Tok::Keyword &&
            (cur().text == "end" || cur().text == "else" || cur().text == "elseif" ||
             cur().text == "case" || cur().text == "otherwise" || cur().text == "catch" ||
             cur().text == "function")) {
            fail("Unexpected '" + cur().text + "'");
        }
        b.push_back(parseStatement());
    }
}

void RecursiveDescent::endStatement(Stmt& s) {
    switch (cur().type) {
    case Tok::Semi:
        s.print = false;
        ++pos_;
        break;
    case Tok::Comma:
    case Tok::Newline:
        s.print = true;
        ++pos_;
        break;
    case Tok::Eof:
        s.print = true;
        break;
    default:
        if (cur().type == Tok::Keyword && cur().text == "end") {
            s.print = true; // "while x, y = 1 end" style ends are accepted
            break;
        }
        fail("Unexpected " + describe(cur()));
    }
}

bool RecursiveDescent::statementHasAssign() const {
    int depth = 0;
    for (std::size_t i = pos_; i < toks_.size(); ++i) {
        Token const& t = toks_[i];
        if (t.type == Tok::Eof || t.type == Tok::Newline) {
            return false;
        }
        if (depth == 0 && (t.type == Tok::Semi || t.type == Tok::Comma)) {
            return false;
        }
        if (t.type == Tok::Op) {
            if (t.text == "(" || t.text == "[" || t.text == "{") {
                ++depth;
            } else if (t.text == ")" || t.text == "]" || t.text == "}") {
                --depth;
            } else if (t.text == "=" && depth == 0) {
                return true;
            }
        }
    }
    return false;
}

std::unique_ptr<Stmt> RecursiveDescent::parseStatement() {
    Nesting n(*this);
    Token const& t = cur();
    if (t.type == Tok::Keyword) {
        if (t.text == "if") {
            return parseIf();
        }
        if (t.text == "for") {
            return parseFor();
        }
        if (t.text == "while") {
            return parseWhile();
        }
        if (t.text == "switch") {
            return parseSwitch();
        }
        if (t.text == "try") {
            return parseTry();
        }
        if (t.text == "break" || t.text == "continue" || t.text == "return") {
            auto s = std::make_unique<Stmt>(t.text == "break"      ? StmtKind::Break
                                            : t.text == "continue" ? StmtKind::Continue
                                                                   : StmtKind::Return);
            s->line = t.line;
            ++pos_;
            endStatement(*s);
            return s;
        }
        if (t.text == "global" || t.text == "persistent") {
            auto s = std::make_unique<Stmt>(StmtKind::Global);
            s->line = t.line;
            s->name = t.text;
            ++pos_;
            while (cur().type == Tok::Ident || cur().type == Tok::CharLit) {
                s->words.push_back(cur().text);
                s->slots.push_back(fn_->symbols.slotOf(cur().text));
                ++pos_;
            }
            endStatement(*s);
            return s;
        }
        fail("Unexpected '" + t.text + "'");
    }
    if (t.type == Tok::CommandWord) {
        auto s = std::make_unique<Stmt>(StmtKind::Command);
        s->line = t.line;
        s->name = t.text;
        ++pos_;
        while (cur().type == Tok::CharLit) {
            s->words.push_back(cur().text);
            ++pos_;
        }
        fn_->symbols.slotOf("ans");
        endStatement(*s);
        return s;
    }
    if (statementHasAssign()) {
        return parseAssignment(isOp("["));
    }
    auto s = std::make_unique<Stmt>(StmtKind::ExprStmt);
    s->line = t.line;
    fn_->symbols.slotOf("ans");
    s->expr = parseExpr();
    endStatement(*s);
    return s;
}

LValue RecursiveDescent::toLValue(ExprPtr e, Token const& where) {
    LValue lv;
    lv.line = where.line;
    if (e->kind == ExprKind::Id) {
        lv.name = e->text;
        lv.slot = e->slot;
        return lv;
    }
    if (e->kind == ExprKind::Postfix && e->a->kind == ExprKind::Id) {
        lv.name = e->a->text;
        lv.slot = e->a->slot;
        lv.suffixes = std::move(e->suffixes);
        return lv;
    }
    failAt(where, "Invalid target of an assignment");
}

std::unique_ptr<Stmt> RecursiveDescent::parseAssignment(bool multi) {
    auto s = std::make_unique<Stmt>(StmtKind::Assign);
    s->line = cur().line;
    if (multi) {
        ++pos_; // '['
        for (;;) {
            if (isOp("]")) {
                ++pos_;
                break;
            }
            if (cur().type == Tok::Comma) {
                ++pos_;
                continue;
            }
            if (isOp("~")) {
                LValue lv;
                lv.tilde = true;
                s->lhs.push_back(std::move(lv));
                ++pos_;
                continue;
            }
            Token where = cur();
            s->lhs.push_back(toLValue(parsePostfix(), where));
        }
    } else {
        Token where = cur();
        s->lhs.push_back(toLValue(parsePostfix(), where));
    }
    expectOp("=");
    s->expr = parseExpr();
    endStatement(*s);
    return s;
}

std::unique_ptr<Stmt> RecursiveDescent::parseIf() {
    auto s = std::make_unique<Stmt>(StmtKind::If);
    s->line = cur().line;
    ++pos_;
    ExprPtr cond = parseExpr();
    Block body = parseBlock({"elseif", "else", "end"});
    s->clauses.emplace_back(std::move(cond), std::move(body));
    for (;;) {
        if (isKw("elseif")) {
            ++pos_;
            ExprPtr c = parseExpr();
            Block b = parseBlock({"elseif", "else", "end"});
            s->clauses.emplace_back(std::move(c), std::move(b));
        } else if (isKw("else")) {
            ++pos_;
            s->hasElse = true;
            s->body = parseBlock({"end"});
        } else if (isKw("end")) {
            ++pos_;
            break;
        } else {
            fail("Expected 'end' to close 'if' from line " + std::to_string(s->line) +
                 " but found " + describe(cur()));
        }
    }
    endStatement(*s);
    return s;
}

std::unique_ptr<Stmt> RecursiveDescent::parseFor() {
    auto s = std::make_unique<Stmt>(StmtKind::For);
    s->line = cur().line;
    ++pos_;
    bool paren = isOp("(");
    if (paren) {
        ++pos_;
    }
    LValue lv;
    lv.name = expectIdent();
    lv.slot = fn_->symbols.slotOf(lv.name);
    lv.line = s->line;
    s->lhs.push_back(std::move(lv));
    expectOp("=");
    s->expr = parseExpr();
    if (paren) {
        expectOp(")");
    }
    s->body = parseBlock({"end"});
    if (!isKw("end")) {
        fail("Expected 'end' to close 'for' from line " + std::to_string(s->line));
    }
    ++pos_;
    endStatement(*s);
    return s;
}

std::unique_ptr<Stmt> RecursiveDescent::parseWhile() {
    auto s = std::make_unique<Stmt>(StmtKind::While);
    s->line = cur().line;
    ++pos_;
    s->expr = parseExpr();
    s->body = parseBlock({"end"});
    if (!isKw("end")) {
        fail("Expected 'end' to close 'while' from line " + std::to_string(s->line));
    }
    ++pos_;
    endStatement(*s);
    return s;
}

std::unique_ptr<Stmt> RecursiveDescent::parseSwitch() {
    auto s = std::make_unique<Stmt>(StmtKind::Switch);
    s->line = cur().line;
    ++pos_;
    s->expr = parseExpr();
    skipSeparators();
    for (;;) {
        skipSeparators();
        if (isKw("case")) {
            ++pos_;
            ExprPtr v = parseExpr();
            Block b = parseBlock({"case", "otherwise", "end"});
            s->clauses.emplace_back(std::move(v), std::move(b));
        } else if (isKw("otherwise")) {
            ++pos_;
            s->hasElse = true;
            s->body = parseBlock({"case", "otherwise", "end"});
        } else if (isKw("end")) {
            ++pos_;
            break;
        } else {
            fail("Expected 'case', 'otherwise' or 'end' in 'switch' but found " + describe(cur()));
        }
    }
    endStatement(*s);
    return s;
}

std::unique_ptr<Stmt> RecursiveDescent::parseTry() {
    auto s = std::make_unique<Stmt>(StmtKind::Try);
    s->line = cur().line;
    ++pos_;
    s->body = parseBlock({"catch", "end"});
    if (isKw("catch")) {
        int catchLine = cur().line;
        ++pos_;
        if (cur().type == Tok::Ident && cur().line == catchLine) {
            s->name = cur().text;
            s->catchSlot = fn_->symbols.slotOf(s->name);
            ++pos_;
        } else if (cur().type == Tok::CommandWord && cur().line == catchLine) {
            fail("Unexpected text after 'catch'");
        }
        s->catchBody = parseBlock({"end"});
    }
    if (!isKw("end")) {
        fail("Expected 'end' to close 'try' from line " + std::to_string(s->line));
    }
    ++pos_;
    endStatement(*s);
    return s;
}

std::shared_ptr<FunctionDef> RecursiveDescent::parseFunction() {
    auto f = std::make_shared<FunctionDef>();
    f->line = cur().line;
    f->unit = unit_.get();
    FunctionDef* outer = fn_;
    fn_ = f.get();
    ++pos_; // 'function'
    // Outputs: "[a, b] =", "a =" or none.
    if (isOp("[")) {
        ++pos_;
        while (!isOp("]")) {
            if (cur().type == Tok::Comma) {
                ++pos_;
                continue;
            }
            f->outputs.push_back(expectIdent());
        }
        ++pos_;
        expectOp("=");
        f->name = expectIdent();
    } else {
        std::string first = expectIdent();
        if (isOp("=")) {
            ++pos_;
            f->outputs.push_back(first);
            f->name = expectIdent();
        } else {
            f->name = first;
        }
    }
    if (isOp("(")) {
        ++pos_;
        while (!isOp(")")) {
            if (isOp("~")) {
                f->params.push_back("~");
                ++pos_;
            } else {
                f->params.push_back(expectIdent());
            }
            if (cur().type == Tok::Comma) {
                ++pos_;
            } else if (!isOp(")")) {
                fail("Expected ',' or ')' but found " + describe(cur()));
            }
        }
        ++pos_;
    }
    for (std::string const& p : f->params) {
        f->paramSlots.push_back(p == "~" ? -1 : f->symbols.slotOf(p));
    }
    for (std::string const& o : f->outputs) {
        f->outputSlots.push_back(f->symbols.slotOf(o));
    }
    f->varargin = !f->params.empty() && f->params.back() == "varargin";
    f->varargout = !f->outputs.empty() && f->outputs.back() == "varargout";
    f->body = parseBlock({"end", "function"});
    if (isKw("end")) {
        ++pos_;
    }
    f->nargin = f->symbols.find("nargin");
    f->nargout = f->symbols.find("nargout");
    fn_ = outer;
    return f;
}

ExprPtr RecursiveDescent::parseOrOr() {
    ExprPtr l = parseAndAnd();
    while (isOp("||")) {
        Token t = cur();
        ++pos_;
        ExprPtr e = node(ExprKind::OrOr, t);
        e->a = std::move(l);
        e->b = parseAndAnd();
        l = std::move(e);
    }
    return l;
}

ExprPtr RecursiveDescent::parseAndAnd() {
    ExprPtr l = parseOr();
    while (isOp("&&")) {
        Token t = cur();
        ++pos_;
        ExprPtr e = node(ExprKind::AndAnd, t);
        e->a = std::move(l);
        e->b = parseOr();
        l = std::move(e);
    }
    return l;
}

ExprPtr RecursiveDescent::parseOr() {
    ExprPtr l = parseAnd();
    while (isOp("|")) {
        Token t = cur();
        ++pos_;
        l = binary(Op::Or, std::move(l), parseAnd(), t);
    }
    return l;
}

ExprPtr RecursiveDescent::parseAnd() {
    ExprPtr l = parseCompare();
    while (isOp("&")) {
        Token t = cur();
        ++pos_;
        l = binary(Op::And, std::move(l), parseCompare(), t);
    }
    return l;
}

ExprPtr RecursiveDescent::parseCompare() {
    ExprPtr l = parseRange();
    for (;;) {
        Op op;
        if (isOp("<")) {
            op = Op::Lt;
        } else if (isOp("<=")) {
            op = Op::Le;
        } else if (isOp(">")) {
            op = Op::Gt;
        } else if (isOp(">=")) {
            op = Op::Ge;
        } else if (isOp("==")) {
            op = Op::Eq;
        } else if (isOp("~=")) {
            op = Op::Ne;
        } else {
            return l;
        }
        Token t = cur();
        ++pos_;
        l = binary(op, std::move(l), parseRange(), t);
    }
}

ExprPtr RecursiveDescent::parseRange() {
    if (indexDepth_ > 0 && isOp(":") &&
        (at(1).type == Tok::Comma ||
         (at(1).type == Tok::Op && (at(1).text == ")" || at(1).text == "}")))) {
        ExprPtr e = node(ExprKind::Colon, cur());
        ++pos_;
        return e;
    }
    ExprPtr first = parseAdd();
    if (!isOp(":")) {
        return first;
    }
    Token t = cur();
    ++pos_;
    ExprPtr second = parseAdd();
    ExprPtr e = node(ExprKind::Range, t);
    e->a = std::move(first);
    if (isOp(":")) {
        ++pos_;
        e->b = std::move(second);
        e->c = parseAdd();
    } else {
        e->c = std::move(second);
    }
    return e;
}

ExprPtr RecursiveDescent::parseAdd() {
    ExprPtr l = parseMul();
    for (;;) {
        Op op;
        if (isOp("+")) {
            op = Op::Plus;
        } else if (isOp("-")) {
            op = Op::Minus;
        } else {
            return l;
        }
        Token t = cur();
        ++pos_;
        l = binary(op, std::move(l), parseMul(), t);
    }
}

ExprPtr RecursiveDescent::parseMul() {
    ExprPtr l = parseUnary();
    for (;;) {
        Op op;
        if (isOp("*")) {
            op = Op::Times;
        } else if (isOp("/")) {
            op = Op::RDiv;
        } else if (isOp("\\")) {
            op = Op::LDiv;
        } else if (isOp(".*")) {
            op = Op::ElTimes;
        } else if (isOp("./")) {
            op = Op::ElRDiv;
        } else if (isOp(".\\")) {
            op = Op::ElLDiv;
        } else {
            return l;
        }
        Token t = cur();
        ++pos_;
        l = binary(op, std::move(l), parseUnary(), t);
    }
}

ExprPtr RecursiveDescent::parseUnary() {
    Nesting n(*this);
    if (isOp("-") || isOp("+") || isOp("~")) {
        Token t = cur();
        ++pos_;
        ExprPtr e = node(ExprKind::Unary, t);
        e->op = t.text == "-" ? Op::Neg : (t.text == "+" ? Op::UPlus : Op::Not);
        e->a = parseUnary();
        return e;
    }
    return parsePower();
}

ExprPtr RecursiveDescent::parsePowerOperand() {
    Nesting n(*this);
    if (isOp("-") || isOp("+") || isOp("~")) {
        Token t = cur();
        ++pos_;
        ExprPtr e = node(ExprKind::Unary, t);
        e->op = t.text == "-" ? Op::Neg : (t.text == "+" ? Op::UPlus : Op::Not);
        e->a = parsePowerOperand();
        return e;
    }
    return parsePostfix();
}

ExprPtr RecursiveDescent::parsePower() {
    ExprPtr l = parsePostfix();
    while (isOp("^") || isOp(".^")) {
        Token t = cur();
        ++pos_;
        l = binary(t.text == "^" ? Op::Power : Op::ElPower, std::move(l), parsePowerOperand(), t);
    }
    return l;
}

std::vector<ExprPtr> RecursiveDescent::parseArgs(char const* close) {
    std::vector<ExprPtr> args;
    ++indexDepth_;
    while (!isOp(close)) {
        if (cur().type == Tok::Comma && !args.empty()) {
            ++pos_;
            continue;
        }
        args.push_back(parseExpr());
        if (!isOp(close) && cur().type != Tok::Comma) {
            fail(std::string("Expected ',' or '") + close + "' but found " + describe(cur()));
        }
    }
    --indexDepth_;
    ++pos_;
    return args;
}

ExprPtr RecursiveDescent::parsePostfix() {
    ExprPtr base = parsePrimary();
    for (;;) {
        if (isOp("(") || isOp("{") ||
            (isOp(".") && (at(1).type == Tok::Ident || at(1).type == Tok::Keyword ||
                           (at(1).type == Tok::Op && at(1).text == "(")))) {
            if (base->kind != ExprKind::Postfix) {
                Token t{Tok::Op, "", 0, base->line, base->col};
                ExprPtr p = node(ExprKind::Postfix, t);
                p->a = std::move(base);
                base = std::move(p);
            }
            Suffix s;
            if (isOp("(")) {
                ++pos_;
                s.kind = Suffix::Paren;
                s.args = parseArgs(")");
            } else if (isOp("{")) {
                ++pos_;
                s.kind = Suffix::Brace;
                s.args = parseArgs("}");
            } else {
                ++pos_; // '.'
                if (isOp("(")) {
                    ++pos_;
                    int saved = indexDepth_;
                    indexDepth_ = 0;
                    s.kind = Suffix::DynField;
                    s.dyn = parseExpr();
                    indexDepth_ = saved;
                    expectOp(")");
                } else {
                    s.kind = Suffix::Field;
                    s.name = cur().text;
                    ++pos_;
                }
            }
            base->suffixes.push_back(std::move(s));
            continue;
        }
        if (isOp("'") || isOp(".'")) {
            Token t = cur();
            ++pos_;
            ExprPtr e = node(ExprKind::Unary, t);
            e->op = t.text == "'" ? Op::CTranspose : Op::Transpose;
            e->a = std::move(base);
            base = std::move(e);
            continue;
        }
        return base;
    }
}

ExprPtr RecursiveDescent::parseMatrix(bool cell) {
    Token open = cur();
    ++pos_;
    ExprPtr e = node(cell ? ExprKind::CellLit : ExprKind::Matrix, open);
    char const* close = cell ? "}" : "]";
    std::vector<ExprPtr> row;
    for (;;) {
        if (isOp(close)) {
            ++pos_;
            break;
        }
        if (cur().type == Tok::Semi || cur().type == Tok::Newline) {
            if (!row.empty()) {
                e->rows.push_back(std::move(row));
                row.clear();
            }
            ++pos_;
            continue;
        }
        if (cur().type == Tok::Comma) {
            ++pos_;
            continue;
        }
        if (cur().type == Tok::Eof) {
            failAt(open, std::string("Unterminated '") + (cell ? "{" : "[") + "'");
        }
        row.push_back(parseExpr());
    }
    if (!row.empty()) {
        e->rows.push_back(std::move(row));
    }
    return e;
}

ExprPtr RecursiveDescent::parseAnon(Token const& at) {
    ExprPtr e = node(ExprKind::AnonFn, at);
    auto def = std::make_shared<FunctionDef>();
    def->name = "@anonymous";
    def->line = at.line;
    def->unit = unit_.get();
    ++pos_; // '('
    while (!isOp(")")) {
        def->params.push_back(expectIdent());
        if (cur().type == Tok::Comma) {
            ++pos_;
        } else if (!isOp(")")) {
            fail("Expected ',' or ')' but found " + describe(cur()));
        }
    }
    ++pos_;
    for (auto const& p : def->params) {
        def->paramSlots.push_back(def->symbols.slotOf(p));
    }
    def->varargin = !def->params.empty() && def->params.back() == "varargin";
    FunctionDef* outer = fn_;
    int saved = indexDepth_;
    indexDepth_ = 0;
    fn_ = def.get();
    def->lambdaBody = parseExpr();
    fn_ = outer;
    indexDepth_ = saved;
    // Every name of the body that is not a parameter is captured from the defining frame when
    // the handle is made (if it is a variable there then).
    for (std::size_t i = 0; i < def->symbols.names.size(); ++i) {
        std::string const& n = def->symbols.names[i];
        bool param = false;
        for (auto const& p : def->params) {
            param = param || p == n;
        }
        if (!param) {
            e->captures.emplace_back(outer->symbols.slotOf(n), static_cast<int>(i));
        }
    }
    e->lambda = def;
    return e;
}

ExprPtr RecursiveDescent::parsePrimary() {
    Token const& t = cur();
    switch (t.type) {
    case Tok::Number: {
        ExprPtr e = node(ExprKind::Number, t);
        e->num = t.num;
        e->text = t.text;
        ++pos_;
        return e;
    }
    case Tok::CharLit:
    case Tok::StringLit: {
        ExprPtr e = node(t.type == Tok::CharLit ? ExprKind::CharLit : ExprKind::StringLit, t);
        e->text = t.text;
        ++pos_;
        return e;
    }
    case Tok::Ident: {
        ExprPtr e = node(ExprKind::Id, t);
        e->text = t.text;
        e->slot = fn_->symbols.slotOf(t.text);
        ++pos_;
        return e;
    }
    case Tok::Keyword:
        if (t.text == "end" && indexDepth_ > 0) {
            ++pos_;
            return node(ExprKind::End, t);
        }
        fail("Unexpected keyword '" + t.text + "' in an expression");
    case Tok::Op:
        if (t.text == "(") {
            ++pos_;
            int saved = indexDepth_;
            indexDepth_ = 0;
            ExprPtr inner = parseExpr();
            indexDepth_ = saved;
            expectOp(")");
            // Parentheses end a comma-separated list: (c{:}) is its first value.
            if (inner->kind == ExprKind::Postfix) {
                ExprPtr wrap = node(ExprKind::Unary, t);
                wrap->op = Op::UPlus;
                wrap->text = "()";
                wrap->a = std::move(inner);
                return wrap;
            }
            return inner;
        }
        if (t.text == "[") {
            return parseMatrix(false);
        }
        if (t.text == "{") {
            return parseMatrix(true);
        }
        if (t.text == "@") {
            Token at = t;
            ++pos_;
            if (isOp("(")) {
                return parseAnon(at);
            }
            ExprPtr e = node(ExprKind::FuncHandle, at);
            e->text = expectIdent();
            while (isOp(".") && this->at(1).type == Tok::Ident) {
                e->text += "." + this->at(1).text;
                pos_ += 2;
            }
            return e;
        }
        if (t.text == ":") {
            fail("Unexpected ':'");
        }
        fail("Unexpected '" + t.text + "'");
    case Tok::Eof:
    case Tok::Newline:
        fail("Expression is incomplete: unexpected " + describe(t));
    default:
        fail("Unexpected " + describe(t));
    }
}

} // namespace

std::shared_ptr<Unit> Parser::parse(std::string const& source, std::string const& file,
                                    std::string const& name) {
    auto unit = std::make_shared<Unit>();
    unit->file = file;
    unit->name = name;
    RecursiveDescent p(Lexer::tokenize(source), unit);
    p.parseUnit();
    return unit;
}

} // namespace language
} // namespace quorl
