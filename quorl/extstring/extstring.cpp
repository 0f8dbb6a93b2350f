#include <mutex>
#include <quorl/extstring/extstring.hpp>

#include <boost/thread/once.hpp>

#include <atomic>
#include <cstring>

namespace quorl {
namespace extstring {

namespace {

const char* const ClassName = "veldra.internal.external.engine.String_";

// The registered class, null until extstrInitExtString has run.
std::atomic<const hvOpaqueClass*> theClass{nullptr};
std::once_flag initOnce;

// The giblet of an external string is its payload array; each sharer holds its own header
// over the payload's shared data.
hvArray* payloadOf(const hvArray* array) {
    return static_cast<hvArray*>(hvGetOpaqueGiblet(array));
}

HvArrayPtr makeExternal(HvArrayPtr payload) {
    auto cls = theClass.load();
    HvArrayPtr ext(hvCreateOpaqueGiblet(cls, payload.get()));
    payload.release(); // the opaque array owns it now
    hvSetArrayScope(ext.get(), hvSCOPE_TEMPORARY);
    return ext;
}

hvArray* createByName(const hvOpaqueClass* cls, const char* name) {
    if (!name || std::strcmp(name, ClassName) != 0) {
        return nullptr;
    }
    return hvCreateOpaqueMatrix(cls, 1, 1);
}

void* sharePayload(void* giblet) {
    return hvCreateSharedDataCopy(static_cast<hvArray*>(giblet));
}

void destroyPayload(void* giblet) {
    hvDestroyArray(static_cast<hvArray*>(giblet));
}

hvArray* savePayload(const hvArray* array) {
    return hvCreateSharedDataCopy(payloadOf(array));
}

// A true "string" where the class exists; otherwise the value stays external.
hvArray* loadPayload(const hvOpaqueClass*, const hvArray* saved) {
    if (hvGetClassID(saved) != hvCELL_CLASS) {
        return nullptr;
    }
    HvArrayPtr empty(hvCreateClassArray("string", 0, 0));
    if (empty) {
        hvArray* made = nullptr;
        if (hvConstruct(empty.get(), 1, &made, 1, &saved) && made) {
            return made;
        }
        hvDestroyArray(made);
    }
    return makeExternal(HvArrayPtr(hvCreateSharedDataCopy(saved))).release();
}

bool equalPayloads(const hvArray* a, const hvArray* b) {
    return extstrIsExternalString(a) && extstrIsExternalString(b) &&
           hvAreMatricesEqual(payloadOf(a), payloadOf(b));
}

bool isClassName(const char* name) {
    return name && std::strcmp(name, ClassName) == 0;
}

int classIndex() {
    return hvOPAQUE_CLASS;
}

void registerClass() {
    hvOpaqueClassOps ops;
    ops.createByName = &createByName;
    ops.share = &sharePayload;
    ops.destroy = &destroyPayload;
    ops.save = &savePayload;
    ops.load = &loadPayload;
    ops.equal = &equalPayloads;
    ops.isClassName = &isClassName;
    ops.classIndex = &classIndex;
    theClass = hvSubclassOpaqueArray(ClassName, &ops);
}

HvArrayPtr convert(HvArrayPtr array) {
    if (hvIsA(array.get(), "string")) {
        return extstrCreateString(array);
    }
    auto cls = hvGetClassID(array.get());
    if ((cls != hvCELL_CLASS && cls != hvSTRUCT_CLASS) || !hvDoesArrayContainObjects(array.get())) {
        return array;
    }
    hvUnreference(array.get());
    hvUnshareShallowEx(array.get());
    auto slots = hvGetNumberOfElements(array.get());
    if (cls == hvSTRUCT_CLASS) {
        slots *= hvGetNumberOfFields(array.get());
    }
    for (std::size_t i = 0; i < slots; ++i) {
        if (!hvGetCell(array.get(), i)) {
            continue;
        }
        HvArrayPtr element(hvTakeCell(array.get(), i));
        hvSetCell(array.get(), i, convert(std::move(element)).release());
    }
    return array;
}

} // namespace

void extstrInitExtString() {
    std::call_once(initOnce, &registerClass);
}

std::string extstrGetClassName() {
    return ClassName;
}

bool extstrIsExternalString(const hvArray_tag* array) {
    auto cls = theClass.load();
    return cls && hvGetClassID(array) == hvOPAQUE_CLASS && hvGetOpaqueClass(array) == cls;
}

HvArrayPtr extstrGetStringData(const hvArray_tag* array) {
    if (!extstrIsExternalString(array)) {
        return nullptr;
    }
    return HvArrayPtr(hvCreateSharedDataCopy(payloadOf(array)));
}

HvArrayPtr extstrCreateString(HvArrayPtr& array) {
    if (!theClass.load() || !array) {
        return nullptr;
    }
    if (hvIsA(array.get(), "string")) {
        HvArrayPtr method(hvFindMethod(array.get(), "cellstr"));
        if (!method) {
            return nullptr;
        }
        hvArray* out = nullptr;
        const hvArray* in = array.get();
        if (!hvCallMethod(method.get(), 1, &out, 1, &in)) {
            hvDestroyArray(out);
            return nullptr;
        }
        if (!out) {
            return nullptr;
        }
        return makeExternal(HvArrayPtr(out));
    }
    if (hvIsA(array.get(), "cell")) {
        return makeExternal(HvArrayPtr(hvCreateSharedDataCopy(array.get())));
    }
    return nullptr;
}

HvArrayPtr extstrCreateConvertedStringCopy(HvArrayPtr& array) {
    if (!array || !theClass.load()) {
        return std::move(array);
    }
    return convert(std::move(array));
}

} // namespace extstring
} // namespace quorl
