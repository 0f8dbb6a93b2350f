// Writes quorl::matrixref::ReleaseRefMessage of version 1 (tag 4660) through a Message pointer,
// as the exchange writes it, into releaserefmessage.v1.txt, .xml and .bin.
#include <tests/golden/goldenwriter.hpp>

#include <foundation/msg_svc/serialization/archives.hpp>

#include <quorl/matrixref/releaserefmessage.hpp>

int main(int argc, char** argv) {
    return quorl_golden::generatorMain(argc, argv, [](std::string const& dir) {
        quorl::matrixref::ReleaseRefMessage const message(4660);
        quorl_golden::writeArchives(
            dir + "/releaserefmessage.v1", "object",
            static_cast<foundation::msg_svc::exchange::Message const*>(&message));
    });
}
