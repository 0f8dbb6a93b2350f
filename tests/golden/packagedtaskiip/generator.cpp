// Writes the golden archives of cmddistributor::PackagedTaskIIP (version 1) into the folder given
// as the only argument, in text, XML and binary form, through an IIP pointer ("iip") as an
// enqueue message would write it. A task packet is never read back: the archives pin the form that
// is written and the refusal on reading. Run it only when a new version is added.
#include <foundation/msg_svc/serialization/archives.hpp>

#include <quorl/cmddistributor/packagedtaskiip.hpp>

#include <tests/golden/goldenwriter.hpp>

#include <boost/any.hpp>

int main(int argc, char** argv) {
    return quorl_golden::generatorMain(argc, argv, [](std::string const& folder) {
        cmddistributor::PackagedTaskIIP task([] { return boost::any(); }, nullptr, nullptr);
        quorl_golden::writeArchives(folder + "/packagedtaskiip_v1", "iip",
                                    static_cast<cmddistributor::IIP const*>(&task));
    });
}
