// A write through the command-window buffer proxy (no log, diary or text-event subscribers: the
// mirrors are off, the sink is set) beside the floor: the same sputn straight on the sink's own
// buffer. The sink's buffer copies the text into a fixed array, as a console buffer would.
#include <quorl/io/activecmdwinsinkproxy.hpp>
#include <quorl/io/cmdwinhostaccess.hpp>

#include <foundation/usm/context.hpp>

#include <benchmark/benchmark.h>
#include <boost/make_shared.hpp>

#include <cstring>
#include <string>

using namespace quorl::io;

namespace {

class CountingBuffer : public std::basic_streambuf<char16_t> {
public:
    std::streamsize total = 0;
    char16_t screen[4096];

protected:
    std::streamsize xsputn(char16_t const* s, std::streamsize n) override {
        std::memcpy(screen, s, static_cast<std::size_t>(n) * sizeof(char16_t));
        total += n;
        return n;
    }
    int_type overflow(int_type c) override {
        ++total;
        return c;
    }
};

class CountingSink : public VeldraSink {
public:
    explicit CountingSink(boost::shared_ptr<CountingBuffer> const& b) : VeldraSink(b) {}
};

std::u16string textOf(std::size_t n) {
    std::u16string t;
    for (std::size_t i = 0; i < n; ++i)
        t.push_back(static_cast<char16_t>(u'a' + i % 26));
    return t;
}

void BM_SinkBufferSputn(benchmark::State& state) {
    auto buffer = boost::make_shared<CountingBuffer>();
    auto sink = boost::make_shared<CountingSink>(buffer);
    std::u16string const text = textOf(static_cast<std::size_t>(state.range(0)));
    auto const n = static_cast<std::streamsize>(text.size());
    std::basic_streambuf<char16_t>& target = *sink->getUnicodeOutStreamBuffer();
    for (auto _ : state)
        benchmark::DoNotOptimize(target.sputn(text.data(), n));
    state.SetItemsProcessed(state.iterations());
    benchmark::DoNotOptimize(buffer->total);
}

void BM_CmdWinProxySputn(benchmark::State& state) {
    SetLogStreamPtr(nullptr);
    SetDiaryStreamPtr(nullptr);
    foundation::usm::ContextScope scope(foundation::usm::Context::create("bench"));
    auto buffer = boost::make_shared<CountingBuffer>();
    CmdWinHostAccess::setCmdWinSink(OutputStream, boost::make_shared<CountingSink>(buffer));
    auto proxy = ActiveCmdWinSinkProxy::getInstance(OutputStream);
    proxy->activate();
    std::u16string const text = textOf(static_cast<std::size_t>(state.range(0)));
    auto const n = static_cast<std::streamsize>(text.size());
    std::basic_streambuf<char16_t>& target = *proxy->getUnicodeOutStreamBuffer();
    for (auto _ : state)
        benchmark::DoNotOptimize(target.sputn(text.data(), n));
    state.SetItemsProcessed(state.iterations());
    if (buffer->total != n * static_cast<std::streamsize>(state.iterations()))
        state.SkipWithError("the sink did not get every unit");
    CmdWinHostAccess::setCmdWinSink(OutputStream, nullptr);
}

} // namespace

BENCHMARK(BM_SinkBufferSputn)->Arg(16)->Arg(1024);
BENCHMARK(BM_CmdWinProxySputn)->Arg(16)->Arg(1024);

BENCHMARK_MAIN();
