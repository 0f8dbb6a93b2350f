#include <quorl/language/value.hpp>

#include <quorl/language/ast.hpp>
#include <quorl/language/languageerror.hpp>

#include <boost/locale/encoding_utf.hpp>

#include <cmath>
#include <cstring>
#include <limits>

namespace quorl {
namespace language {

namespace {

std::shared_ptr<hvArray> hold(hvArray* a) {
    return std::shared_ptr<hvArray>(a, [](hvArray* p) { hvDestroyArray(p); });
}

[[noreturn]] void wrongType(std::string const& what) {
    throw LanguageError(errid::wrongType, what);
}

} // namespace

Value Value::adopt(hvArray* array) {
    Value r;
    if (array != nullptr) {
        r.kind_ = Kind::Array;
        r.a_ = hold(array);
        if (hvGetClassID(array) == hvFUNCTION_CLASS) {
            // Handles made by this language carry their closure.
            if (auto p = hvGetFunctionHandlePayload(array)) {
                r.kind_ = Kind::Lambda;
                r.closure_ = std::static_pointer_cast<Closure const>(p);
            }
        }
    }
    return r;
}

Value Value::share(const hvArray* array) {
    if (array == nullptr) {
        return empty();
    }
    return adopt(hvCreateSharedDataCopy(array));
}

Value Value::text(std::string const& utf8) {
    std::u16string t = toUtf16(utf8);
    return adopt(hvCreateStringFromUtf16(t.data(), t.size()));
}

Value Value::empty() {
    return adopt(hvCreateNumericMatrix(hvDOUBLE_CLASS, 0, 0));
}

Value Value::lambda(std::shared_ptr<Closure const> closure) {
    Value r;
    r.kind_ = Kind::Lambda;
    r.closure_ = std::move(closure);
    return r;
}

hvClassID Value::classID() const {
    switch (kind_) {
    case Kind::Number:
        return hvDOUBLE_CLASS;
    case Kind::Bool:
        return hvLOGICAL_CLASS;
    case Kind::Lambda:
        return hvFUNCTION_CLASS;
    case Kind::Array:
        return hvGetClassID(a_.get());
    default:
        return hvUNKNOWN_CLASS;
    }
}

std::string Value::className() const {
    switch (kind_) {
    case Kind::Number:
        return "double";
    case Kind::Bool:
        return "logical";
    case Kind::Lambda:
        return "function_handle";
    default:
        return hvGetClassName(hv());
    }
}

const hvArray* Value::hv() const {
    if (!a_) {
        switch (kind_) {
        case Kind::Number:
            a_ = hold(hvCreateDoubleScalar(d_));
            break;
        case Kind::Bool:
            a_ = hold(hvCreateLogicalScalar(d_ != 0.0));
            break;
        case Kind::Lambda:
            a_ = hold(hvCreateFunctionHandleWithPayload(closure_->text.c_str(), closure_));
            break;
        default:
            a_ = hold(hvCreateNumericMatrix(hvDOUBLE_CLASS, 0, 0));
            break;
        }
    }
    return a_.get();
}

hvArray* Value::mutableHv() {
    hv();
    if (kind_ != Kind::Array) {
        kind_ = Kind::Array;
        closure_.reset();
    }
    if (a_.use_count() > 1) {
        a_ = hold(hvCreateSharedDataCopy(a_.get()));
    }
    return a_.get();
}

HvArrayPtr Value::toHv() const {
    return HvArrayPtr(hvCreateSharedDataCopy(hv()));
}

std::vector<std::size_t> Value::dims() const {
    if (kind_ != Kind::Array) {
        return {1, 1};
    }
    const hvArray* a = a_.get();
    std::size_t const* d = hvGetDimensions(a);
    return std::vector<std::size_t>(d, d + hvGetNumberOfDimensions(a));
}

std::size_t Value::numel() const {
    return kind_ == Kind::Array ? hvGetNumberOfElements(a_.get()) : 1;
}
std::size_t Value::rows() const {
    return kind_ == Kind::Array ? hvGetM(a_.get()) : 1;
}
std::size_t Value::cols() const {
    return kind_ == Kind::Array ? hvGetN(a_.get()) : 1;
}

bool Value::isNumericOrLogical() const {
    hvClassID c = classID();
    return c == hvLOGICAL_CLASS || (c >= hvDOUBLE_CLASS && c <= hvUINT64_CLASS);
}

bool Value::isNumeric() const {
    hvClassID c = classID();
    return c >= hvDOUBLE_CLASS && c <= hvUINT64_CLASS;
}

bool Value::isStringObject() const {
    return kind_ == Kind::Array && classID() == hvOBJECT_CLASS &&
           std::strcmp(hvGetClassName(a_.get()), "string") == 0;
}

bool Value::isText() const {
    if (isChar()) {
        return rows() == 1 || isEmpty();
    }
    return isStringObject() && isScalar();
}

double Value::scalar() const {
    if (isInlineScalar()) {
        return d_;
    }
    hvClassID c = classID();
    if (c == hvLOGICAL_CLASS || c == hvCHAR_CLASS || (c >= hvDOUBLE_CLASS && c <= hvUINT64_CLASS)) {
        if (numel() == 0) {
            wrongType("Expected a scalar, got an empty array.");
        }
        return hvGetScalar(a_.get());
    }
    wrongType("Expected a number, got a value of class " + className() + ".");
}

template <class T> static void appendAs(std::vector<double>& out, const void* p, std::size_t n) {
    T const* t = static_cast<T const*>(p);
    for (std::size_t i = 0; i < n; ++i) {
        out.push_back(static_cast<double>(t[i]));
    }
}

std::vector<double> Value::doubles() const {
    if (isInlineScalar()) {
        return {d_};
    }
    std::vector<double> out;
    const hvArray* a = hv();
    std::size_t n = hvGetNumberOfElements(a);
    out.reserve(n);
    const void* p = n == 0 ? nullptr : hvGetReadOnlyData(a);
    switch (classID()) {
    case hvDOUBLE_CLASS:
        appendAs<double>(out, p, n);
        break;
    case hvSINGLE_CLASS:
        appendAs<float>(out, p, n);
        break;
    case hvLOGICAL_CLASS:
        appendAs<unsigned char>(out, p, n);
        break;
    case hvCHAR_CLASS:
        appendAs<char16_t>(out, p, n);
        break;
    case hvINT8_CLASS:
        appendAs<std::int8_t>(out, p, n);
        break;
    case hvUINT8_CLASS:
        appendAs<std::uint8_t>(out, p, n);
        break;
    case hvINT16_CLASS:
        appendAs<std::int16_t>(out, p, n);
        break;
    case hvUINT16_CLASS:
        appendAs<std::uint16_t>(out, p, n);
        break;
    case hvINT32_CLASS:
        appendAs<std::int32_t>(out, p, n);
        break;
    case hvUINT32_CLASS:
        appendAs<std::uint32_t>(out, p, n);
        break;
    case hvINT64_CLASS:
        appendAs<std::int64_t>(out, p, n);
        break;
    case hvUINT64_CLASS:
        appendAs<std::uint64_t>(out, p, n);
        break;
    default:
        wrongType("Expected numeric values, got a value of class " + className() + ".");
    }
    return out;
}

std::string Value::str() const {
    if (isChar()) {
        return isEmpty() ? std::string() : hvArrayToStdString(a_.get());
    }
    if (isStringObject() && isScalar()) {
        return toUtf8(hvGetStringElement(a_.get(), 0));
    }
    wrongType("Expected text, got a value of class " + className() + ".");
}

bool Value::truth() const {
    if (isInlineScalar()) {
        return d_ != 0.0;
    }
    if (!isNumericOrLogical() && !isChar()) {
        wrongType("Conditions must be numeric or logical, not " + className() + ".");
    }
    if (isEmpty()) {
        return false;
    }
    for (double d : doubles()) {
        if (d == 0.0) {
            return false;
        }
    }
    return true;
}

Value makeDoubleArray(std::vector<std::size_t> const& dims, std::vector<double> const& values) {
    hvArray* a = hvCreateNumericArray(hvDOUBLE_CLASS, dims.size(), dims.data());
    if (!values.empty()) {
        std::memcpy(hvGetData(a), values.data(), values.size() * sizeof(double));
    }
    return Value::adopt(a);
}

Value makeMatrix(std::size_t m, std::size_t n, double fill) {
    hvArray* a = hvCreateNumericMatrix(hvDOUBLE_CLASS, m, n);
    if (fill != 0.0 && m * n > 0) {
        double* p = static_cast<double*>(hvGetData(a));
        std::fill(p, p + m * n, fill);
    }
    return Value::adopt(a);
}

Value makeLogicalArray(std::vector<std::size_t> const& dims, std::vector<bool> const& values) {
    hvArray* a = hvCreateLogicalArray(dims.size(), dims.data());
    if (!values.empty()) {
        unsigned char* p = static_cast<unsigned char*>(hvGetData(a));
        for (std::size_t i = 0; i < values.size(); ++i) {
            p[i] = values[i] ? 1 : 0;
        }
    }
    return Value::adopt(a);
}

Value makeCellRow(std::vector<Value> const& values) {
    hvArray* c = hvCreateCellMatrix(1, values.size());
    for (std::size_t i = 0; i < values.size(); ++i) {
        hvSetCell(c, i, values[i].toHv().release());
    }
    return Value::adopt(c);
}

Value makeStringObject(std::string const& utf8) {
    return Value::adopt(hvCreateStringObject(utf8.c_str()));
}

Value makeStruct(std::vector<std::string> const& names, std::vector<Value> const& values) {
    std::vector<char const*> n;
    for (auto const& s : names) {
        n.push_back(s.c_str());
    }
    hvArray* s = hvCreateStructMatrix(1, 1, n.size(), n.data());
    for (std::size_t i = 0; i < values.size(); ++i) {
        hvSetFieldByNumber(s, 0, i, values[i].toHv().release());
    }
    return Value::adopt(s);
}

bool isIntegerClass(hvClassID cls) {
    return cls >= hvINT8_CLASS && cls <= hvUINT64_CLASS;
}

double saturate(hvClassID cls, double v) {
    double lo = 0, hi = 0;
    switch (cls) {
    case hvINT8_CLASS:
        lo = -128, hi = 127;
        break;
    case hvUINT8_CLASS:
        lo = 0, hi = 255;
        break;
    case hvINT16_CLASS:
        lo = -32768, hi = 32767;
        break;
    case hvUINT16_CLASS:
        lo = 0, hi = 65535;
        break;
    case hvINT32_CLASS:
        lo = -2147483648.0, hi = 2147483647.0;
        break;
    case hvUINT32_CLASS:
        lo = 0, hi = 4294967295.0;
        break;
    case hvINT64_CLASS:
        lo = -9223372036854775808.0, hi = 9223372036854774784.0;
        break;
    case hvUINT64_CLASS:
        lo = 0, hi = 18446744073709549568.0;
        break;
    default:
        return v;
    }
    if (std::isnan(v)) {
        return 0;
    }
    v = std::round(v);
    return v < lo ? lo : (v > hi ? hi : v);
}

template <class T> static void storeAs(void* p, std::vector<double> const& v) {
    T* t = static_cast<T*>(p);
    for (std::size_t i = 0; i < v.size(); ++i) {
        t[i] = static_cast<T>(v[i]);
    }
}

Value convertClass(Value const& v, hvClassID cls) {
    if (v.classID() == cls) {
        return v;
    }
    std::vector<double> d = v.doubles();
    std::vector<std::size_t> dims = v.dims();
    if (cls == hvDOUBLE_CLASS) {
        return makeDoubleArray(dims, d);
    }
    if (cls == hvLOGICAL_CLASS) {
        std::vector<bool> b;
        for (double x : d) {
            if (std::isnan(x)) {
                throw LanguageError(errid::wrongType, "NaN cannot be converted to logical.");
            }
            b.push_back(x != 0.0);
        }
        return makeLogicalArray(dims, b);
    }
    hvArray* a = cls == hvCHAR_CLASS ? hvCreateCharArray(dims.size(), dims.data())
                                     : hvCreateNumericArray(cls, dims.size(), dims.data());
    if (d.empty()) {
        return Value::adopt(a);
    }
    for (double& x : d) {
        x = saturate(cls, x);
    }
    void* p = hvGetData(a);
    switch (cls) {
    case hvSINGLE_CLASS:
        storeAs<float>(p, d);
        break;
    case hvCHAR_CLASS:
        storeAs<char16_t>(p, d);
        break;
    case hvINT8_CLASS:
        storeAs<std::int8_t>(p, d);
        break;
    case hvUINT8_CLASS:
        storeAs<std::uint8_t>(p, d);
        break;
    case hvINT16_CLASS:
        storeAs<std::int16_t>(p, d);
        break;
    case hvUINT16_CLASS:
        storeAs<std::uint16_t>(p, d);
        break;
    case hvINT32_CLASS:
        storeAs<std::int32_t>(p, d);
        break;
    case hvUINT32_CLASS:
        storeAs<std::uint32_t>(p, d);
        break;
    case hvINT64_CLASS:
        storeAs<std::int64_t>(p, d);
        break;
    case hvUINT64_CLASS:
        storeAs<std::uint64_t>(p, d);
        break;
    default:
        hvDestroyArray(a);
        throw LanguageError(errid::wrongType, "Cannot convert to this class.");
    }
    return Value::adopt(a);
}

std::string dimsText(std::vector<std::size_t> const& dims) {
    std::string s;
    for (std::size_t i = 0; i < dims.size(); ++i) {
        s += (i ? "x" : "") + std::to_string(dims[i]);
    }
    return s;
}

std::u16string toUtf16(std::string const& utf8) {
    return boost::locale::conv::utf_to_utf<char16_t>(utf8);
}

std::string toUtf8(std::u16string const& text) {
    return boost::locale::conv::utf_to_utf<char>(text);
}

} // namespace language
} // namespace quorl
