#pragma once
// A client of one context of a quorl-server: eval requests through a distributor made for the
// server's exchange, with sinks that record their text. For tests; any thread.
#include <tests/support/textbuffer.hpp>

#include <quorl/cmddistributor/cmddistributor.hpp>
#include <quorl/cmddistributor/evalcmdrequest.hpp>
#include <quorl/cmddistributor/runtimeexception.hpp>
#include <quorl/eventmgr/eventmgraccess.hpp>
#include <quorl/io/veldrasink.hpp>
#include <quorl/workspace/clientworkspace.hpp>

#include <boost/make_shared.hpp>
#include <boost/weak_ptr.hpp>
#include <gtest/gtest.h>

#include <thread>

namespace quorl_testing {

using cmddistributor::CmdDistributor;
using cmddistributor::EvalCmdRequest;
using cmddistributor::RuntimeException;
using foundation::msg_svc::exchange::IDType;
using quorl::contextmgr::FennID;
using quorl::workspace::ClientWorkspace;

struct Sink {
    boost::shared_ptr<TextBuffer> buffer = boost::make_shared<TextBuffer>();
    boost::shared_ptr<quorl::io::VeldraSink> sink =
        boost::make_shared<quorl::io::VeldraSink>(buffer);
};

// A client of one server context.
class Remote {
public:
    Remote(std::string const& endpoint, int fenn)
        : distributor_(CmdDistributor::create(
              FennID{fenn}, endpoint, boost::none,
              quorl::eventmgr::createRemoteEventMgr(endpoint, boost::none, boost::none))) {}
    // Waits until the distributor is gone: a handler of its events (a failed peer's, say) may
    // hold it for a moment, and must not be left destroying it while the process ends.
    ~Remote() {
        boost::weak_ptr<CmdDistributor> const gone = distributor_;
        distributor_.reset();
        while (!gone.expired())
            std::this_thread::yield();
    }
    Remote(Remote const&) = delete;
    Remote& operator=(Remote const&) = delete;

    CmdDistributor& distributor() { return *distributor_; }

    // Enqueues code, in the server's workspace when `ws` is null.
    boost::unique_future<void> start(std::u16string const& code, IDType const& id,
                                     boost::shared_ptr<ClientWorkspace> const& ws = nullptr,
                                     Sink* out = nullptr, Sink* err = nullptr) {
        auto request = boost::make_shared<EvalCmdRequest>(
            true, cmddistributor::UnsetIqmStreamID, ws, out ? out->sink : nullptr,
            err ? err->sink : nullptr, code, cmddistributor::ConventionalType);
        return distributor_->enqueueWithFuture(request, id);
    }
    void eval(std::u16string const& code, boost::shared_ptr<ClientWorkspace> const& ws = nullptr,
              Sink* out = nullptr) {
        auto f = start(code, IDType(), ws, out);
        finish(f);
    }
    static void finish(boost::unique_future<void>& f) {
        ASSERT_TRUE(f.timed_wait(boost::posix_time::seconds(30))) << "no completion";
        f.get();
    }
    RuntimeException failure(std::u16string const& code) {
        try {
            eval(code);
        } catch (RuntimeException const& e) {
            return e;
        }
        ADD_FAILURE() << "the code ended without an error";
        return RuntimeException();
    }

private:
    boost::shared_ptr<CmdDistributor> distributor_;
};

// The execution status a request's future ends with; -1 for success, -3 for no end in time.
inline int statusOf(boost::unique_future<void>& f) {
    if (!f.timed_wait(boost::posix_time::seconds(30)))
        return -3;
    try {
        f.get();
    } catch (RuntimeException const& e) {
        return static_cast<int>(e.getExecutionStatus());
    } catch (...) {
        return -2;
    }
    return -1;
}

} // namespace quorl_testing
