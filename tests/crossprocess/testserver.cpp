// quorl-server with what the cross-process tests need besides the reference host: a packet type
// that loops until it is interrupted ("test_loop", announcing itself on its output), the ping
// subscriber and the tally actor.
#include <tests/crossprocess/testprotocol.hpp>
#include <tools/server/serverapp.hpp>

#include <quorl/host/packetexecution.hpp>
#include <quorl/host/packetrunner.hpp>
#include <quorl/host/host.hpp>

#include <boost/make_shared.hpp>

#include <chrono>
#include <thread>

namespace {

struct LoopRunner : quorl::host::PacketRunner {
    boost::shared_ptr<cmddistributor::IIPCompletedEvent>
    run(quorl::host::PacketExecution& execution) override {
        execution.output(quorl::io::StreamTypeEnum(0), u"looping\n");
        for (;;) {
            execution.safePoint();
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
};

} // namespace

int main(int argc, char** argv) {
    return quorl::server::runServer(argc, argv, [] {
        quorl::host::Host::registerRunner("test_loop", boost::make_shared<LoopRunner>());
        crossprocess::installServerSide();
    });
}
