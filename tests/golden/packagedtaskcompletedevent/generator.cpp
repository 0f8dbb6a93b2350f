// Writes the golden archives of cmddistributor::PackagedTaskCompletedEvent (version 2) into the
// folder given as the only argument, in text, XML and binary form, through a BaseEvent pointer
// ("event") as the exchange writes it: one with an int result, one with an error and no result.
// A task's completion is never read back: the archives pin the form that is written and the
// refusal on reading. Run it only when a new version is added.
#include <foundation/msg_svc/serialization/archives.hpp>

#include <quorl/cmddistributor/packagedtaskcompletedevent.hpp>

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

void writeAll(std::string const& base, BaseEvent const& event) {
    writeTo<boost::archive::text_oarchive>(base + ".txt", std::ios::out, &event);
    writeTo<boost::archive::xml_oarchive>(base + ".xml", std::ios::out, &event);
    writeTo<boost::archive::binary_oarchive>(base + ".bin", std::ios::binary, &event);
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: " << argv[0] << " <folder for the golden archives>\n";
        return 2;
    }
    std::string const folder = argv[1];
    try {
        foundation::msg_svc::exchange::IDType const id(1234567, 1001);
        writeAll(folder + "/packagedtaskcompletedevent_v2_int",
                 cmddistributor::PackagedTaskCompletedEvent(id, boost::any(42)));
        writeAll(
            folder + "/packagedtaskcompletedevent_v2_error",
            cmddistributor::PackagedTaskCompletedEvent(
                id, cmddistributor::RuntimeException(quorl::cmddistributor::ExecutionError,
                                                     std::string("task failed"), "", "", {}, {})));
    } catch (std::exception const& e) {
        std::cerr << "golden archives not written: " << e.what() << '\n';
        return 1;
    }
    return 0;
}
