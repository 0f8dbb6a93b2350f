// Cells, structs and object slots; element references; equality; content tests.
#include <hv/hvinternal.hpp>

#include <cmath>
#include <cstring>
#include <stdexcept>

using namespace hv::detail;

namespace {

bool hasSlots(const hvArray* array) {
    return array->cls == hvCELL_CLASS || array->cls == hvSTRUCT_CLASS ||
           (array->cls == hvOBJECT_CLASS && !array->objectClass->isString);
}

void requireSlots(const hvArray* array, const char* function) {
    requireArray(array, function);
    if (!hasSlots(array)) {
        badClass(array, function, "a cell, struct or object array");
    }
}

void requireFields(const hvArray* array, const char* function) {
    requireArray(array, function);
    if (array->cls != hvSTRUCT_CLASS &&
        !(array->cls == hvOBJECT_CLASS && !array->objectClass->isString)) {
        badClass(array, function, "a struct or object array");
    }
}

void checkSlot(const hvArray* array, std::size_t index, const char* function) {
    if (index >= array->data->slots.size()) {
        throw std::out_of_range(std::string(function) + ": index " + std::to_string(index) +
                                " is beyond the " + std::to_string(array->data->slots.size()) +
                                " elements");
    }
}

void checkElement(const hvArray* array, std::size_t index, const char* function) {
    std::size_t n = elementCount(array->dims);
    if (index >= n) {
        throw std::out_of_range(std::string(function) + ": element " + std::to_string(index) +
                                " is beyond the " + std::to_string(n) + " elements");
    }
}

std::size_t fieldIndex(const hvArray* array, const char* name) {
    if (name == nullptr) {
        return static_cast<std::size_t>(-1);
    }
    const auto& fields = array->data->fields;
    for (std::size_t i = 0; i < fields.size(); ++i) {
        if (fields[i] == name) {
            return i;
        }
    }
    return static_cast<std::size_t>(-1);
}

template <class T> bool equalFloats(const void* a, const void* b, std::size_t n) {
    for (std::size_t i = 0; i < n; ++i) {
        T x, y;
        std::memcpy(&x, static_cast<const char*>(a) + i * sizeof(T), sizeof(T));
        std::memcpy(&y, static_cast<const char*>(b) + i * sizeof(T), sizeof(T));
        if (!(x == y)) {
            return false;
        }
    }
    return true;
}

} // namespace

const hvArray* hvGetCell(const hvArray* array, std::size_t index) {
    requireSlots(array, "hvGetCell");
    checkSlot(array, index, "hvGetCell");
    return array->data->slots[index];
}

void hvSetCell(hvArray* array, std::size_t index, hvArray* value) {
    if (value != nullptr && value == array) {
        throw std::invalid_argument("hvSetCell: an array cannot hold itself");
    }
    HvArrayPtr owned(value);
    requireSlots(array, "hvSetCell");
    checkSlot(array, index, "hvSetCell");
    makeWritable(array);
    hvArray* old = array->data->slots[index];
    array->data->slots[index] = owned.release();
    hvDestroyArray(old);
}

hvArray* hvTakeCell(hvArray* array, std::size_t index) {
    requireSlots(array, "hvTakeCell");
    checkSlot(array, index, "hvTakeCell");
    makeWritable(array);
    hvArray* value = array->data->slots[index];
    array->data->slots[index] = nullptr;
    return value;
}

std::size_t hvGetNumberOfFields(const hvArray* array) {
    requireFields(array, "hvGetNumberOfFields");
    return array->data->fields.size();
}

const char* hvGetFieldNameByNumber(const hvArray* array, std::size_t field) {
    requireFields(array, "hvGetFieldNameByNumber");
    if (field >= array->data->fields.size()) {
        throw std::out_of_range("hvGetFieldNameByNumber: field " + std::to_string(field) +
                                " is beyond the " + std::to_string(array->data->fields.size()) +
                                " fields");
    }
    return array->data->fields[field].c_str();
}

int hvGetFieldNumber(const hvArray* array, const char* name) {
    requireFields(array, "hvGetFieldNumber");
    std::size_t i = fieldIndex(array, name);
    return i == static_cast<std::size_t>(-1) ? -1 : static_cast<int>(i);
}

int hvAddField(hvArray* array, const char* name) {
    requireArray(array, "hvAddField");
    if (array->cls != hvSTRUCT_CLASS) {
        badClass(array, "hvAddField", "a struct array");
    }
    if (name == nullptr || name[0] == '\0') {
        throw std::invalid_argument("hvAddField: empty field name");
    }
    std::size_t existing = fieldIndex(array, name);
    if (existing != static_cast<std::size_t>(-1)) {
        return static_cast<int>(existing);
    }
    makeWritable(array);
    HvData& data = *array->data;
    std::size_t n = elementCount(array->dims);
    std::size_t nf = data.fields.size();
    std::vector<hvArray*> slots(n * (nf + 1), nullptr);
    for (std::size_t e = 0; e < n; ++e) {
        for (std::size_t f = 0; f < nf; ++f) {
            slots[e * (nf + 1) + f] = data.slots[e * nf + f];
        }
    }
    data.fields.emplace_back(name);
    data.slots.swap(slots);
    return static_cast<int>(nf);
}

void hvRemoveField(hvArray* array, std::size_t field) {
    requireArray(array, "hvRemoveField");
    if (array->cls != hvSTRUCT_CLASS) {
        badClass(array, "hvRemoveField", "a struct array");
    }
    if (field >= array->data->fields.size()) {
        throw std::out_of_range("hvRemoveField: no field " + std::to_string(field));
    }
    makeWritable(array);
    HvData& data = *array->data;
    std::size_t n = elementCount(array->dims);
    std::size_t nf = data.fields.size();
    std::vector<hvArray*> slots;
    slots.reserve(n * (nf - 1));
    for (std::size_t e = 0; e < n; ++e) {
        for (std::size_t f = 0; f < nf; ++f) {
            if (f == field) {
                hvDestroyArray(data.slots[e * nf + f]);
            } else {
                slots.push_back(data.slots[e * nf + f]);
            }
        }
    }
    data.fields.erase(data.fields.begin() + static_cast<std::ptrdiff_t>(field));
    data.slots.swap(slots);
}

const hvArray* hvGetField(const hvArray* array, std::size_t index, const char* name) {
    requireFields(array, "hvGetField");
    checkElement(array, index, "hvGetField");
    std::size_t f = fieldIndex(array, name);
    if (f == static_cast<std::size_t>(-1)) {
        return nullptr;
    }
    return array->data->slots[index * array->data->fields.size() + f];
}

const hvArray* hvGetFieldByNumber(const hvArray* array, std::size_t index, std::size_t field) {
    requireFields(array, "hvGetFieldByNumber");
    checkElement(array, index, "hvGetFieldByNumber");
    if (field >= array->data->fields.size()) {
        throw std::out_of_range("hvGetFieldByNumber: no field " + std::to_string(field));
    }
    return array->data->slots[index * array->data->fields.size() + field];
}

void hvSetField(hvArray* array, std::size_t index, const char* name, hvArray* value) {
    if (value != nullptr && value == array) {
        throw std::invalid_argument("hvSetField: an array cannot hold itself");
    }
    HvArrayPtr owned(value);
    requireFields(array, "hvSetField");
    checkElement(array, index, "hvSetField");
    std::size_t f = fieldIndex(array, name);
    if (f == static_cast<std::size_t>(-1)) {
        throw std::invalid_argument(std::string("hvSetField: no field \"") + (name ? name : "") +
                                    "\"");
    }
    hvSetCell(array, index * array->data->fields.size() + f, owned.release());
}

void hvSetFieldByNumber(hvArray* array, std::size_t index, std::size_t field, hvArray* value) {
    if (value != nullptr && value == array) {
        throw std::invalid_argument("hvSetField: an array cannot hold itself");
    }
    HvArrayPtr owned(value);
    requireFields(array, "hvSetFieldByNumber");
    checkElement(array, index, "hvSetFieldByNumber");
    if (field >= array->data->fields.size()) {
        throw std::out_of_range("hvSetFieldByNumber: no field " + std::to_string(field));
    }
    hvSetCell(array, index * array->data->fields.size() + field, owned.release());
}

hvArray* hvSubscriptedReference(const hvArray* array, std::size_t oneBasedIndex) {
    requireArray(array, "hvSubscriptedReference");
    updateSize(array);
    std::size_t n = elementCount(array->dims);
    if (oneBasedIndex == 0 || oneBasedIndex > n) {
        throw std::out_of_range("hvSubscriptedReference: index " + std::to_string(oneBasedIndex) +
                                " is outside 1.." + std::to_string(n));
    }
    std::size_t i = oneBasedIndex - 1;
    if (isRawClass(array->cls)) {
        std::size_t size = elementSize(array->cls);
        hvArray* element = newArray(array->cls, {1, 1}, false);
        std::memcpy(element->data->bytes.get(), array->data->bytes.get() + i * size, size);
        return element;
    }
    if (array->cls == hvOPAQUE_CLASS || array->cls == hvFUNCTION_CLASS) {
        HvArrayPtr element(hvCreateSharedDataCopy(array));
        element->dims = {1, 1};
        return element.release();
    }
    if (array->cls == hvOBJECT_CLASS && array->objectClass->isString) {
        HvArrayPtr element(newStringArray({1, 1}));
        element->data->strings[0] = array->data->strings[i];
        return element.release();
    }
    // Cells, structs, objects: one element's slots, shared.
    std::size_t width = array->cls == hvCELL_CLASS ? 1 : array->data->fields.size();
    HvArrayPtr element(newArray(array->cls, {1, 1}));
    element->objectClass = array->objectClass;
    element->data->fields = array->data->fields;
    element->data->slots.assign(width, nullptr);
    for (std::size_t f = 0; f < width; ++f) {
        element->data->slots[f] = hvCreateSharedDataCopy(array->data->slots[i * width + f]);
    }
    return element.release();
}

bool hvAreMatricesEqual(const hvArray* a, const hvArray* b) {
    if (a == nullptr || b == nullptr) {
        return a == b;
    }
    if (a->cls != b->cls) {
        return false;
    }
    if (a->cls == hvOPAQUE_CLASS) {
        if (a->opaque != b->opaque) {
            return false;
        }
        if (a->opaque->ops.equal != nullptr) {
            return a->opaque->ops.equal(a, b);
        }
        return a->giblet == b->giblet;
    }
    if (a->dims != b->dims) {
        return false;
    }
    if (a->data == b->data) {
        return true;
    }
    const HvData& x = *a->data;
    const HvData& y = *b->data;
    switch (a->cls) {
    case hvDOUBLE_CLASS:
        return equalFloats<double>(x.bytes.get(), y.bytes.get(), x.nbytes / sizeof(double));
    case hvSINGLE_CLASS:
        return equalFloats<float>(x.bytes.get(), y.bytes.get(), x.nbytes / sizeof(float));
    case hvLOGICAL_CLASS:
        for (std::size_t i = 0; i < x.nbytes; ++i) {
            if ((x.bytes[i] != 0) != (y.bytes[i] != 0)) {
                return false;
            }
        }
        return true;
    case hvFUNCTION_CLASS:
        return x.functionName == y.functionName && x.boundClass == y.boundClass &&
               x.payload == y.payload;
    case hvCELL_CLASS:
    case hvSTRUCT_CLASS:
    case hvOBJECT_CLASS:
        if (a->objectClass != b->objectClass || x.fields != y.fields || x.strings != y.strings ||
            x.slots.size() != y.slots.size()) {
            return false;
        }
        for (std::size_t i = 0; i < x.slots.size(); ++i) {
            if (!hvAreMatricesEqual(x.slots[i], y.slots[i])) {
                return false;
            }
        }
        return true;
    default:
        return x.nbytes == y.nbytes &&
               (x.nbytes == 0 || std::memcmp(x.bytes.get(), y.bytes.get(), x.nbytes) == 0);
    }
}

bool hvDoesArrayContainObjects(const hvArray* array) {
    if (array == nullptr) {
        return false;
    }
    if (array->cls == hvFUNCTION_CLASS || array->cls == hvOPAQUE_CLASS ||
        array->cls == hvOBJECT_CLASS) {
        return true;
    }
    if (array->cls == hvCELL_CLASS || array->cls == hvSTRUCT_CLASS) {
        for (const hvArray* slot : array->data->slots) {
            if (hvDoesArrayContainObjects(slot)) {
                return true;
            }
        }
    }
    return false;
}

bool hvIsHeterogeneousArray(const hvArray*) {
    return false;
}
