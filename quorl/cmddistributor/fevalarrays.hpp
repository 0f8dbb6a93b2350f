#pragma once
// The array helpers of function calls: the byte form of arrays (serializeHvArrays,
// deserializeHvArrays), the destruction of raw array vectors, the test for arrays tied to their
// context (isContextBoundArray), the managed argument and result vectors whose elements carry an
// HvArrayDeleter, and the check of EDI arguments (validateInput).
//
// Ownership: raw vectors returned here belong to the caller (nullSafeHvVecDestroy); managed
// vectors own their arrays through their deleters; the source vectors of the managed argument
// vector stay the caller's, those of the managed result vector are taken over (see below).
// Threads: any; the array helpers take the fenn mutex themselves (it is re-entrant).
// Errors: validateInput raises std::logic_error "Default constructed arguments are not
// allowed."; the byte helpers pass on what the array library raises (std::runtime_error for
// corrupt bytes or a class that cannot be saved), after destroying what they made.
#include <quorl/cmddistributor/hvarraydeleter.hpp>

#include <foundation/extdata/array.hpp>
#include <hv/hvarray.hpp>

#include <boost/container/vector.hpp>
#include <boost/shared_ptr.hpp>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace quorl {
namespace cmddistributor {

typedef boost::container::vector<std::unique_ptr<const hvArray, HvArrayDeleter>>
    ManagedConstArrayVector;
typedef boost::container::vector<std::unique_ptr<hvArray, HvArrayDeleter>> ManagedArrayVector;

namespace detail {

void validateInput(const std::vector<foundation::extdata::Array>& arrays);

// One hvSerialize byte vector per array, null arrays included; under the fenn mutex.
std::vector<std::vector<std::uint8_t>> serializeHvArrays(const std::vector<const hvArray*>& arrays);
// One new array per byte vector; under the fenn mutex. On failure nothing made is left.
std::vector<hvArray*> deserializeHvArrays(const std::vector<std::vector<std::uint8_t>>& bytes);

// Destroy every non-null element and leave the vector empty (its storage kept).
void nullSafeHvVecDestroy(std::vector<hvArray*>& arrays);
void nullSafeHvConstVecDestroy(std::vector<const hvArray*>& arrays);

// True when `array` holds a function handle, opaque array or object, looking `depth` levels
// into cells and structs; a container met at depth 0 counts as bound.
bool isContextBoundArray(const hvArray* array, std::size_t depth = 3);

// Shared-data copies of `arrays` with their deleters (the caller keeps its arrays).
std::vector<boost::shared_ptr<const hvArray>>
makeManagedArgumentVector(const std::vector<const hvArray*>& arrays);

// Takes `arrays` over: unbound arrays move into the result and their slots become null; bound
// arrays are shared-data copied and stay in the caller's vector.
boost::shared_ptr<ManagedConstArrayVector>
makeManagedConstResultVector(std::vector<hvArray*>& arrays);
boost::shared_ptr<ManagedArrayVector> makeManagedResultVector(std::vector<hvArray*>& arrays);

} // namespace detail
} // namespace cmddistributor
} // namespace quorl

// Byte vectors are written as bare sequences, without class information.
#include <boost/serialization/level.hpp>
BOOST_CLASS_IMPLEMENTATION(std::vector<unsigned char>, boost::serialization::object_serializable)

// Through the polymorphic archives (the exchange's wire), byte vectors are written and read as one
// block when the archive underneath is binary: the bytes are those of Boost's element-by-element
// form (count, item version, the bytes), without a virtual call per byte. Other archives go
// element by element. Found by argument-dependent lookup; they win over Boost's templates.
namespace boost {
namespace archive {
class polymorphic_oarchive;
class polymorphic_iarchive;
void serialize(polymorphic_oarchive& ar, std::vector<unsigned char>& bytes, unsigned int version);
void serialize(polymorphic_iarchive& ar, std::vector<unsigned char>& bytes, unsigned int version);
} // namespace archive
} // namespace boost
