#include <quorl/cmddistributor/fevalarrays.hpp>

#include <quorl/cmddistributor/fennlock.hpp>

#include <foundation/msg_svc/serialization/guardediarchive.hpp>
#include <hv/matrix.hpp>

#include <boost/archive/binary_iarchive.hpp>
#include <boost/archive/binary_oarchive.hpp>
#include <boost/archive/detail/polymorphic_iarchive_route.hpp>
#include <boost/archive/detail/polymorphic_oarchive_route.hpp>
#include <boost/serialization/collection_size_type.hpp>
#include <boost/serialization/item_version_type.hpp>
#include <boost/serialization/library_version_type.hpp>
#include <boost/serialization/nvp.hpp>

#include <cstring>
#include <stdexcept>

namespace quorl {
namespace cmddistributor {
namespace detail {

namespace {

void destroyArray(const hvArray* array) {
    matrix::detail::hvDestroy_deleter()(array);
}

// The shared part of the managed vectors. `transfer` takes unbound arrays over instead of
// copying them.
template <class T>
boost::shared_ptr<boost::container::vector<std::unique_ptr<T, HvArrayDeleter>>>
makeManaged(std::vector<hvArray*>* owned, const std::vector<const hvArray*>* borrowed) {
    typedef boost::container::vector<std::unique_ptr<T, HvArrayDeleter>> Vector;
    auto result = boost::shared_ptr<Vector>(new Vector());
    std::size_t const size = owned ? owned->size() : borrowed->size();
    if (size == 0)
        return result;
    result->reserve(size);
    FennLock lock;
    for (std::size_t i = 0; i < size; ++i) {
        const hvArray* source = owned ? (*owned)[i] : (*borrowed)[i];
        if (!source) {
            result->emplace_back(nullptr, HvArrayDeleter(false, &destroyArray));
        } else if (!isContextBoundArray(source)) {
            HvArrayPtr taken = owned ? matrix::from_veldra_old((*owned)[i])
                                     : matrix::from_veldra_old(hvCreateSharedDataCopy(source));
            result->emplace_back(taken.get(), HvArrayDeleter(false, &destroyArray));
            taken.release();
            if (owned)
                (*owned)[i] = nullptr;
        } else {
            HvArrayPtr copy = matrix::from_veldra_old(hvCreateSharedDataCopy(source));
            if (hvGetArrayScope(copy.get()) == hvSCOPE_WORKSPACE)
                hvSetArrayScope(copy.get(), hvSCOPE_TEMPORARY);
            result->emplace_back(copy.get(), HvArrayDeleter(true, &destroyArray));
            copy.release();
        }
    }
    return result;
}

} // namespace

void validateInput(const std::vector<foundation::extdata::Array>& arrays) {
    for (auto const& a : arrays) {
        if (a.getType() == 0)
            throw std::logic_error("Default constructed arguments are not allowed.");
    }
}

std::vector<std::vector<std::uint8_t>>
serializeHvArrays(const std::vector<const hvArray*>& arrays) {
    FennLock lock;
    std::vector<std::vector<std::uint8_t>> result;
    result.reserve(arrays.size());
    for (const hvArray* array : arrays) {
        HvArrayPtr bytes = matrix::from_veldra_old(hvSerialize(array));
        if (!bytes || hvGetClassID(bytes.get()) != hvUINT8_CLASS ||
            hvGetNumberOfDimensions(bytes.get()) != 2)
            throw std::runtime_error("hvSerialize did not give a uint8 vector.");
        auto data = static_cast<const std::uint8_t*>(hvGetReadOnlyData(bytes.get()));
        std::size_t const n = hvGetNumberOfElements(bytes.get());
        result.emplace_back(data, data + n);
    }
    return result;
}

std::vector<hvArray*> deserializeHvArrays(const std::vector<std::vector<std::uint8_t>>& bytes) {
    FennLock lock;
    std::vector<hvArray*> result;
    result.reserve(bytes.size());
    try {
        for (auto const& b : bytes)
            result.push_back(hvDeserialize(b.data(), b.size()));
    } catch (...) {
        nullSafeHvVecDestroy(result);
        throw;
    }
    return result;
}

void nullSafeHvVecDestroy(std::vector<hvArray*>& arrays) {
    for (hvArray* a : arrays) {
        if (a)
            hvDestroyArray(a);
    }
    arrays.clear();
}

void nullSafeHvConstVecDestroy(std::vector<const hvArray*>& arrays) {
    for (const hvArray* a : arrays) {
        if (a)
            hvDestroyArray(a);
    }
    arrays.clear();
}

bool isContextBoundArray(const hvArray* array, std::size_t depth) {
    if (!array)
        return false;
    hvClassID const cls = hvGetClassID(array);
    if (cls == hvFUNCTION_CLASS || cls == hvOPAQUE_CLASS)
        return true;
    if (depth == 0 && hvIsContainer(array))
        return true;
    if (cls == hvCELL_CLASS) {
        std::size_t const n = hvGetNumberOfElements(array);
        for (std::size_t i = 0; i < n; ++i) {
            if (isContextBoundArray(hvGetCell(array, i), depth - 1))
                return true;
        }
        return false;
    }
    if (cls == hvSTRUCT_CLASS) {
        std::size_t const n = hvGetNumberOfElements(array);
        std::size_t const fields = hvGetNumberOfFields(array);
        for (std::size_t i = 0; i < n; ++i) {
            for (std::size_t f = 0; f < fields; ++f) {
                if (isContextBoundArray(hvGetFieldByNumber(array, i, f), depth - 1))
                    return true;
            }
        }
        return false;
    }
    return cls == hvOBJECT_CLASS;
}

std::vector<boost::shared_ptr<const hvArray>>
makeManagedArgumentVector(const std::vector<const hvArray*>& arrays) {
    auto managed = makeManaged<const hvArray>(nullptr, &arrays);
    std::vector<boost::shared_ptr<const hvArray>> kept;
    kept.reserve(managed->size());
    for (auto& entry : *managed) {
        HvArrayDeleter deleter = entry.get_deleter();
        kept.push_back(boost::shared_ptr<const hvArray>(entry.release(), deleter));
    }
    return kept;
}

boost::shared_ptr<ManagedConstArrayVector>
makeManagedConstResultVector(std::vector<hvArray*>& arrays) {
    return makeManaged<const hvArray>(&arrays, nullptr);
}

boost::shared_ptr<ManagedArrayVector> makeManagedResultVector(std::vector<hvArray*>& arrays) {
    return makeManaged<hvArray>(&arrays, nullptr);
}

} // namespace detail
} // namespace cmddistributor
} // namespace quorl

namespace boost {
namespace archive {

void serialize(polymorphic_oarchive& ar, std::vector<unsigned char>& bytes, unsigned int) {
    serialization::collection_size_type const count(bytes.size());
    serialization::item_version_type const itemVersion(0);
    ar << serialization::make_nvp("count", count);
    ar << serialization::make_nvp("item_version", itemVersion);
    if (dynamic_cast<detail::polymorphic_oarchive_route<binary_oarchive>*>(&ar)) {
        if (!bytes.empty())
            ar.save_binary(bytes.data(), bytes.size());
        return;
    }
    for (unsigned char const& b : bytes)
        ar << serialization::make_nvp("item", b);
}

void serialize(polymorphic_iarchive& ar, std::vector<unsigned char>& bytes, unsigned int) {
    serialization::collection_size_type count;
    serialization::item_version_type itemVersion(0);
    ar >> serialization::make_nvp("count", count); // the guarded archive checks it: count <= left
    if (serialization::library_version_type(3) < ar.get_library_version())
        ar >> serialization::make_nvp("item_version", itemVersion);
    bytes.clear();
    if (dynamic_cast<detail::polymorphic_iarchive_route<binary_iarchive>*>(&ar) ||
        dynamic_cast<foundation::msg_svc::serialization::PolymorphicGuardedIArchive*>(&ar)) {
        bytes.resize(count);
        if (count != 0)
            ar.load_binary(bytes.data(), count);
        return;
    }
    for (std::size_t i = 0; i < count; ++i) {
        unsigned char b = 0;
        ar >> serialization::make_nvp("item", b);
        bytes.push_back(b);
    }
}

} // namespace archive
} // namespace boost
