// Writes the golden archives of cmddistributor::PackagedTaskIIP (version 1) into the folder given
// as the only argument, in text, XML and binary form, through an IIP pointer ("iip") as an
// enqueue message would write it. A task packet is never read back: the archives pin the form that
// is written and the refusal on reading. Run it only when a new version is added.
#include <foundation/msg_svc/serialization/archives.hpp>

#include <quorl/cmddistributor/packagedtaskiip.hpp>

#include <boost/any.hpp>

#include <fstream>
#include <iostream>

namespace {

template <class Archive>
void writeTo(std::string const& path, std::ios::openmode mode, cmddistributor::IIP const* iip) {
    std::ofstream os(path, mode);
    Archive a(os);
    a << boost::serialization::make_nvp("iip", iip);
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: " << argv[0] << " <folder for the golden archives>\n";
        return 2;
    }
    std::string const base = std::string(argv[1]) + "/packagedtaskiip_v1";
    try {
        cmddistributor::PackagedTaskIIP task([] { return boost::any(); }, nullptr, nullptr);
        writeTo<boost::archive::text_oarchive>(base + ".txt", std::ios::out, &task);
        writeTo<boost::archive::xml_oarchive>(base + ".xml", std::ios::out, &task);
        writeTo<boost::archive::binary_oarchive>(base + ".bin", std::ios::binary, &task);
    } catch (std::exception const& e) {
        std::cerr << "golden archives not written: " << e.what() << '\n';
        return 1;
    }
    return 0;
}
