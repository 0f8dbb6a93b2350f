#pragma once
// Opaque classes of the array library: classes whose arrays (class 17) hold one pointer, the
// giblet, that only the class understands. A class is registered once per process with an
// operation table; the library calls the table when it copies, destroys, compares, saves,
// loads or sizes an array of the class, and when code asks the class for a method.
//
// Ownership. The giblet belongs to the class: the library never frees it. Each array holding a
// giblet is one sharer: when the library makes a shared copy it calls `share` to get the copy's
// giblet, and when it destroys an array with a non-null giblet it calls `destroy` once for that
// array. Class descriptors live until the process ends.
//
// Threads. Registration and lookup are guarded by an internal mutex and may run on any thread.
// Operations are called on the thread that uses the array; a giblet shared by arrays on several
// threads must count its sharers atomically.
//
// Errors. Registration of an empty name, a null table, or a name already registered with another
// table raises std::invalid_argument. Array functions given a non-opaque array raise
// std::invalid_argument.
#include <cstddef>

struct hvArray_tag;
struct hvOpaqueClass;

// The operation table. Every entry may be null; the comment says what the library does then.
struct hvOpaqueClassOps {
    // Create by name: a new array for a class name (usually an instance made by name), or null.
    // Null entry: hvCreateClassArray does not know the name through this class.
    hvArray_tag* (*createByName)(const hvOpaqueClass* cls, const char* name) = nullptr;
    // Find method: a callable method object (usually an opaque array of this class with its own
    // mark) for `name` on `object`, or null. Null entry: no methods.
    hvArray_tag* (*findMethod)(const hvArray_tag* object, const char* name) = nullptr;
    // Call method: `method` is what findMethod returned. Reports success.
    bool (*callMethod)(const hvArray_tag* method, int nlhs, hvArray_tag** plhs, int nrhs,
                       const hvArray_tag* const* prhs) = nullptr;
    // Construct: builds new arrays of the class into plhs from prhs. Reports success.
    bool (*construct)(const hvOpaqueClass* cls, int nlhs, hvArray_tag** plhs, int nrhs,
                      const hvArray_tag* const* prhs) = nullptr;
    // Share: the giblet for a new array sharing `giblet` (usually the same pointer after adding
    // a sharer). Null entry: the copy gets the same pointer.
    void* (*share)(void* giblet) = nullptr;
    // Destroy: one sharer of `giblet` ends. Called only for non-null giblets.
    void (*destroy)(void* giblet) = nullptr;
    // Save: the persistent form of `array` as a new array of any serializable class (null is
    // allowed and reaches load as null). Null entry: the class cannot be serialized.
    hvArray_tag* (*save)(const hvArray_tag* array) = nullptr;
    // Load: a new array (of this class or any other) from the persistent form; null means the
    // form was not acceptable, and hvDeserialize then fails. Null entry: cannot be loaded.
    hvArray_tag* (*load)(const hvOpaqueClass* cls, const hvArray_tag* saved) = nullptr;
    // Update size: called before the library reports the dimensions of an array of the class,
    // so the class may set them (hvSetDimensions) from what the giblet stands for.
    void (*updateSize)(hvArray_tag* array) = nullptr;
    // Equal: called by hvAreMatricesEqual when both arrays are of this class. Null entry: equal
    // when the giblets are the same pointer.
    bool (*equal)(const hvArray_tag* a, const hvArray_tag* b) = nullptr;
    // Class tests by name (hvIsA), beyond the exact class name which always matches.
    bool (*isClassName)(const char* name) = nullptr;
    // Class index of the class and the name for an index; for hosts that number classes.
    int (*classIndex)() = nullptr;
    const char* (*classNameFromIndex)(int index) = nullptr;
};

// Registers an opaque class and returns its descriptor. The table is copied. Registering the same
// name again with an equal table returns the first descriptor.
const hvOpaqueClass* hvSubclassOpaqueArray(const char* className, const hvOpaqueClassOps* ops);
// The descriptor of a registered class, or null.
const hvOpaqueClass* hvFindOpaqueClass(const char* className);
const char* hvGetOpaqueClassName(const hvOpaqueClass* cls);
const hvOpaqueClassOps* hvGetOpaqueClassOps(const hvOpaqueClass* cls);

// A 1-by-1 opaque array of `cls` with mark 0 holding `giblet` (one sharer, taken over).
hvArray_tag* hvCreateOpaqueGiblet(const hvOpaqueClass* cls, void* giblet);
// An m-by-n opaque array of `cls` with no giblet and mark 0.
hvArray_tag* hvCreateOpaqueMatrix(const hvOpaqueClass* cls, std::size_t m, std::size_t n);
// Replaces the giblet of one array. The previous giblet is not destroyed: the class owns it.
void hvSetOpaqueGiblet(hvArray_tag* array, void* giblet);
void* hvGetOpaqueGiblet(const hvArray_tag* array);
// The class index of a class: its classIndex operation's answer, else hvOPAQUE_CLASS (17).
int hvGetOpaqueClassIndex(const hvOpaqueClass* cls);
// The name that some registered class gives for a class index through classNameFromIndex, or
// null when none does.
const char* hvGetClassNameFromIndex(int index);
// The class of an opaque array, null for any other array (and for null).
const hvOpaqueClass* hvGetOpaqueClass(const hvArray_tag* array);
// True when `array` is an opaque array of `cls`.
bool hvIsOpaqueOfClass(const hvArray_tag* array, const hvOpaqueClass* cls);
// The one-byte mark of an opaque array's header; the class decides what it means.
unsigned char hvGetOpaqueMark(const hvArray_tag* array);
void hvSetOpaqueMark(hvArray_tag* array, unsigned char mark);
