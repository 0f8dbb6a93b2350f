#pragma once
// Layout of arrays and their shared data, private to the array library's sources.
//
// An array is a header (class, dimensions, flags, scope, link, root record) over a counted
// HvData block, which several headers may share. A block holds what its class needs: raw bytes
// for numeric, logical and char arrays; owned element pointers (slots) for cells, structs and
// objects; texts for "string" arrays; a name for function handles. Opaque arrays have no block:
// they hold their class's giblet instead.
#include <hv/hvarray.hpp>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace hv {
namespace detail {

struct ObjectClass {
    std::string name;
    std::vector<std::string> superclasses;
    std::vector<std::string> properties;
    std::vector<std::pair<std::string, hvMethodFunction>> methods;
    hvMethodFunction constructor = nullptr;
    bool handle = false;
    bool serializable = true;
    bool isString = false;
};

struct FreeBytes {
    void operator()(std::uint8_t* bytes) const noexcept;
};
typedef std::unique_ptr<std::uint8_t[], FreeBytes> Bytes;
// Storage for raw element data; zero-filled when `zero`. Large blocks are aligned to, and
// advised as, huge pages: fresh memory then costs a fraction of the page faults. Null for 0.
Bytes allocateBytes(std::size_t n, bool zero);

struct HvData {
    std::atomic<std::size_t> refs{1};
    Bytes bytes;
    std::size_t nbytes = 0;
    std::vector<hvArray*> slots;            // cells, structs, objects: elements times fields
    std::vector<std::string> fields;        // structs, objects
    std::vector<ustring> strings;           // "string" arrays
    std::string functionName;               // function handles
    std::shared_ptr<const void> payload;    // function handles: data of the code that made it
    hvMethodFunction boundMethod = nullptr; // a method object of an object class
    const ObjectClass* boundClass = nullptr;

    HvData() = default;
    HvData(const HvData&) = delete;
    HvData& operator=(const HvData&) = delete;
    ~HvData();
};

} // namespace detail
} // namespace hv

struct hvArray_tag {
    hvClassID cls = hvUNKNOWN_CLASS;
    std::vector<std::size_t> dims{0, 0};
    std::uint32_t flags = 0;
    int scope = 0;
    const void* link = nullptr;
    std::unique_ptr<std::string> root;
    bool onList = true;
    hv::detail::HvData* data = nullptr;
    // Opaque arrays.
    const hvOpaqueClass* opaque = nullptr;
    void* giblet = nullptr;
    unsigned char mark = 0;
    // Object arrays.
    const hv::detail::ObjectClass* objectClass = nullptr;
};

struct hvOpaqueClass {
    std::string name;
    hvOpaqueClassOps ops;
};

namespace hv {
namespace detail {

// Product of dimensions; std::invalid_argument when it does not fit in size_t.
std::size_t elementCount(const std::vector<std::size_t>& dims);
std::vector<std::size_t> normalizeDims(std::size_t ndim, const std::size_t* dims);
std::size_t elementSize(hvClassID cls); // 0 for classes without raw data
bool isRawClass(hvClassID cls);         // logical, char, numeric

// A new header with a new block. Raw classes get nbytes of storage, zero-filled when `zero`.
hvArray* newArray(hvClassID cls, std::vector<std::size_t> dims, bool zero = true);
// A new header of class `cls` with no block (opaque arrays).
hvArray* newHeader(hvClassID cls);
// Gives the array its own block unless it is the only holder (handle objects keep sharing).
void makeWritable(hvArray* array);
void releaseData(HvData* data);

// Calls the opaque class's updateSize, if any.
void updateSize(const hvArray* array);

void requireArray(const hvArray* array, const char* function);
[[noreturn]] void badClass(const hvArray* array, const char* function, const char* expected);

const ObjectClass* findObjectClass(const std::string& name);
const ObjectClass* stringClass();
// A new string array of the given dimensions (empty texts); std::runtime_error when off.
hvArray* newStringArray(std::vector<std::size_t> dims);
// A new object array of `cls` with empty properties.
hvArray* newObjectArrayForLoad(const ObjectClass* cls, std::vector<std::size_t> dims);
// A method object for `name` of `cls`, or null when the class has no such method.
hvArray* newMethodHandle(const ObjectClass* cls, const char* name);

} // namespace detail
} // namespace hv
