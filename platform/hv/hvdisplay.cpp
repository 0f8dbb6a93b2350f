// Text display of arrays through utPrintf.
#include <hv/hvinternal.hpp>

#include <fl/i18n/conversions.hpp>

#include <cstdio>
#include <cstring>
#include <string>

using namespace hv::detail;

namespace {

std::string sizeText(const hvArray* array) {
    std::string text;
    for (std::size_t i = 0; i < array->dims.size(); ++i) {
        text += (i == 0 ? "" : "x") + std::to_string(array->dims[i]);
    }
    return text;
}

// One-line summary of an element inside a container.
std::string brief(const hvArray* array) {
    if (array == nullptr) {
        return "[]";
    }
    std::size_t n = elementCount(array->dims);
    if (array->cls == hvCHAR_CLASS && array->dims[0] <= 1) {
        return "'" + hvArrayToStdString(array) + "'";
    }
    if (isRawClass(array->cls) && n == 1) {
        char buf[64];
        std::snprintf(buf, sizeof buf, "%.15g", hvGetScalar(array));
        return buf;
    }
    if (array->cls == hvOBJECT_CLASS && array->objectClass->isString && n == 1) {
        return "\"" + fl::i18n::to_string(array->data->strings[0]) + "\"";
    }
    if (array->cls == hvFUNCTION_CLASS) {
        return "@" + array->data->functionName;
    }
    return "[" + sizeText(array) + " " + hvGetClassName(array) + "]";
}

bool displayByMethod(const hvArray* array) {
    const char* names[] = {"disp", "display"};
    for (const char* name : names) {
        HvArrayPtr method(hvFindMethod(array, name));
        if (method != nullptr) {
            const hvArray* args[] = {array};
            return hvCallMethod(method.get(), 0, nullptr, 1, args);
        }
    }
    return false;
}

} // namespace

void hvDisplay(const hvArray* array, const char* name) {
    if (name != nullptr) {
        utPrintf("%s =\n\n", name);
    }
    if (array == nullptr) {
        utPrintf("    []\n\n");
        return;
    }
    updateSize(array);
    if ((array->cls == hvOBJECT_CLASS || array->cls == hvOPAQUE_CLASS) && displayByMethod(array)) {
        utPrintf("\n");
        return;
    }
    std::size_t n = elementCount(array->dims);
    if (n == 0) {
        utPrintf("  %s empty %s\n\n", sizeText(array).c_str(), hvGetClassName(array));
        return;
    }
    switch (array->cls) {
    case hvCHAR_CLASS: {
        std::size_t rows = array->dims[0];
        std::size_t cols = n / rows;
        const char16_t* chars = reinterpret_cast<const char16_t*>(array->data->bytes.get());
        for (std::size_t r = 0; r < rows; ++r) {
            ustring line;
            for (std::size_t c = 0; c < cols; ++c) {
                line += chars[c * rows + r];
            }
            utPrintf("    '%s'\n", fl::i18n::to_string(line).c_str());
        }
        break;
    }
    case hvCELL_CLASS:
    case hvSTRUCT_CLASS:
    case hvOBJECT_CLASS:
        if (n == 1 && array->cls != hvCELL_CLASS) {
            const auto& fields = array->data->fields;
            if (array->cls == hvOBJECT_CLASS) {
                utPrintf("  %s with properties:\n\n", hvGetClassName(array));
            }
            for (std::size_t f = 0; f < fields.size(); ++f) {
                utPrintf("    %s: %s\n", fields[f].c_str(), brief(array->data->slots[f]).c_str());
            }
        } else if (array->cls == hvCELL_CLASS) {
            for (std::size_t i = 0; i < n; ++i) {
                utPrintf("    {%zu}: %s\n", i + 1, brief(array->data->slots[i]).c_str());
            }
        } else {
            utPrintf("  %s %s array\n", sizeText(array).c_str(), hvGetClassName(array));
        }
        break;
    case hvFUNCTION_CLASS:
        utPrintf("    @%s\n", array->data->functionName.c_str());
        break;
    case hvOPAQUE_CLASS:
        utPrintf("  %s %s\n", sizeText(array).c_str(), hvGetClassName(array));
        break;
    default: {
        // Numbers and logicals, row by row.
        std::size_t rows = array->dims[0];
        std::size_t cols = n / rows;
        std::size_t size = elementSize(array->cls);
        for (std::size_t r = 0; r < rows; ++r) {
            std::string line;
            for (std::size_t c = 0; c < cols; ++c) {
                HvArrayPtr element(newArray(array->cls, {1, 1}, false));
                std::memcpy(element->data->bytes.get(),
                            array->data->bytes.get() + (c * rows + r) * size, size);
                char buf[64];
                std::snprintf(buf, sizeof buf, "%10.4g", hvGetScalar(element.get()));
                line += buf;
            }
            utPrintf("%s\n", line.c_str());
        }
        break;
    }
    }
    utPrintf("\n");
}
