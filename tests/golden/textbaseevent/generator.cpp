// Writes the golden archives of quorl::io::TextBaseEvent, made in a context whose request id is
// 1234567:42 and with one user tag (version 1) into the folder given as the only argument, in text,
// XML and binary form, through a BaseEvent pointer ("event") as the exchange writes it, so that
// they carry the export key. Run it only when a new version is added.
#include <foundation/msg_svc/serialization/archives.hpp>

#include <quorl/io/textbaseevent.hpp>

#include <foundation/usm/context.hpp>

#include <tests/golden/goldenwriter.hpp>

using foundation::msg_svc::eventmgr::BaseEvent;

int main(int argc, char** argv) {
    return quorl_golden::generatorMain(argc, argv, [](std::string const& folder) {
        foundation::usm::ContextScope scope(foundation::usm::Context::create("golden"));
        cmddistributor::RequestIdAdapter::setRequestId(
            foundation::msg_svc::exchange::IDType(1234567, 42));
        quorl::io::TextBaseEvent event(quorl::io::OutputStream,
                                       u"caf\u00e9 \U0001F600 <b>&amp;\"\n");
        event.addTag(u"golden");
        quorl_golden::writeArchives(folder + "/textbaseevent_v1", "event",
                                    static_cast<BaseEvent const*>(&event));
    });
}
