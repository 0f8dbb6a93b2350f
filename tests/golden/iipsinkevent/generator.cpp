// Writes the golden archives of cmddistributor::IIPSinkEvent (version 1) into the folder given as
// the only argument, in text, XML and binary form, through a BaseEvent pointer ("event") as the
// exchange writes it, so that they carry the export key. Run it only when a new version is added.
#include <foundation/msg_svc/serialization/archives.hpp>

#include <quorl/cmddistributor/iipsinkevent.hpp>

#include <tests/golden/goldenwriter.hpp>

using foundation::msg_svc::eventmgr::BaseEvent;

int main(int argc, char** argv) {
    return quorl_golden::generatorMain(argc, argv, [](std::string const& folder) {
        cmddistributor::IIPSinkEvent event(foundation::msg_svc::exchange::IDType(1234567, 1001),
                                           quorl::io::ErrorStream, u"l\u00e4uft \U0001F600\r\n");
        quorl_golden::writeArchives(folder + "/iipsinkevent_v1", "event",
                                    static_cast<BaseEvent const*>(&event));
    });
}
