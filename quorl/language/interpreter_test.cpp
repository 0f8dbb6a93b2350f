#include <quorl/language/interpreter.hpp>

#include <quorl/language/customworkspaceadapter.hpp>
#include <quorl/language/localworkspace.hpp>

#include <tests/support/tempdir.hpp>

#include <foundation/extdata/array/variableinfoimpldata.hpp>

#include <gtest/gtest.h>

#include <hv/hvopaque.hpp>
#include <hv/utprintf.hpp>

#include <atomic>
#include <chrono>
#include <cstring>
#include <future>
#include <map>
#include <mutex>
#include <tuple>

namespace {

using namespace quorl::language;
namespace ext = foundation::extdata;
using quorl_testing::TempDir;

// Collects text; the first write fulfils `started` (the evaluation is running).
class CapturingBuffer : public std::basic_streambuf<char16_t> {
public:
    std::promise<void> started;
    std::string text() {
        std::lock_guard<std::mutex> g(m_);
        return toUtf8(s_);
    }

protected:
    std::streamsize xsputn(char16_t const* p, std::streamsize n) override {
        {
            std::lock_guard<std::mutex> g(m_);
            s_.append(p, static_cast<std::size_t>(n));
        }
        if (!signalled_) {
            signalled_ = true;
            started.set_value();
        }
        return n;
    }
    int_type overflow(int_type c) override {
        char16_t u = traits_type::to_char_type(c);
        xsputn(&u, 1);
        return c;
    }

private:
    std::mutex m_;
    std::u16string s_;
    bool signalled_ = false;
};

std::string run(Interpreter& in, std::string const& code) {
    CapturingBuffer out;
    EvalIo io;
    io.out = &out;
    in.evaluate(code, io);
    return out.text();
}

// The identifier of the language error that `f` throws.
template <class F> std::string errorOf(F f) {
    try {
        f();
    } catch (LanguageError const& e) {
        return e.identifier();
    }
    return "(no error)";
}

std::vector<double> scalars(std::vector<HvArrayPtr> const& arrays) {
    std::vector<double> values;
    for (auto const& a : arrays)
        values.push_back(hvGetScalar(a.get()));
    return values;
}

TEST(InterpreterInterrupt, StopsBusyLoopAndPauseFromAnotherThread) {
    for (char const* code : {"disp('go'); while true, end", "disp('go'); pause(100)",
                             "disp('go'); for i = 1:1e12, x = i; end"}) {
        Interpreter in;
        std::atomic<bool> flag{false};
        CapturingBuffer out;
        std::future<void> started = out.started.get_future();
        EvalIo io;
        io.out = &out;
        io.interrupt = &flag;
        std::future<std::string> done = std::async(std::launch::async, [&] {
            try {
                in.evaluate(code, io);
                return std::string("finished");
            } catch (InterruptedError const& e) {
                return e.identifier();
            }
        });
        started.wait();
        auto t0 = std::chrono::steady_clock::now();
        flag.store(true);
        std::string how = done.get();
        auto elapsed = std::chrono::steady_clock::now() - t0;
        EXPECT_EQ(how, errid::interrupted) << code;
        EXPECT_LT(elapsed, std::chrono::milliseconds(50)) << code;
    }
}

TEST(InterpreterInterrupt, TryCatchDoesNotSwallowAnInterrupt) {
    Interpreter in;
    std::atomic<bool> flag{true};
    EvalIo io;
    io.interrupt = &flag;
    EXPECT_THROW(in.evaluate("try, while true, end, catch e, x = 1; end", io), InterruptedError);
    flag = false;
    Value x;
    EXPECT_FALSE(in.workspace().get("x", x));
}

TEST(InterpreterStack, ThreeDeepCallReportsThreeFramesWithFileNameAndLine) {
    TempDir dir;
    std::string f1 =
        dir.write("outer1.qrl", "function r = outer1(x)\n  r = middle2(x) + 1;\nend\n");
    std::string f2 = dir.write("middle2.qrl", "function r = middle2(x)\n\n  r = inner3(x);\nend\n");
    std::string f3 = dir.write(
        "inner3.qrl", "function r = inner3(x)\n  y = 2;\n  r = y + undefinedThing(x);\nend\n");
    Interpreter in;
    in.setSearchPath({dir.str()});
    using Frame = std::tuple<std::string, std::string, int>;
    std::vector<Frame> frames;
    try {
        run(in, "a = 1;\nb = outer1(a);");
        FAIL() << "no error";
    } catch (LanguageError const& e) {
        EXPECT_EQ(e.identifier(), errid::undefined);
        for (auto const& frame : e.stack())
            frames.emplace_back(frame.file, frame.function, frame.line);
    }
    EXPECT_EQ(frames,
              (std::vector<Frame>{{f3, "inner3", 3}, {f2, "middle2", 3}, {f1, "outer1", 2}}));
}

TEST(InterpreterFunctions, FilesAreCachedAndReadAgainWhenChanged) {
    TempDir dir;
    dir.write("version.qrl", "function v = version()\n  v = 1;\nend\n");
    Interpreter in;
    in.setSearchPath({dir.str()});
    EXPECT_EQ(run(in, "disp(version())"), "1\n");
    dir.write("version.qrl", "function v = version()\n  v = 22;\nend\n");
    EXPECT_EQ(run(in, "disp(version())"), "22\n");
    dir.write("version.qrl", "function v = version()\n  v = 22 +;\nend\n");
    EXPECT_THROW(run(in, "disp(version())"), LanguageError);
    dir.write("version.qrl", "function v = version()\n  v = helper() * 3;\nend\n"
                             "function h = helper()\n  h = 5;\nend\n");
    EXPECT_EQ(run(in, "disp(version())"), "15\n");
    // A local function is not visible from outside its file.
    EXPECT_THROW(run(in, "helper()"), LanguageError);
}

TEST(InterpreterFunctions, RunTimeDefinitionsAndCallsWithOutputCounts) {
    Interpreter in;
    in.defineFunctions("function [s, p, n] = sumprod(a, b)\n  s = a + b;\n  p = a * b;\n"
                       "  n = nargout;\nend\n");
    HvArrayPtr a(hvCreateDoubleScalar(3));
    HvArrayPtr b(hvCreateDoubleScalar(4));
    EvalIo io;
    EXPECT_EQ(scalars(in.callFunction("sumprod", 3, {a.get(), b.get()}, io)),
              (std::vector<double>{7, 12, 3}));
    EXPECT_EQ(scalars(in.callFunction("sumprod", 1, {a.get(), b.get()}, io)),
              (std::vector<double>{7}));
    EXPECT_EQ(errorOf([&] {
                  in.callFunction("sumprod", 4, {a.get(), b.get()}, io);
              }),
              errid::tooManyOutputs);
    EXPECT_EQ(errorOf([&] { in.callFunction("nosuchfunction", 1, {}, io); }), errid::undefined);
    // Built-ins are reachable by name too, and a definition inside evaluated code stays.
    EXPECT_EQ(scalars(in.callFunction("max", 1, {a.get(), b.get()}, io)), (std::vector<double>{4}));
    run(in, "x = 1;\nfunction y = twice(v)\n  y = 2 * v;\nend\n");
    EXPECT_EQ(scalars(in.callFunction("twice", 1, {b.get()}, io)), (std::vector<double>{8}));
}

// A client workspace as a client would keep it: external arrays by name.
class MapWorkspace : public ext::array::ICustomWorkspace {
public:
    std::map<std::string, ext::Array> vars;
    ext::Array getVariable(const char* name) override {
        auto it = vars.find(name);
        return it == vars.end() ? ext::Array() : it->second;
    }
    ext::array::VariableInfo getVariables(const std::vector<const char*>& names) override {
        std::vector<std::string> keys;
        std::vector<ext::array::IVariableInfo::VariableStatus> statuses;
        std::vector<ext::Array> values;
        for (const char* n : names) {
            keys.push_back(n);
            auto it = vars.find(n);
            statuses.push_back(it == vars.end() ? ext::array::IVariableInfo::StatusAbsent
                                                : ext::array::IVariableInfo::StatusValue);
            values.push_back(it == vars.end() ? ext::Array() : it->second);
        }
        return ext::array::VariableInfo(
            std::make_shared<veldra::data::detail::VariableInfoImplData>(
                std::move(keys), std::move(statuses), std::move(values)));
    }
    void setVariables(std::vector<const char*> names, std::vector<ext::Array> values) override {
        for (std::size_t i = 0; i < names.size(); ++i) {
            vars[names[i]] = values[i];
        }
    }
    void clearVariable(const char* name) override { vars.erase(name); }
    std::vector<std::string> getVariableNames() override {
        std::vector<std::string> n;
        for (auto const& kv : vars) {
            n.push_back(kv.first);
        }
        return n;
    }
};

TEST(InterpreterWorkspace, ClientWorkspaceIsReadAndWrittenAsExternalArrays) {
    MapWorkspace client;
    client.vars["n"] = ext::Array::createScalar(4.0);
    client.vars["name"] = ext::Array::createChar(u"ab");
    client.vars["gone"] = ext::Array::createScalar(1.0);
    CustomWorkspaceAdapter ws(client);
    Interpreter in;
    CapturingBuffer out;
    EvalIo io;
    io.out = &out;
    in.evaluate("v = 1:n; s.label = [name 'c']; s.list = {int8(3), \"str\"};\n"
                "flags = v > 2; clear gone; disp(numel(v))",
                ws, io);
    EXPECT_EQ(out.text(), "4\n");
    EXPECT_EQ(client.vars.count("gone"), 0u);
    ext::Array v = client.vars.at("v");
    ASSERT_EQ(v.getType(), ext::DOUBLE);
    EXPECT_EQ(v.getDimensions(), (ext::Array::Dims{1, 4}));
    EXPECT_EQ(v.get<double>(3), 4.0);
    ext::Array flags = client.vars.at("flags");
    ASSERT_EQ(flags.getType(), ext::LOGICAL);
    EXPECT_FALSE(flags.get<bool>(1));
    EXPECT_TRUE(flags.get<bool>(2));
    ext::Array s = client.vars.at("s");
    ASSERT_EQ(s.getType(), ext::STRUCT);
    EXPECT_EQ(s.getField(0, "label").getCharacters(), u"abc");
    ext::Array list = s.getField(0, "list");
    ASSERT_EQ(list.getType(), ext::CELL);
    EXPECT_EQ(list.getCell(0).getType(), ext::INT8);
    EXPECT_EQ(list.getCell(1).getString(0), u"str");
    // Values written by the client are seen by the next evaluation, and round trips keep them.
    client.vars["n"] = ext::Array::createScalar(2.0);
    in.evaluate("w = s; w.k = n * 10;", ws, io);
    EXPECT_EQ(client.vars.at("w").getField(0, "k").get<double>(0), 20.0);
    EXPECT_EQ(client.vars.at("w").getField(0, "list"), list);
    // What has no external form fails the evaluation with a clear error.
    EXPECT_EQ(errorOf([&] { in.evaluate("h = @(x) x + 1;", ws, io); }), errid::wrongType);
}

TEST(InterpreterWorkspace, VariablesWrittenBeforeAnErrorAreKept) {
    Interpreter in;
    EXPECT_THROW(run(in, "a = 5;\nb = a + undefinedName;"), LanguageError);
    Value a;
    ASSERT_TRUE(in.workspace().get("a", a));
    EXPECT_EQ(a.scalar(), 5);
    EXPECT_EQ(run(in, "disp(a * 2)"), "10\n");
}

// That copies share their state is shown by the refbox conformance transcript.
TEST(InterpreterObjects, RefBoxCannotBeSerialized) {
    Interpreter in;
    run(in, "b = RefBox(1, 'box');");
    Value b;
    ASSERT_TRUE(in.workspace().get("b", b));
    EXPECT_THROW(HvArrayPtr(hvSerialize(b.hv())), std::runtime_error);
}

// A host's opaque class whose arrays show themselves through a "disp" method, as reference
// arrays do, and one with no methods.
struct Probe {
    int number;
    std::atomic<int> sharers{1};
};
hvArray* probeFindMethod(hvArray const*, char const* name) {
    return std::strcmp(name, "disp") == 0 ? hvCreateDoubleScalar(0) : nullptr;
}
bool probeCallMethod(hvArray const*, int, hvArray**, int nrhs, hvArray const* const* prhs) {
    if (nrhs != 1) {
        return false;
    }
    auto const* probe = static_cast<Probe const*>(hvGetOpaqueGiblet(prhs[0]));
    utPrintf("probe %d\n    of the host\n", probe->number);
    return true;
}
void* shareProbe(void* giblet) {
    static_cast<Probe*>(giblet)->sharers.fetch_add(1);
    return giblet;
}
void destroyProbe(void* giblet) {
    auto* probe = static_cast<Probe*>(giblet);
    if (probe->sharers.fetch_sub(1) == 1) {
        delete probe;
    }
}
void makeProbe(int, hvArray** plhs, int nrhs, hvArray** prhs) {
    static hvOpaqueClass const* const shown = [] {
        hvOpaqueClassOps ops;
        ops.findMethod = &probeFindMethod;
        ops.callMethod = &probeCallMethod;
        ops.share = &shareProbe;
        ops.destroy = &destroyProbe;
        return hvSubclassOpaqueArray("InterpreterTestProbe", &ops);
    }();
    static hvOpaqueClass const* const silent = [] {
        hvOpaqueClassOps ops;
        ops.share = &shareProbe;
        ops.destroy = &destroyProbe;
        return hvSubclassOpaqueArray("InterpreterTestSilentProbe", &ops);
    }();
    int const number = nrhs > 0 ? static_cast<int>(hvGetScalar(prhs[0])) : 0;
    plhs[0] = hvCreateOpaqueGiblet(number < 0 ? silent : shown, new Probe{number, {1}});
}

TEST(InterpreterHost, HostFunctionsAndOpaqueValuesThatDisplayThemselves) {
    // Set before the first class display (no other test shows one): text printed through
    // utPrintf outside a display must still reach it, and displays must not.
    static std::string elsewhere;
    utSetPrintfSink([](char const* text, std::size_t length) { elsewhere.append(text, length); });

    registerHostFunction("makeProbe", &makeProbe);
    Interpreter in;
    EXPECT_EQ(run(in, "p = makeProbe(7); disp(p); q = p"),
              "probe 7\n    of the host\nq =\nprobe 7\n    of the host\n");
    EXPECT_EQ(run(in, "c = {makeProbe(2)}; disp(c{1}); disp(exist('makeProbe'))"),
              "probe 2\n    of the host\n5\n");
    EXPECT_NE(run(in, "disp(makeProbe(-1))").find("[1x1 InterpreterTestSilentProbe]"),
              std::string::npos)
        << "a class with no disp method is shown as any other value";
    utPrintf("after %d\n", 1);
    EXPECT_EQ(elsewhere, "after 1\n");

    registerHostFunction("makeProbe", nullptr);
    EXPECT_THROW(run(in, "makeProbe(1)"), LanguageError);
}

TEST(InterpreterOutput, ErrorStreamAndOutputStreamAreSeparate) {
    Interpreter in;
    CapturingBuffer out, err;
    EvalIo io;
    io.out = &out;
    io.err = &err;
    in.evaluate("fprintf(1, 'to out\\n'); fprintf(2, 'to err %d\\n', 2); warning('careful');", io);
    EXPECT_EQ(out.text(), "to out\n");
    EXPECT_EQ(err.text(), "to err 2\nWarning: careful\n");
}

} // namespace
