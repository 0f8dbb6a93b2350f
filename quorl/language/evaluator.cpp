#include <quorl/language/evaluator.hpp>

#include <quorl/language/format.hpp>
#include <quorl/language/parser.hpp>
#include <quorl/language/valueops.hpp>

#include <boost/filesystem.hpp>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <sstream>

namespace quorl {
namespace language {

namespace {

constexpr int kMaxDepth = 200;

// Restores the call stack and depth when a call ends, also by an error.
class StackGuard {
public:
    StackGuard(std::vector<Frame*>& stack, int& depth, Frame* f) : stack_(stack), depth_(depth) {
        if (++depth_ > kMaxDepth) {
            --depth_;
            throw LanguageError(errid::recursionLimit, "Maximum recursion limit of " +
                                                           std::to_string(kMaxDepth) + " reached.");
        }
        stack_.push_back(f);
    }
    ~StackGuard() {
        stack_.pop_back();
        --depth_;
    }
    StackGuard(StackGuard const&) = delete;
    StackGuard& operator=(StackGuard const&) = delete;

private:
    std::vector<Frame*>& stack_;
    int& depth_;
};

// A workspace over the variables of a function's frame, for scripts that a function runs.
class FrameWorkspace : public Workspace {
public:
    FrameWorkspace(Evaluator& ev, Frame& f) : ev_(ev), f_(f) {}
    bool get(std::string const& name, Value& out) override { return ev_.variable(f_, name, out); }
    void set(std::string const& name, Value const& value) override {
        int s = f_.def->symbols.find(name);
        if (s < 0) {
            throw LanguageError(errid::unsupported,
                                "A script run from a function cannot create the new variable '" +
                                    name + "'.");
        }
        f_.slots[static_cast<std::size_t>(s)] = value;
    }
    void clear(std::string const& name) override { ev_.clearVariable(f_, name); }
    std::vector<std::string> names() override { return ev_.variableNames(f_); }

private:
    Evaluator& ev_;
    Frame& f_;
};

std::string readFile(std::string const& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        throw LanguageError(errid::fileError, "Cannot read the file '" + path + "'.");
    }
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

bool isLiteralEmpty(Expr const* e) {
    return e != nullptr && e->kind == ExprKind::Matrix && e->rows.empty();
}

} // namespace

Evaluator::Evaluator() : rng_(42), tic_(std::chrono::steady_clock::now()) {
    registerBuiltins(builtins_);
}

Evaluator::~Evaluator() = default;

void Evaluator::setSearchPath(std::vector<std::string> dirs) {
    path_ = std::move(dirs);
    files_.clear();
    ++generation_;
}

void Evaluator::write(int stream, std::string const& utf8) {
    std::basic_streambuf<char16_t>* b = stream == 2 ? io_.err : io_.out;
    if (b == nullptr || utf8.empty()) {
        return;
    }
    std::u16string t = toUtf16(utf8);
    b->sputn(t.data(), static_cast<std::streamsize>(t.size()));
    b->pubsync();
}

// ---------------------------------------------------------------------------------------------
// Frames and workspaces

void Evaluator::bind(Frame& f, FunctionDef const& def, std::shared_ptr<Unit const> unit,
                     Workspace* ws) {
    f.def = &def;
    f.unit = std::move(unit);
    f.slots.assign(def.symbols.names.size(), Value());
    f.ws = ws;
    if (ws != nullptr) {
        f.loaded.assign(f.slots.size(), 0);
        f.dirty.assign(f.slots.size(), 0);
    }
    f.file = f.unit ? f.unit->file : std::string();
    f.name = def.name;
    f.line = def.line;
}

void Evaluator::load(Frame& f, int slot) {
    Value v;
    if (f.ws->get(f.def->symbols.names[static_cast<std::size_t>(slot)], v)) {
        f.slots[static_cast<std::size_t>(slot)] = std::move(v);
    }
    f.loaded[static_cast<std::size_t>(slot)] = 1;
}

void Evaluator::flush(Frame& f) {
    if (f.ws == nullptr) {
        return;
    }
    for (std::size_t i = 0; i < f.slots.size(); ++i) {
        if (f.dirty[i]) {
            std::string const& n = f.def->symbols.names[i];
            if (f.slots[i].defined()) {
                f.ws->set(n, f.slots[i]);
            } else {
                f.ws->clear(n);
            }
            f.dirty[i] = 0;
        }
    }
}

void Evaluator::invalidate(Frame& f) {
    if (f.ws == nullptr) {
        return;
    }
    for (std::size_t i = 0; i < f.slots.size(); ++i) {
        f.loaded[i] = 0;
        f.slots[i] = Value();
    }
}

std::vector<std::string> Evaluator::variableNames(Frame& f) {
    if (f.ws != nullptr) {
        flush(f);
        return f.ws->names();
    }
    std::vector<std::string> n;
    for (std::size_t i = 0; i < f.slots.size(); ++i) {
        if (f.slots[i].defined()) {
            n.push_back(f.def->symbols.names[i]);
        }
    }
    std::sort(n.begin(), n.end());
    return n;
}

bool Evaluator::variable(Frame& f, std::string const& name, Value& out) {
    int s = f.def->symbols.find(name);
    if (s >= 0) {
        Value* v = lookup(f, s);
        if (v != nullptr) {
            out = *v;
            return true;
        }
        return false;
    }
    return f.ws != nullptr && f.ws->get(name, out);
}

void Evaluator::clearVariable(Frame& f, std::string const& name) {
    int s = f.def->symbols.find(name);
    if (s >= 0) {
        slotRef(f, s) = Value();
    }
    if (f.ws != nullptr) {
        f.ws->clear(name);
    }
}

void Evaluator::clearAll(Frame& f) {
    if (f.ws != nullptr) {
        for (std::string const& n : f.ws->names()) {
            f.ws->clear(n);
        }
        for (std::size_t i = 0; i < f.slots.size(); ++i) {
            f.slots[i] = Value();
            f.loaded[i] = 1;
            f.dirty[i] = 0;
        }
        return;
    }
    for (Value& v : f.slots) {
        v = Value();
    }
}

std::vector<StackFrame> Evaluator::captureStack() const {
    std::vector<StackFrame> s;
    for (auto it = stack_.rbegin(); it != stack_.rend(); ++it) {
        if (!(*it)->hidden) {
            s.push_back(StackFrame{(*it)->file, (*it)->name, (*it)->line});
        }
    }
    return s;
}

// ---------------------------------------------------------------------------------------------
// Top level

void Evaluator::runTop(std::shared_ptr<Unit> unit, Workspace& ws, Io const& io, bool hidden) {
    Io saved = io_;
    io_ = io;
    ++generation_;
    registerDefinitions(unit);
    Frame f;
    bind(f, *unit->main, unit, &ws);
    f.hidden = hidden;
    try {
        StackGuard g(stack_, depth_, &f);
        execBlock(unit->main->body, f);
    } catch (...) {
        try {
            flush(f);
        } catch (...) {
        }
        io_ = saved;
        throw;
    }
    flush(f);
    io_ = saved;
}

void Evaluator::evaluate(std::string const& code, Workspace& ws, Io const& io) {
    std::shared_ptr<Unit> unit;
    try {
        unit = Parser::parse(code, "", "eval");
    } catch (LanguageError& e) {
        e.setStack({});
        throw;
    }
    runTop(unit, ws, io, true);
}

void Evaluator::runFile(std::string const& path, Workspace& ws, Io const& io) {
    std::string name = boost::filesystem::path(path).stem().string();
    std::shared_ptr<Unit> unit;
    try {
        unit = Parser::parse(readFile(path), path, name);
    } catch (LanguageError& e) {
        if (!e.hasStack()) {
            e.setStack({StackFrame{path, name, 0}});
        }
        throw;
    }
    if (!unit->isScript) {
        throw LanguageError(errid::wrongType,
                            "'" + path + "' is a function file; call its function instead.");
    }
    runTop(unit, ws, io, false);
}

void Evaluator::defineFunctions(std::string const& code) {
    std::shared_ptr<Unit> unit = Parser::parse(code, "", "eval");
    registerDefinitions(unit);
    ++generation_;
}

void Evaluator::registerDefinitions(std::shared_ptr<Unit const> const& unit) {
    std::size_t first = unit->isScript ? 0 : 0;
    for (std::size_t i = first; i < unit->functions.size(); ++i) {
        defined_[unit->functions[i]->name] = unit;
    }
}

std::vector<Value> Evaluator::call(std::string const& name, std::vector<Value> args, int nargout,
                                   Io const& io) {
    Io saved = io_;
    io_ = io;
    ++generation_;
    std::vector<Value> out;
    try {
        auto r = resolve(name, nullptr);
        if (!r) {
            throw LanguageError(errid::undefined, "Undefined function '" + name + "'.");
        }
        callResolved(*r, name, args, nargout, out);
    } catch (LanguageError& e) {
        if (!e.hasStack()) {
            e.setStack(captureStack());
        }
        io_ = saved;
        throw;
    } catch (...) {
        io_ = saved;
        throw;
    }
    io_ = saved;
    return out;
}

// ---------------------------------------------------------------------------------------------
// Name resolution

std::shared_ptr<Unit const> Evaluator::loadFile(std::string const& name) {
    FileEntry& e = files_[name];
    if (e.checked == generation_) {
        return e.unit;
    }
    e.checked = generation_;
    namespace fs = boost::filesystem;
    for (std::string const& dir : path_) {
        fs::path p = fs::path(dir) / (name + ".qrl");
        boost::system::error_code ec;
        if (!fs::is_regular_file(p, ec)) {
            continue;
        }
        std::int64_t mtime = static_cast<std::int64_t>(fs::last_write_time(p, ec));
        std::int64_t size = static_cast<std::int64_t>(fs::file_size(p, ec));
        if (e.unit && e.path == p.string() && e.mtime == mtime && e.size == size) {
            return e.unit;
        }
        std::shared_ptr<Unit> u;
        try {
            u = Parser::parse(readFile(p.string()), p.string(), name);
        } catch (LanguageError& err) {
            e.unit.reset();
            e.checked = 0;
            err.setStack({StackFrame{p.string(), name, 0}});
            throw;
        }
        e.path = p.string();
        e.mtime = mtime;
        e.size = size;
        e.unit = u;
        return e.unit;
    }
    e.unit.reset();
    return nullptr;
}

std::shared_ptr<Resolution> Evaluator::resolve(std::string const& name, Unit const* from) {
    auto r = std::make_shared<Resolution>();
    if (from != nullptr) {
        if (FunctionDef const* d = from->findLocal(name)) {
            // The unit is kept alive by the frame that runs it; find its owner for handles.
            for (Frame* f : stack_) {
                if (f->unit.get() == from) {
                    r->unit = f->unit;
                    break;
                }
            }
            r->def = d;
            return r;
        }
    }
    auto it = defined_.find(name);
    if (it != defined_.end()) {
        r->unit = it->second;
        r->def = it->second->findLocal(name);
        return r;
    }
    if (std::shared_ptr<Unit const> u = loadFile(name)) {
        r->unit = u;
        r->def = u->main.get();
        return r;
    }
    auto b = builtins_.find(name);
    if (b != builtins_.end()) {
        r->builtin = b->second;
        return r;
    }
    if (HostFunction h = findHostFunction(name)) {
        r->host = h;
        return r;
    }
    return nullptr;
}

std::shared_ptr<Resolution> Evaluator::resolveCached(Expr const& id, Unit const* from) {
    if (id.cache && id.cacheGeneration == generation_) {
        return id.cache;
    }
    id.cache = resolve(id.text, from);
    id.cacheGeneration = generation_;
    return id.cache;
}

bool Evaluator::functionExists(std::string const& name, bool& builtin) {
    Unit const* from = stack_.empty() ? nullptr : stack_.back()->unit.get();
    auto r = resolve(name, from);
    builtin = r && (r->builtin != nullptr || r->host != nullptr);
    return r != nullptr;
}

void Evaluator::callResolved(Resolution const& r, std::string const& name, std::vector<Value>& args,
                             int nargout, std::vector<Value>& out) {
    if (r.builtin != nullptr) {
        r.builtin(*this, args, nargout, out);
        return;
    }
    if (r.host != nullptr) {
        callHost(r.host, args, nargout, out);
        return;
    }
    std::shared_ptr<Unit const> unit = r.unit.lock();
    if (!unit) {
        throw LanguageError(errid::undefined, "The function '" + name + "' is no longer defined.");
    }
    callUser(*r.def, unit, args, nargout, out);
}

void Evaluator::callHost(HostFunction f, std::vector<Value>& args, int nargout,
                         std::vector<Value>& out) {
    std::vector<HvArrayPtr> in;
    std::vector<hvArray*> prhs;
    for (Value const& v : args) {
        in.push_back(v.toHv());
        prhs.push_back(in.back().get());
    }
    std::size_t const n = static_cast<std::size_t>(std::max(nargout, 1));
    std::vector<hvArray*> plhs(n, nullptr);
    f(nargout, plhs.data(), static_cast<int>(prhs.size()), prhs.data());
    bool gap = false;
    for (std::size_t i = 0; i < n; ++i) {
        Value v = Value::adopt(plhs[i]); // outputs after a missing one are dropped
        gap = gap || !v.defined();
        if (!gap) {
            out.push_back(std::move(v));
        }
    }
}

void Evaluator::callByName(std::string const& name, std::vector<Value>& args, int nargout,
                           std::vector<Value>& out) {
    Unit const* from = stack_.empty() ? nullptr : stack_.back()->unit.get();
    auto r = resolve(name, from);
    if (!r) {
        throw LanguageError(errid::undefined, "Undefined function '" + name + "'.");
    }
    callResolved(*r, name, args, nargout, out);
}

void Evaluator::callValue(Value const& fn, std::vector<Value>& args, int nargout,
                          std::vector<Value>& out) {
    if (fn.kind() == Value::Kind::Lambda) {
        callLambda(*fn.closure(), args, nargout, out);
        return;
    }
    if (fn.isFunction()) {
        callByName(hvGetFunctionName(fn.hv()), args, nargout, out);
        return;
    }
    if (fn.isText()) {
        callByName(fn.str(), args, nargout, out);
        return;
    }
    throw LanguageError(errid::wrongType,
                        "Expected a function handle or name, got a value of class " +
                            fn.className() + ".");
}

Value Evaluator::makeHandle(std::string const& name, Unit const* from) {
    if (from != nullptr) {
        if (FunctionDef const* d = from->findLocal(name)) {
            auto c = std::make_shared<Closure>();
            for (Frame* f : stack_) {
                if (f->unit.get() == from) {
                    c->unit = f->unit;
                    break;
                }
            }
            c->def = d;
            c->text = "@" + name;
            return Value::lambda(c);
        }
    }
    return Value::adopt(hvCreateFunctionHandle(name.c_str()));
}

void Evaluator::callUser(FunctionDef const& def, std::shared_ptr<Unit const> const& unit,
                         std::vector<Value>& args, int nargout, std::vector<Value>& out) {
    if (def.isScript) {
        if (!args.empty()) {
            throw LanguageError(errid::tooManyInputs, "Scripts take no input arguments.");
        }
        runScript(def, unit);
        return;
    }
    std::size_t np = def.params.size();
    if (args.size() > np && !def.varargin) {
        throw LanguageError(errid::tooManyInputs, "Too many input arguments: '" + def.name +
                                                      "' takes " + std::to_string(np) +
                                                      " and was given " +
                                                      std::to_string(args.size()) + ".");
    }
    std::size_t no = def.outputs.size();
    if (static_cast<std::size_t>(nargout) > no && !def.varargout) {
        throw LanguageError(errid::tooManyOutputs, "Too many output arguments: '" + def.name +
                                                       "' returns " + std::to_string(no) + " and " +
                                                       std::to_string(nargout) +
                                                       " were requested.");
    }
    Frame f;
    bind(f, def, unit, nullptr);
    bindArguments(f, def, args);
    f.nargin = static_cast<int>(args.size());
    f.nargout = nargout;
    if (def.nargin >= 0) {
        f.slots[static_cast<std::size_t>(def.nargin)] = Value::number(f.nargin);
    }
    if (def.nargout >= 0) {
        f.slots[static_cast<std::size_t>(def.nargout)] = Value::number(nargout);
    }
    {
        StackGuard g(stack_, depth_, &f);
        execBlock(def.body, f);
    }
    std::size_t want = nargout == 0 ? 1 : static_cast<std::size_t>(nargout);
    std::size_t named = def.varargout ? no - 1 : no;
    for (std::size_t i = 0; i < want && i < named; ++i) {
        Value& v = f.slots[static_cast<std::size_t>(def.outputSlots[i])];
        if (!v.defined()) {
            if (nargout == 0 && i == 0) {
                return;
            }
            throw LanguageError(errid::unassignedOutput,
                                "Output argument '" + def.outputs[i] +
                                    "' was not assigned a value in function '" + def.name + "'.");
        }
        out.push_back(std::move(v));
    }
    if (def.varargout && want > named) {
        Value& vo = f.slots[static_cast<std::size_t>(def.outputSlots.back())];
        std::size_t extra = want - named;
        if (!vo.defined() || !vo.isCell() || vo.numel() < extra) {
            if (nargout == 0) {
                return;
            }
            throw LanguageError(errid::unassignedOutput,
                                "Output argument 'varargout' does not hold enough values in "
                                "function '" +
                                    def.name + "'.");
        }
        for (std::size_t i = 0; i < extra; ++i) {
            out.push_back(cellAt(vo, i));
        }
    }
}

void Evaluator::bindArguments(Frame& f, FunctionDef const& def, std::vector<Value>& args) {
    std::size_t fixed = def.varargin ? def.params.size() - 1 : def.params.size();
    for (std::size_t i = 0; i < args.size() && i < fixed; ++i) {
        if (def.paramSlots[i] >= 0) {
            f.slots[static_cast<std::size_t>(def.paramSlots[i])] = std::move(args[i]);
        }
    }
    if (def.varargin) {
        std::vector<Value> rest;
        for (std::size_t i = fixed; i < args.size(); ++i) {
            rest.push_back(std::move(args[i]));
        }
        f.slots[static_cast<std::size_t>(def.paramSlots.back())] = makeCellRow(rest);
    }
}

void Evaluator::runScript(FunctionDef const& def, std::shared_ptr<Unit const> const& unit) {
    Frame& caller = *stack_.back();
    std::unique_ptr<FrameWorkspace> fw;
    Workspace* ws = caller.ws;
    if (ws != nullptr) {
        flush(caller);
    } else {
        fw = std::make_unique<FrameWorkspace>(*this, caller);
        ws = fw.get();
    }
    Frame f;
    bind(f, def, unit, ws);
    struct Sync {
        Evaluator& ev;
        Frame& f;
        Frame& caller;
        ~Sync() {
            try {
                ev.flush(f);
            } catch (...) {
            }
            ev.invalidate(caller);
        }
    } sync{*this, f, caller};
    StackGuard g(stack_, depth_, &f);
    execBlock(def.body, f);
}

void Evaluator::callLambda(Closure const& c, std::vector<Value>& args, int nargout,
                           std::vector<Value>& out) {
    FunctionDef const& def = *c.def;
    if (!def.lambdaBody) {
        callUser(def, c.unit, args, nargout, out);
        return;
    }
    if (args.size() > def.params.size() && !def.varargin) {
        throw LanguageError(errid::tooManyInputs,
                            "Too many input arguments: '" + c.text + "' takes " +
                                std::to_string(def.params.size()) + " and was given " +
                                std::to_string(args.size()) + ".");
    }
    Frame f;
    bind(f, def, c.unit, nullptr);
    f.name = c.text;
    for (auto const& cap : c.captured) {
        f.slots[static_cast<std::size_t>(cap.first)] = cap.second;
    }
    bindArguments(f, def, args);
    StackGuard g(stack_, depth_, &f);
    evalMulti(*def.lambdaBody, f, nargout, out);
}

// ---------------------------------------------------------------------------------------------
// Statements

Evaluator::Flow Evaluator::execBlock(Block const& b, Frame& f) {
    for (auto const& sp : b) {
        Stmt const& s = *sp;
        f.line = s.line;
        checkInterrupt();
        try {
            Flow fl = exec(s, f);
            if (fl != Flow::Normal) {
                return fl;
            }
        } catch (LanguageError& e) {
            if (!e.hasStack()) {
                e.setStack(captureStack());
            }
            throw;
        } catch (std::bad_alloc const&) {
            LanguageError e(errid::internal, "Out of memory.");
            e.setStack(captureStack());
            throw e;
        } catch (std::exception const& x) {
            LanguageError e(errid::internal, x.what());
            e.setStack(captureStack());
            throw e;
        }
    }
    return Flow::Normal;
}

Evaluator::Flow Evaluator::exec(Stmt const& s, Frame& f) {
    switch (s.kind) {
    case StmtKind::Assign:
        execAssign(s, f);
        return Flow::Normal;
    case StmtKind::ExprStmt:
        execExprStmt(s, f);
        return Flow::Normal;
    case StmtKind::If:
        for (auto const& c : s.clauses) {
            if (eval(*c.first, f).truth()) {
                return execBlock(c.second, f);
            }
        }
        return s.hasElse ? execBlock(s.body, f) : Flow::Normal;
    case StmtKind::For:
        return execFor(s, f);
    case StmtKind::While:
        for (;;) {
            checkInterrupt();
            f.line = s.line;
            if (!eval(*s.expr, f).truth()) {
                return Flow::Normal;
            }
            Flow fl = execBlock(s.body, f);
            if (fl == Flow::Break) {
                return Flow::Normal;
            }
            if (fl == Flow::Return) {
                return fl;
            }
        }
    case StmtKind::Break:
        return Flow::Break;
    case StmtKind::Continue:
        return Flow::Continue;
    case StmtKind::Return:
        return Flow::Return;
    case StmtKind::Switch: {
        Value v = eval(*s.expr, f);
        for (auto const& c : s.clauses) {
            if (switchMatches(v, eval(*c.first, f))) {
                return execBlock(c.second, f);
            }
        }
        return s.hasElse ? execBlock(s.body, f) : Flow::Normal;
    }
    case StmtKind::Try:
        return execTry(s, f);
    case StmtKind::Command: {
        std::vector<Value> args;
        for (std::string const& w : s.words) {
            args.push_back(Value::text(w));
        }
        std::vector<Value> out;
        callByName(s.name, args, 0, out);
        if (!out.empty()) {
            int ans = f.def->symbols.find("ans");
            if (ans >= 0) {
                slotRef(f, ans) = out[0];
            }
            if (s.print) {
                write(1, displayText("ans", out[0]));
            }
        }
        return Flow::Normal;
    }
    case StmtKind::Global:
        throw LanguageError(errid::unsupported, "'" + s.name + "' variables are not supported.");
    }
    return Flow::Normal;
}

bool Evaluator::switchMatches(Value const& v, Value const& c) {
    if (c.isCell()) {
        for (std::size_t i = 0; i < c.numel(); ++i) {
            if (switchMatches(v, cellAt(c, i))) {
                return true;
            }
        }
        return false;
    }
    if (v.isText() || c.isText()) {
        return v.isText() && c.isText() && v.str() == c.str();
    }
    if (v.isNumericOrLogical() && c.isNumericOrLogical()) {
        if (v.isEmpty() || c.isEmpty()) {
            return false;
        }
        return v.isScalar() && c.isScalar() && v.scalar() == c.scalar();
    }
    return false;
}

Evaluator::Flow Evaluator::execFor(Stmt const& s, Frame& f) {
    int slot = s.lhs[0].slot;
    Expr const& e = *s.expr;
    // Runs the body once with the loop variable set; false when the loop is to end.
    Flow result = Flow::Normal;
    auto iterate = [&](Value item) {
        checkInterrupt();
        slotRef(f, slot) = std::move(item);
        Flow fl = execBlock(s.body, f);
        if (fl == Flow::Return) {
            result = fl;
        }
        return fl != Flow::Break && fl != Flow::Return;
    };
    if (e.kind == ExprKind::Range) {
        // A range is walked without making it.
        double a = eval(*e.a, f).scalar();
        double st = e.b ? eval(*e.b, f).scalar() : 1.0;
        double b = eval(*e.c, f).scalar();
        std::size_t n = rangeCount(a, st, b);
        for (std::size_t i = 0; i < n; ++i) {
            if (!iterate(Value::number(a + static_cast<double>(i) * st))) {
                break;
            }
        }
        return result;
    }
    Value v = eval(e, f);
    if (v.isEmpty()) {
        return Flow::Normal;
    }
    std::size_t m = v.rows(), n = v.numel() / std::max<std::size_t>(m, 1);
    for (std::size_t j = 0; j < n; ++j) {
        Value item;
        if (m == 1) {
            item = elementAt(v, j);
        } else {
            Subscript all;
            all.colon = true;
            Subscript col;
            col.idx = {j};
            col.shape = {1, 1};
            item = indexValue(v, {all, col});
        }
        if (!iterate(std::move(item))) {
            break;
        }
    }
    return result;
}

Evaluator::Flow Evaluator::execTry(Stmt const& s, Frame& f) {
    std::size_t depth = stack_.size();
    try {
        return execBlock(s.body, f);
    } catch (InterruptedError const&) {
        throw;
    } catch (LanguageError& e) {
        stack_.resize(depth);
        if (!e.hasStack()) {
            e.setStack(captureStack());
        }
        if (s.catchSlot >= 0) {
            slotRef(f, s.catchSlot) = errorStruct(e);
        }
        try {
            return execBlock(s.catchBody, f);
        } catch (InterruptedError const&) {
            throw;
        } catch (LanguageError& inner) {
            if (!inner.rethrown()) {
                inner.addCause(e);
            }
            throw;
        }
    }
}

void Evaluator::execExprStmt(Stmt const& s, Frame& f) {
    Expr const& e = *s.expr;
    if (e.kind == ExprKind::Id) {
        if (Value* v = lookup(f, e.slot)) {
            if (s.print) {
                write(1, displayText(e.text, *v));
            }
            return;
        }
    }
    std::vector<Value> out;
    evalMulti(e, f, 0, out);
    if (out.empty()) {
        return;
    }
    // A list from c{:} or s.f of a struct array shows every value; a call shows its first.
    bool list = e.kind == ExprKind::Postfix && !e.suffixes.empty() &&
                e.suffixes.back().kind != Suffix::Paren;
    std::size_t shown = list ? out.size() : 1;
    int ans = f.def->symbols.find("ans");
    for (std::size_t i = 0; i < shown; ++i) {
        if (ans >= 0) {
            slotRef(f, ans) = out[i];
        }
        if (s.print) {
            write(1, displayText("ans", out[i]));
        }
    }
}

void Evaluator::execAssign(Stmt const& s, Frame& f) {
    bool deletion = isLiteralEmpty(s.expr.get());
    if (s.lhs.size() == 1) {
        LValue const& lv = s.lhs[0];
        Value v = eval(*s.expr, f);
        assignTo(lv, std::move(v), f,
                 deletion && !lv.suffixes.empty() && lv.suffixes.back().kind == Suffix::Paren);
        if (s.print && !lv.tilde) {
            write(1, displayText(lv.name, *lookup(f, lv.slot)));
        }
        return;
    }
    std::vector<Value> vals;
    evalMulti(*s.expr, f, static_cast<int>(s.lhs.size()), vals);
    std::size_t need = s.lhs.size();
    while (need > 0 && s.lhs[need - 1].tilde) {
        --need;
    }
    if (vals.size() < need) {
        throw LanguageError(errid::notEnoughOutputs,
                            "Insufficient number of outputs from the right side of the assignment: "
                            "needed " +
                                std::to_string(need) + ", got " + std::to_string(vals.size()) +
                                ".");
    }
    for (std::size_t i = 0; i < s.lhs.size(); ++i) {
        if (!s.lhs[i].tilde && i < vals.size()) {
            assignTo(s.lhs[i], std::move(vals[i]), f, false);
        }
    }
    if (s.print) {
        for (LValue const& lv : s.lhs) {
            if (!lv.tilde) {
                write(1, displayText(lv.name, *lookup(f, lv.slot)));
            }
        }
    }
}

void Evaluator::assignTo(LValue const& lv, Value rhs, Frame& f, bool deletion) {
    if (lv.suffixes.empty()) {
        slotRef(f, lv.slot) = std::move(rhs);
        return;
    }
    Value& base = slotRef(f, lv.slot);
    assignChain(base, lv.suffixes, 0, rhs, f, deletion);
}

void Evaluator::assignChain(Value& base, std::vector<Suffix> const& sfx, std::size_t k,
                            Value const& rhs, Frame& f, bool deletion) {
    Suffix const& s = sfx[k];
    bool last = k + 1 == sfx.size();
    switch (s.kind) {
    case Suffix::Paren: {
        std::vector<Subscript> subs = evalSubs(s.args, base.defined() ? base : Value::empty(), f);
        if (last) {
            if (deletion) {
                deleteElements(base, subs);
            } else {
                assignIndex(base, subs, rhs);
            }
            return;
        }
        Value sub;
        if (base.defined()) {
            try {
                sub = indexValue(base, subs);
            } catch (LanguageError const& e) {
                if (e.identifier() != errid::indexOutOfBounds) {
                    throw;
                }
            }
        }
        if (!sub.defined() && sfx[k + 1].kind != Suffix::Paren &&
            (!base.defined() || base.isStruct() ||
             (base.classID() == hvDOUBLE_CLASS && base.isEmpty()))) {
            sub = Value::adopt(hvCreateStructMatrix(1, 1, 0, nullptr));
        }
        assignChain(sub, sfx, k + 1, rhs, f, deletion);
        assignIndex(base, subs, sub);
        return;
    }
    case Suffix::Brace: {
        std::vector<Subscript> subs = evalSubs(s.args, base.defined() ? base : Value::empty(), f);
        if (last) {
            assignCell(base, subs, rhs);
            return;
        }
        Value sub;
        if (base.defined() && base.isCell()) {
            try {
                std::vector<Value> el = cellElements(base, subs);
                if (el.size() == 1) {
                    sub = el[0];
                }
            } catch (LanguageError const& e) {
                if (e.identifier() != errid::indexOutOfBounds) {
                    throw;
                }
            }
        }
        assignChain(sub, sfx, k + 1, rhs, f, deletion);
        assignCell(base, subs, sub);
        return;
    }
    case Suffix::Field:
    case Suffix::DynField: {
        std::string name = s.kind == Suffix::Field ? s.name : eval(*s.dyn, f).str();
        if (base.defined() && base.isStruct() && base.numel() > 1) {
            throw LanguageError(errid::badIndex,
                                "Field assignment to a struct array needs an index, as in s(2)." +
                                    name + ".");
        }
        if (last) {
            setField(base, 0, name, rhs);
            return;
        }
        Value sub;
        if (base.defined() && (base.isStruct() || base.classID() == hvOBJECT_CLASS) &&
            base.numel() == 1) {
            if (base.isStruct() && hvGetFieldNumber(base.hv(), name.c_str()) < 0) {
                sub = Value();
            } else {
                sub = getField(base, name)[0];
            }
        }
        assignChain(sub, sfx, k + 1, rhs, f, deletion);
        setField(base, 0, name, sub);
        return;
    }
    }
}

// ---------------------------------------------------------------------------------------------
// Expressions

Value Evaluator::evalEnd() const {
    if (ends_.empty()) {
        throw LanguageError(errid::syntax, "'end' is valid only inside an index.");
    }
    EndContext const& c = ends_.back();
    std::vector<std::size_t> d = c.value->dims();
    if (c.count == 1) {
        return Value::number(static_cast<double>(c.value->numel()));
    }
    if (c.position + 1 < c.count) {
        return Value::number(c.position < d.size() ? static_cast<double>(d[c.position]) : 1.0);
    }
    std::size_t p = 1;
    for (std::size_t i = c.position; i < d.size(); ++i) {
        p *= d[i];
    }
    return Value::number(static_cast<double>(p));
}

std::vector<Subscript> Evaluator::evalSubs(std::vector<ExprPtr> const& args, Value const& v,
                                           Frame& f) {
    std::vector<Subscript> subs(args.size());
    for (std::size_t k = 0; k < args.size(); ++k) {
        Expr const& a = *args[k];
        if (a.kind == ExprKind::Colon) {
            subs[k].colon = true;
            continue;
        }
        if (a.kind == ExprKind::Number) {
            subs[k] = makeSubscript(Value::number(a.num));
            continue;
        }
        ends_.push_back(EndContext{&v, k, args.size()});
        struct Pop {
            std::vector<EndContext>& e;
            ~Pop() { e.pop_back(); }
        } pop{ends_};
        Value iv = eval(a, f);
        if (iv.isChar() && iv.str() == ":") {
            subs[k].colon = true;
        } else {
            subs[k] = makeSubscript(iv);
        }
    }
    return subs;
}

std::vector<Value> Evaluator::evalArgs(std::vector<ExprPtr> const& args, Frame& f) {
    std::vector<Value> out;
    out.reserve(args.size());
    for (auto const& a : args) {
        if (a->kind == ExprKind::Colon) {
            out.push_back(Value::text(":"));
            continue;
        }
        evalMulti(*a, f, 1, out);
    }
    return out;
}

void Evaluator::evalMulti(Expr const& e, Frame& f, int nargout, std::vector<Value>& out) {
    if (e.kind == ExprKind::Postfix) {
        evalPostfix(e, f, nargout, out);
        return;
    }
    if (e.kind == ExprKind::Id) {
        if (Value* v = lookup(f, e.slot)) {
            out.push_back(*v);
            return;
        }
        auto r = resolveCached(e, f.unit.get());
        if (!r) {
            throw LanguageError(errid::undefined,
                                "Undefined function or variable '" + e.text + "'.");
        }
        std::vector<Value> args;
        callResolved(*r, e.text, args, nargout, out);
        return;
    }
    out.push_back(eval(e, f));
}

void Evaluator::evalPostfix(Expr const& e, Frame& f, int nargout, std::vector<Value>& out) {
    Expr const& base = *e.a;
    std::size_t k = 0;
    std::vector<Value> cur;
    std::size_t ns = e.suffixes.size();
    if (base.kind == ExprKind::Id) {
        if (Value* v = lookup(f, base.slot)) {
            cur.push_back(*v);
        } else {
            auto r = resolveCached(base, f.unit.get());
            if (!r) {
                throw LanguageError(errid::undefined,
                                    "Undefined function or variable '" + base.text + "'.");
            }
            std::vector<Value> args;
            if (ns > 0 && e.suffixes[0].kind == Suffix::Paren) {
                args = evalArgs(e.suffixes[0].args, f);
                k = 1;
            }
            int n = k == ns ? nargout : 1;
            callResolved(*r, base.text, args, n, cur);
            if (k < ns && cur.empty()) {
                throw LanguageError(errid::tooManyOutputs,
                                    "'" + base.text + "' returns no value to index into.");
            }
        }
    } else {
        cur.push_back(eval(base, f));
    }
    for (; k < ns; ++k) {
        if (cur.size() != 1) {
            throw LanguageError(errid::badIndex, "An indexing expression that gives " +
                                                     std::to_string(cur.size()) +
                                                     " values cannot be indexed further.");
        }
        Value v = std::move(cur[0]);
        cur.clear();
        Suffix const& s = e.suffixes[k];
        bool last = k + 1 == ns;
        switch (s.kind) {
        case Suffix::Paren:
            if (v.kind() == Value::Kind::Lambda || v.isFunction()) {
                std::vector<Value> args = evalArgs(s.args, f);
                callValue(v, args, last ? nargout : 1, cur);
            } else {
                cur.push_back(indexValue(v, evalSubs(s.args, v, f)));
            }
            break;
        case Suffix::Brace:
            cur = cellElements(v, evalSubs(s.args, v, f));
            break;
        case Suffix::Field:
            cur = getField(v, s.name);
            break;
        case Suffix::DynField:
            cur = getField(v, eval(*s.dyn, f).str());
            break;
        }
    }
    for (Value& v : cur) {
        out.push_back(std::move(v));
    }
}

Value Evaluator::makeClosure(Expr const& e, Frame& f) {
    auto c = std::make_shared<Closure>();
    c->unit = f.unit;
    c->def = e.lambda.get();
    for (auto const& cap : e.captures) {
        if (Value* v = lookup(f, cap.first)) {
            c->captured.emplace_back(cap.second, *v);
        }
    }
    c->text = closureText(*e.lambda);
    return Value::lambda(c);
}

Value Evaluator::eval(Expr const& e, Frame& f) {
    switch (e.kind) {
    case ExprKind::Number:
        return Value::number(e.num);
    case ExprKind::CharLit:
        if (!e.constant.defined()) {
            e.constant = Value::text(e.text);
        }
        return e.constant;
    case ExprKind::StringLit:
        if (!e.constant.defined()) {
            e.constant = makeStringObject(e.text);
        }
        return e.constant;
    case ExprKind::Id: {
        if (Value* v = lookup(f, e.slot)) {
            return *v;
        }
        std::vector<Value> out;
        evalMulti(e, f, 1, out);
        if (out.empty()) {
            throw LanguageError(errid::tooManyOutputs,
                                "'" + e.text + "' returns no value to use here.");
        }
        return std::move(out[0]);
    }
    case ExprKind::Binary: {
        Value a = eval(*e.a, f);
        Value b = eval(*e.b, f);
        return binaryOp(e.op, a, b);
    }
    case ExprKind::Unary: {
        if (e.text == "()") {
            return eval(*e.a, f);
        }
        return unaryOp(e.op, eval(*e.a, f));
    }
    case ExprKind::AndAnd:
    case ExprKind::OrOr: {
        auto test = [&](Expr const& x) {
            Value v = eval(x, f);
            if (!v.isInlineScalar() && v.numel() != 1) {
                throw LanguageError(errid::wrongType,
                                    "Operands of the || and && operators must be convertible to "
                                    "logical scalar values.");
            }
            return v.truth();
        };
        bool l = test(*e.a);
        if (e.kind == ExprKind::AndAnd) {
            return Value::boolean(l && test(*e.b));
        }
        return Value::boolean(l || test(*e.b));
    }
    case ExprKind::Range: {
        Value av = eval(*e.a, f);
        Value bv = eval(*e.c, f);
        double s = e.b ? eval(*e.b, f).scalar() : 1.0;
        Value r = makeRange(av.scalar(), s, bv.scalar());
        // A range of integers keeps their class.
        hvClassID c = isIntegerClass(av.classID()) ? av.classID() : bv.classID();
        return isIntegerClass(c) ? convertClass(r, c) : r;
    }
    case ExprKind::Matrix: {
        std::vector<std::vector<Value>> rows;
        for (auto const& row : e.rows) {
            std::vector<Value> r;
            for (auto const& x : row) {
                evalMulti(*x, f, 1, r);
            }
            rows.push_back(std::move(r));
        }
        return concatenate(rows);
    }
    case ExprKind::CellLit: {
        std::vector<std::vector<Value>> rows;
        for (auto const& row : e.rows) {
            std::vector<Value> vals;
            for (auto const& x : row) {
                evalMulti(*x, f, 1, vals);
            }
            std::vector<Value> r;
            for (Value& v : vals) {
                hvArray* one = hvCreateCellMatrix(1, 1);
                hvSetCell(one, 0, v.toHv().release());
                r.push_back(Value::adopt(one));
            }
            if (!r.empty()) {
                rows.push_back(std::move(r));
            }
        }
        if (rows.empty()) {
            return Value::adopt(hvCreateCellMatrix(0, 0));
        }
        return concatenate(rows);
    }
    case ExprKind::AnonFn:
        return makeClosure(e, f);
    case ExprKind::FuncHandle:
        return makeHandle(e.text, f.unit.get());
    case ExprKind::End:
        return evalEnd();
    case ExprKind::Colon:
        return Value::text(":");
    case ExprKind::Postfix: {
        std::vector<Value> out;
        evalPostfix(e, f, 1, out);
        if (out.empty()) {
            throw LanguageError(errid::notEnoughOutputs,
                                "The expression gives no value to use here.");
        }
        return std::move(out[0]);
    }
    }
    throw LanguageError(errid::internal, "Unknown expression.");
}

// ---------------------------------------------------------------------------------------------
// Errors as values

Value Evaluator::errorStruct(LanguageError const& e) const {
    std::vector<char const*> names{"file", "name", "line"};
    hvArray* st = hvCreateStructMatrix(e.stack().size(), 1, 3, names.data());
    for (std::size_t i = 0; i < e.stack().size(); ++i) {
        StackFrame const& fr = e.stack()[i];
        hvSetFieldByNumber(st, i, 0, hvCreateString(fr.file.c_str()));
        hvSetFieldByNumber(st, i, 1, hvCreateString(fr.function.c_str()));
        hvSetFieldByNumber(st, i, 2, hvCreateDoubleScalar(fr.line));
    }
    std::vector<Value> causes;
    for (LanguageError const& c : e.causes()) {
        causes.push_back(errorStruct(c));
    }
    hvArray* cell = hvCreateCellMatrix(causes.size(), 1);
    for (std::size_t i = 0; i < causes.size(); ++i) {
        hvSetCell(cell, i, causes[i].toHv().release());
    }
    return makeStruct({"message", "identifier", "stack", "cause"},
                      {Value::text(e.message()), Value::text(e.identifier()), Value::adopt(st),
                       Value::adopt(cell)});
}

LanguageError Evaluator::errorFromStruct(Value const& s) const {
    if (!s.isStruct() || s.numel() != 1) {
        throw LanguageError(errid::badArgument, "Expected an error struct with a message field.");
    }
    auto field = [&](char const* n) {
        const hvArray* v = hvGetField(s.hv(), 0, n);
        return v == nullptr ? Value::empty() : Value::share(v);
    };
    Value msg = field("message");
    Value id = field("identifier");
    LanguageError e(id.isChar() ? id.str() : std::string(),
                    msg.isText() ? msg.str() : std::string());
    Value st = field("stack");
    if (st.isStruct()) {
        std::vector<StackFrame> frames;
        for (std::size_t i = 0; i < st.numel(); ++i) {
            StackFrame fr;
            const hvArray* a = hvGetField(st.hv(), i, "file");
            const hvArray* b = hvGetField(st.hv(), i, "name");
            const hvArray* c = hvGetField(st.hv(), i, "line");
            fr.file = a && hvGetNumberOfElements(a) ? hvArrayToStdString(a) : "";
            fr.function = b && hvGetNumberOfElements(b) ? hvArrayToStdString(b) : "";
            fr.line = c ? static_cast<int>(hvGetScalar(c)) : 0;
            frames.push_back(fr);
        }
        e.setStack(frames);
    }
    Value causes = field("cause");
    if (causes.isCell()) {
        for (std::size_t i = 0; i < causes.numel(); ++i) {
            e.addCause(errorFromStruct(cellAt(causes, i)));
        }
    }
    return e;
}

// ---------------------------------------------------------------------------------------------
// Text of anonymous functions

namespace {

int precedence(Expr const& e) {
    switch (e.kind) {
    case ExprKind::OrOr:
        return 1;
    case ExprKind::AndAnd:
        return 2;
    case ExprKind::Range:
        return 6;
    case ExprKind::Binary:
        switch (e.op) {
        case Op::Or:
            return 3;
        case Op::And:
            return 4;
        case Op::Lt:
        case Op::Le:
        case Op::Gt:
        case Op::Ge:
        case Op::Eq:
        case Op::Ne:
            return 5;
        case Op::Plus:
        case Op::Minus:
            return 7;
        case Op::Power:
        case Op::ElPower:
            return 10;
        default:
            return 8;
        }
    case ExprKind::Unary:
        return e.op == Op::Transpose || e.op == Op::CTranspose ? 11 : 9;
    default:
        return 12;
    }
}

std::string unparse(Expr const& e);

std::string list(std::vector<ExprPtr> const& args) {
    std::string s;
    for (std::size_t i = 0; i < args.size(); ++i) {
        s += (i ? ", " : "") + unparse(*args[i]);
    }
    return s;
}

std::string wrap(Expr const& child, int parentPrec, bool right = false) {
    int p = precedence(child);
    std::string t = unparse(child);
    return p < parentPrec || (right && p == parentPrec) ? "(" + t + ")" : t;
}

std::string unparse(Expr const& e) {
    switch (e.kind) {
    case ExprKind::Number:
        return e.text;
    case ExprKind::CharLit: {
        std::string t;
        for (char c : e.text) {
            t += c == '\'' ? std::string("''") : std::string(1, c);
        }
        return "'" + t + "'";
    }
    case ExprKind::StringLit:
        return "\"" + e.text + "\"";
    case ExprKind::Colon:
        return ":";
    case ExprKind::End:
        return "end";
    case ExprKind::Id:
        return e.text;
    case ExprKind::Unary:
        if (e.text == "()") {
            return "(" + unparse(*e.a) + ")";
        }
        switch (e.op) {
        case Op::Neg:
            return "-" + wrap(*e.a, 9);
        case Op::UPlus:
            return "+" + wrap(*e.a, 9);
        case Op::Not:
            return "~" + wrap(*e.a, 9);
        case Op::Transpose:
            return wrap(*e.a, 11) + ".'";
        default:
            return wrap(*e.a, 11) + "'";
        }
    case ExprKind::Binary: {
        int p = precedence(e);
        return wrap(*e.a, p) + " " + opSymbol(e.op) + " " + wrap(*e.b, p, true);
    }
    case ExprKind::AndAnd:
        return wrap(*e.a, 2) + " && " + wrap(*e.b, 2, true);
    case ExprKind::OrOr:
        return wrap(*e.a, 1) + " || " + wrap(*e.b, 1, true);
    case ExprKind::Range:
        return wrap(*e.a, 7) + ":" + (e.b ? wrap(*e.b, 7) + ":" : std::string()) + wrap(*e.c, 7);
    case ExprKind::Matrix:
    case ExprKind::CellLit: {
        std::string s = e.kind == ExprKind::Matrix ? "[" : "{";
        for (std::size_t r = 0; r < e.rows.size(); ++r) {
            s += (r ? "; " : "") + list(e.rows[r]);
        }
        return s + (e.kind == ExprKind::Matrix ? "]" : "}");
    }
    case ExprKind::AnonFn: {
        std::string s = "@(";
        for (std::size_t i = 0; i < e.lambda->params.size(); ++i) {
            s += (i ? ", " : "") + e.lambda->params[i];
        }
        return s + ") " + unparse(*e.lambda->lambdaBody);
    }
    case ExprKind::FuncHandle:
        return "@" + e.text;
    case ExprKind::Postfix: {
        std::string s = wrap(*e.a, 12);
        for (Suffix const& x : e.suffixes) {
            switch (x.kind) {
            case Suffix::Paren:
                s += "(" + list(x.args) + ")";
                break;
            case Suffix::Brace:
                s += "{" + list(x.args) + "}";
                break;
            case Suffix::Field:
                s += "." + x.name;
                break;
            case Suffix::DynField:
                s += ".(" + unparse(*x.dyn) + ")";
                break;
            }
        }
        return s;
    }
    }
    return "";
}

} // namespace

std::string Evaluator::closureText(FunctionDef const& def) const {
    std::string s = "@(";
    for (std::size_t i = 0; i < def.params.size(); ++i) {
        s += (i ? ", " : "") + def.params[i];
    }
    return s + ") " + (def.lambdaBody ? unparse(*def.lambdaBody) : std::string());
}

} // namespace language
} // namespace quorl
