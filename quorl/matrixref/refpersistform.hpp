#pragma once
// RefPersistForm: the saved form of a reference array, in which a reference crosses an
// exchange inside array serialization. As an array it is an 8-by-1 cell:
//   0 uint64 scalar: the tag in the table of the process that holds the array
//   1 logical: true when the saver holds the array itself
//   2 logical: element flag     3 uint64 scalar: element index
//   4 char row: class name of the array
//   5 uint64 row: dimensions (at least two)
//   6 uint64 scalar: the client tarn
//   7 logical: whether element references can be made
// An empty reference saves as the cell with all cells empty.
//
// Plain value. Threads: any. Errors: fromArray answers empty for anything that is not a
// well-formed form (bytes from a peer are not trusted); toArray passes on the array library's.
#include <quorl/contextmgr/tarnid.hpp>
#include <quorl/matrixref/matrixreference.hpp>

#include <hv/hvarray.hpp>

#include <boost/optional.hpp>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace quorl {
namespace matrixref {

struct RefPersistForm {
    RefTag tag = UndefinedRefTag;
    bool saverHoldsArray = false;
    bool element = false;
    std::uint64_t elementIndex = 0;
    std::string className;
    std::vector<std::size_t> dimensions;
    contextmgr::TarnID clientTarn = contextmgr::UndefinedTarnID;
    bool indexable = false;

    static constexpr std::size_t NumberOfCells = 8;

    HvArrayPtr toArray() const;
    // The 8-by-1 cell with all cells empty.
    static HvArrayPtr emptyArray();
    // The form held in `array`; empty when `array` is not an 8-cell array with a non-empty first
    // cell and cells of the classes above.
    static boost::optional<RefPersistForm> fromArray(hvArray_tag const* array);
};

} // namespace matrixref
} // namespace quorl
