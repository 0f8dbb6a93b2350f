// Writes the golden archives of quorl::io::SinkTextEvent, made in a context whose request id is
// 7654321:9 (version 1) into the folder given as the only argument, in text, XML and binary form,
// through a BaseEvent pointer ("event") as the exchange writes it, so that they carry the export
// key. Run it only when a new version is added.
#include <foundation/msg_svc/serialization/archives.hpp>

#include <quorl/io/sinktextevent.hpp>

#include <foundation/usm/context.hpp>

#include <tests/golden/goldenwriter.hpp>

using foundation::msg_svc::eventmgr::BaseEvent;

int main(int argc, char** argv) {
    return quorl_golden::generatorMain(argc, argv, [](std::string const& folder) {
        foundation::usm::ContextScope scope(foundation::usm::Context::create("golden"));
        cmddistributor::RequestIdAdapter::setRequestId(
            foundation::msg_svc::exchange::IDType(7654321, 9));
        quorl::io::SinkTextEvent event(quorl::io::ErrorStream, u"Error: x is undefined.\n");
        quorl_golden::writeArchives(folder + "/sinktextevent_v1", "event",
                                    static_cast<BaseEvent const*>(&event));
    });
}
