#pragma once
// foundation::extdata::array::IVariableInfo: read access to the answer of a workspace for a list
// of variable names, by index in the order of the names: each variable's name, status and value.
// Implementations own their data; readers may call from any thread once the object is built.
// An index past the end raises std::out_of_range.
#include <foundation/extdata/array.hpp>

#include <cstddef>

namespace foundation {
namespace extdata {
namespace array {

class IVariableInfo {
public:
    // 32-bit on the wire.
    enum VariableStatus : int {
        StatusAbsent = 0,   // no value: the value is an empty array
        StatusOther = 1,    // reported by a workspace, passed through with its value
        StatusValue = 2,    // the value is the variable's value
        StatusUnchanged = 3 // equals what the other side holds; the value is to be ignored
    };

    virtual ~IVariableInfo() = default;
    virtual std::size_t size() const = 0;
    virtual const char* getName(std::size_t index) const = 0;
    virtual VariableStatus getStatus(std::size_t index) const = 0;
    virtual Array getValue(std::size_t index) const = 0;
};

} // namespace array
} // namespace extdata
} // namespace foundation
