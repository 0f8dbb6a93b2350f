// The language against plain C++ doing the same work, in one run: a scalar loop of 10^6
// additions (s = s + i) and the sum of 10^7 doubles. Prints the ratios at the end.
#include <quorl/language/interpreter.hpp>
#include <quorl/language/localworkspace.hpp>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace {

using namespace quorl::language;

constexpr int kLoop = 1000000;
constexpr std::size_t kDoubles = 10000000;

void BM_ScalarLoop_Cpp(benchmark::State& state) {
    for (auto _ : state) {
        double s = 0;
        for (int i = 1; i <= kLoop; ++i) {
            s = s + i;
            benchmark::DoNotOptimize(s);
        }
    }
    state.counters["ns_per_iteration"] =
        benchmark::Counter(static_cast<double>(state.iterations()) * kLoop,
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void BM_ScalarLoop_Language(benchmark::State& state) {
    Interpreter in;
    EvalIo io;
    for (auto _ : state) {
        in.evaluate("s = 0; for i = 1:1000000, s = s + i; end", io);
    }
    Value s;
    if (!in.workspace().get("s", s) || s.scalar() != 500000500000.0) {
        state.SkipWithError("wrong result");
    }
    state.counters["ns_per_iteration"] =
        benchmark::Counter(static_cast<double>(state.iterations()) * kLoop,
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

std::vector<double> values() {
    std::vector<double> v(kDoubles);
    for (std::size_t i = 0; i < kDoubles; ++i) {
        v[i] = static_cast<double>(i % 1000) * 0.5;
    }
    return v;
}

void BM_VectorSum_Cpp(benchmark::State& state) {
    std::vector<double> v = values();
    for (auto _ : state) {
        double s = 0;
        for (double x : v) {
            s += x;
        }
        benchmark::DoNotOptimize(s);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kDoubles * 8));
}

void BM_VectorSum_Language(benchmark::State& state) {
    std::vector<double> v = values();
    Interpreter in;
    in.workspace().set("x", makeDoubleArray({1, kDoubles}, v));
    EvalIo io;
    for (auto _ : state) {
        in.evaluate("s = sum(x);", io);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kDoubles * 8));
}

BENCHMARK(BM_ScalarLoop_Cpp)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ScalarLoop_Language)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_VectorSum_Cpp)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_VectorSum_Language)->Unit(benchmark::kMillisecond);

// Keeps each benchmark's time per iteration for the ratios.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    std::map<std::string, double> times;
    void ReportRuns(std::vector<Run> const& runs) override {
        for (Run const& r : runs) {
            times[r.benchmark_name()] = r.GetAdjustedRealTime();
        }
        ConsoleReporter::ReportRuns(runs);
    }
};

} // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    auto ratio = [&](char const* lang, char const* cpp) {
        auto l = reporter.times.find(lang);
        auto c = reporter.times.find(cpp);
        if (l != reporter.times.end() && c != reporter.times.end() && c->second > 0) {
            std::printf("%s / %s = %.2f\n", lang, cpp, l->second / c->second);
        }
    };
    ratio("BM_ScalarLoop_Language", "BM_ScalarLoop_Cpp");
    ratio("BM_VectorSum_Language", "BM_VectorSum_Cpp");
    benchmark::Shutdown();
    return 0;
}
