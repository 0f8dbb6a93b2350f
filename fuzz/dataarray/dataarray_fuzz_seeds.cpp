// Writes a seed corpus for dataarray_fuzz_deserialize into the folder given as argument.
#include "protobufdataarrayserializer.hpp"

#include <fstream>
#include <iostream>

using foundation::extdata::Array;

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: dataarray_fuzz_seeds FOLDER\n";
        return 2;
    }
    std::vector<Array> seeds{
        Array::create<double>({2, 2}, {1, 2, 3, 4}),
        Array::createLogical({1, 3}, {true, false, true}),
        Array::createChar(u"seed"),
        Array::createString({1, 2}, {u"a", u"bc"}),
        Array::createCell({1, 2}, {Array::createScalar<std::int16_t>(3), Array()}),
        Array::createStruct({1, 1}, {"f", "g"},
                            {Array::createScalar(1.0f), Array::createChar(u"x")}),
    };
    quorl::dataarray::ProtobufDataArraySerializer serializer;
    for (std::size_t i = 0; i < seeds.size(); ++i) {
        std::ofstream out(std::string(argv[1]) + "/seed" + std::to_string(i), std::ios::binary);
        serializer.serializeDataArray(seeds[i], out);
        if (!out) {
            std::cerr << "cannot write seed " << i << "\n";
            return 1;
        }
    }
    return 0;
}
