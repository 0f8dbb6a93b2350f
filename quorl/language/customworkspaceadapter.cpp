#include <quorl/language/customworkspaceadapter.hpp>

#include <quorl/language/languageerror.hpp>

#include <algorithm>
#include <cstring>

namespace quorl {
namespace language {

namespace ext = foundation::extdata;

namespace {

struct ClassPair {
    hvClassID hv;
    ext::ArrayType ext;
};

ClassPair const kPairs[] = {
    {hvLOGICAL_CLASS, ext::LOGICAL}, {hvCHAR_CLASS, ext::CHAR},     {hvDOUBLE_CLASS, ext::DOUBLE},
    {hvSINGLE_CLASS, ext::SINGLE},   {hvINT8_CLASS, ext::INT8},     {hvUINT8_CLASS, ext::UINT8},
    {hvINT16_CLASS, ext::INT16},     {hvUINT16_CLASS, ext::UINT16}, {hvINT32_CLASS, ext::INT32},
    {hvUINT32_CLASS, ext::UINT32},   {hvINT64_CLASS, ext::INT64},   {hvUINT64_CLASS, ext::UINT64}};

std::vector<std::size_t> dimsOf(const hvArray* a) {
    std::size_t const* d = hvGetDimensions(a);
    return std::vector<std::size_t>(d, d + hvGetNumberOfDimensions(a));
}

} // namespace

ext::Array toExternal(const hvArray* a, ExternalBorder const* border) {
    if (a == nullptr) {
        return ext::Array::createZeros(ext::DOUBLE, {0, 0});
    }
    hvClassID c = hvGetClassID(a);
    std::vector<std::size_t> d = dimsOf(a);
    std::size_t n = hvGetNumberOfElements(a);
    for (ClassPair const& p : kPairs) {
        if (p.hv == c) {
            return ext::Array::fromBytes(p.ext, d, n ? hvGetReadOnlyData(a) : nullptr,
                                         n * hvGetElementSize(a));
        }
    }
    if (c == hvCELL_CLASS) {
        std::vector<ext::Array> e;
        for (std::size_t i = 0; i < n; ++i) {
            e.push_back(toExternal(hvGetCell(a, i), border));
        }
        return ext::Array::createCell(d, std::move(e));
    }
    if (c == hvSTRUCT_CLASS) {
        std::size_t nf = hvGetNumberOfFields(a);
        std::vector<std::string> names;
        for (std::size_t f = 0; f < nf; ++f) {
            names.push_back(hvGetFieldNameByNumber(a, f));
        }
        std::vector<ext::Array> values;
        for (std::size_t i = 0; i < n; ++i) {
            for (std::size_t f = 0; f < nf; ++f) {
                values.push_back(toExternal(hvGetFieldByNumber(a, i, f), border));
            }
        }
        return ext::Array::createStruct(d, std::move(names), std::move(values));
    }
    if (c == hvOBJECT_CLASS && std::strcmp(hvGetClassName(a), "string") == 0) {
        std::vector<std::u16string> s;
        for (std::size_t i = 0; i < n; ++i) {
            s.push_back(hvGetStringElement(a, i));
        }
        return ext::Array::createString(d, std::move(s));
    }
    if (border != nullptr && border->toExternal) {
        return border->toExternal(a);
    }
    throw LanguageError(errid::wrongType, std::string("Values of class ") + hvGetClassName(a) +
                                              " cannot be stored in a client workspace.");
}

HvArrayPtr fromExternal(ext::Array const& x, ExternalBorder const* border) {
    if (border != nullptr && border->fromExternal) {
        if (HvArrayPtr special = border->fromExternal(x)) {
            return special;
        }
    }
    ext::ArrayType t = x.getType();
    std::vector<std::size_t> d = x.getDimensions();
    std::size_t n = x.getNumberOfElements();
    for (ClassPair const& p : kPairs) {
        if (p.ext == t) {
            HvArrayPtr a(p.hv == hvLOGICAL_CLASS ? hvCreateLogicalArray(d.size(), d.data())
                         : p.hv == hvCHAR_CLASS  ? hvCreateCharArray(d.size(), d.data())
                                                 : hvCreateNumericArray(p.hv, d.size(), d.data()));
            if (n > 0) {
                std::memcpy(hvGetData(a.get()), x.getRawData(), x.getRawByteCount());
            }
            return a;
        }
    }
    switch (t) {
    case ext::CELL: {
        HvArrayPtr a(hvCreateCellArray(d.size(), d.data()));
        for (std::size_t i = 0; i < n; ++i) {
            hvSetCell(a.get(), i, fromExternal(x.getCell(i), border).release());
        }
        return a;
    }
    case ext::STRUCT: {
        std::vector<std::string> const& names = x.getFieldNames();
        std::vector<char const*> np;
        for (auto const& s : names) {
            np.push_back(s.c_str());
        }
        HvArrayPtr a(hvCreateStructArray(d.size(), d.data(), np.size(), np.data()));
        for (std::size_t i = 0; i < n; ++i) {
            for (std::size_t f = 0; f < names.size(); ++f) {
                hvSetFieldByNumber(a.get(), i, f, fromExternal(x.getField(i, f), border).release());
            }
        }
        return a;
    }
    case ext::STRING: {
        std::vector<std::string> texts;
        for (std::size_t i = 0; i < n; ++i) {
            texts.push_back(toUtf8(x.getString(i)));
        }
        std::vector<char const*> p;
        for (auto const& s : texts) {
            p.push_back(s.c_str());
        }
        return HvArrayPtr(hvCreateStringObjectArray(d.size(), d.data(), p.data()));
    }
    default:
        return HvArrayPtr(hvCreateNumericMatrix(hvDOUBLE_CLASS, 0, 0));
    }
}

bool CustomWorkspaceAdapter::get(std::string const& name, Value& out) {
    // The batch form, also for one name: across processes the client then remembers what it
    // sent, and a value that has not changed since does not travel again.
    ext::array::VariableInfo info = client_.getVariables({name.c_str()});
    if (info.size() == 0 || info.getStatus(0) == ext::array::IVariableInfo::StatusAbsent) {
        return false;
    }
    ext::Array a = info.getValue(0);
    if (a.getType() == ext::UNKNOWN) {
        return false;
    }
    out = Value::adopt(fromExternal(a, border_).release());
    return true;
}

void CustomWorkspaceAdapter::set(std::string const& name, Value const& value) {
    std::vector<ext::Array> values;
    values.push_back(toExternal(value.hv(), border_));
    client_.setVariables({name.c_str()}, std::move(values));
}

void CustomWorkspaceAdapter::clear(std::string const& name) {
    // A provider of a workspace in another process clears only the names it has values of, and
    // code may clear a variable it never read. Setting an empty value first makes the name known
    // at the cost of an empty array, so the clear reaches the client in every case.
    std::vector<ext::Array> empty(1);
    client_.setVariables({name.c_str()}, std::move(empty));
    client_.clearVariable(name.c_str());
}

std::vector<std::string> CustomWorkspaceAdapter::names() {
    std::vector<std::string> n = client_.getVariableNames();
    std::sort(n.begin(), n.end());
    return n;
}

} // namespace language
} // namespace quorl
