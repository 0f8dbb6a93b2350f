// hvSerialize + hvDeserialize of a 100 MB double array, beside its floor: memcpy of the same
// bytes into a buffer of the same size, in the same run.
#include <hv/hvarray.hpp>

#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>

namespace {

constexpr std::size_t kBytes = 100u * 1000u * 1000u;
constexpr std::size_t kDoubles = kBytes / sizeof(double);

HvArrayPtr makeSource() {
    HvArrayPtr a(hvCreateNumericMatrix(hvDOUBLE_CLASS, 1, kDoubles));
    double* p = static_cast<double*>(hvGetData(a.get()));
    for (std::size_t i = 0; i < kDoubles; ++i) {
        p[i] = static_cast<double>(i) * 0.5;
    }
    return a;
}

// The floor: one copy of the array's bytes into a freshly allocated buffer.
void BM_MemcpyFloor(benchmark::State& state) {
    HvArrayPtr source = makeSource();
    const void* from = hvGetReadOnlyData(source.get());
    for (auto _ : state) {
        std::unique_ptr<char[]> to(new char[kBytes]);
        std::memcpy(to.get(), from, kBytes);
        benchmark::DoNotOptimize(to.get());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kBytes));
}

// The floor into a buffer that is already mapped: memory bandwidth alone.
void BM_MemcpyWarmFloor(benchmark::State& state) {
    HvArrayPtr source = makeSource();
    const void* from = hvGetReadOnlyData(source.get());
    std::unique_ptr<char[]> to(new char[kBytes]);
    std::memset(to.get(), 0, kBytes);
    for (auto _ : state) {
        std::memcpy(to.get(), from, kBytes);
        benchmark::DoNotOptimize(to.get());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kBytes));
}

void BM_SerializeDeserialize(benchmark::State& state) {
    HvArrayPtr source = makeSource();
    for (auto _ : state) {
        HvArrayPtr bytes(hvSerialize(source.get()));
        HvArrayPtr back(hvDeserialize(hvGetReadOnlyData(bytes.get()), hvGetN(bytes.get())));
        benchmark::DoNotOptimize(back.get());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kBytes));
}

BENCHMARK(BM_MemcpyFloor)->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(BM_MemcpyWarmFloor)->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(BM_SerializeDeserialize)->Unit(benchmark::kMillisecond)->MinTime(2.0);

} // namespace

BENCHMARK_MAIN();
