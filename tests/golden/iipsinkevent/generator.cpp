// Writes the golden archives of cmddistributor::IIPSinkEvent (version 1) into the folder given as
// the only argument, in text, XML and binary form, through a BaseEvent pointer ("event") as the
// exchange writes it, so that they carry the export key. Run it only when a new version is added.
#include <foundation/msg_svc/serialization/archives.hpp>

#include <quorl/cmddistributor/iipsinkevent.hpp>

#include <fstream>
#include <iostream>

namespace {

using foundation::msg_svc::eventmgr::BaseEvent;

template <class Archive>
void writeTo(std::string const& path, std::ios::openmode mode, BaseEvent const* event) {
    std::ofstream os(path, mode);
    Archive a(os);
    a << boost::serialization::make_nvp("event", event);
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: " << argv[0] << " <folder for the golden archives>\n";
        return 2;
    }
    std::string const base = std::string(argv[1]) + "/iipsinkevent_v1";
    try {
        cmddistributor::IIPSinkEvent event(foundation::msg_svc::exchange::IDType(1234567, 1001),
                                           quorl::io::ErrorStream, u"l\u00e4uft \U0001F600\r\n");
        writeTo<boost::archive::text_oarchive>(base + ".txt", std::ios::out, &event);
        writeTo<boost::archive::xml_oarchive>(base + ".xml", std::ios::out, &event);
        writeTo<boost::archive::binary_oarchive>(base + ".bin", std::ios::binary, &event);
    } catch (std::exception const& e) {
        std::cerr << "golden archives not written: " << e.what() << '\n';
        return 1;
    }
    return 0;
}
