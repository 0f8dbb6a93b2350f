// Arrays: creation, destruction, sharing and copy-on-write, header fields, raw data.
#include <hv/hvinternal.hpp>

#include <fl/i18n/conversions.hpp>

#include <sys/mman.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <stdexcept>

namespace hv {
namespace detail {

namespace {
std::atomic<std::size_t> arrayListCount{0};
}

void FreeBytes::operator()(std::uint8_t* bytes) const noexcept {
    std::free(bytes);
}

Bytes allocateBytes(std::size_t n, bool zero) {
    constexpr std::size_t kHugePage = std::size_t(2) << 20;
    if (n == 0) {
        return nullptr;
    }
    void* p = nullptr;
    if (n >= 8 * kHugePage) {
        std::size_t rounded = (n + kHugePage - 1) / kHugePage * kHugePage;
        p = std::aligned_alloc(kHugePage, rounded);
        if (p != nullptr) {
            ::madvise(p, rounded, MADV_HUGEPAGE); // advice only: failure changes nothing
            if (zero) {
                std::memset(p, 0, n);
            }
        }
    } else {
        p = zero ? std::calloc(n, 1) : std::malloc(n);
    }
    if (p == nullptr) {
        throw std::bad_alloc();
    }
    return Bytes(static_cast<std::uint8_t*>(p));
}

HvData::~HvData() {
    for (hvArray* slot : slots) {
        hvDestroyArray(slot);
    }
}

std::size_t elementCount(const std::vector<std::size_t>& dims) {
    std::size_t n = 1;
    bool overflow = false;
    for (std::size_t d : dims) {
        if (d == 0) {
            return 0;
        }
        if (n > std::numeric_limits<std::size_t>::max() / d) {
            overflow = true;
        }
        n *= d;
    }
    if (overflow) {
        throw std::invalid_argument("hv: the number of elements does not fit in size_t");
    }
    return n;
}

std::vector<std::size_t> normalizeDims(std::size_t ndim, const std::size_t* dims) {
    if (ndim > 0 && dims == nullptr) {
        throw std::invalid_argument("hv: null dimensions");
    }
    if (ndim == 0) {
        return {0, 0};
    }
    std::vector<std::size_t> result(dims, dims + ndim);
    while (result.size() > 2 && result.back() == 1) {
        result.pop_back();
    }
    if (result.size() < 2) {
        result.push_back(1); // a single dimension n means n-by-1
    }
    elementCount(result);
    return result;
}

std::size_t elementSize(hvClassID cls) {
    switch (cls) {
    case hvLOGICAL_CLASS:
    case hvINT8_CLASS:
    case hvUINT8_CLASS:
        return 1;
    case hvCHAR_CLASS:
    case hvINT16_CLASS:
    case hvUINT16_CLASS:
        return 2;
    case hvSINGLE_CLASS:
    case hvINT32_CLASS:
    case hvUINT32_CLASS:
        return 4;
    case hvDOUBLE_CLASS:
    case hvINT64_CLASS:
    case hvUINT64_CLASS:
        return 8;
    default:
        return 0;
    }
}

bool isRawClass(hvClassID cls) {
    return elementSize(cls) != 0;
}

hvArray* newHeader(hvClassID cls) {
    auto* array = new hvArray_tag;
    array->cls = cls;
    arrayListCount.fetch_add(1, std::memory_order_relaxed);
    return array;
}

hvArray* newArray(hvClassID cls, std::vector<std::size_t> dims, bool zero) {
    std::size_t n = elementCount(dims);
    std::size_t size = elementSize(cls);
    auto data = std::make_unique<HvData>();
    if (size != 0) {
        if (n > std::numeric_limits<std::size_t>::max() / size) {
            throw std::invalid_argument("hv: the array is too large");
        }
        data->nbytes = n * size;
        if (data->nbytes != 0) {
            data->bytes = allocateBytes(data->nbytes, zero);
        }
    } else if (cls == hvCELL_CLASS) {
        data->slots.assign(n, nullptr);
    }
    hvArray* array = newHeader(cls);
    array->dims = std::move(dims);
    array->data = data.release();
    return array;
}

void releaseData(HvData* data) {
    if (data != nullptr && data->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        delete data;
    }
}

namespace {

HvData* copyData(const HvData& source) {
    auto copy = std::make_unique<HvData>();
    copy->nbytes = source.nbytes;
    if (source.nbytes != 0) {
        copy->bytes = allocateBytes(source.nbytes, false);
        std::memcpy(copy->bytes.get(), source.bytes.get(), source.nbytes);
    }
    copy->slots.reserve(source.slots.size());
    for (const hvArray* slot : source.slots) {
        copy->slots.push_back(hvCreateSharedDataCopy(slot));
    }
    copy->fields = source.fields;
    copy->strings = source.strings;
    copy->functionName = source.functionName;
    copy->payload = source.payload;
    copy->boundMethod = source.boundMethod;
    copy->boundClass = source.boundClass;
    return copy.release();
}

hvArray* copyHeader(const hvArray* array, bool onList) {
    auto* copy = new hvArray_tag;
    copy->cls = array->cls;
    copy->dims = array->dims;
    copy->flags = array->flags;
    copy->scope = array->scope;
    copy->onList = onList;
    copy->opaque = array->opaque;
    copy->mark = array->mark;
    copy->objectClass = array->objectClass;
    if (onList) {
        arrayListCount.fetch_add(1, std::memory_order_relaxed);
    }
    return copy;
}

hvArray* sharedCopy(const hvArray* array, bool onList) {
    if (array == nullptr) {
        return nullptr;
    }
    hvArray* copy = copyHeader(array, onList);
    if (array->data != nullptr) {
        array->data->refs.fetch_add(1, std::memory_order_relaxed);
        copy->data = array->data;
    }
    if (array->giblet != nullptr) {
        const hvOpaqueClassOps& ops = array->opaque->ops;
        try {
            copy->giblet = ops.share != nullptr ? ops.share(array->giblet) : array->giblet;
        } catch (...) {
            hvDestroyArray(copy);
            throw;
        }
    }
    return copy;
}

} // namespace

void makeWritable(hvArray* array) {
    HvData* data = array->data;
    if (data == nullptr || data->refs.load(std::memory_order_acquire) == 1) {
        return;
    }
    if (array->cls == hvOBJECT_CLASS && array->objectClass->handle) {
        return;
    }
    array->data = copyData(*data);
    releaseData(data);
}

void updateSize(const hvArray* array) {
    if (array != nullptr && array->cls == hvOPAQUE_CLASS && array->opaque->ops.updateSize) {
        array->opaque->ops.updateSize(const_cast<hvArray*>(array));
    }
}

void requireArray(const hvArray* array, const char* function) {
    if (array == nullptr) {
        throw std::invalid_argument(std::string(function) + ": null array");
    }
}

void badClass(const hvArray* array, const char* function, const char* expected) {
    throw std::invalid_argument(std::string(function) + ": expected " + expected +
                                ", got an array of class " + hvGetClassName(array));
}

} // namespace detail
} // namespace hv

using namespace hv::detail;

namespace {

void requireNumericClass(hvClassID cls, const char* function) {
    if (cls < hvDOUBLE_CLASS || cls > hvUINT64_CLASS) {
        throw std::invalid_argument(std::string(function) + ": class " + std::to_string(cls) +
                                    " is not a numeric class");
    }
}

// Takes the value already in its type: a saturated 64-bit integer does not survive a round
// trip through double (its limit becomes 2^63 or 2^64, out of range).
template <class T> void storeAs(void* out, T value) {
    std::memcpy(out, &value, sizeof value);
}

// Converts with saturation for integers, so that no value is undefined behaviour.
template <class T> T saturate(double value) {
    if (value != value) {
        return 0;
    }
    if (value <= static_cast<double>(std::numeric_limits<T>::lowest())) {
        return std::numeric_limits<T>::lowest();
    }
    if (value >= static_cast<double>(std::numeric_limits<T>::max())) {
        return std::numeric_limits<T>::max();
    }
    return static_cast<T>(value);
}

template <class T> double loadAs(const void* in) {
    T v;
    std::memcpy(&v, in, sizeof v);
    return static_cast<double>(v);
}

} // namespace

hvArray* hvCreateNumericArray(hvClassID cls, std::size_t ndim, const std::size_t* dims) {
    requireNumericClass(cls, "hvCreateNumericArray");
    return newArray(cls, normalizeDims(ndim, dims));
}

hvArray* hvCreateNumericMatrix(hvClassID cls, std::size_t m, std::size_t n) {
    const std::size_t dims[] = {m, n};
    return hvCreateNumericArray(cls, 2, dims);
}

hvArray* hvCreateDoubleScalar(double value) {
    return hvCreateNumericScalar(hvDOUBLE_CLASS, value);
}

hvArray* hvCreateNumericScalar(hvClassID cls, double value) {
    hvArray* array = hvCreateNumericMatrix(cls, 1, 1);
    void* out = array->data->bytes.get();
    switch (cls) {
    case hvDOUBLE_CLASS:
        storeAs<double>(out, value);
        break;
    case hvSINGLE_CLASS:
        storeAs<float>(out, static_cast<float>(value));
        break;
    case hvINT8_CLASS:
        storeAs<std::int8_t>(out, saturate<std::int8_t>(value));
        break;
    case hvUINT8_CLASS:
        storeAs<std::uint8_t>(out, saturate<std::uint8_t>(value));
        break;
    case hvINT16_CLASS:
        storeAs<std::int16_t>(out, saturate<std::int16_t>(value));
        break;
    case hvUINT16_CLASS:
        storeAs<std::uint16_t>(out, saturate<std::uint16_t>(value));
        break;
    case hvINT32_CLASS:
        storeAs<std::int32_t>(out, saturate<std::int32_t>(value));
        break;
    case hvUINT32_CLASS:
        storeAs<std::uint32_t>(out, saturate<std::uint32_t>(value));
        break;
    case hvINT64_CLASS:
        storeAs<std::int64_t>(out, saturate<std::int64_t>(value));
        break;
    default:
        storeAs<std::uint64_t>(out, saturate<std::uint64_t>(value));
        break;
    }
    return array;
}

hvArray* hvCreateLogicalArray(std::size_t ndim, const std::size_t* dims) {
    return newArray(hvLOGICAL_CLASS, normalizeDims(ndim, dims));
}

hvArray* hvCreateLogicalMatrix(std::size_t m, std::size_t n) {
    const std::size_t dims[] = {m, n};
    return hvCreateLogicalArray(2, dims);
}

hvArray* hvCreateLogicalScalar(bool value) {
    hvArray* array = hvCreateLogicalMatrix(1, 1);
    array->data->bytes[0] = value ? 1 : 0;
    return array;
}

hvArray* hvCreateCharArray(std::size_t ndim, const std::size_t* dims) {
    return newArray(hvCHAR_CLASS, normalizeDims(ndim, dims));
}

hvArray* hvCreateString(const char* utf8) {
    if (utf8 == nullptr) {
        throw std::invalid_argument("hvCreateString: null text");
    }
    ustring text = fl::i18n::to_ustring(std::string(utf8));
    return hvCreateStringFromUtf16(text.data(), text.size());
}

hvArray* hvCreateStringFromUtf16(const char16_t* text, std::size_t length) {
    if (text == nullptr && length != 0) {
        throw std::invalid_argument("hvCreateStringFromUtf16: null text");
    }
    const std::size_t dims[] = {length == 0 ? 0u : 1u, length};
    hvArray* array = newArray(hvCHAR_CLASS, normalizeDims(2, dims), false);
    if (length != 0) {
        std::memcpy(array->data->bytes.get(), text, length * sizeof(char16_t));
    }
    return array;
}

hvArray* hvCreateCellArray(std::size_t ndim, const std::size_t* dims) {
    return newArray(hvCELL_CLASS, normalizeDims(ndim, dims));
}

hvArray* hvCreateCellMatrix(std::size_t m, std::size_t n) {
    const std::size_t dims[] = {m, n};
    return hvCreateCellArray(2, dims);
}

hvArray* hvCreateStructArray(std::size_t ndim, const std::size_t* dims, std::size_t nfields,
                             const char* const* fieldNames) {
    if (nfields > 0 && fieldNames == nullptr) {
        throw std::invalid_argument("hvCreateStructArray: null field names");
    }
    std::vector<std::string> fields;
    for (std::size_t i = 0; i < nfields; ++i) {
        if (fieldNames[i] == nullptr || fieldNames[i][0] == '\0') {
            throw std::invalid_argument("hvCreateStructArray: empty field name");
        }
        if (std::find(fields.begin(), fields.end(), fieldNames[i]) != fields.end()) {
            throw std::invalid_argument(std::string("hvCreateStructArray: duplicate field \"") +
                                        fieldNames[i] + "\"");
        }
        fields.emplace_back(fieldNames[i]);
    }
    std::vector<std::size_t> d = normalizeDims(ndim, dims);
    std::size_t n = elementCount(d);
    if (nfields != 0 && n > std::numeric_limits<std::size_t>::max() / nfields) {
        throw std::invalid_argument("hvCreateStructArray: the array is too large");
    }
    hvArray* array = newArray(hvSTRUCT_CLASS, std::move(d));
    array->data->fields = std::move(fields);
    array->data->slots.assign(n * nfields, nullptr);
    return array;
}

hvArray* hvCreateStructMatrix(std::size_t m, std::size_t n, std::size_t nfields,
                              const char* const* fieldNames) {
    const std::size_t dims[] = {m, n};
    return hvCreateStructArray(2, dims, nfields, fieldNames);
}

hvArray* hvCreateFunctionHandle(const char* functionName) {
    if (functionName == nullptr || functionName[0] == '\0') {
        throw std::invalid_argument("hvCreateFunctionHandle: empty function name");
    }
    hvArray* array = newArray(hvFUNCTION_CLASS, {1, 1});
    array->data->functionName = functionName;
    return array;
}

hvArray* hvCreateFunctionHandleWithPayload(const char* functionName,
                                           std::shared_ptr<const void> payload) {
    hvArray* array = hvCreateFunctionHandle(functionName);
    array->data->payload = std::move(payload);
    return array;
}

std::shared_ptr<const void> hvGetFunctionHandlePayload(const hvArray* array) {
    if (array == nullptr || array->cls != hvFUNCTION_CLASS || array->data == nullptr) {
        return nullptr;
    }
    return array->data->payload;
}

void hvDestroyArray(const hvArray* array) {
    if (array == nullptr) {
        return;
    }
    std::unique_ptr<hvArray_tag> owned(const_cast<hvArray*>(array));
    if (owned->onList) {
        arrayListCount.fetch_sub(1, std::memory_order_relaxed);
    }
    if (owned->giblet != nullptr && owned->opaque->ops.destroy != nullptr) {
        // A class's destroy must not throw; if it does, the header is still freed.
        try {
            owned->opaque->ops.destroy(owned->giblet);
        } catch (...) {
        }
    }
    releaseData(owned->data);
}

hvArray* hvCreateSharedDataCopy(const hvArray* array) {
    return hv::detail::sharedCopy(array, true);
}

hvArray* hvCreateSharedCopyNotOnArrayList(const hvArray* array) {
    return hv::detail::sharedCopy(array, false);
}

hvArray* hvDuplicateArray(const hvArray* array) {
    if (array == nullptr) {
        return nullptr;
    }
    HvArrayPtr copy(hvCreateSharedDataCopy(array));
    if (copy->data == nullptr) {
        return copy.release();
    }
    if (copy->cls == hvOBJECT_CLASS && copy->objectClass->handle) {
        // A handle's copy is the same object.
        return copy.release();
    }
    HvData* data = copy->data;
    copy->data = hv::detail::copyData(*data);
    releaseData(data);
    for (hvArray*& slot : copy->data->slots) {
        hvArray* deep = hvDuplicateArray(slot);
        hvDestroyArray(slot);
        slot = deep;
    }
    return copy.release();
}

void hvUnshareShallowEx(hvArray* array) {
    requireArray(array, "hvUnshareShallowEx");
    makeWritable(array);
}

bool hvIsSharedData(const hvArray* array) {
    return array != nullptr && array->data != nullptr &&
           array->data->refs.load(std::memory_order_acquire) > 1;
}

std::size_t hvGetArrayListCount() {
    return arrayListCount.load(std::memory_order_relaxed);
}

hvClassID hvGetClassID(const hvArray* array) {
    return array == nullptr ? hvUNKNOWN_CLASS : array->cls;
}

const char* hvGetClassName(const hvArray* array) {
    if (array == nullptr) {
        return "";
    }
    switch (array->cls) {
    case hvCELL_CLASS:
        return "cell";
    case hvSTRUCT_CLASS:
        return "struct";
    case hvLOGICAL_CLASS:
        return "logical";
    case hvCHAR_CLASS:
        return "char";
    case hvDOUBLE_CLASS:
        return "double";
    case hvSINGLE_CLASS:
        return "single";
    case hvINT8_CLASS:
        return "int8";
    case hvUINT8_CLASS:
        return "uint8";
    case hvINT16_CLASS:
        return "int16";
    case hvUINT16_CLASS:
        return "uint16";
    case hvINT32_CLASS:
        return "int32";
    case hvUINT32_CLASS:
        return "uint32";
    case hvINT64_CLASS:
        return "int64";
    case hvUINT64_CLASS:
        return "uint64";
    case hvFUNCTION_CLASS:
        return "function_handle";
    case hvOPAQUE_CLASS:
        return array->opaque->name.c_str();
    case hvOBJECT_CLASS:
        return array->objectClass->name.c_str();
    default:
        return "unknown";
    }
}

std::size_t hvGetNumberOfDimensions(const hvArray* array) {
    requireArray(array, "hvGetNumberOfDimensions");
    updateSize(array);
    return array->dims.size();
}

const std::size_t* hvGetDimensions(const hvArray* array) {
    requireArray(array, "hvGetDimensions");
    updateSize(array);
    return array->dims.data();
}

std::size_t hvGetM(const hvArray* array) {
    requireArray(array, "hvGetM");
    updateSize(array);
    return array->dims[0];
}

std::size_t hvGetN(const hvArray* array) {
    requireArray(array, "hvGetN");
    updateSize(array);
    std::size_t n = 1;
    for (std::size_t i = 1; i < array->dims.size(); ++i) {
        n *= array->dims[i];
    }
    return n;
}

std::size_t hvGetNumberOfElements(const hvArray* array) {
    requireArray(array, "hvGetNumberOfElements");
    updateSize(array);
    return elementCount(array->dims);
}

bool hvIsEmpty(const hvArray* array) {
    return hvGetNumberOfElements(array) == 0;
}

void hvSetDimensions(hvArray* array, std::size_t ndim, const std::size_t* dims) {
    requireArray(array, "hvSetDimensions");
    std::vector<std::size_t> d = normalizeDims(ndim, dims);
    std::size_t newCount = elementCount(d);
    if (array->data == nullptr || newCount == elementCount(array->dims)) {
        array->dims = std::move(d);
        return;
    }
    makeWritable(array);
    HvData& data = *array->data;
    if (isRawClass(array->cls)) {
        std::size_t size = elementSize(array->cls);
        if (newCount > std::numeric_limits<std::size_t>::max() / size) {
            throw std::invalid_argument("hvSetDimensions: the array is too large");
        }
        std::size_t nbytes = newCount * size;
        Bytes bytes = allocateBytes(nbytes, true);
        if (nbytes != 0 && data.nbytes != 0) {
            std::memcpy(bytes.get(), data.bytes.get(), std::min(nbytes, data.nbytes));
        }
        data.bytes = std::move(bytes);
        data.nbytes = nbytes;
    } else if (array->cls == hvOBJECT_CLASS && array->objectClass->isString) {
        data.strings.resize(newCount);
    } else if (array->cls == hvCELL_CLASS || array->cls == hvSTRUCT_CLASS ||
               array->cls == hvOBJECT_CLASS) {
        std::size_t width = array->cls == hvCELL_CLASS ? 1 : data.fields.size();
        if (width != 0 && newCount > std::numeric_limits<std::size_t>::max() / width) {
            throw std::invalid_argument("hvSetDimensions: the array is too large");
        }
        std::size_t slots = newCount * width;
        for (std::size_t i = slots; i < data.slots.size(); ++i) {
            hvDestroyArray(data.slots[i]);
        }
        data.slots.resize(slots, nullptr);
    } else if (newCount != 1) {
        throw std::invalid_argument("hvSetDimensions: a function handle is 1-by-1");
    }
    array->dims = std::move(d);
}

std::uint32_t hvGetFlags(const hvArray* array) {
    requireArray(array, "hvGetFlags");
    return array->flags;
}

void hvSetFlags(hvArray* array, std::uint32_t flags) {
    requireArray(array, "hvSetFlags");
    array->flags = flags;
}

bool hvIsPlainArray(const hvArray* array) {
    return array != nullptr &&
           (array->cls == hvLOGICAL_CLASS ||
            (array->cls >= hvDOUBLE_CLASS && array->cls <= hvUINT64_CLASS)) &&
           (array->flags & (hvFLAG_NO_ELEMENT | hvFLAG_SPARSE)) == 0;
}

int hvGetArrayScope(const hvArray* array) {
    requireArray(array, "hvGetArrayScope");
    return array->scope;
}

void hvSetArrayScope(hvArray* array, int scope) {
    requireArray(array, "hvSetArrayScope");
    array->scope = scope;
}

void hvSetLink(hvArray* array, const void* link) {
    requireArray(array, "hvSetLink");
    array->link = link;
}

const void* hvGetLink(const hvArray* array) {
    requireArray(array, "hvGetLink");
    return array->link;
}

void hvUnreference(hvArray* array) {
    requireArray(array, "hvUnreference");
    array->link = nullptr;
}

void hvRootArray(hvArray* array, const char* variableName) {
    requireArray(array, "hvRootArray");
    if (variableName == nullptr || variableName[0] == '\0') {
        throw std::invalid_argument("hvRootArray: empty variable name");
    }
    array->root = std::make_unique<std::string>(variableName);
}

bool hvHasRootRecord(const hvArray* array) {
    return array != nullptr && array->root != nullptr;
}

const char* hvGetRootName(const hvArray* array) {
    return hvHasRootRecord(array) ? array->root->c_str() : nullptr;
}

void hvUnrootArray(hvArray* array) {
    requireArray(array, "hvUnrootArray");
    array->root.reset();
}

hvArrayInfo hvGetInfo(const hvArray* array) {
    hvArrayInfo info;
    if (array == nullptr) {
        return info;
    }
    updateSize(array);
    info.classID = array->cls;
    info.className = hvGetClassName(array);
    info.numberOfElements = elementCount(array->dims);
    info.numberOfDimensions = array->dims.size();
    info.flags = array->flags;
    info.scope = array->scope;
    info.sharedData = hvIsSharedData(array);
    info.hasLink = array->link != nullptr;
    info.hasRootRecord = array->root != nullptr;
    info.opaqueClass = array->opaque;
    info.mark = array->mark;
    return info;
}

bool hvIsNumeric(const hvArray* array) {
    return array != nullptr && array->cls >= hvDOUBLE_CLASS && array->cls <= hvUINT64_CLASS;
}

bool hvIsContainer(const hvArray* array) {
    return array != nullptr && (array->cls == hvCELL_CLASS || array->cls == hvSTRUCT_CLASS ||
                                array->cls == hvOBJECT_CLASS);
}

std::size_t hvGetElementSize(const hvArray* array) {
    requireArray(array, "hvGetElementSize");
    if (!isRawClass(array->cls)) {
        badClass(array, "hvGetElementSize", "a numeric, logical or char array");
    }
    return elementSize(array->cls);
}

void* hvGetData(hvArray* array) {
    requireArray(array, "hvGetData");
    if (!isRawClass(array->cls)) {
        badClass(array, "hvGetData", "a numeric, logical or char array");
    }
    makeWritable(array);
    return array->data->bytes.get();
}

const void* hvGetReadOnlyData(const hvArray* array) {
    requireArray(array, "hvGetReadOnlyData");
    if (!isRawClass(array->cls)) {
        badClass(array, "hvGetReadOnlyData", "a numeric, logical or char array");
    }
    return array->data->bytes.get();
}

double hvGetScalar(const hvArray* array) {
    requireArray(array, "hvGetScalar");
    if (!isRawClass(array->cls)) {
        badClass(array, "hvGetScalar", "a numeric, logical or char array");
    }
    if (array->data->nbytes == 0) {
        return 0.0;
    }
    const void* p = array->data->bytes.get();
    switch (array->cls) {
    case hvLOGICAL_CLASS:
        return *static_cast<const std::uint8_t*>(p) != 0 ? 1.0 : 0.0;
    case hvCHAR_CLASS:
        return loadAs<char16_t>(p);
    case hvDOUBLE_CLASS:
        return loadAs<double>(p);
    case hvSINGLE_CLASS:
        return loadAs<float>(p);
    case hvINT8_CLASS:
        return loadAs<std::int8_t>(p);
    case hvUINT8_CLASS:
        return loadAs<std::uint8_t>(p);
    case hvINT16_CLASS:
        return loadAs<std::int16_t>(p);
    case hvUINT16_CLASS:
        return loadAs<std::uint16_t>(p);
    case hvINT32_CLASS:
        return loadAs<std::int32_t>(p);
    case hvUINT32_CLASS:
        return loadAs<std::uint32_t>(p);
    case hvINT64_CLASS:
        return loadAs<std::int64_t>(p);
    default:
        return loadAs<std::uint64_t>(p);
    }
}

ustring hvArrayToUString(const hvArray* array) {
    requireArray(array, "hvArrayToUString");
    if (array->cls == hvCHAR_CLASS) {
        ustring text(array->data->nbytes / sizeof(char16_t), u'\0');
        if (!text.empty()) {
            std::memcpy(&text[0], array->data->bytes.get(), array->data->nbytes);
        }
        return text;
    }
    if (array->cls == hvOBJECT_CLASS && array->objectClass->isString &&
        array->data->strings.size() == 1) {
        return array->data->strings[0];
    }
    badClass(array, "hvArrayToUString", "a char array or a 1-by-1 string");
}

std::string hvArrayToStdString(const hvArray* array) {
    return fl::i18n::to_string(hvArrayToUString(array));
}

std::string hvGetFunctionName(const hvArray* array) {
    requireArray(array, "hvGetFunctionName");
    if (array->cls != hvFUNCTION_CLASS) {
        badClass(array, "hvGetFunctionName", "a function handle");
    }
    return array->data->functionName;
}

namespace matrix {
namespace detail {

std::unique_ptr<hvArray_tag, hvDestroy_deleter> create_numeric(int cls, std::size_t m,
                                                               std::size_t n) {
    return std::unique_ptr<hvArray_tag, hvDestroy_deleter>(
        hvCreateNumericMatrix(static_cast<hvClassID>(cls), m, n));
}

} // namespace detail

ustring get_ustring(const hvArray_tag* array) {
    return hvArrayToUString(array);
}

std::string get_string(const hvArray_tag* array) {
    return hvArrayToStdString(array);
}

} // namespace matrix
