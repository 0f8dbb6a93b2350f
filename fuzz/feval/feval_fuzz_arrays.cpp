// libFuzzer target: the readers of function-call arguments and results from another process,
// deserializeHvArrays and the EDI payload list (EDIDataWrapper) under the guarded archive. What
// one of them accepts must write back and read again to equal values.
#include <fuzz/feval/fevalfuzzinput.hpp>

#include <quorl/cmddistributor/edidatawrapper.hpp>
#include <quorl/cmddistributor/fevalarrays.hpp>

#include <foundation/cppmicroservices/framework.hpp>
#include <foundation/msg_svc/serialization/guardediarchive.hpp>

#include <boost/archive/binary_oarchive.hpp>
#include <boost/serialization/nvp.hpp>

#include <cstdlib>
#include <sstream>

namespace qd = quorl::cmddistributor::detail;
using quorl::cmddistributor::EDIDataWrapper;

namespace {

void hvBytes(const std::uint8_t* data, std::size_t size) {
    auto vectors = feval_fuzz::splitVectors(data, size);
    std::vector<hvArray*> arrays;
    try {
        arrays = qd::deserializeHvArrays(vectors);
    } catch (std::exception const&) {
        return;
    }
    std::vector<std::vector<std::uint8_t>> again;
    try {
        again = qd::serializeHvArrays(std::vector<const hvArray*>(arrays.begin(), arrays.end()));
    } catch (std::runtime_error const&) {
        qd::nullSafeHvVecDestroy(arrays); // a class that loads but cannot be saved
        return;
    }
    std::vector<hvArray*> back = qd::deserializeHvArrays(again);
    if (back.size() != arrays.size())
        std::abort();
    for (std::size_t i = 0; i < arrays.size(); ++i) {
        if (!arrays[i] || !back[i]) { // a null argument travels as null
            if (arrays[i] != back[i])
                std::abort();
            continue;
        }
        if (hvGetClassID(arrays[i]) != hvGetClassID(back[i]) ||
            hvGetNumberOfElements(arrays[i]) != hvGetNumberOfElements(back[i]))
            std::abort();
    }
    qd::nullSafeHvVecDestroy(arrays);
    qd::nullSafeHvVecDestroy(back);
}

void ediPayloads(const std::uint8_t* data, std::size_t size) {
    EDIDataWrapper wrapper;
    try {
        foundation::msg_svc::serialization::GuardedIArchive::Buffer buffer(
            reinterpret_cast<const char*>(data), size);
        std::istream in(&buffer);
        foundation::msg_svc::serialization::PolymorphicGuardedIArchive archive(
            in, boost::archive::no_header);
        static_cast<boost::archive::polymorphic_iarchive&>(archive) >>
            boost::serialization::make_nvp("object", wrapper);
    } catch (std::exception const&) {
        return;
    }
    std::ostringstream out;
    {
        boost::archive::binary_oarchive archive(out, boost::archive::no_header);
        archive << boost::serialization::make_nvp("object", wrapper);
    }
    std::string const bytes = out.str();
    EDIDataWrapper again;
    foundation::msg_svc::serialization::GuardedIArchive::Buffer buffer(bytes.data(), bytes.size());
    std::istream in(&buffer);
    foundation::msg_svc::serialization::PolymorphicGuardedIArchive archive(
        in, boost::archive::no_header);
    static_cast<boost::archive::polymorphic_iarchive&>(archive) >>
        boost::serialization::make_nvp("object", again);
    if (!(*again.getData() == *wrapper.getData()))
        std::abort();
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    foundation::cppmicroservices::startFramework(); // the data-array plug-in of the build
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0)
        return 0;
    if (data[0] == feval_fuzz::HvBytes)
        hvBytes(data + 1, size - 1);
    else if (data[0] == feval_fuzz::EdiPayloads)
        ediPayloads(data + 1, size - 1);
    return 0;
}
