#pragma once
// What the golden-archive generators share: writing one object, through a pointer as the
// exchange writes it, into <base>.txt and <base>.xml (and <base>.bin when asked), and the
// command line of a generator (one argument: the folder to write into).
#include <boost/archive/binary_oarchive.hpp>
#include <boost/archive/text_oarchive.hpp>
#include <boost/archive/xml_oarchive.hpp>
#include <boost/serialization/nvp.hpp>

#include <exception>
#include <fstream>
#include <functional>
#include <iostream>
#include <string>

namespace quorl_golden {

template <class Archive, class T>
void writeOne(std::string const& path, std::ios::openmode mode, char const* name, T const* object) {
    std::ofstream os(path, mode);
    Archive a(os);
    a << boost::serialization::make_nvp(name, object);
}

template <class T>
void writeArchives(std::string const& base, char const* name, T const* object,
                   bool withBinary = true) {
    writeOne<boost::archive::text_oarchive>(base + ".txt", std::ios::out, name, object);
    writeOne<boost::archive::xml_oarchive>(base + ".xml", std::ios::out, name, object);
    if (withBinary)
        writeOne<boost::archive::binary_oarchive>(base + ".bin", std::ios::binary, name, object);
}

// Runs `write` with the folder named on the command line; reports failures on stderr.
inline int generatorMain(int argc, char** argv, std::function<void(std::string const&)> write) {
    if (argc != 2) {
        std::cerr << "usage: " << argv[0] << " <folder for the golden archives>\n";
        return 2;
    }
    try {
        write(argv[1]);
    } catch (std::exception const& e) {
        std::cerr << "golden archives not written: " << e.what() << '\n';
        return 1;
    }
    return 0;
}

} // namespace quorl_golden
