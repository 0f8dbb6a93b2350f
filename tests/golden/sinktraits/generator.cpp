// Writes the golden archives of quorl::io::SinkTraits (version 1) into the folder given as the
// only argument, in text, XML and binary form, as "traits". Paging is on in what is written, so
// that a reader shows that it drops it. Run it only when a new version is added.
#include <foundation/msg_svc/serialization/archives.hpp>

#include <quorl/io/sinktraits.hpp>

#include <boost/make_shared.hpp>

#include <fstream>
#include <iostream>

namespace {

class GoldenSink : public quorl::io::VeldraSink {
public:
    bool supportsMore() const override { return true; }
    bool needsFormattingForDisplay() const override { return true; }
    bool useEcho() const override { return true; }
    bool useLogging() const override { return true; }
};

template <class Archive>
void writeTo(std::string const& path, std::ios::openmode mode, quorl::io::SinkTraits const& t) {
    std::ofstream os(path, mode);
    Archive a(os);
    a << boost::serialization::make_nvp("traits", t);
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: " << argv[0] << " <folder for the golden archives>\n";
        return 2;
    }
    std::string const base = std::string(argv[1]) + "/sinktraits_v1";
    try {
        quorl::io::SinkTraits const traits(boost::make_shared<GoldenSink>());
        writeTo<boost::archive::text_oarchive>(base + ".txt", std::ios::out, traits);
        writeTo<boost::archive::xml_oarchive>(base + ".xml", std::ios::out, traits);
        writeTo<boost::archive::binary_oarchive>(base + ".bin", std::ios::binary, traits);
    } catch (std::exception const& e) {
        std::cerr << "golden archives not written: " << e.what() << '\n';
        return 1;
    }
    return 0;
}
