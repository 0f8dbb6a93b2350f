#pragma once
// The variable entry of the workspace messages and the caches on both sides: a name with the
// status and value last known for it, and its archive form. An entry is "Name" followed by
// "Info"; "Info" is "status" (32-bit) followed by "value" (the array payload form). Plain data;
// no threads of its own. Reading and writing the value raise what DataArrayPayload raises.
#include <quorl/cmddistributor/dataarraypayload.hpp>

#include <foundation/extdata/array.hpp>
#include <foundation/extdata/array/ivariableinfo.hpp>

#include <boost/serialization/nvp.hpp>
#include <boost/serialization/string.hpp>

#include <iomanip>
#include <ostream>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace quorl {
namespace workspace {

typedef foundation::extdata::array::IVariableInfo::VariableStatus VariableStatus;
using foundation::extdata::array::IVariableInfo;

// Status and value of one variable.
typedef std::pair<VariableStatus, foundation::extdata::Array> VariableValue;
// Name, status and value.
typedef std::pair<std::string, VariableValue> VariableEntry;
// Per name, the status and value last exchanged.
typedef std::unordered_map<std::string, VariableValue> VariableCache;

// Pointers to the characters of `names`, in order, as ICustomWorkspace takes names; valid while
// `names` lives unchanged.
inline std::vector<char const*> namePointers(std::vector<std::string> const& names) {
    std::vector<char const*> pointers;
    pointers.reserve(names.size());
    for (auto const& n : names)
        pointers.push_back(n.c_str());
    return pointers;
}

// The "varNames: " line of a message's text form and one line per name under it.
inline void writeNameLines(std::ostream& os, int indent, std::vector<std::string> const& names) {
    os << std::setw(indent + 2) << ' ' << "varNames: " << std::endl;
    for (auto const& n : names)
        os << std::setw(indent + 4) << ' ' << n << std::endl;
}

} // namespace workspace
} // namespace quorl

namespace boost {
namespace serialization {

template <class Archive>
void serialize(Archive& ar, quorl::workspace::VariableValue& value, unsigned int) {
    int status = static_cast<int>(value.first);
    ar& make_nvp("status", status);
    value.first = static_cast<quorl::workspace::VariableStatus>(status);
    ar& make_nvp("value", value.second);
}

template <class Archive>
void serialize(Archive& ar, quorl::workspace::VariableEntry& entry, unsigned int) {
    ar& make_nvp("Name", entry.first);
    ar& make_nvp("Info", entry.second);
}

} // namespace serialization
} // namespace boost
