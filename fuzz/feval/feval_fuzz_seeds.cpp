// Writes the seed corpus of feval_fuzz_arrays into the folder given: argument byte vectors of a
// few kinds, and EDI payload lists.
#include <fuzz/feval/fevalfuzzinput.hpp>

#include <quorl/cmddistributor/edidatawrapper.hpp>
#include <quorl/cmddistributor/fevalarrays.hpp>

#include <foundation/cppmicroservices/framework.hpp>

#include <boost/archive/binary_oarchive.hpp>
#include <boost/serialization/nvp.hpp>

#include <fstream>
#include <iostream>
#include <sstream>

using foundation::extdata::Array;

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: feval_fuzz_seeds FOLDER\n";
        return 2;
    }
    std::string const folder = argv[1];
    auto save = [&](std::string const& name, std::string const& bytes) {
        std::ofstream(folder + "/" + name, std::ios::binary) << bytes;
    };

    hvArray* cell = hvCreateCellMatrix(1, 2);
    hvSetCell(cell, 0, hvCreateString("text"));
    hvSetCell(cell, 1, hvCreateDoubleScalar(3));
    const char* names[] = {"a", "b"};
    hvArray* s = hvCreateStructMatrix(1, 1, 2, names);
    hvSetField(s, 0, "a", hvCreateNumericMatrix(hvINT32_CLASS, 2, 2));
    std::vector<const hvArray*> arrays{hvCreateDoubleScalar(1.5), nullptr, cell, s,
                                       hvCreateLogicalScalar(true)};
    save("hv-mixed",
         feval_fuzz::joinVectors(quorl::cmddistributor::detail::serializeHvArrays(arrays)));
    quorl::cmddistributor::detail::nullSafeHvConstVecDestroy(arrays);

    foundation::cppmicroservices::startFramework();
    auto edi = [&](std::string const& name, std::vector<Array> const& values) {
        std::ostringstream out;
        out << char(feval_fuzz::EdiPayloads);
        {
            boost::archive::binary_oarchive archive(out, boost::archive::no_header);
            quorl::cmddistributor::EDIDataWrapper wrapper(values);
            archive << boost::serialization::make_nvp("object", wrapper);
        }
        save(name, out.str());
    };
    edi("edi-empty", {});
    edi("edi-mixed", {Array::createScalar(2.0), Array::createChar(u"abc"),
                      Array::createCell({1, 2}, {Array::createScalar(1.0), Array()})});
    return 0;
}
