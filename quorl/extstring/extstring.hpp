#pragma once
// quorl::extstring: external strings. A value of the host's "string" class is an object, which
// would otherwise need a reference to leave its context; an external string carries it by value
// instead: a 1-by-1 opaque array of the class "veldra.internal.external.engine.String_" whose
// giblet is the payload, a cell array of char rows. Saving writes the payload; loading makes a
// true "string" again where the class exists, and keeps the external string where it does not.
//
// Ownership: functions taking an HvArrayPtr by reference consume it (it is left null or moved
// into the result); results are new arrays owned by the caller. Each external string owns its
// own payload header, sharing the payload's data with its copies.
// Threads: extstrInitExtString may be called from any thread, once or many times. The other
// functions work on the caller's arrays only, under the caller's lock of those arrays.
// Errors: none of their own; a failing "cellstr" gives null. Errors of the array library (out of
// memory) pass through.
#include <hv/hvarray.hpp>

#include <string>

namespace quorl {
namespace extstring {

// Registers the opaque class; later calls do nothing.
void extstrInitExtString();

// "veldra.internal.external.engine.String_".
std::string extstrGetClassName();

// True when the class is registered and `array` is an opaque array of it.
bool extstrIsExternalString(const hvArray_tag* array);

// A shared copy of an external string's payload; null for any other array.
HvArrayPtr extstrGetStringData(const hvArray_tag* array);

// An external string from a "string" (through its "cellstr" method) or from a cell array (a
// shared copy of it); null for anything else, for a "string" without a working "cellstr", and
// before extstrInitExtString. The argument is left as it is.
HvArrayPtr extstrCreateString(HvArrayPtr& array);

// A copy of `array` in which every "string", alone or at any depth of cells and structs, is
// replaced by its external string (null when it cannot be made). Arrays without objects and
// other classes come back as they are. Before extstrInitExtString, and for null, the argument
// is returned unchanged. Consumes the argument.
HvArrayPtr extstrCreateConvertedStringCopy(HvArrayPtr& array);

} // namespace extstring
} // namespace quorl
