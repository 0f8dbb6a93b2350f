#pragma once
// quorl::cmddistributor::DataArrayPayload: the archive form of foundation::extdata::Array values
// in messages. A list is "NoOfElement" and then, per array, "PayLoadLength" and that many bytes
// made by the data-array serialization service, written by the archive's binary operation; a
// single array is one "PayLoadLength" and its bytes. The same in every archive family.
// A foundation::extdata::Array field (`ar & make_nvp("value", array)`) takes the single form.
//
// In text and XML the bytes go through the archive's own binary encoding (base64), whose reader
// stops at the first white space after the bytes. In XML only the end of an enclosing element is
// sure to put one there, so a payload must be written inside an element: every class body and
// every Array field is one; a payload written straight at the top of an XML archive does not
// read back.
//
// Stateless; any thread. Both directions first look up the service and raise std::runtime_error
// "Missing Veldra Data Array serialization support." without it, before touching the archive.
// Writing drops a std::runtime_error of the service and writes what the stream holds; reading
// passes on what the service or the archive raise. A zero length reads as a default-constructed
// Array and ends a list at once.
#include <quorl/cmddistributor/veldradataarrayserializationservice.hpp>

#include <foundation/msg_svc/serialization/guardediarchive.hpp>

#include <boost/archive/polymorphic_iarchive.hpp>
#include <boost/serialization/level.hpp>
#include <boost/serialization/nvp.hpp>
#include <boost/serialization/split_free.hpp>
#include <boost/serialization/tracking.hpp>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

namespace quorl {
namespace cmddistributor {

class DataArrayPayload {
public:
    // The service, or std::runtime_error when there is none.
    static std::shared_ptr<VeldraDataArraySerializationService> requireService() {
        auto service = getVeldraDataArraySerializationService();
        if (!service) {
            throw std::runtime_error("Missing Veldra Data Array serialization support.");
        }
        return service;
    }

    template <class Archive>
    static void saveList(Archive& ar, const std::vector<foundation::extdata::Array>& arrays) {
        auto service = requireService();
        std::uint64_t count = arrays.size();
        ar << boost::serialization::make_nvp("NoOfElement", count);
        for (auto& a : arrays) {
            saveBytes(ar, *service, a);
        }
    }

    template <class Archive>
    static void loadList(Archive& ar, std::vector<foundation::extdata::Array>& arrays) {
        auto service = requireService();
        std::uint64_t count = 0;
        ar >> boost::serialization::make_nvp("NoOfElement", count);
        for (std::uint64_t i = 0; i < count; ++i) {
            arrays.push_back(loadBytes(ar, *service));
            if (arrays.back().getType() == 0) {
                break; // a zero length ends the list, whatever the count said
            }
        }
    }

    template <class Archive>
    static void saveOne(Archive& ar, const foundation::extdata::Array& array) {
        auto service = requireService();
        saveBytes(ar, *service, array);
    }

    template <class Archive> static foundation::extdata::Array loadOne(Archive& ar) {
        auto service = requireService();
        return loadBytes(ar, *service);
    }

private:
    template <class Archive>
    static void saveBytes(Archive& ar, VeldraDataArraySerializationService& service,
                          const foundation::extdata::Array& array) {
        std::ostringstream out;
        try {
            service.serializeDataArray(array, out);
        } catch (const std::runtime_error&) {
            // An array the service cannot write travels with what was written, usually nothing.
        }
        auto bytes = out.str();
        std::uint64_t length = bytes.size();
        ar << boost::serialization::make_nvp("PayLoadLength", length);
        if (length) {
            ar.save_binary(bytes.data(), bytes.size());
        }
    }

    // Whether `ar` is the guarded archive that reads bytes from another process (whose binary
    // blocks may be read in pieces; text and XML blocks may not).
    template <class Archive> static bool readsBytesFromOutside(Archive& ar) {
        using foundation::msg_svc::serialization::GuardedIArchive;
        if constexpr (std::is_base_of<boost::archive::polymorphic_iarchive, Archive>::value)
            return dynamic_cast<
                       boost::archive::detail::polymorphic_iarchive_route<GuardedIArchive>*>(&ar) !=
                   nullptr;
        else
            return std::is_same<Archive, GuardedIArchive>::value;
    }

    template <class Archive>
    static foundation::extdata::Array loadBytes(Archive& ar,
                                                VeldraDataArraySerializationService& service) {
        std::uint64_t length = 0;
        ar >> boost::serialization::make_nvp("PayLoadLength", length);
        if (length == 0) {
            return foundation::extdata::Array();
        }
        std::string bytes;
        if (length > bytes.max_size()) {
            throw std::runtime_error("Data array payload length out of range.");
        }
        if (readsBytesFromOutside(ar)) {
            // The length came with the bytes: read it a block at a time, so that a length beyond
            // what arrived ends in the archive's error for a short read, not in an allocation of
            // that length.
            std::size_t const block = std::size_t(1) << 20;
            while (bytes.size() < length) {
                std::size_t const at = bytes.size();
                std::size_t const n =
                    static_cast<std::size_t>(std::min<std::uint64_t>(block, length - at));
                bytes.resize(at + n);
                ar.load_binary(&bytes[at], n);
            }
        } else {
            bytes.resize(static_cast<std::size_t>(length));
            ar.load_binary(&bytes[0], bytes.size());
        }
        std::istringstream in(std::move(bytes));
        return service.deserializeDataArray(in);
    }
};

} // namespace cmddistributor
} // namespace quorl

namespace boost {
namespace serialization {

template <class Archive>
void save(Archive& ar, foundation::extdata::Array const& array, unsigned int) {
    quorl::cmddistributor::DataArrayPayload::saveOne(ar, array);
}

template <class Archive> void load(Archive& ar, foundation::extdata::Array& array, unsigned int) {
    array = quorl::cmddistributor::DataArrayPayload::loadOne(ar);
}

template <class Archive>
void serialize(Archive& ar, foundation::extdata::Array& array, unsigned int version) {
    split_free(ar, array, version);
}

} // namespace serialization
} // namespace boost

// An Array field is its payload form alone: no class information, never tracked.
BOOST_CLASS_IMPLEMENTATION(foundation::extdata::Array, boost::serialization::object_serializable)
BOOST_CLASS_TRACKING(foundation::extdata::Array, boost::serialization::track_never)
