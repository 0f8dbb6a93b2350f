// Opaque classes, object classes, the "string" class, methods, properties and class tests.
#include <hv/hvinternal.hpp>

#include <fl/i18n/conversions.hpp>

#include <cstring>
#include <map>
#include <mutex>
#include <stdexcept>

using namespace hv::detail;

namespace {

// Descriptors are never freed: arrays and callers keep pointers to them.
struct Registry {
    std::mutex mutex; // guards both maps
    std::map<std::string, std::unique_ptr<hvOpaqueClass>> opaque;
    std::map<std::string, std::unique_ptr<ObjectClass>> objects;
};

Registry& registry() {
    static Registry* instance = new Registry;
    return *instance;
}

std::atomic<bool> stringClassAvailable{true};

bool sameOps(const hvOpaqueClassOps& a, const hvOpaqueClassOps& b) {
    return a.createByName == b.createByName && a.findMethod == b.findMethod &&
           a.callMethod == b.callMethod && a.construct == b.construct && a.share == b.share &&
           a.destroy == b.destroy && a.save == b.save && a.load == b.load &&
           a.updateSize == b.updateSize && a.equal == b.equal && a.isClassName == b.isClassName &&
           a.classIndex == b.classIndex && a.classNameFromIndex == b.classNameFromIndex;
}

void requireOpaque(const hvArray* array, const char* function) {
    requireArray(array, function);
    if (array->cls != hvOPAQUE_CLASS) {
        badClass(array, function, "an opaque array");
    }
}

// ----- the "string" class -----

bool isStringArray(const hvArray* array) {
    return array != nullptr && array->cls == hvOBJECT_CLASS && array->objectClass->isString;
}

bool stringCellstr(int nlhs, hvArray** plhs, int nrhs, const hvArray* const* prhs) {
    if (nrhs < 1 || !isStringArray(prhs[0]) || nlhs < 1) {
        return false;
    }
    const hvArray* strings = prhs[0];
    HvArrayPtr cell(hvCreateCellArray(strings->dims.size(), strings->dims.data()));
    for (std::size_t i = 0; i < strings->data->strings.size(); ++i) {
        const ustring& text = strings->data->strings[i];
        hvSetCell(cell.get(), i, hvCreateStringFromUtf16(text.data(), text.size()));
    }
    plhs[0] = cell.release();
    return true;
}

bool stringDisp(int, hvArray**, int nrhs, const hvArray* const* prhs) {
    if (nrhs < 1 || !isStringArray(prhs[0])) {
        return false;
    }
    for (const ustring& text : prhs[0]->data->strings) {
        std::string utf8 = fl::i18n::to_string(text);
        utPrintf("    \"%s\"\n", utf8.c_str());
    }
    return true;
}

// A string array from a char array (its rows), a cell of char arrays (same dimensions) or a
// string array (a copy). Anything else fails.
bool stringConstruct(int nlhs, hvArray** plhs, int nrhs, const hvArray* const* prhs) {
    if (nlhs < 1) {
        return false;
    }
    if (nrhs == 0) {
        plhs[0] = newStringArray({1, 1});
        return true;
    }
    const hvArray* source = prhs[0];
    if (source == nullptr) {
        return false;
    }
    if (isStringArray(source)) {
        plhs[0] = hvCreateSharedDataCopy(source);
        return true;
    }
    if (source->cls == hvCHAR_CLASS) {
        if (source->dims.size() > 2) {
            return false;
        }
        std::size_t rows = source->dims[0], cols = source->dims[1];
        const char16_t* chars = reinterpret_cast<const char16_t*>(source->data->bytes.get());
        HvArrayPtr result(newStringArray({rows == 0 ? 1 : rows, 1}));
        for (std::size_t r = 0; r < rows; ++r) {
            ustring text(cols, u'\0');
            for (std::size_t c = 0; c < cols; ++c) {
                std::memcpy(&text[c], chars + (c * rows + r), sizeof(char16_t));
            }
            result->data->strings[r] = std::move(text);
        }
        plhs[0] = result.release();
        return true;
    }
    if (source->cls == hvCELL_CLASS) {
        HvArrayPtr result(newStringArray(source->dims));
        for (std::size_t i = 0; i < source->data->slots.size(); ++i) {
            const hvArray* element = source->data->slots[i];
            if (element == nullptr) {
                continue;
            }
            if (element->cls != hvCHAR_CLASS && !isStringArray(element)) {
                return false;
            }
            if (isStringArray(element) && element->data->strings.size() != 1) {
                return false;
            }
            result->data->strings[i] = hvArrayToUString(element);
        }
        plhs[0] = result.release();
        return true;
    }
    return false;
}

ObjectClass* makeStringClass() {
    auto* cls = new ObjectClass;
    cls->name = "string";
    cls->isString = true;
    cls->methods = {{"cellstr", &stringCellstr}, {"disp", &stringDisp}, {"display", &stringDisp}};
    cls->constructor = &stringConstruct;
    return cls;
}

const hvMethodFunction* findObjectMethod(const ObjectClass* cls, const std::string& name,
                                         int depth = 0) {
    if (depth > 32) {
        return nullptr;
    }
    for (const auto& method : cls->methods) {
        if (method.first == name) {
            return &method.second;
        }
    }
    for (const std::string& super : cls->superclasses) {
        const ObjectClass* parent = findObjectClass(super);
        if (parent != nullptr) {
            if (const hvMethodFunction* found = findObjectMethod(parent, name, depth + 1)) {
                return found;
            }
        }
    }
    return nullptr;
}

bool objectIsA(const ObjectClass* cls, const std::string& name, int depth = 0) {
    if (cls->name == name || (name == "handle" && cls->handle)) {
        return true;
    }
    if (depth > 32) {
        return false;
    }
    for (const std::string& super : cls->superclasses) {
        if (super == name) {
            return true;
        }
        const ObjectClass* parent = findObjectClass(super);
        if (parent != nullptr && objectIsA(parent, name, depth + 1)) {
            return true;
        }
    }
    return false;
}

hvArray* newObjectArray(const ObjectClass* cls, std::vector<std::size_t> dims) {
    if (cls->isString) {
        return newStringArray(std::move(dims));
    }
    std::size_t n = elementCount(dims);
    std::size_t nf = cls->properties.size();
    if (nf != 0 && n > static_cast<std::size_t>(-1) / nf) {
        throw std::invalid_argument("hvCreateClassArray: the array is too large");
    }
    HvArrayPtr array(newArray(hvOBJECT_CLASS, std::move(dims)));
    array->objectClass = cls;
    array->data->fields = cls->properties;
    array->data->slots.assign(n * nf, nullptr);
    return array.release();
}

} // namespace

namespace hv {
namespace detail {

const ObjectClass* stringClass() {
    static const ObjectClass* cls = makeStringClass();
    return cls;
}

const ObjectClass* findObjectClass(const std::string& name) {
    if (name == "string") {
        return stringClass();
    }
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    auto it = r.objects.find(name);
    return it == r.objects.end() ? nullptr : it->second.get();
}

hvArray* newStringArray(std::vector<std::size_t> dims) {
    if (!stringClassAvailable.load()) {
        throw std::runtime_error("hv: the class \"string\" is not available in this process");
    }
    std::size_t n = elementCount(dims);
    HvArrayPtr array(newArray(hvOBJECT_CLASS, std::move(dims)));
    array->objectClass = stringClass();
    array->data->strings.resize(n);
    return array.release();
}

// An object of a definable class made from a serialized form; used by hvDeserialize.
hvArray* newObjectArrayForLoad(const ObjectClass* cls, std::vector<std::size_t> dims) {
    return newObjectArray(cls, std::move(dims));
}

hvArray* newMethodHandle(const ObjectClass* cls, const char* name) {
    const hvMethodFunction* method = findObjectMethod(cls, name);
    if (method == nullptr) {
        return nullptr;
    }
    hvArray* handle = hvCreateFunctionHandle(name);
    handle->data->boundMethod = *method;
    handle->data->boundClass = cls;
    return handle;
}

} // namespace detail
} // namespace hv

// ----- opaque classes -----

const hvOpaqueClass* hvSubclassOpaqueArray(const char* className, const hvOpaqueClassOps* ops) {
    if (className == nullptr || className[0] == '\0') {
        throw std::invalid_argument("hvSubclassOpaqueArray: empty class name");
    }
    if (ops == nullptr) {
        throw std::invalid_argument("hvSubclassOpaqueArray: null operation table");
    }
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    auto it = r.opaque.find(className);
    if (it != r.opaque.end()) {
        if (!sameOps(it->second->ops, *ops)) {
            throw std::invalid_argument(std::string("hvSubclassOpaqueArray: class \"") + className +
                                        "\" is already registered with other operations");
        }
        return it->second.get();
    }
    if (r.objects.count(className) != 0 || std::strcmp(className, "string") == 0) {
        throw std::invalid_argument(std::string("hvSubclassOpaqueArray: \"") + className +
                                    "\" is an object class");
    }
    auto cls = std::make_unique<hvOpaqueClass>();
    cls->name = className;
    cls->ops = *ops;
    const hvOpaqueClass* result = cls.get();
    r.opaque.emplace(className, std::move(cls));
    return result;
}

const hvOpaqueClass* hvFindOpaqueClass(const char* className) {
    if (className == nullptr) {
        return nullptr;
    }
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    auto it = r.opaque.find(className);
    return it == r.opaque.end() ? nullptr : it->second.get();
}

const char* hvGetOpaqueClassName(const hvOpaqueClass* cls) {
    return cls == nullptr ? "" : cls->name.c_str();
}

const hvOpaqueClassOps* hvGetOpaqueClassOps(const hvOpaqueClass* cls) {
    return cls == nullptr ? nullptr : &cls->ops;
}

hvArray_tag* hvCreateOpaqueGiblet(const hvOpaqueClass* cls, void* giblet) {
    if (cls == nullptr) {
        throw std::invalid_argument("hvCreateOpaqueGiblet: null class");
    }
    hvArray* array = newHeader(hvOPAQUE_CLASS);
    array->dims = {1, 1};
    array->opaque = cls;
    array->giblet = giblet;
    return array;
}

hvArray_tag* hvCreateOpaqueMatrix(const hvOpaqueClass* cls, std::size_t m, std::size_t n) {
    if (cls == nullptr) {
        throw std::invalid_argument("hvCreateOpaqueMatrix: null class");
    }
    const std::size_t dims[] = {m, n};
    std::vector<std::size_t> d = normalizeDims(2, dims);
    hvArray* array = newHeader(hvOPAQUE_CLASS);
    array->dims = std::move(d);
    array->opaque = cls;
    return array;
}

void hvSetOpaqueGiblet(hvArray_tag* array, void* giblet) {
    requireOpaque(array, "hvSetOpaqueGiblet");
    array->giblet = giblet;
}

void* hvGetOpaqueGiblet(const hvArray_tag* array) {
    requireOpaque(array, "hvGetOpaqueGiblet");
    return array->giblet;
}

int hvGetOpaqueClassIndex(const hvOpaqueClass* cls) {
    if (cls == nullptr) {
        throw std::invalid_argument("hvGetOpaqueClassIndex: null class");
    }
    return cls->ops.classIndex != nullptr ? cls->ops.classIndex() : hvOPAQUE_CLASS;
}

const char* hvGetClassNameFromIndex(int index) {
    std::vector<const hvOpaqueClass*> classes;
    {
        Registry& r = registry();
        std::lock_guard<std::mutex> lock(r.mutex);
        for (const auto& entry : r.opaque) {
            classes.push_back(entry.second.get());
        }
    }
    // Asked outside the lock: a class's answer may itself look classes up.
    for (const hvOpaqueClass* cls : classes) {
        if (cls->ops.classNameFromIndex != nullptr) {
            if (const char* name = cls->ops.classNameFromIndex(index)) {
                return name;
            }
        }
    }
    return nullptr;
}

const hvOpaqueClass* hvGetOpaqueClass(const hvArray_tag* array) {
    return array != nullptr && array->cls == hvOPAQUE_CLASS ? array->opaque : nullptr;
}

bool hvIsOpaqueOfClass(const hvArray_tag* array, const hvOpaqueClass* cls) {
    return cls != nullptr && hvGetOpaqueClass(array) == cls;
}

unsigned char hvGetOpaqueMark(const hvArray_tag* array) {
    requireOpaque(array, "hvGetOpaqueMark");
    return array->mark;
}

void hvSetOpaqueMark(hvArray_tag* array, unsigned char mark) {
    requireOpaque(array, "hvSetOpaqueMark");
    array->mark = mark;
}

// ----- object classes -----

void hvDefineClass(const hvClassDef& definition) {
    if (definition.name == nullptr || definition.name[0] == '\0') {
        throw std::invalid_argument("hvDefineClass: empty class name");
    }
    std::string name = definition.name;
    auto cls = std::make_unique<ObjectClass>();
    cls->name = name;
    cls->handle = definition.handle;
    cls->serializable = definition.serializable;
    cls->constructor = definition.constructor;
    for (std::size_t i = 0; i < definition.nproperties; ++i) {
        const char* p = definition.properties[i];
        if (p == nullptr || p[0] == '\0') {
            throw std::invalid_argument("hvDefineClass: empty property name in " + name);
        }
        for (const std::string& q : cls->properties) {
            if (q == p) {
                throw std::invalid_argument("hvDefineClass: duplicate property " + std::string(p) +
                                            " in " + name);
            }
        }
        cls->properties.emplace_back(p);
    }
    for (std::size_t i = 0; i < definition.nmethods; ++i) {
        const hvClassMethodDef& m = definition.methods[i];
        if (m.name == nullptr || m.function == nullptr) {
            throw std::invalid_argument("hvDefineClass: incomplete method in " + name);
        }
        cls->methods.emplace_back(m.name, m.function);
    }
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    if (name == "string" || r.objects.count(name) != 0 || r.opaque.count(name) != 0) {
        throw std::invalid_argument("hvDefineClass: class \"" + name + "\" is already defined");
    }
    for (std::size_t i = 0; i < definition.nsuperclasses; ++i) {
        const char* s = definition.superclasses[i];
        if (s == nullptr || (std::strcmp(s, "handle") != 0 && r.objects.count(s) == 0)) {
            throw std::invalid_argument("hvDefineClass: unknown superclass of " + name);
        }
        if (std::strcmp(s, "handle") == 0) {
            cls->handle = true;
        } else if (r.objects[s]->handle) {
            cls->handle = true;
        }
        cls->superclasses.emplace_back(s);
    }
    r.objects.emplace(name, std::move(cls));
}

bool hvIsClassDefined(const char* name) {
    if (name == nullptr) {
        return false;
    }
    if (std::strcmp(name, "string") == 0) {
        return stringClassAvailable.load();
    }
    return findObjectClass(name) != nullptr;
}

hvArray* hvCreateClassArray(const char* className, std::size_t m, std::size_t n) {
    if (className == nullptr) {
        return nullptr;
    }
    const std::size_t dims[] = {m, n};
    if (std::strcmp(className, "string") == 0) {
        if (!stringClassAvailable.load()) {
            return nullptr;
        }
        return newStringArray(normalizeDims(2, dims));
    }
    if (const ObjectClass* cls = findObjectClass(className)) {
        return newObjectArray(cls, normalizeDims(2, dims));
    }
    const hvOpaqueClass* opaque = hvFindOpaqueClass(className);
    if (opaque != nullptr && opaque->ops.createByName != nullptr) {
        return opaque->ops.createByName(opaque, className);
    }
    return nullptr;
}

hvArray* hvGetProperty(const hvArray* array, std::size_t index, const char* name) {
    if (array == nullptr || name == nullptr || array->cls != hvOBJECT_CLASS ||
        array->objectClass->isString) {
        return nullptr;
    }
    std::size_t n = elementCount(array->dims);
    if (index >= n) {
        throw std::out_of_range("hvGetProperty: element " + std::to_string(index) +
                                " is beyond the " + std::to_string(n) + " elements");
    }
    const auto& props = array->data->fields;
    for (std::size_t f = 0; f < props.size(); ++f) {
        if (props[f] == name) {
            const hvArray* value = array->data->slots[index * props.size() + f];
            return value != nullptr ? hvCreateSharedDataCopy(value)
                                    : hvCreateNumericMatrix(hvDOUBLE_CLASS, 0, 0);
        }
    }
    return nullptr;
}

void hvSetProperty(hvArray* array, std::size_t index, const char* name, const hvArray* value) {
    requireArray(array, "hvSetProperty");
    if (array->cls != hvOBJECT_CLASS || array->objectClass->isString) {
        badClass(array, "hvSetProperty", "an object with properties");
    }
    std::size_t n = elementCount(array->dims);
    if (index >= n) {
        throw std::out_of_range("hvSetProperty: element " + std::to_string(index) +
                                " is beyond the " + std::to_string(n) + " elements");
    }
    int f = name == nullptr ? -1 : hvGetFieldNumber(array, name);
    if (f < 0) {
        throw std::invalid_argument(std::string("hvSetProperty: class ") +
                                    array->objectClass->name + " has no property \"" +
                                    (name ? name : "") + "\"");
    }
    hvSetCell(array, index * array->data->fields.size() + static_cast<std::size_t>(f),
              hvCreateSharedDataCopy(value));
}

hvArray* hvFindMethod(const hvArray* array, const char* name) {
    if (array == nullptr || name == nullptr) {
        return nullptr;
    }
    if (array->cls == hvOPAQUE_CLASS) {
        return array->opaque->ops.findMethod ? array->opaque->ops.findMethod(array, name) : nullptr;
    }
    if (array->cls != hvOBJECT_CLASS) {
        return nullptr;
    }
    return newMethodHandle(array->objectClass, name);
}

bool hvCallMethod(const hvArray* method, int nlhs, hvArray** plhs, int nrhs,
                  const hvArray* const* prhs) {
    if (method == nullptr || nlhs < 0 || nrhs < 0 || (nlhs > 0 && plhs == nullptr) ||
        (nrhs > 0 && prhs == nullptr)) {
        return false;
    }
    if (method->cls == hvOPAQUE_CLASS) {
        return method->opaque->ops.callMethod != nullptr &&
               method->opaque->ops.callMethod(method, nlhs, plhs, nrhs, prhs);
    }
    if (method->cls == hvFUNCTION_CLASS && method->data->boundMethod != nullptr) {
        return method->data->boundMethod(nlhs, plhs, nrhs, prhs);
    }
    return false;
}

bool hvConstruct(const hvArray* classArray, int nlhs, hvArray** plhs, int nrhs,
                 const hvArray* const* prhs) {
    if (classArray == nullptr || nlhs < 0 || nrhs < 0 || (nlhs > 0 && plhs == nullptr) ||
        (nrhs > 0 && prhs == nullptr)) {
        return false;
    }
    if (classArray->cls == hvOPAQUE_CLASS) {
        const hvOpaqueClass* cls = classArray->opaque;
        return cls->ops.construct != nullptr && cls->ops.construct(cls, nlhs, plhs, nrhs, prhs);
    }
    if (classArray->cls != hvOBJECT_CLASS) {
        return false;
    }
    const ObjectClass* cls = classArray->objectClass;
    if (cls->constructor != nullptr) {
        return cls->constructor(nlhs, plhs, nrhs, prhs);
    }
    if (nlhs < 1) {
        return false;
    }
    plhs[0] = newObjectArray(cls, {1, 1});
    return true;
}

bool hvIsA(const hvArray* array, const char* className) {
    if (array == nullptr || className == nullptr) {
        return false;
    }
    std::string name = className;
    if (name == hvGetClassName(array)) {
        return true;
    }
    if (name == "numeric") {
        return hvIsNumeric(array);
    }
    if (name == "float") {
        return array->cls == hvDOUBLE_CLASS || array->cls == hvSINGLE_CLASS;
    }
    if (name == "integer") {
        return array->cls >= hvINT8_CLASS && array->cls <= hvUINT64_CLASS;
    }
    if (array->cls == hvOBJECT_CLASS) {
        return objectIsA(array->objectClass, name);
    }
    if (array->cls == hvOPAQUE_CLASS && array->opaque->ops.isClassName != nullptr) {
        return array->opaque->ops.isClassName(className);
    }
    return false;
}

void hvSetStringClassAvailable(bool available) {
    stringClassAvailable.store(available);
}

bool hvIsStringClassAvailable() {
    return stringClassAvailable.load();
}

hvArray* hvCreateStringObject(const char* utf8) {
    if (utf8 == nullptr) {
        throw std::invalid_argument("hvCreateStringObject: null text");
    }
    HvArrayPtr array(newStringArray({1, 1}));
    array->data->strings[0] = fl::i18n::to_ustring(std::string(utf8));
    return array.release();
}

hvArray* hvCreateStringObjectArray(std::size_t ndim, const std::size_t* dims,
                                   const char* const* utf8) {
    std::vector<std::size_t> d = normalizeDims(ndim, dims);
    std::size_t n = elementCount(d);
    if (n > 0 && utf8 == nullptr) {
        throw std::invalid_argument("hvCreateStringObjectArray: null texts");
    }
    HvArrayPtr array(newStringArray(std::move(d)));
    for (std::size_t i = 0; i < n; ++i) {
        if (utf8[i] == nullptr) {
            throw std::invalid_argument("hvCreateStringObjectArray: null text");
        }
        array->data->strings[i] = fl::i18n::to_ustring(std::string(utf8[i]));
    }
    return array.release();
}

namespace {

void checkStringElement(const hvArray* array, std::size_t index, const char* function) {
    requireArray(array, function);
    if (!isStringArray(array)) {
        badClass(array, function, "a string array");
    }
    if (index >= array->data->strings.size()) {
        throw std::out_of_range(std::string(function) + ": element " + std::to_string(index) +
                                " is beyond the " + std::to_string(array->data->strings.size()) +
                                " elements");
    }
}

} // namespace

void hvSetStringElement(hvArray* array, std::size_t index, const ustring& text) {
    checkStringElement(array, index, "hvSetStringElement");
    makeWritable(array);
    array->data->strings[index] = text;
}

ustring hvGetStringElement(const hvArray* array, std::size_t index) {
    checkStringElement(array, index, "hvGetStringElement");
    return array->data->strings[index];
}
