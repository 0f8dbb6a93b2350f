// Feeds arbitrary bytes to the data-array reader. Bytes it accepts must write back and read
// again to an equal array.
#include "protobufdataarrayserializer.hpp"

#include <cstdlib>
#include <sstream>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    quorl::dataarray::ProtobufDataArraySerializer serializer;
    std::istringstream in(std::string(reinterpret_cast<const char*>(data), size));
    foundation::extdata::Array array;
    try {
        array = serializer.deserializeDataArray(in);
    } catch (const std::runtime_error&) {
        return 0;
    }
    std::ostringstream out;
    serializer.serializeDataArray(array, out);
    std::istringstream again(out.str());
    if (!(serializer.deserializeDataArray(again) == array)) {
        std::abort();
    }
    return 0;
}
