// Writes the golden archives of quorl::io::SinkTraits (version 1) into the folder given as the
// only argument, in text, XML and binary form, as "traits". Paging is on in what is written, so
// that a reader shows that it drops it. Run it only when a new version is added.
#include <foundation/msg_svc/serialization/archives.hpp>

#include <quorl/io/sinktraits.hpp>

#include <tests/golden/goldenwriter.hpp>

#include <boost/make_shared.hpp>

namespace {

class GoldenSink : public quorl::io::VeldraSink {
public:
    bool supportsMore() const override { return true; }
    bool needsFormattingForDisplay() const override { return true; }
    bool useEcho() const override { return true; }
    bool useLogging() const override { return true; }
};

} // namespace

int main(int argc, char** argv) {
    return quorl_golden::generatorMain(argc, argv, [](std::string const& folder) {
        quorl::io::SinkTraits const traits(boost::make_shared<GoldenSink>());
        quorl_golden::writeValueArchives(folder + "/sinktraits_v1", "traits", traits);
    });
}
