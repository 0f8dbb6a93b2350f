// A client that takes references from a server and then waits to be killed, never releasing
// them. Usage: refclient ENDPOINT. Runs code on the server in its own workspace that stores an
// object holding a token of the server's (refserver), prints "holding" once the reference has
// arrived, and blocks until it is killed. Exit code 1 if something fails.
#include <quorl/cmddistributor/cmddistributor.hpp>
#include <quorl/cmddistributor/evalcmdrequest.hpp>
#include <quorl/eventmgr/eventmgraccess.hpp>
#include <quorl/matrixref/matrixref.hpp>
#include <quorl/matrixref/matrixreftable.hpp>
#include <quorl/matrixref/refexternalform.hpp>
#include <quorl/workspace/clientworkspace.hpp>

#include <foundation/cppmicroservices/framework.hpp>
#include <foundation/msg_svc/exchange/exchangeapi.hpp>
#include <foundation/msg_svc/exchange/zmqtransport.hpp>

#include <boost/make_shared.hpp>

#include <iostream>
#include <string>
#include <unistd.h>

namespace {

bool anythingConverts(hvArray_tag const*) {
    return true;
}

} // namespace

int main(int argc, char** argv) {
    namespace ex = foundation::msg_svc::exchange;
    if (argc != 2) {
        std::cerr << "usage: refclient ENDPOINT\n";
        return 2;
    }
    std::string const endpoint = argv[1];
    try {
        foundation::cppmicroservices::startFramework();
        ex::ExchangeConfig config;
        config.name = "refclient-" + std::to_string(::getpid());
        config.transport = ex::makeZmqTransport();
        ex::ExchangeApi::configure(config);
        ex::ExchangeApi::instance();
        quorl::matrixref::detail::refInitMatrixReferences({}, &anythingConverts);

        auto distributor = cmddistributor::CmdDistributor::create(
            quorl::contextmgr::FennID{9}, endpoint, boost::none,
            quorl::eventmgr::createRemoteEventMgr(endpoint, boost::none, boost::none));
        auto ws = boost::make_shared<quorl::workspace::ClientWorkspace>();
        auto request = boost::make_shared<cmddistributor::EvalCmdRequest>(
            true, cmddistributor::UnsetIqmStreamID, ws, nullptr, nullptr,
            u"x = RefBox(7, liveToken());", cmddistributor::ConventionalType);
        auto done = distributor->enqueueWithFuture(request, ex::IDType());
        if (!done.timed_wait(boost::posix_time::seconds(30))) {
            std::cerr << "refclient: no completion\n";
            return 1;
        }
        done.get();
        auto x = ws->find("x");
        if (!x || !quorl::matrixref::refIsExternalRef(*x) ||
            quorl::matrixref::detail::refTable()->countActive(false) != 1) {
            std::cerr << "refclient: no reference arrived\n";
            return 1;
        }
        std::cout << "holding" << std::endl;
        for (;;)
            ::pause(); // held until killed
    } catch (std::exception const& e) {
        std::cerr << "refclient: " << e.what() << "\n";
        return 1;
    }
}
