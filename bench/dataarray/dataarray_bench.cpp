// Serialize + deserialize of a 100 MB double array through the Protocol Buffers bundle, loaded
// as in production, beside the floor: memcpy of the same bytes out and back in. The plug-in
// writes to and reads from string streams, as the payload writer and reader give it.
#include <quorl/cmddistributor/veldradataarrayserializationservice.hpp>

#include <foundation/cppmicroservices/framework.hpp>

#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>
#include <sstream>

using foundation::extdata::Array;

namespace {

constexpr std::size_t Doubles = 100 * 1000 * 1000 / sizeof(double);

const Array& bigArray() {
    static const Array a = [] {
        std::vector<double> v(Doubles);
        for (std::size_t i = 0; i < v.size(); ++i) {
            v[i] = static_cast<double>(i) * 0.5;
        }
        return Array::create<double>({Doubles, 1}, v);
    }();
    return a;
}

void BM_MemcpyFloor(benchmark::State& state) {
    const auto& a = bigArray();
    std::vector<char> out(a.getRawByteCount()), back(a.getRawByteCount());
    for (auto _ : state) {
        std::memcpy(out.data(), a.getRawData(), out.size());
        std::memcpy(back.data(), out.data(), back.size());
        benchmark::DoNotOptimize(back.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * a.getRawByteCount()));
}

// The same two copies into buffers allocated for each round, as any serializer that makes new
// bytes and a new array must: this floor pays the page faults of fresh memory too.
void BM_MemcpyFreshBuffersFloor(benchmark::State& state) {
    const auto& a = bigArray();
    auto n = a.getRawByteCount();
    for (auto _ : state) {
        std::unique_ptr<char[]> out(new char[n]);
        std::memcpy(out.get(), a.getRawData(), n);
        std::unique_ptr<char[]> back(new char[n]);
        std::memcpy(back.get(), out.get(), n);
        benchmark::DoNotOptimize(back.get());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * n));
}

void BM_ProtobufPluginRoundTrip(benchmark::State& state) {
    const auto& a = bigArray();
    foundation::cppmicroservices::startFramework();
    auto service = quorl::cmddistributor::getVeldraDataArraySerializationService();
    if (!service) {
        state.SkipWithError("the data-array plug-in was not found");
        return;
    }
    for (auto _ : state) {
        std::ostringstream out;
        service->serializeDataArray(a, out);
        // Taking the bytes out of the stream is the caller's copy, not the plug-in's work.
        state.PauseTiming();
        std::istringstream in(out.str());
        state.ResumeTiming();
        auto b = service->deserializeDataArray(in);
        benchmark::DoNotOptimize(b.getRawData());
        if (b.getRawByteCount() != a.getRawByteCount()) {
            state.SkipWithError("round trip lost bytes");
            return;
        }
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * a.getRawByteCount()));
}

} // namespace

BENCHMARK(BM_MemcpyFloor)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_MemcpyFreshBuffersFloor)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ProtobufPluginRoundTrip)->Unit(benchmark::kMillisecond)->UseRealTime();

BENCHMARK_MAIN();
