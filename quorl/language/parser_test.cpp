#include <quorl/language/parser.hpp>

#include <quorl/language/languageerror.hpp>

#include <gtest/gtest.h>

namespace {

using namespace quorl::language;

std::shared_ptr<Unit> parse(std::string const& code) {
    return Parser::parse(code, "", "test");
}

Expr const& firstExpr(std::shared_ptr<Unit> const& u) {
    return *u->main->body.at(0)->expr;
}

std::size_t elementsOfFirstRow(std::string const& code) {
    auto u = parse(code);
    Expr const& e = firstExpr(u);
    EXPECT_TRUE(e.kind == ExprKind::Matrix || e.kind == ExprKind::CellLit) << code;
    return e.rows.empty() ? 0 : e.rows[0].size();
}

TEST(ParserBrackets, BlanksSeparateElementsButNotBinaryOperators) {
    EXPECT_EQ(elementsOfFirstRow("[1 -  2]"), 1u);
    EXPECT_EQ(elementsOfFirstRow("[a' b']"), 2u);
    EXPECT_EQ(elementsOfFirstRow("[a 'b']"), 2u);
    EXPECT_EQ(elementsOfFirstRow("[f(1, 2) 3]"), 2u);
    EXPECT_EQ(elementsOfFirstRow("{@(x) x + 1, 2}"), 2u);
    EXPECT_EQ(elementsOfFirstRow("[x(end) 1]"), 2u);
    auto u = parse("[1 2\n 3 4\n]");
    EXPECT_EQ(firstExpr(u).rows.size(), 2u);
}

TEST(ParserQuotes, TransposeOrTextByWhatComesBefore) {
    auto u = parse("y = x';");
    Expr const& t = *u->main->body[0]->expr;
    EXPECT_EQ(t.kind, ExprKind::Unary);
    EXPECT_EQ(t.op, Op::CTranspose);
    u = parse("y = 'x';");
    EXPECT_EQ(u->main->body[0]->expr->kind, ExprKind::CharLit);
    u = parse("y = x'';");
    EXPECT_EQ(u->main->body[0]->expr->kind, ExprKind::Unary);
    EXPECT_EQ(u->main->body[0]->expr->a->kind, ExprKind::Unary);
}

TEST(ParserStatements, CommandSyntaxAssignmentsAndPrinting) {
    auto u = parse("disp hello world\nx = 1\ny = 2;\nhold on, z = 3");
    Block const& b = u->main->body;
    ASSERT_EQ(b.size(), 5u);
    EXPECT_EQ(b[0]->kind, StmtKind::Command);
    EXPECT_EQ(b[0]->words, (std::vector<std::string>{"hello", "world"}));
    EXPECT_EQ(b[1]->kind, StmtKind::Assign);
    EXPECT_TRUE(b[1]->print);
    EXPECT_FALSE(b[2]->print);
    EXPECT_EQ(b[3]->kind, StmtKind::Command);
    EXPECT_EQ(b[3]->words, (std::vector<std::string>{"on"}));
    EXPECT_EQ(b[4]->kind, StmtKind::Assign);
    // These read as expressions or assignments, not commands.
    for (char const* code : {"a - b", "a = b", "f(x)", "a b = 1"}) {
        auto v = [&] {
            try {
                return parse(code);
            } catch (LanguageError const&) {
                return std::shared_ptr<Unit>();
            }
        }();
        if (v) {
            EXPECT_NE(v->main->body[0]->kind, StmtKind::Command) << code;
        }
    }
    u = parse("[a, ~, c] = f(1);");
    ASSERT_EQ(u->main->body[0]->lhs.size(), 3u);
    EXPECT_TRUE(u->main->body[0]->lhs[1].tilde);
}

TEST(ParserFunctions, FilesScriptsLocalFunctionsAndSlots) {
    auto u = parse("function [a, b] = f(x, varargin)\n  a = x; b = nargin;\nend\n"
                   "function g\nend\n");
    EXPECT_FALSE(u->isScript);
    ASSERT_EQ(u->functions.size(), 2u);
    FunctionDef const& f = *u->functions[0];
    EXPECT_EQ(f.name, "f");
    EXPECT_EQ(f.outputs, (std::vector<std::string>{"a", "b"}));
    EXPECT_TRUE(f.varargin);
    EXPECT_GE(f.nargin, 0);
    EXPECT_EQ(u->findLocal("g"), u->functions[1].get());
    // Functions without 'end' run to the next 'function'.
    u = parse("function f\n  x = 1;\nfunction g\n  y = 2;\n");
    EXPECT_EQ(u->functions.size(), 2u);
    u = parse("x = 1;\nfunction r = h()\n  r = 2;\nend\n");
    EXPECT_TRUE(u->isScript);
    EXPECT_EQ(u->main->body.size(), 1u);
    EXPECT_NE(u->findLocal("h"), nullptr);
    // Anonymous functions capture the names of their body that are not parameters.
    u = parse("k = 2; f = @(x) x * k + x;");
    Expr const& anon = *u->main->body[1]->expr;
    ASSERT_EQ(anon.kind, ExprKind::AnonFn);
    ASSERT_EQ(anon.captures.size(), 1u);
    EXPECT_EQ(anon.captures[0].first, u->main->symbols.find("k"));
}

// That code with a syntax error runs nothing is shown by the badsyntax conformance transcript.
TEST(ParserErrors, PositionsOfCommonMistakes) {
    struct Case {
        char const* code;
        char const* text;
    } const cases[] = {
        {"x = 1 +", "line 1, column 8"},
        {"if x\n  y = 1;\nelse\n", "'end' to close 'if' from line 1"},
        {"for = 3", "Expected a name"},
        {"x = ]", "Unbalanced ']'"},
        {"end", "Unexpected 'end'"},
        {"%{\nnever closed", "Unterminated block comment"},
        {"x = @(a b) a", "line 1, column 9"},
        {"function f(\n", "line"},
        {"x = 1;\ny = (2 + ;", "line 2, column 10"},
        {"x = [1 2", "line 1, column 5"},
        {"if x\n  y = 1;\n", "line 3"},
        {"a = 3 $ 4", "line 1, column 7"},
        {"s = 'open", "line 1, column 5"},
    };
    for (Case const& c : cases) {
        try {
            parse(c.code);
            ADD_FAILURE() << "no error for " << c.code;
        } catch (LanguageError const& e) {
            EXPECT_EQ(e.identifier(), errid::syntax);
            EXPECT_NE(std::string(e.what()).find(c.text), std::string::npos)
                << c.code << " gave: " << e.what();
        }
    }
}

TEST(ParserErrors, DeepNestingIsRefusedNotACrash) {
    for (std::string open : {"(", "[", "{", "-", "~", "if 1\n"}) {
        std::string code = "x = ";
        std::string close = open == "(" ? ")" : open == "[" ? "]" : open == "{" ? "}" : "";
        if (open == "if 1\n") {
            code.clear();
            close = "end\n";
        }
        for (int i = 0; i < 100000; ++i) {
            code += open;
        }
        code += open == "if 1\n" ? "x = 1\n" : "1";
        for (int i = 0; i < 100000; ++i) {
            code += close;
        }
        try {
            parse(code);
            ADD_FAILURE() << "no error for nesting of " << open;
        } catch (LanguageError const& e) {
            EXPECT_NE(std::string(e.what()).find("nested too deeply"), std::string::npos)
                << e.what();
        }
    }
    // Ordinary nesting is fine.
    EXPECT_NO_THROW(parse("x = ((((1 + [2, {3}{1}]))));"));
}

} // namespace
