// Writes the seed corpus of exchange_fuzz_receive: real frames of the messages, replies and
// events that cross between exchanges. Usage: exchange_fuzz_seeds DIRECTORY
#include <fuzz/exchange/fuzzblobmessage.hpp>
#include <quorl/quorl.hpp>

#include <foundation/msg_svc/eventmgr/flushmessage.hpp>
#include <foundation/msg_svc/exchange/blockdedup.hpp>
#include <foundation/msg_svc/exchange/wire.hpp>

#include <boost/make_shared.hpp>

#include <fstream>
#include <iostream>

namespace wire = foundation::msg_svc::exchange::wire;
using foundation::msg_svc::eventmgr::SessionEmId;
using foundation::msg_svc::exchange::IDType;
using namespace cmddistributor;

namespace {

int written = 0;

void put(std::string const& dir, wire::FrameKind kind, std::string const& payload) {
    wire::Frame f;
    f.kind = kind;
    f.correlation = static_cast<std::uint64_t>(written + 1);
    f.queue = kind == wire::FrameKind::Message ? "noqueue" : "";
    f.payload = payload;
    std::ofstream(dir + "/seed-" + std::to_string(written++), std::ios::binary)
        << wire::encodeFrame(f);
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: exchange_fuzz_seeds DIRECTORY\n";
        return 2;
    }
    std::string const dir = argv[1];
    IDType const id;
    RuntimeException const failure(quorl::cmddistributor::ExecutionError, std::string("boom"),
                                   "test:boom", "f", {}, {});
    std::vector<boost::shared_ptr<foundation::msg_svc::eventmgr::BaseEvent const>> events{
        boost::make_shared<quorl::eventmgr::TARNShutdownEvent>(),
        boost::make_shared<IIPCompletedEvent>(id, quorl::cmddistributor::ExecutionSuccess),
        boost::make_shared<IIPCompletedEvent>(id, failure),
        boost::make_shared<IIPSinkEvent>(id, quorl::io::StreamTypeEnum(0), u"output text"),
    };
    auto const iip = boost::make_shared<IIP>("test_loop", UnsetIqmStreamID, nullptr, nullptr);
    std::vector<boost::shared_ptr<foundation::msg_svc::exchange::Message const>> messages{
        boost::make_shared<IIPCancelMessage>(id, true),
        boost::make_shared<IIPRunNowMessage>(id),
        boost::make_shared<IIPEnqueueMessage>(
            iip, id, quorl::contextmgr::FennID{3}, quorl::contextmgr::TarnID{4}, nullptr,
            quorl::cmddistributor::WhenToDequeue::DequeueDefault, true),
        boost::make_shared<foundation::msg_svc::eventmgr::detail::FlushMessage>(SessionEmId),
    };
    for (auto const& e : events) {
        messages.push_back(boost::make_shared<foundation::msg_svc::eventmgr::detail::EventMessage>(
            SessionEmId, e, 0));
        put(dir, wire::FrameKind::Failure, wire::encodeEvent(*e));
    }
    for (auto const& m : messages)
        put(dir, wire::FrameKind::Message, wire::encodeMessage(*m));
    put(dir, wire::FrameKind::Reply,
        wire::encodeReply(IIPCancelReply(IIPCancelReply::CancelAccepted)));
    put(dir, wire::FrameKind::Reply,
        wire::encodeReply(*foundation::msg_svc::exchange::Reply::defaultReply()));
    // A frame of blocks: the second of two equal blocks refers to the first (small blocks, so
    // that the input stays small); and the answer to a reference not held.
    {
        using foundation::msg_svc::exchange::BlockDedup;
        FuzzBlobMessage const blobs({std::string(200, 'b'), std::string(200, 'b'), "short"});
        std::vector<wire::BlockSpan> spans;
        std::string const frame =
            wire::encodeMessageFrame(wire::FrameKind::Message, 1, "noqueue", blobs, &spans, 64);
        BlockDedup sender(std::size_t(1) << 20);
        sender.send(
            "peer", std::string(frame), BlockDedup::hashBlocks(frame, spans), [&](std::string&& f) {
                std::ofstream(dir + "/seed-" + std::to_string(written++), std::ios::binary) << f;
            });
        put(dir, wire::FrameKind::BlockMissing, sender.missingPayload(42));
    }
    std::cout << written << " seeds in " << dir << "\n";
    return 0;
}
