#pragma once
// Interpreter: the entry points of the language for a host. It evaluates a string of code in a
// workspace, runs a script file, calls a named function with nlhs outputs on array arguments,
// and takes function definitions at run time. Function files (NAME.qrl) are found on the search
// path, parsed once and parsed again when they change on disk.
//
// Output goes to the given 16-bit stream buffers as it is produced (output and error); either
// may be null to drop it. The interrupt flag, when given, is polled at every statement, loop
// iteration and pause tick; when it is set the evaluation ends with InterruptedError. The
// safe-point function, when given, is called at those points now and then.
//
// Threads: an Interpreter belongs to one interpreter thread (one per runtime context); all its
// functions are called on that thread, one at a time. The interrupt flag is the only thing that
// another thread may touch during an evaluation: it may be set from any thread at any time.
// Different Interpreter objects may run on different threads at once.
//
// Ownership: the Interpreter owns its own workspace and its caches; the workspaces, buffers and
// flag passed to a call are borrowed for that call.
//
// Errors: LanguageError carrying message, identifier, stack frames (innermost first) and
// causes; InterruptedError when interrupted. Nothing else escapes.
#include <quorl/language/languageerror.hpp>
#include <quorl/language/value.hpp>
#include <quorl/language/workspace.hpp>

#include <hv/hvarray.hpp>

#include <atomic>
#include <functional>
#include <memory>
#include <streambuf>
#include <string>
#include <vector>

namespace quorl {
namespace language {

class Evaluator;

struct EvalIo {
    std::basic_streambuf<char16_t>* out = nullptr;
    std::basic_streambuf<char16_t>* err = nullptr;
    std::atomic<bool> const* interrupt = nullptr;
    // Called at the same points as the interrupt is polled, at most about once a millisecond,
    // so that a host may let other threads in for a moment (give a lock up and take it again).
    // What it throws ends the evaluation. May be empty.
    std::function<void()> safePoint;
};

// A function of the host, callable from code by name: `nlhs` outputs go to plhs as new arrays
// that the caller takes over (left null for none), `nrhs` borrowed inputs in prhs.
typedef void (*HostFunction)(int nlhs, hvArray** plhs, int nrhs, hvArray** prhs);
// Makes `function` callable as `name` in every interpreter of the process (null removes it).
// Functions defined in code or files and the built-ins come first. Any thread, any time.
void registerHostFunction(std::string const& name, HostFunction function);

class Interpreter {
public:
    Interpreter();
    ~Interpreter();
    Interpreter(Interpreter const&) = delete;
    Interpreter& operator=(Interpreter const&) = delete;

    // Folders searched, in order, for NAME.qrl.
    void setSearchPath(std::vector<std::string> folders);
    std::vector<std::string> const& searchPath() const;

    // The interpreter's own workspace.
    Workspace& workspace();

    // Evaluates code in `ws` (the interpreter's own workspace when omitted).
    void evaluate(std::string const& code, Workspace& ws, EvalIo const& io);
    void evaluate(std::string const& code, EvalIo const& io);
    // Runs a script file in `ws`.
    void runFile(std::string const& path, Workspace& ws, EvalIo const& io);
    // Calls a function (or a script, with no arguments) by name; returns up to `nlhs` results
    // as new arrays owned by the caller.
    std::vector<HvArrayPtr> callFunction(std::string const& name, int nlhs,
                                         std::vector<const hvArray*> const& args, EvalIo const& io);
    // The same with values of the language.
    std::vector<Value> call(std::string const& name, int nlhs, std::vector<Value> args,
                            EvalIo const& io);
    // Defines the functions of `code` ("function ... end" blocks) for later calls by name; they
    // take precedence over files and built-ins of the same name.
    void defineFunctions(std::string const& code);

private:
    std::unique_ptr<Evaluator> ev_;
};

} // namespace language
} // namespace quorl
