#pragma once
// hv: the array library. An hvArray is an N-d array of one class: cell, struct, logical, char,
// real numeric (double, single, 8 to 64-bit integers), function handle, opaque (a class
// registered with an operation table, see hv/hvopaque.hpp) or object (a class array with
// properties, such as the built-in "string" class).
//
// Ownership. Every function that returns a non-const `hvArray*` hands a new array to the caller,
// who destroys it with hvDestroyArray (or holds it in an HvArrayPtr). Functions that return a
// `const hvArray*` lend an array owned by its container; it lives until the container is
// changed or destroyed. Functions that take an `hvArray*` "value" argument named as taken
// (hvSetCell, hvSetField, ...) take ownership of it, also when they throw.
//
// Sharing. hvCreateSharedDataCopy makes a second array header over the same data. Data is
// copy-on-write: the first write through any of the sharing arrays (hvGetData, hvSetCell,
// hvSetField, hvSetDimensions, ...) gives that array its own copy, one level deep; elements of
// cells and structs stay shared until they in turn are written. Objects of handle classes are
// the exception: their copies share properties for good, as handles do.
//
// Threads. The reference counts of shared data are atomic, so arrays that share data may be
// used and destroyed on different threads. One array object is not to be used by two threads at
// once without a lock of the caller's. Class registries (opaque classes, object classes) are
// guarded by an internal mutex and may be used from any thread.
//
// Errors. Bad arguments raise std::invalid_argument (wrong class, null where an array is
// needed), std::out_of_range (index beyond the elements or fields) or std::runtime_error
// (serialized bytes that are corrupt or truncated, classes that cannot be saved or loaded).
// Queries that take a possibly null array and say so answer false, 0 or null for it.
#include <fl/i18n/ustring.hpp>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

struct hvArray_tag;
typedef struct hvArray_tag hvArray;

// Class numbers of arrays.
enum hvClassID : int {
    hvUNKNOWN_CLASS = 0,
    hvCELL_CLASS = 1,
    hvSTRUCT_CLASS = 2,
    hvLOGICAL_CLASS = 3,
    hvCHAR_CLASS = 4,
    hvVOID_CLASS = 5,
    hvDOUBLE_CLASS = 6,
    hvSINGLE_CLASS = 7,
    hvINT8_CLASS = 8,
    hvUINT8_CLASS = 9,
    hvINT16_CLASS = 10,
    hvUINT16_CLASS = 11,
    hvINT32_CLASS = 12,
    hvUINT32_CLASS = 13,
    hvINT64_CLASS = 14,
    hvUINT64_CLASS = 15,
    hvFUNCTION_CLASS = 16,
    hvOPAQUE_CLASS = 17,
    hvOBJECT_CLASS = 18
};
typedef hvClassID hvArrayType;

// Bits of an array's flags word. The library stores and serializes them; it gives meaning only
// to the two tested by hvIsPlainArray.
enum hvArrayFlag : std::uint32_t {
    // A placeholder that stands for "no element" (an empty double array marked this way).
    hvFLAG_NO_ELEMENT = 4,
    // The array is flagged as sparse; its data is still stored in full.
    hvFLAG_SPARSE = 16
};

// Variable scope of an array: what kind of variable, if any, holds it.
enum hvArrayScope : int {
    hvSCOPE_TEMPORARY = 0,
    hvSCOPE_LOCAL = 1,
    hvSCOPE_GLOBAL = 2,
    hvSCOPE_PERSISTENT = 3,
    // Held by a workspace on behalf of a caller; a copy that leaves it should be reset to 0.
    hvSCOPE_WORKSPACE = 4
};

// ---------------------------------------------------------------------------------------------
// Creation. Numeric, logical and char arrays start zero-filled; cells and struct fields start
// empty (null elements). Dimensions: at least two are kept; trailing ones beyond the second are
// dropped. A null `dims` with ndim > 0 raises std::invalid_argument; so does a class that is
// not numeric (6 to 15) where a numeric class is needed.

hvArray* hvCreateNumericArray(hvClassID cls, std::size_t ndim, const std::size_t* dims);
hvArray* hvCreateNumericMatrix(hvClassID cls, std::size_t m, std::size_t n);
hvArray* hvCreateDoubleScalar(double value);
// A 1-by-1 array of numeric class `cls` holding `value` converted (with C++ conversion rules).
hvArray* hvCreateNumericScalar(hvClassID cls, double value);
hvArray* hvCreateLogicalArray(std::size_t ndim, const std::size_t* dims);
hvArray* hvCreateLogicalMatrix(std::size_t m, std::size_t n);
hvArray* hvCreateLogicalScalar(bool value);
hvArray* hvCreateCharArray(std::size_t ndim, const std::size_t* dims);
// A 1-by-N char row from UTF-8 text (N UTF-16 units). Malformed UTF-8: std::runtime_error.
hvArray* hvCreateString(const char* utf8);
hvArray* hvCreateStringFromUtf16(const char16_t* text, std::size_t length);
hvArray* hvCreateCellArray(std::size_t ndim, const std::size_t* dims);
hvArray* hvCreateCellMatrix(std::size_t m, std::size_t n);
// Field names must be non-empty and distinct, else std::invalid_argument. Order is kept.
hvArray* hvCreateStructArray(std::size_t ndim, const std::size_t* dims, std::size_t nfields,
                             const char* const* fieldNames);
hvArray* hvCreateStructMatrix(std::size_t m, std::size_t n, std::size_t nfields,
                              const char* const* fieldNames);
// A 1-by-1 function handle naming a function.
hvArray* hvCreateFunctionHandle(const char* functionName);
// A function handle that also carries `payload`: data of the code that made it (such as an
// anonymous function's body and captured values). Copies share the payload; equality compares
// it by pointer; serialization keeps the name only.
hvArray* hvCreateFunctionHandleWithPayload(const char* functionName,
                                           std::shared_ptr<const void> payload);
// The payload of a function handle; null for other arrays and for handles without one.
std::shared_ptr<const void> hvGetFunctionHandlePayload(const hvArray* array);

// Destroys an array and, when it held the last reference to its data, the data (and so the
// elements of a cell or struct). Null is allowed. Opaque arrays call their class's destroy.
void hvDestroyArray(const hvArray* array);

// ---------------------------------------------------------------------------------------------
// Copies.

// A new array sharing the data of `array` (copy-on-write). It takes the class, dimensions,
// flags and scope; not the link or root record. Null gives null.
hvArray* hvCreateSharedDataCopy(const hvArray* array);
// As hvCreateSharedDataCopy, but the copy is not counted on the live array list (see
// hvGetArrayListCount): for arrays kept by long-lived tables rather than by running code.
hvArray* hvCreateSharedCopyNotOnArrayList(const hvArray* array);
// A copy that shares nothing with `array`, at any depth. Opaque giblets are shared through the
// class's share operation, as they are not the library's to copy. Null gives null.
hvArray* hvDuplicateArray(const hvArray* array);
// Gives `array` its own copy of its data, one level deep (see "Sharing" above).
void hvUnshareShallowEx(hvArray* array);
// True when the data of `array` is shared with another array. Null: false.
bool hvIsSharedData(const hvArray* array);
// Number of live arrays counted on the array list (every array made by this library except
// those made by hvCreateSharedCopyNotOnArrayList). For leak checks in tests and hosts.
std::size_t hvGetArrayListCount();

// ---------------------------------------------------------------------------------------------
// Header: class, dimensions, flags, scope, link, root record.

hvClassID hvGetClassID(const hvArray* array); // null: hvUNKNOWN_CLASS
// "cell", "struct", "logical", "char", "double", "single", "int8" ... "uint64",
// "function_handle", the opaque or object class name. Null: "". Valid while the array lives
// (or, for registered classes, while the process does).
const char* hvGetClassName(const hvArray* array);
std::size_t hvGetNumberOfDimensions(const hvArray* array);
// Pointer to hvGetNumberOfDimensions values; valid until the array is changed.
const std::size_t* hvGetDimensions(const hvArray* array);
std::size_t hvGetM(const hvArray* array); // rows
std::size_t hvGetN(const hvArray* array); // product of all dimensions after the first
std::size_t hvGetNumberOfElements(const hvArray* array);
bool hvIsEmpty(const hvArray* array);
// Sets the dimensions. Elements are kept in linear order; when the count changes, the data is
// truncated or extended with zeros (empty elements for cells, structs and objects). Opaque
// arrays only record the new dimensions.
void hvSetDimensions(hvArray* array, std::size_t ndim, const std::size_t* dims);

std::uint32_t hvGetFlags(const hvArray* array);
void hvSetFlags(hvArray* array, std::uint32_t flags);
// A plain real numeric or logical array: neither sparse nor the no-element placeholder.
bool hvIsPlainArray(const hvArray* array);

int hvGetArrayScope(const hvArray* array);
void hvSetArrayScope(hvArray* array, int scope);

// The link field: which variable list entry of the host holds this array. The library only
// stores it. hvUnreference clears it (the array leaves that list).
void hvSetLink(hvArray* array, const void* link);
const void* hvGetLink(const hvArray* array);
void hvUnreference(hvArray* array);

// The root record: the array is the root value of a named variable. hvUnrootArray removes it.
void hvRootArray(hvArray* array, const char* variableName);
bool hvHasRootRecord(const hvArray* array);
const char* hvGetRootName(const hvArray* array); // null when not rooted
void hvUnrootArray(hvArray* array);

// A summary of the header, taken in one call (opaque arrays update their size first).
struct hvArrayInfo {
    hvClassID classID = hvUNKNOWN_CLASS;
    const char* className = "";
    std::size_t numberOfElements = 0;
    std::size_t numberOfDimensions = 0;
    std::uint32_t flags = 0;
    int scope = 0;
    bool sharedData = false;
    bool hasLink = false;
    bool hasRootRecord = false;
    const struct hvOpaqueClass* opaqueClass = nullptr; // class 17 only
    unsigned char mark = 0;                            // class 17 only
};
// Null gives a default hvArrayInfo.
hvArrayInfo hvGetInfo(const hvArray* array);

// Class tests.
bool hvIsNumeric(const hvArray* array);   // classes 6 to 15
bool hvIsContainer(const hvArray* array); // cell, struct, object
// True when the array is, or holds at any depth, a function handle, opaque array or object.
bool hvDoesArrayContainObjects(const hvArray* array);
// True for an array whose elements may be of different classes. Object arrays of this library
// hold elements of one class, so the answer is false for every array it makes.
bool hvIsHeterogeneousArray(const hvArray* array);
// True when the array's class is `className`, a superclass of it, or one of the groups
// "numeric", "float", "integer", "handle" it belongs to. Null array or name: false.
bool hvIsA(const hvArray* array, const char* className);

// ---------------------------------------------------------------------------------------------
// Data of numeric, logical and char arrays (elements in column-major order; logical as one byte
// per element, char as char16_t). Other classes: std::invalid_argument.

std::size_t hvGetElementSize(const hvArray* array);
// Writable data: unshares first. Null for an empty array.
void* hvGetData(hvArray* array);
const void* hvGetReadOnlyData(const hvArray* array);
// The first element as a double. Empty: 0. Non-numeric, non-logical, non-char:
// std::invalid_argument.
double hvGetScalar(const hvArray* array);
// Char arrays as text (all elements in column order, UTF-8); a 1-by-1 "string" object as its
// text. Others: std::invalid_argument.
std::string hvArrayToStdString(const hvArray* array);
ustring hvArrayToUString(const hvArray* array);
// The function name of a function handle.
std::string hvGetFunctionName(const hvArray* array);

// ---------------------------------------------------------------------------------------------
// Cells and structs. A struct's data is elements times fields slots, slot = element * nfields
// + field; hvGetCell, hvSetCell and hvTakeCell address structs and objects by slot as well.

// The element (borrowed, may be null for an empty element).
const hvArray* hvGetCell(const hvArray* array, std::size_t index);
// Puts `value` (taken; may be null) into the slot and destroys the previous one.
void hvSetCell(hvArray* array, std::size_t index, hvArray* value);
// Takes the element out, leaving the slot empty; the caller owns the result.
hvArray* hvTakeCell(hvArray* array, std::size_t index);

std::size_t hvGetNumberOfFields(const hvArray* array);
const char* hvGetFieldNameByNumber(const hvArray* array, std::size_t field);
// Field number, or -1 when there is no such field.
int hvGetFieldNumber(const hvArray* array, const char* name);
// Adds a field at the end (empty in every element) and returns its number; an existing field's
// number is returned as it is.
int hvAddField(hvArray* array, const char* name);
void hvRemoveField(hvArray* array, std::size_t field);
// The field's value in element `index` (borrowed), or null when empty or when there is no such
// field.
const hvArray* hvGetField(const hvArray* array, std::size_t index, const char* name);
const hvArray* hvGetFieldByNumber(const hvArray* array, std::size_t index, std::size_t field);
// Sets (taking `value`) the field of element `index`; an unknown field: std::invalid_argument.
void hvSetField(hvArray* array, std::size_t index, const char* name, hvArray* value);
void hvSetFieldByNumber(hvArray* array, std::size_t index, std::size_t field, hvArray* value);

// Element `oneBasedIndex` of any array as a new 1-by-1 array of the same class: a number, a
// 1-by-1 cell holding a shared copy of the element, a 1-by-1 struct or object, a shared copy
// of a 1-by-1 opaque array. Out of range: std::out_of_range.
hvArray* hvSubscriptedReference(const hvArray* array, std::size_t oneBasedIndex);

// Deep equality: class, dimensions, data (NaN unequal), fields in order, elements; opaque
// arrays by their class's equal operation (or same giblet when there is none). Two nulls are
// equal.
bool hvAreMatricesEqual(const hvArray* a, const hvArray* b);

// ---------------------------------------------------------------------------------------------
// Serialization. hvSerialize makes a new 1-by-N uint8 array holding the compact, versioned
// binary form of `array` (null included, which reads back as null). Opaque arrays are written
// by their class's save operation and read by its load operation; objects by class name and
// properties. A class that cannot be saved raises std::runtime_error. Byte order is the host's
// (little-endian on every platform we build for); the header records it.
hvArray* hvSerialize(const hvArray* array);
// Rebuilds an array. Corrupt or truncated bytes raise std::runtime_error; every length is
// checked against the bytes left before anything is allocated, and nesting is bounded.
hvArray* hvDeserialize(const void* data, std::size_t size);
// The same bytes in pieces, for a caller that writes to or reads from a stream of its own (an
// archive) and would otherwise copy them through a uint8 array.
// hvSerializeTo calls `size` once with the number of bytes hvSerialize would hold, then `write`
// with those bytes in order: small items gathered into blocks, element data as it stands in the
// array. Errors as hvSerialize's.
void hvSerializeTo(const hvArray* array, const std::function<void(std::size_t)>& size,
                   const std::function<void(const void*, std::size_t)>& write);
// hvDeserializeFrom reads `size` bytes of that form, which `read` hands out in order. An array of
// a class with raw elements (numeric, logical, char) is built at once, its elements read straight
// into its storage, and returned. Any other array is not built: all `size` bytes are read into
// `bytes`, and null is returned, so that the caller runs hvDeserialize (and the load operations
// of opaque classes) where it chooses. Checks and errors as hvDeserialize's; an element count
// beyond `size` is refused before anything is allocated.
hvArray* hvDeserializeFrom(std::size_t size, const std::function<void(void*, std::size_t)>& read,
                           std::vector<std::uint8_t>& bytes);

// ---------------------------------------------------------------------------------------------
// Class arrays and objects (class 18). An object class has ordered property names, optional
// superclasses, methods and a constructor. The library defines the class "string": arrays of
// strings, with the methods "cellstr" (a cell of char rows, same dimensions) and "disp", and a
// constructor from a char row, a cell of char rows or a string array.

typedef bool (*hvMethodFunction)(int nlhs, hvArray** plhs, int nrhs, const hvArray* const* prhs);

struct hvClassMethodDef {
    const char* name;
    hvMethodFunction function;
};

struct hvClassDef {
    const char* name = nullptr;
    const char* const* superclasses = nullptr; // names of registered classes (or "handle")
    std::size_t nsuperclasses = 0;
    const char* const* properties = nullptr;
    std::size_t nproperties = 0;
    const hvClassMethodDef* methods = nullptr;
    std::size_t nmethods = 0;
    // Builds the new object(s) in plhs from the user's arguments in prhs. Null: the default
    // constructor, which makes a 1-by-1 object with empty properties.
    hvMethodFunction constructor = nullptr;
    // Handle classes: copies share one set of properties for good.
    bool handle = false;
    // False: hvSerialize raises std::runtime_error for arrays of this class.
    bool serializable = true;
};

// Registers an object class (copies the definition). A name already registered, an empty name
// or an unknown superclass: std::invalid_argument.
void hvDefineClass(const hvClassDef& definition);
bool hvIsClassDefined(const char* name);
// An m-by-n object array of a registered class with empty properties, or null when the class
// is unknown or not available in this process (the "string" class when switched off).
hvArray* hvCreateClassArray(const char* className, std::size_t m, std::size_t n);
// Properties of element `index`. Get: a shared copy (caller owns); an empty property gives a
// 0-by-0 double; null when there is no such property or the array has none. Set: stores a shared
// copy of `value` (null empties it); unknown property: std::invalid_argument; index:
// std::out_of_range.
hvArray* hvGetProperty(const hvArray* array, std::size_t index, const char* name);
void hvSetProperty(hvArray* array, std::size_t index, const char* name, const hvArray* value);

// A callable method object for `name` on the class of `array` (an object's method, or an opaque
// class's find-method operation), or null when there is none. The caller destroys it.
hvArray* hvFindMethod(const hvArray* array, const char* name);
// Calls a method object; outputs go to plhs (owned by the caller). False when the call fails;
// what the method throws passes to the caller.
bool hvCallMethod(const hvArray* method, int nlhs, hvArray** plhs, int nrhs,
                  const hvArray* const* prhs);
// Runs the constructor of the class of `classArray` (object or opaque class) with the given
// inputs. False when the class has none or it fails.
bool hvConstruct(const hvArray* classArray, int nlhs, hvArray** plhs, int nrhs,
                 const hvArray* const* prhs);

// The "string" class. When switched off (a process that lacks it), hvCreateClassArray("string")
// gives null, creating string arrays raises std::runtime_error, and so does deserializing them.
void hvSetStringClassAvailable(bool available);
bool hvIsStringClassAvailable();
// A 1-by-1 string from UTF-8 text.
hvArray* hvCreateStringObject(const char* utf8);
// A string array of the given dimensions from prod(dims) UTF-8 texts in column order.
hvArray* hvCreateStringObjectArray(std::size_t ndim, const std::size_t* dims,
                                   const char* const* utf8);
// Element `index` of a string array.
ustring hvGetStringElement(const hvArray* array, std::size_t index);
// Sets element `index` of a string array (copy on write as for other data).
void hvSetStringElement(hvArray* array, std::size_t index, const ustring& text);

// Shows the array as text through utPrintf under `name` (null: no name). Objects and opaque
// arrays whose class has a "disp" method are shown by it.
void hvDisplay(const hvArray* array, const char* name);

#include <hv/hvopaque.hpp>
#include <hv/matrix.hpp>
#include <hv/utprintf.hpp>
