#include <quorl/host/evalrunner.hpp>
#include <quorl/host/packetexecution.hpp>
#include <quorl/host/packetinterrupted.hpp>

#include <quorl/cmddistributor/evaliip.hpp>
#include <quorl/contextmgr/contextregistry.hpp>
#include <quorl/language/customworkspaceadapter.hpp>
#include <quorl/language/interpreter.hpp>
#include <quorl/matrixref/matrixref.hpp>
#include <quorl/matrixref/refexternalform.hpp>
#include <quorl/workspace/localvariableprovider.hpp>

#include <quorl/utils/fennmutex.hpp>

#include <foundation/msg_svc/exchange/exchangeapi.hpp>
#include <foundation/msg_svc/threadutil/releasecountedmutexguard.hpp>

#include <fl/i18n/conversions.hpp>

#include <boost/make_shared.hpp>

#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <thread>
#include <vector>

namespace quorl {
namespace host {

using ::cmddistributor::IIPCompletedEvent;
using ::cmddistributor::RuntimeException;

namespace {

// Collects what the language writes to one stream and hands it to the packet as an output event
// at every sync (the language syncs after each piece it writes) and at the end. Events are
// delivered under the fenn mutex, which the evaluation holds: at a sync the runner waits until
// the text has reached its sink (the wait gives the mutex up), so output streams while the code
// runs on.
class PacketStreamBuf : public std::basic_streambuf<char16_t> {
public:
    PacketStreamBuf(PacketExecution const& execution, io::StreamTypeEnum stream)
        : execution_(execution), stream_(stream) {}

    // Sends what is pending, without waiting for its delivery.
    bool send() {
        if (pending_.empty())
            return false;
        ustring text;
        text.swap(pending_);
        execution_.output(stream_, text);
        return true;
    }

protected:
    std::streamsize xsputn(char16_t const* s, std::streamsize n) override {
        pending_.append(s, static_cast<std::size_t>(n));
        return n;
    }
    int_type overflow(int_type c) override {
        if (!traits_type::eq_int_type(c, traits_type::eof()))
            pending_.push_back(traits_type::to_char_type(c));
        return traits_type::not_eof(c);
    }
    int sync() override {
        if (send() && execution_.getEventMgr()) {
            try {
                execution_.getEventMgr()->flush();
            } catch (std::exception const&) {
                // The text was published; only the wait for it failed. The completion follows
                // it on the same road, so nothing is lost by running on.
            }
        }
        return 0;
    }

private:
    PacketExecution const& execution_;
    io::StreamTypeEnum stream_;
    ustring pending_;
};

// The folders of QUORL_PATH (separated by ':'), where function files are looked for.
std::vector<std::string> searchPathFromEnvironment() {
    std::vector<std::string> folders;
    char const* path = std::getenv("QUORL_PATH");
    for (std::string rest = path ? path : ""; !rest.empty();) {
        std::size_t const colon = rest.find(':');
        if (colon != 0)
            folders.push_back(rest.substr(0, colon));
        rest = colon == std::string::npos ? std::string() : rest.substr(colon + 1);
    }
    return folders;
}

// Values with no external form of their own, written to a client's workspace in another
// process, go as references to arrays held here; references coming back resolve to them.
language::ExternalBorder const& remoteBorder() {
    static language::ExternalBorder const border = [] {
        language::ExternalBorder b;
        b.toExternal = [](hvArray const* value) {
            HvArrayPtr ref(hvCreateSharedDataCopy(value));
            if (!matrixref::refIsRef(ref)) {
                // The client knows this side by the name of its exchange.
                std::string error;
                ref = matrixref::refCopyAndConvertArray(
                    ref,
                    matrixref::refExchangeTarn(
                        foundation::msg_svc::exchange::ExchangeApi::instance()->getExchangeName()),
                    contextmgr::ContextRegistry::getTarnID(), error);
                if (!ref)
                    throw language::LanguageError(language::errid::wrongType, error);
            }
            // Plain: the conversion's count stands for the client until it releases it.
            foundation::extdata::Array form = matrixref::refToExternal(ref, false);
            if (form.getType() == foundation::extdata::UNKNOWN)
                throw language::LanguageError(language::errid::wrongType,
                                              "A reference to nothing cannot be stored.");
            return form;
        };
        b.fromExternal = [](foundation::extdata::Array const& value) {
            return matrixref::refIsExternalRef(value) ? matrixref::refFromExternal(value)
                                                      : HvArrayPtr();
        };
        return b;
    }();
    return border;
}

} // namespace

language::Interpreter& EvalRunner::threadInterpreter() {
    thread_local std::unique_ptr<language::Interpreter> interpreter;
    if (!interpreter) {
        interpreter = std::make_unique<language::Interpreter>();
        interpreter->setSearchPath(searchPathFromEnvironment());
    }
    return *interpreter;
}

EvalRunner::EvalRunner() {
    // The reference table's metrics, for code and for those who watch the host's references.
    language::registerHostFunction("refMetrics", &matrixref::detail::refMetrics);
}

RuntimeException EvalRunner::toRuntimeException(language::LanguageError const& e) {
    std::vector<RuntimeException::StackFrame> frames;
    frames.reserve(e.stack().size());
    for (auto const& frame : e.stack()) {
        // Filled in place: GCC 12 sees a moved-from temporary ustring as uninitialized.
        frames.emplace_back();
        frames.back().file = fl::i18n::to_ustring(frame.file);
        frames.back().func = frame.function;
        frames.back().line = static_cast<double>(frame.line);
    }
    std::vector<RuntimeException> causes;
    causes.reserve(e.causes().size());
    for (auto const& cause : e.causes())
        causes.push_back(toRuntimeException(cause));
    std::string function = e.stack().empty() ? std::string() : e.stack().front().function;
    return RuntimeException(cmddistributor::ExecutionError, e.message(), e.identifier(),
                            std::move(function), std::move(frames), std::move(causes));
}

boost::shared_ptr<IIPCompletedEvent> EvalRunner::run(PacketExecution& execution) {
    auto packet = boost::dynamic_pointer_cast<::cmddistributor::EvalIIP>(execution.getIIP());
    if (!packet)
        throw std::invalid_argument("not an eval packet.");
    std::string const code = fl::i18n::to_string(packet->getCommand());

    PacketStreamBuf out(execution, io::OutputStream);
    PacketStreamBuf err(execution, io::ErrorStream);
    language::EvalIo io;
    io.out = &out;
    io.err = &err;
    io.interrupt = &execution.interruptFlag();
    // Code that prints nothing would hold the fenn mutex to its end: let waiting threads in now
    // and then. Interrupts are the language's own polls, which end the evaluation cleanly.
    io.safePoint = [] {
        foundation::msg_svc::threadutil::ReleaseCountedMutexGuard release(utils::getFennMutex());
        if (release.releasedDepth())
            std::this_thread::yield();
    };

    language::Interpreter& interpreter = threadInterpreter();
    try {
        if (auto client = packet->getExternalWorkspace()) {
            bool const remote =
                boost::dynamic_pointer_cast<workspace::LocalVariableProvider>(client) != nullptr;
            language::CustomWorkspaceAdapter workspace(*client, remote ? &remoteBorder() : nullptr);
            interpreter.evaluate(code, workspace, io);
        } else {
            interpreter.evaluate(code, io);
        }
    } catch (language::InterruptedError const&) {
        out.send();
        err.send();
        throw PacketInterrupted();
    } catch (language::LanguageError const& e) {
        out.send();
        err.send();
        throw toRuntimeException(e);
    }
    out.send();
    err.send();
    return boost::make_shared<IIPCompletedEvent>(execution.getId(),
                                                 cmddistributor::ExecutionSuccess);
}

} // namespace host
} // namespace quorl
