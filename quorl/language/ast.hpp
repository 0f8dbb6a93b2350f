#pragma once
// The syntax tree of the language, made by Parser and walked by Interpreter. Names of variables
// are resolved to slots of their function's frame when the tree is made, so evaluation never
// looks a variable up by name. A Unit is one parsed text (a file or a string of code) and owns
// its functions; closures keep their Unit alive.
//
// Ownership: each node owns its children. Threads: a tree is immutable after parsing, except
// the per-name call caches, which belong to the interpreter thread that runs the tree.
#include <quorl/language/value.hpp>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace quorl {
namespace language {

struct Expr;
struct Stmt;
struct FunctionDef;
struct Unit;
typedef std::unique_ptr<Expr> ExprPtr;
typedef std::vector<std::unique_ptr<Stmt>> Block;

enum class ExprKind {
    Number,
    CharLit,
    StringLit,
    Colon, // a bare ':' index
    End,   // 'end' inside an index
    Id,
    Unary,
    Binary,
    AndAnd,
    OrOr,
    Range,
    Matrix,
    CellLit,
    AnonFn,
    FuncHandle,
    Postfix
};

enum class Op {
    Plus,
    Minus,
    Times,
    RDiv,
    LDiv,
    ElTimes,
    ElRDiv,
    ElLDiv,
    Power,
    ElPower,
    Lt,
    Le,
    Gt,
    Ge,
    Eq,
    Ne,
    And,
    Or,
    Not,
    Neg,
    UPlus,
    Transpose,
    CTranspose
};

struct Suffix {
    enum Kind { Paren, Brace, Field, DynField };
    Kind kind = Paren;
    std::vector<ExprPtr> args; // Paren, Brace
    std::string name;          // Field
    ExprPtr dyn;               // DynField
};

// What a name that is not a variable resolved to, cached in the Id node.
struct Resolution;

struct Expr {
    ExprKind kind;
    int line = 0;
    int col = 0;
    double num = 0;
    std::string text; // literal text, name, handle name
    int slot = -1;    // Id: slot in the enclosing function's frame
    Op op = Op::Plus;
    ExprPtr a, b, c;                           // operands; Range: a start, b step or null, c stop
    std::vector<std::vector<ExprPtr>> rows;    // Matrix, CellLit
    std::vector<Suffix> suffixes;              // Postfix over base `a`
    std::shared_ptr<FunctionDef> lambda;       // AnonFn
    std::vector<std::pair<int, int>> captures; // AnonFn: (outer slot, lambda slot)
    mutable std::shared_ptr<Resolution> cache;
    mutable std::uint64_t cacheGeneration = 0;
    mutable Value constant; // literals, made on first use

    explicit Expr(ExprKind k) : kind(k) {}
};

struct LValue {
    bool tilde = false;
    int slot = -1;
    std::string name;
    std::vector<Suffix> suffixes;
    int line = 0;
};

enum class StmtKind {
    ExprStmt,
    Assign,
    If,
    For,
    While,
    Break,
    Continue,
    Return,
    Switch,
    Try,
    Command,
    Global
};

struct Stmt {
    StmtKind kind;
    int line = 0;
    bool print = false;
    ExprPtr expr;
    std::vector<LValue> lhs;
    std::vector<std::pair<ExprPtr, Block>> clauses; // If (conditions), Switch (cases)
    Block body;                                     // For, While, Try, If/Switch else
    bool hasElse = false;
    Block catchBody;
    int catchSlot = -1;
    std::string name;               // Command name, catch variable
    std::vector<std::string> words; // Command arguments, Global names
    std::vector<int> slots;         // Global slots

    explicit Stmt(StmtKind k) : kind(k) {}
};

// Names of a function's variables and their slots.
struct SymbolTable {
    std::map<std::string, int> slots;
    std::vector<std::string> names;
    int slotOf(std::string const& name) {
        auto it = slots.find(name);
        if (it != slots.end()) {
            return it->second;
        }
        int s = static_cast<int>(names.size());
        slots.emplace(name, s);
        names.push_back(name);
        return s;
    }
    int find(std::string const& name) const {
        auto it = slots.find(name);
        return it == slots.end() ? -1 : it->second;
    }
};

struct FunctionDef {
    std::string name;
    std::vector<std::string> params;
    std::vector<std::string> outputs;
    std::vector<int> paramSlots;
    std::vector<int> outputSlots;
    bool varargin = false;
    bool varargout = false;
    int nargin = -1; // slots of nargin and nargout, -1 when unused
    int nargout = -1;
    Block body;
    ExprPtr lambdaBody; // anonymous functions
    SymbolTable symbols;
    bool isScript = false;
    int line = 0;
    Unit* unit = nullptr;
};

struct Unit {
    std::string file; // path, empty for code strings
    std::string name; // file name without extension, or "eval"
    std::shared_ptr<FunctionDef> main;
    std::vector<std::shared_ptr<FunctionDef>> functions; // all named functions, main first
    bool isScript = true;
    FunctionDef* findLocal(std::string const& n) const {
        for (auto const& f : functions) {
            if (f->name == n) {
                return f.get();
            }
        }
        return nullptr;
    }
};

// An anonymous function value: its definition, the values it captured and its text.
struct Closure {
    std::shared_ptr<Unit const> unit;
    FunctionDef const* def = nullptr;
    std::vector<std::pair<int, Value>> captured; // (slot, value)
    std::string text;
};

} // namespace language
} // namespace quorl
