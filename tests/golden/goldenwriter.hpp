#pragma once
// What the golden-archive generators share: writing one object, through a pointer as the
// exchange writes it (or by value), into <base>.txt and <base>.xml (and <base>.bin), and the
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

// The same for an object written by value, as a field of its owner would be.
template <class Archive, class T>
void writeValue(std::string const& path, std::ios::openmode mode, char const* name,
                T const& value) {
    std::ofstream os(path, mode);
    Archive a(os);
    a << boost::serialization::make_nvp(name, value);
}

template <class T>
void writeValueArchives(std::string const& base, char const* name, T const& value) {
    writeValue<boost::archive::text_oarchive>(base + ".txt", std::ios::out, name, value);
    writeValue<boost::archive::xml_oarchive>(base + ".xml", std::ios::out, name, value);
    writeValue<boost::archive::binary_oarchive>(base + ".bin", std::ios::binary, name, value);
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
