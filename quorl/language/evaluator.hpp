#pragma once
// Evaluator: the tree-walking engine behind Interpreter. It runs parsed units in frames of
// slots, resolves function names (local functions, functions defined at run time, files on the
// search path, built-ins) and caches what a name resolved to in the tree until the next
// evaluation starts, keeps the call stack, and writes output to the stream buffers of the
// running evaluation. Built-ins reach the engine through it.
//
// Ownership: owns its caches of parsed files and its own workspace; borrows the workspace,
// buffers and interrupt flag of the running evaluation.
// Threads: one thread at a time (the interpreter thread of its context); only the interrupt
// flag is read while another thread may write it.
// Errors: LanguageError (InterruptedError when the flag stops a run).
#include <quorl/language/ast.hpp>
#include <quorl/language/interpreter.hpp>
#include <quorl/language/languageerror.hpp>
#include <quorl/language/localworkspace.hpp>
#include <quorl/language/value.hpp>
#include <quorl/language/valueops.hpp>
#include <quorl/language/workspace.hpp>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <streambuf>
#include <string>
#include <vector>

namespace quorl {
namespace language {

class Evaluator;
typedef void (*Builtin)(Evaluator& ev, std::vector<Value>& args, int nargout,
                        std::vector<Value>& out);

// The host function registered under `name` (registerHostFunction), or null.
HostFunction findHostFunction(std::string const& name);

struct Resolution {
    Builtin builtin = nullptr;
    HostFunction host = nullptr;
    // Not owned: trees cache resolutions, and units that call each other must not own each
    // other. The file cache, the run-time definitions or a running frame keep the unit.
    std::weak_ptr<Unit const> unit;
    FunctionDef const* def = nullptr;
};

struct Frame {
    FunctionDef const* def = nullptr;
    std::shared_ptr<Unit const> unit;
    std::vector<Value> slots;
    Workspace* ws = nullptr; // top-level frames read and write through a workspace
    std::vector<char> loaded;
    std::vector<char> dirty;
    int line = 0;
    std::string file;
    std::string name;
    bool hidden = false; // code typed in: not shown in stacks
    int nargin = 0;
    int nargout = 0;
};

class Evaluator {
public:
    Evaluator();
    ~Evaluator();

    struct Io {
        std::basic_streambuf<char16_t>* out = nullptr;
        std::basic_streambuf<char16_t>* err = nullptr;
        std::atomic<bool> const* interrupt = nullptr;
        std::function<void()> safePoint;
    };

    // Top-level entries; each starts a new generation of name caches.
    void evaluate(std::string const& code, Workspace& ws, Io const& io);
    void runFile(std::string const& path, Workspace& ws, Io const& io);
    std::vector<Value> call(std::string const& name, std::vector<Value> args, int nargout,
                            Io const& io);
    void defineFunctions(std::string const& code);

    void setSearchPath(std::vector<std::string> dirs);
    std::vector<std::string> const& searchPath() const { return path_; }
    LocalWorkspace& baseWorkspace() { return base_; }

    // For built-ins.
    void write(int stream, std::string const& utf8);
    void checkInterrupt() const {
        if (io_.interrupt != nullptr && io_.interrupt->load(std::memory_order_relaxed)) {
            throw InterruptedError();
        }
        // The clock is read once every few polls only: polls come at every statement.
        if (io_.safePoint && --safePointCountdown_ == 0) {
            safePointCountdown_ = kSafePointStride;
            auto const now = std::chrono::steady_clock::now();
            if (now - lastSafePoint_ >= std::chrono::milliseconds(1)) {
                lastSafePoint_ = now;
                io_.safePoint();
            }
        }
    }
    bool interruptRequested() const {
        return io_.interrupt != nullptr && io_.interrupt->load(std::memory_order_relaxed);
    }
    void callValue(Value const& fn, std::vector<Value>& args, int nargout, std::vector<Value>& out);
    void callByName(std::string const& name, std::vector<Value>& args, int nargout,
                    std::vector<Value>& out);
    bool functionExists(std::string const& name, bool& builtin);
    std::vector<StackFrame> captureStack() const;
    Frame& currentFrame() { return *stack_.back(); }
    // Variables of the current frame, through its workspace when it has one.
    std::vector<std::string> variableNames(Frame& f);
    bool variable(Frame& f, std::string const& name, Value& out);
    void clearVariable(Frame& f, std::string const& name);
    void clearAll(Frame& f);
    std::mt19937_64& rng() { return rng_; }
    std::chrono::steady_clock::time_point& ticTime() { return tic_; }
    Value errorStruct(LanguageError const& e) const;
    LanguageError errorFromStruct(Value const& s) const;
    std::string closureText(FunctionDef const& def) const;
    Value makeHandle(std::string const& name, Unit const* from);

private:
    enum class Flow { Normal, Break, Continue, Return };

    Flow execBlock(Block const& b, Frame& f);
    Flow exec(Stmt const& s, Frame& f);
    void execAssign(Stmt const& s, Frame& f);
    void execExprStmt(Stmt const& s, Frame& f);
    Flow execFor(Stmt const& s, Frame& f);
    Flow execTry(Stmt const& s, Frame& f);
    bool switchMatches(Value const& v, Value const& c);

    Value eval(Expr const& e, Frame& f);
    void evalMulti(Expr const& e, Frame& f, int nargout, std::vector<Value>& out);
    void evalPostfix(Expr const& e, Frame& f, int nargout, std::vector<Value>& out);
    std::vector<Value> evalArgs(std::vector<ExprPtr> const& args, Frame& f);
    std::vector<Subscript> evalSubs(std::vector<ExprPtr> const& args, Value const& v, Frame& f);
    Value evalEnd() const;
    Value makeClosure(Expr const& e, Frame& f);
    void assignTo(LValue const& lv, Value rhs, Frame& f, bool deletion);
    void assignChain(Value& base, std::vector<Suffix> const& sfx, std::size_t k, Value const& rhs,
                     Frame& f, bool deletion);

    Value* lookup(Frame& f, int slot) {
        if (f.ws != nullptr && !f.loaded[slot]) {
            load(f, slot);
        }
        Value& v = f.slots[slot];
        return v.defined() ? &v : nullptr;
    }
    Value& slotRef(Frame& f, int slot) {
        if (f.ws != nullptr) {
            if (!f.loaded[slot]) {
                load(f, slot);
            }
            f.dirty[slot] = 1;
        }
        return f.slots[slot];
    }
    void load(Frame& f, int slot);
    void flush(Frame& f);
    void invalidate(Frame& f);
    void bind(Frame& f, FunctionDef const& def, std::shared_ptr<Unit const> unit, Workspace* ws);

    std::shared_ptr<Resolution> resolve(std::string const& name, Unit const* from);
    std::shared_ptr<Resolution> resolveCached(Expr const& id, Unit const* from);
    void callHost(HostFunction f, std::vector<Value>& args, int nargout, std::vector<Value>& out);
    void callResolved(Resolution const& r, std::string const& name, std::vector<Value>& args,
                      int nargout, std::vector<Value>& out);
    void callUser(FunctionDef const& def, std::shared_ptr<Unit const> const& unit,
                  std::vector<Value>& args, int nargout, std::vector<Value>& out);
    void bindArguments(Frame& f, FunctionDef const& def, std::vector<Value>& args);
    void runScript(FunctionDef const& def, std::shared_ptr<Unit const> const& unit);
    void callLambda(Closure const& c, std::vector<Value>& args, int nargout,
                    std::vector<Value>& out);
    void runTop(std::shared_ptr<Unit> unit, Workspace& ws, Io const& io, bool hidden);
    std::shared_ptr<Unit const> loadFile(std::string const& name);
    void registerDefinitions(std::shared_ptr<Unit const> const& unit);

    struct FileEntry {
        std::string path;
        std::int64_t mtime = 0;
        std::int64_t size = 0;
        std::shared_ptr<Unit const> unit; // null: no such file on the path
        std::uint64_t checked = 0;
    };
    struct EndContext {
        Value const* value;
        std::size_t position;
        std::size_t count;
    };

    std::vector<std::string> path_;
    std::map<std::string, FileEntry> files_;
    std::map<std::string, std::shared_ptr<Unit const>> defined_;
    std::map<std::string, Builtin> builtins_;
    std::uint64_t generation_ = 1;
    std::vector<Frame*> stack_;
    std::vector<EndContext> ends_;
    Io io_;
    static constexpr unsigned kSafePointStride = 64;
    mutable unsigned safePointCountdown_ = kSafePointStride;
    mutable std::chrono::steady_clock::time_point lastSafePoint_{};
    LocalWorkspace base_;
    std::mt19937_64 rng_;
    std::chrono::steady_clock::time_point tic_;
    int depth_ = 0;
};

// Fills the table of built-in functions (builtins.cpp).
void registerBuiltins(std::map<std::string, Builtin>& table);

} // namespace language
} // namespace quorl
