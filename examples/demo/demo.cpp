// The library end to end in one process: the reference host runs an interpreter thread per
// context; packaged tasks go to it through the distributor and come back through futures; one
// request is cancelled while it waits in the queue. Then a few lines of code are evaluated by the
// reference language: their output comes to a sink of the demo's own, and an error comes back
// with its identifier and call stack.
#include <quorl/host/host.hpp>
#include <quorl/io/veldrasink.hpp>

#include <quorl/quorl.hpp>

#include <boost/make_shared.hpp>

#include <atomic>
#include <chrono>
#include <iostream>
#include <thread>

using namespace cmddistributor;

namespace {

char const* cancelName(CmdDistributor::CancelStatus s) {
    switch (s) {
    case CmdDistributor::CancelNotFound:
        return "not found";
    case CmdDistributor::CancelNotCancelled:
        return "not cancelled";
    case CmdDistributor::CancelDone:
        return "cancelled";
    case CmdDistributor::CancelEndedByStatus4:
        return "interrupted";
    }
    return "?";
}

template <class F> boost::shared_ptr<FcnCmdRequest<void>> task(F f) {
    return boost::make_shared<FcnCmdRequest<void>>(f, nullptr, nullptr);
}

// A sink buffer that prints each line it gets, indented, to standard output.
class PrintingBuffer : public std::basic_streambuf<char16_t> {
protected:
    int_type overflow(int_type c) override {
        if (traits_type::eq_int_type(c, traits_type::eof()))
            return traits_type::not_eof(c);
        char16_t const unit = traits_type::to_char_type(c);
        xsputn(&unit, 1);
        return c;
    }
    std::streamsize xsputn(char16_t const* s, std::streamsize n) override {
        for (std::streamsize i = 0; i < n; ++i) {
            if (line_.empty())
                line_ = "  | ";
            if (s[i] == u'\n') {
                std::cout << line_ << std::endl;
                line_.clear();
            } else {
                line_.append(fl::i18n::to_string(std::u16string(1, s[i])));
            }
        }
        return n;
    }

private:
    std::string line_;
};

// Evaluates `code` in the interpreter's workspace; its output is printed as it comes.
void evaluate(CmdDistributor& distributor, std::u16string const& code) {
    auto out = boost::make_shared<quorl::io::VeldraSink>(boost::make_shared<PrintingBuffer>());
    std::string shown = fl::i18n::to_string(code);
    for (std::size_t at = shown.find('\n'); at != std::string::npos; at = shown.find('\n', at + 1))
        shown.replace(at, 1, "\n      ");
    std::cout << "eval> " << shown << std::endl;
    try {
        distributor
            .enqueueWithFuture(
                boost::make_shared<EvalCmdRequest>(true, UnsetIqmStreamID, out, out, code))
            .get();
    } catch (RuntimeException const& e) {
        std::cout << "  error " << e.GetID() << ": " << e.what() << std::endl;
        for (auto const& frame : e.getStackFrames())
            std::cout << "    in " << frame.func << " at line " << frame.line << std::endl;
    }
}

} // namespace

int main() {
    quorl::host::Host::start();
    auto distributor = CmdDistributor::instance(quorl::contextmgr::BlessedFennID);
    std::cout << "quorl " << quorl_version << ", exchange "
              << foundation::msg_svc::exchange::ExchangeApi::instance()->getExchangeName()
              << std::endl;

    // Three tasks in order on the interpreter thread.
    std::atomic<long> sum{0};
    for (int i = 1; i <= 3; ++i) {
        auto f = distributor->enqueueWithFuture(task([i, &sum] { sum += i * 100; }));
        f.get();
        std::cout << "task " << i << " done, sum " << sum.load() << std::endl;
    }

    // A task that fails: its error comes back through the future.
    try {
        distributor->enqueueWithFuture(task([] { throw std::runtime_error("division by zero"); }))
            .get();
    } catch (RuntimeException const& e) {
        std::cout << "failing task: status " << e.getExecutionStatus() << ", \"" << e.what() << "\""
                  << std::endl;
    }

    // Keep the interpreter busy, then cancel a request that waits behind it.
    std::atomic<bool> release{false};
    auto busy = distributor->enqueueWithFuture(task([&release] {
        while (!release)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }));
    foundation::msg_svc::exchange::IDType const queuedId;
    auto queued = distributor->enqueueWithFuture(task([] {}), queuedId);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    std::thread releaser([&release] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        release = true;
    });
    auto status = distributor->cancelRequest(queuedId, false).get();
    std::cout << "cancel of a queued request: " << cancelName(status) << std::endl;
    try {
        queued.get();
    } catch (AlreadyCancelledException const& e) {
        std::cout << "  its future reports " << e.what() << std::endl;
    }
    releaser.join();
    busy.get();
    std::cout << "cancel of a finished request: "
              << cancelName(distributor->cancelRequest(queuedId, true).get()) << std::endl;

    // Code in the reference language: a value kept in the interpreter's workspace between
    // requests, a loop, a function and an error from inside it.
    evaluate(*distributor, u"primes = [2 3 5 7 11 13];");
    evaluate(*distributor, u"for p = primes(1:3), fprintf('%d squared is %d\\n', p, p^2); end");
    evaluate(*distributor, u"fprintf('sum of the primes: %d\\n', sum(primes))");
    evaluate(*distributor, u"half(7)\n"
                           u"function h = half(n)\n"
                           u"  if mod(n, 2), error('demo:odd', '%d is odd', n); end\n"
                           u"  h = n / 2;\n"
                           u"end");

    quorl::host::Host::stop();
    return 0;
}
