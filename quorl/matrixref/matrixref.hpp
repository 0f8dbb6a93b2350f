#pragma once
// quorl::matrixref: reference arrays. An array that cannot leave its context (an object, a
// function value, an opaque array) is held in the process's MatrixRefTable, and what travels
// is a reference array: a 1-by-1 opaque array of the class "Internal_Matrix_Reference____"
// whose payload is a MatrixRefHandle. Reference arrays behave as ordinary arrays: the class's
// operations, registered with the array library, keep the table's counts right when they are
// copied, destroyed, saved (as RefPersistForm), loaded and displayed. The conversions at the
// border of a context decide what travels by value and what by reference.
//
// Ownership: functions taking `HvArrayPtr&` without const consume the argument (it is left null
// or moved into the result); results are new arrays owned by the caller. Each handle holds one
// count of its table entry, released when its last sharer dies.
// Threads: refInitMatrixReferences may run on any thread, once or many times. The other
// functions run on whichever thread holds the arrays, with the caller's lock of those arrays
// (the fenn mutex); the table guards itself, and a handle's sharers are atomic.
// Errors: conversions report failure through their `error` argument and a null result;
// predicates answer false or empty, also for null. refConversionIsSupported without a predicate
// given to refInitMatrixReferences throws boost::bad_function_call. All functions but the
// `detail` entry points, refConversionIsSupported and the predicates require
// refInitMatrixReferences to have run.
#include <quorl/contextmgr/tarnid.hpp>
#include <quorl/matrixref/matrixreference.hpp>

#include <hv/hvarray.hpp>

#include <boost/function.hpp>
#include <boost/shared_ptr.hpp>

#include <cstddef>
#include <string>
#include <vector>

namespace quorl {
namespace matrixref {

class MatrixRefTable;

// A reference to `array` for the owner context `server`, known to the receiver as `client`.
// A null array gives an empty reference; a reference array comes back as itself (with a new
// handle when it is sent on to another client). `addReference` adds the count that the far
// side owns: border conversions pass true, references for local use false.
HvArrayPtr refCreateRef(contextmgr::TarnID const& client, contextmgr::TarnID const& server,
                        HvArrayPtr& array, bool addReference);
// The array (or element) behind a local reference: a shared copy, or the array itself when
// `release` takes the last count. Null for anything else.
HvArrayPtr refGetRef(HvArrayPtr const& ref, bool release);

bool refIsRef(HvArrayPtr const& array);
bool refIsRef(hvArray_tag const* array);
bool refIsLocalRef(HvArrayPtr const& ref);
bool refIsRemoteRef(HvArrayPtr const& ref);
// True when `ref` is not a reference at all, or a reference without a handle.
bool refIsEmptyRef(HvArrayPtr const& ref);
bool refIsElementIndexRef(HvArrayPtr const& ref);

// A reference to one element (zero-based) of what `ref` stands for; null when the target is
// not indexable, is gone, or the index is beyond its elements. No data is copied.
HvArrayPtr refElementIndexRef(HvArrayPtr const& ref, std::size_t linearIndex);
HvArrayPtr refElementIndexRef(HvArrayPtr const& ref, std::size_t row, std::size_t column);
HvArrayPtr refElementIndexRef(HvArrayPtr const& ref, std::vector<std::size_t> const& subscripts);

// A deep copy of `array` with every function handle and opaque array replaced by a reference
// (held for the far side). The source is left alone.
HvArrayPtr refCopyAndWrapArray(HvArrayPtr const& array, contextmgr::TarnID const& client,
                               contextmgr::TarnID const& server);
// A deep copy with local references replaced by their arrays (remote ones become null).
HvArrayPtr refUnwrapAndCopyArray(HvArrayPtr const& array);
// Converts `array` in place for crossing to `client`: every value that needs a reference,
// alone or in cells and structs, becomes one. On failure the result is null, `error` says
// "Data Conversion Error for type: <class>", and the input is destroyed.
HvArrayPtr refCopyAndConvertArray(HvArrayPtr& array, contextmgr::TarnID const& client,
                                  contextmgr::TarnID const& server, std::string& error);
// A local reference turned into its array (or element); anything else comes back unchanged.
HvArrayPtr refReleaseLocalRef(HvArrayPtr& ref);

bool refConversionIsSupported(hvArray_tag const* array);
// Function handles, opaque arrays and objects need a reference to cross.
bool refNeedsRef(hvArrayType const& type);
// As refNeedsRef, but false for an external string, which crosses by value.
bool refNeedsRefOrStringConversion(hvArray_tag const* array);

bool refSrcIsA(HvArrayPtr const& ref, std::string const& className);
// The class name of what a reference stands for (of the array itself for other arrays); null
// for a reference without an entry. Valid for the rest of the process.
char const* refGetRefClassName(hvArray_tag const* const array);
std::string refGetClassname(HvArrayPtr const& ref);
// (1, 1) for an element reference; the target's dimensions for other references, those of the
// array itself for other arrays; empty for an empty or dangling reference.
std::vector<std::size_t> refGetDimensions(HvArrayPtr const& ref);
// Properties of what a local reference stands for (of the array itself for other arrays);
// remote and empty references have none: null, or nothing done.
hvArray_tag* refGetRefProperty(hvArray_tag const* const array, std::size_t index, char const* name);
void refSetRefProperty(hvArray_tag* array, std::size_t index, char const* name,
                       hvArray_tag const* value);
// The context of a local reference's entry; UndefinedTarnID otherwise.
contextmgr::TarnID refLocalTarn(HvArrayPtr const& ref);

namespace detail {

// Called with each element taken out of a heterogeneous array by an element reference.
typedef boost::function<void(hvArray_tag*)> ElementFixup;
// Whether an array that needs a reference may be converted to one.
typedef boost::function<bool(hvArray_tag const*)> ConversionSupported;

// Registers the class and makes the process's table, once; every call returns that table, and
// only the first call's functions count (each is kept when not empty).
boost::shared_ptr<MatrixRefTable> refInitMatrixReferences(ElementFixup const& elementFixup,
                                                          ConversionSupported const& supported);
// The process's table; null before refInitMatrixReferences.
boost::shared_ptr<MatrixRefTable> refTable();
// The context of a local entry; UndefinedTarnID for 0, unknown and remote tags, or no table.
contextmgr::TarnID refFindTag(RefTag tag);
// "Internal_Matrix_Reference____".
std::string refOpaqueClassName();
// The class index the class reports (17 until set).
void refSetClassIndex(int index);
// Releases go to the exchange `name` for references whose owner is known here as `tarn`.
void refRegisterExchange(contextmgr::TarnID const& tarn, std::string const& name);
void refReleaseExchange(contextmgr::TarnID const& tarn);
// A release has arrived: one count off the local entry `tag`.
void refReleaseServiceTag(RefTag tag);
// Removes the entries of one context without messages; UndefinedTarnID removes everything and
// destroys the arrays.
void refClearAll(contextmgr::TarnID const& tarn);
// Host-callable: with no input, or "ActiveRefCount", the number of entries; "TotalRefCount",
// the sum of their counts; other input 0. The scalar goes to plhs[0] only when nrhs > 0.
void refMetrics(int nlhs, hvArray_tag** plhs, int nrhs, hvArray_tag** prhs);

} // namespace detail
} // namespace matrixref
} // namespace quorl
