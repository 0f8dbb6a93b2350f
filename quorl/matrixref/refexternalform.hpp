#pragma once
// The external-data form of a reference array: how a reference crosses where values travel as
// foundation::extdata::Array (a client's workspace, the variable messages), much as it crosses
// array serialization in its saved form (RefPersistForm). The form is a 1-by-1 struct whose one
// field, named "Internal_Matrix_Reference____", holds the saved form as an 8-by-1 cell.
//
// A form made with `hold` keeps the reference it was made from alive: copies of the Array share
// that reference, so its count in the table lasts as long as any copy of the form, and the last
// copy's death releases it (across processes, with a ReleaseRefMessage). A form made without is
// plain data: what it stands for is counted as the saved form is, for the side that receives it.
//
// Usage, on the side that owns an object and on the client that receives it:
//   HvArrayPtr ref = refCopyAndConvertArray(object, refExchangeTarn(ownExchange), ownTarn, error);
//   Array form = refToExternal(ref, false);              // travels in a variable message
//   Array held = refAdoptExternal(arrivedForm, sender);  // on the client: a counted reference
//   HvArrayPtr back = refFromExternal(readForm);         // home again: the object itself
//
// Threads: as the other reference functions: any thread, the table guards itself. The forms are
// values and may be copied and dropped on any thread. Errors: none thrown; malformed forms
// (bytes from a peer are not trusted) are not references: null or the value unchanged.
#include <quorl/contextmgr/tarnid.hpp>

#include <foundation/extdata/array.hpp>
#include <hv/hvarray.hpp>

#include <string>

namespace quorl {
namespace matrixref {

// True when `value` has the shape of the external form of a reference.
bool refIsExternalRef(foundation::extdata::Array const& value);
// The external form of a reference array (not consumed; with `hold`, the form keeps a shared
// copy). An empty Array for null, for arrays that are not references, for empty and dangling
// references, and before refInitMatrixReferences.
foundation::extdata::Array refToExternal(HvArrayPtr const& ref, bool hold);
// The array that a form stands for, loaded as the saved form is: a reference here (a remote
// entry of the table), or, for a reference to something this process holds, that array itself.
// Null when `value` is not a well-formed form or there is no table.
HvArrayPtr refFromExternal(foundation::extdata::Array const& value);
// A value that arrived from the exchange `source`, with every reference form in it (also in
// cells and structs) loaded here and held by the form that replaces it (refToExternal with
// `hold`); the
// tarn the owner named itself by is registered for `source`, so that releases find their way
// back. Values without forms come back as they are.
foundation::extdata::Array refAdoptExternal(foundation::extdata::Array const& value,
                                            std::string const& source);
// The TarnID by which peers know the contexts behind the exchange `name`: a hash of the name,
// never UndefinedTarnID or BlessedTarnID.
contextmgr::TarnID refExchangeTarn(std::string const& name);

} // namespace matrixref
} // namespace quorl
