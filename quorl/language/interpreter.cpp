#include <quorl/language/interpreter.hpp>

#include <quorl/language/evaluator.hpp>

#include <map>
#include <mutex>

namespace quorl {
namespace language {

namespace {
Evaluator::Io toIo(EvalIo const& io) {
    Evaluator::Io r;
    r.out = io.out;
    r.err = io.err;
    r.interrupt = io.interrupt;
    r.safePoint = io.safePoint;
    return r;
}
struct HostFunctions {
    std::mutex mutex; // guards functions
    std::map<std::string, HostFunction> functions;
};

HostFunctions& hostFunctions() {
    static HostFunctions* h = new HostFunctions; // used until the process ends
    return *h;
}
} // namespace

void registerHostFunction(std::string const& name, HostFunction function) {
    HostFunctions& h = hostFunctions();
    std::lock_guard<std::mutex> lock(h.mutex);
    if (function)
        h.functions[name] = function;
    else
        h.functions.erase(name);
}

HostFunction findHostFunction(std::string const& name) {
    HostFunctions& h = hostFunctions();
    std::lock_guard<std::mutex> lock(h.mutex);
    auto it = h.functions.find(name);
    return it == h.functions.end() ? nullptr : it->second;
}

Interpreter::Interpreter() : ev_(std::make_unique<Evaluator>()) {}
Interpreter::~Interpreter() = default;

void Interpreter::setSearchPath(std::vector<std::string> folders) {
    ev_->setSearchPath(std::move(folders));
}

std::vector<std::string> const& Interpreter::searchPath() const {
    return ev_->searchPath();
}

Workspace& Interpreter::workspace() {
    return ev_->baseWorkspace();
}

void Interpreter::evaluate(std::string const& code, Workspace& ws, EvalIo const& io) {
    ev_->evaluate(code, ws, toIo(io));
}

void Interpreter::evaluate(std::string const& code, EvalIo const& io) {
    ev_->evaluate(code, ev_->baseWorkspace(), toIo(io));
}

void Interpreter::runFile(std::string const& path, Workspace& ws, EvalIo const& io) {
    ev_->runFile(path, ws, toIo(io));
}

std::vector<Value> Interpreter::call(std::string const& name, int nlhs, std::vector<Value> args,
                                     EvalIo const& io) {
    return ev_->call(name, std::move(args), nlhs, toIo(io));
}

std::vector<HvArrayPtr> Interpreter::callFunction(std::string const& name, int nlhs,
                                                  std::vector<const hvArray*> const& args,
                                                  EvalIo const& io) {
    std::vector<Value> in;
    in.reserve(args.size());
    for (const hvArray* a : args) {
        in.push_back(Value::share(a));
    }
    std::vector<Value> res = call(name, nlhs, std::move(in), io);
    std::vector<HvArrayPtr> out;
    for (std::size_t i = 0; i < res.size() && static_cast<int>(i) < std::max(nlhs, 1); ++i) {
        out.push_back(res[i].toHv());
    }
    return out;
}

void Interpreter::defineFunctions(std::string const& code) {
    ev_->defineFunctions(code);
}

} // namespace language
} // namespace quorl
