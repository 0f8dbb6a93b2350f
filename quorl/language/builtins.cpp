// The built-in functions of the language.
#include <quorl/language/evaluator.hpp>
#include <quorl/language/format.hpp>
#include <quorl/language/lexer.hpp>
#include <quorl/language/parser.hpp>
#include <quorl/language/refbox.hpp>
#include <quorl/language/valueops.hpp>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstring>
#include <limits>
#include <numeric>
#include <thread>

namespace quorl {
namespace language {

namespace {

typedef std::vector<Value> Args;

#define BUILTIN(name) void name(Evaluator& ev, Args& a, int nargout, Args& out)

[[noreturn]] void bad(std::string const& msg) {
    throw LanguageError(errid::badArgument, msg);
}

void needArgs(Args const& a, std::size_t lo, std::size_t hi, char const* fn) {
    if (a.size() < lo) {
        throw LanguageError(errid::notEnoughInputs,
                            std::string("Not enough input arguments for '") + fn + "'.");
    }
    if (a.size() > hi) {
        throw LanguageError(errid::tooManyInputs,
                            std::string("Too many input arguments for '") + fn + "'.");
    }
}

double nan() {
    return std::numeric_limits<double>::quiet_NaN();
}

std::string textArg(Value const& v, char const* fn) {
    if (!v.isText()) {
        bad(std::string("'") + fn + "' needs a text argument, not a value of class " +
            v.className() + ".");
    }
    return v.str();
}

std::size_t sizeArg(Value const& v) {
    double d = v.scalar();
    if (std::isnan(d) || d < 0) {
        return 0;
    }
    if (d != std::floor(d)) {
        bad("Size arguments must be integers.");
    }
    return static_cast<std::size_t>(d);
}

// Dimensions from (n), (m, n, ...) or ([m n ...]); a trailing class name is returned apart.
std::vector<std::size_t> dimsArgs(Args const& a, std::size_t from, std::string* cls = nullptr) {
    std::vector<Value> nums;
    for (std::size_t i = from; i < a.size(); ++i) {
        if (a[i].isText()) {
            if (cls != nullptr) {
                *cls = a[i].str();
            }
            continue;
        }
        nums.push_back(a[i]);
    }
    if (nums.empty()) {
        return {1, 1};
    }
    if (nums.size() == 1) {
        if (nums[0].numel() == 1) {
            std::size_t n = sizeArg(nums[0]);
            return {n, n};
        }
        std::vector<std::size_t> d;
        for (double x : nums[0].doubles()) {
            d.push_back(x < 0 ? 0 : static_cast<std::size_t>(x));
        }
        return d;
    }
    std::vector<std::size_t> d;
    for (Value const& v : nums) {
        d.push_back(sizeArg(v));
    }
    while (d.size() > 2 && d.back() == 1) {
        d.pop_back();
    }
    return d;
}

std::size_t product(std::vector<std::size_t> const& d) {
    std::size_t p = 1;
    for (std::size_t x : d) {
        p *= x;
    }
    return p;
}

hvClassID classFromName(std::string const& n) {
    static const std::pair<char const*, hvClassID> names[] = {
        {"double", hvDOUBLE_CLASS}, {"single", hvSINGLE_CLASS},   {"int8", hvINT8_CLASS},
        {"uint8", hvUINT8_CLASS},   {"int16", hvINT16_CLASS},     {"uint16", hvUINT16_CLASS},
        {"int32", hvINT32_CLASS},   {"uint32", hvUINT32_CLASS},   {"int64", hvINT64_CLASS},
        {"uint64", hvUINT64_CLASS}, {"logical", hvLOGICAL_CLASS}, {"char", hvCHAR_CLASS}};
    for (auto const& p : names) {
        if (n == p.first) {
            return p.second;
        }
    }
    bad("Unknown class name '" + n + "'.");
}

Value filled(std::vector<std::size_t> const& d, double v, std::string const& cls) {
    if (d.size() == 2 && d[0] == 1 && d[1] == 1 && cls.empty()) {
        return Value::number(v);
    }
    std::vector<double> vals(product(d), v);
    Value r = makeDoubleArray(d, vals);
    return cls.empty() ? r : convertClass(r, classFromName(cls));
}

// Same dimensions and class as `like`, values computed by `fn`; integer classes saturate.
template <class F> Value mapNumeric(Value const& v, F fn, bool keepInteger = true) {
    if (v.kind() == Value::Kind::Number) {
        return Value::number(fn(v.inlineScalar()));
    }
    if (!v.isNumericOrLogical() && !v.isChar()) {
        bad("Expected a numeric value, got a value of class " + v.className() + ".");
    }
    std::vector<double> d = v.doubles();
    for (double& x : d) {
        x = fn(x);
    }
    Value r = makeDoubleArray(v.dims(), d);
    hvClassID c = v.classID();
    if (keepInteger && (isIntegerClass(c) || c == hvSINGLE_CLASS)) {
        return convertClass(r, c);
    }
    return r;
}

// Two numeric arguments with scalar expansion.
template <class F> Value map2(Value const& a, Value const& b, F fn) {
    if (a.isInlineScalar() && b.isInlineScalar()) {
        return Value::number(fn(a.inlineScalar(), b.inlineScalar()));
    }
    std::vector<double> x = a.doubles(), y = b.doubles();
    std::vector<std::size_t> dims;
    std::vector<double> r;
    if (x.size() == 1) {
        dims = b.dims();
        for (double v : y) {
            r.push_back(fn(x[0], v));
        }
    } else if (y.size() == 1 || x.size() == y.size()) {
        if (y.size() != 1 && a.dims() != b.dims()) {
            throw LanguageError(errid::dimensionMismatch, "Arguments must have the same size.");
        }
        dims = a.dims();
        for (std::size_t i = 0; i < x.size(); ++i) {
            r.push_back(fn(x[i], y.size() == 1 ? y[0] : y[i]));
        }
    } else {
        throw LanguageError(errid::dimensionMismatch, "Arguments must have the same size.");
    }
    Value out = makeDoubleArray(dims, r);
    hvClassID c = isIntegerClass(a.classID()) ? a.classID() : b.classID();
    return isIntegerClass(c) ? convertClass(out, c) : out;
}

// The dimension a reduction works along: the given one, else the first that is not 1.
std::size_t reduceDim(Value const& v, Args const& a, std::size_t at) {
    if (a.size() > at && !a[at].isText()) {
        double d = a[at].scalar();
        if (d < 1 || d != std::floor(d)) {
            bad("Dimension argument must be a positive integer.");
        }
        return static_cast<std::size_t>(d) - 1;
    }
    std::vector<std::size_t> d = v.dims();
    for (std::size_t k = 0; k < d.size(); ++k) {
        if (d[k] != 1) {
            return k;
        }
    }
    return 0;
}

// Walks the vectors of `v` along dimension k: fn(values, outIndexBase...) style callback gets
// each vector's element positions.
template <class F> void alongDim(std::vector<std::size_t> d, std::size_t k, F fn) {
    if (k >= d.size()) {
        d.resize(k + 1, 1);
    }
    std::size_t before = 1, after = 1;
    for (std::size_t i = 0; i < k; ++i) {
        before *= d[i];
    }
    for (std::size_t i = k + 1; i < d.size(); ++i) {
        after *= d[i];
    }
    std::size_t len = d[k];
    for (std::size_t o = 0; o < after; ++o) {
        for (std::size_t b = 0; b < before; ++b) {
            std::size_t start = b + o * before * len;
            fn(start, before, len, b + o * before);
        }
    }
}

std::vector<std::size_t> reducedDims(std::vector<std::size_t> d, std::size_t k) {
    if (k >= d.size()) {
        d.resize(k + 1, 1);
    }
    d[k] = 1;
    while (d.size() > 2 && d.back() == 1) {
        d.pop_back();
    }
    return d;
}

// sum, prod, any, all, mean along a dimension.
template <class F>
Value reduce(Value const& v, std::size_t k, double init, F fn, bool logical = false,
             bool mean = false) {
    std::vector<std::size_t> d = v.dims();
    std::vector<double> x = v.doubles();
    if (d.size() == 2 && d[0] == 0 && d[1] == 0 && k == 0) {
        // The empty matrix reduces to one value.
        return logical ? Value::boolean(init != 0) : Value::number(mean ? nan() : init);
    }
    std::vector<std::size_t> rd = reducedDims(d, k);
    std::vector<double> r(product(rd), init);
    alongDim(d, k, [&](std::size_t start, std::size_t stride, std::size_t len, std::size_t o) {
        double acc = init;
        for (std::size_t i = 0; i < len; ++i) {
            acc = fn(acc, x[start + i * stride]);
        }
        r[o] = mean ? (len ? acc / static_cast<double>(len) : nan()) : acc;
    });
    if (logical) {
        std::vector<bool> b(r.size());
        for (std::size_t i = 0; i < r.size(); ++i) {
            b[i] = r[i] != 0;
        }
        if (b.size() == 1) {
            return Value::boolean(b[0]);
        }
        return makeLogicalArray(rd, b);
    }
    if (r.size() == 1) {
        return Value::number(r[0]);
    }
    return makeDoubleArray(rd, r);
}

Value boolValue(bool b) {
    return Value::boolean(b);
}

std::vector<std::string> cellTexts(Value const& c, char const* fn) {
    std::vector<std::string> t;
    if (c.isStringObject()) {
        for (std::size_t i = 0; i < c.numel(); ++i) {
            t.push_back(toUtf8(hvGetStringElement(c.hv(), i)));
        }
        return t;
    }
    if (!c.isCell()) {
        bad(std::string("'") + fn + "' needs a cell array of texts.");
    }
    for (std::size_t i = 0; i < c.numel(); ++i) {
        Value e = cellAt(c, i);
        if (!e.isText()) {
            bad(std::string("'") + fn + "' needs a cell array of texts.");
        }
        t.push_back(e.str());
    }
    return t;
}

Value cellOfTexts(std::vector<std::string> const& t, bool column = false) {
    hvArray* c = column ? hvCreateCellMatrix(t.size(), 1) : hvCreateCellMatrix(1, t.size());
    for (std::size_t i = 0; i < t.size(); ++i) {
        hvSetCell(c, i, hvCreateString(t[i].c_str()));
    }
    return Value::adopt(c);
}

// ---------------------------------------------------------------------------------------------
// Output and errors

BUILTIN(bi_disp) {
    needArgs(a, 1, 1, "disp");
    ev.write(1, dispText(a[0]));
}

BUILTIN(bi_fprintf) {
    needArgs(a, 1, 1000, "fprintf");
    int stream = 1;
    std::size_t first = 0;
    if (a[0].isNumeric() && a[0].isScalar() && a.size() >= 1 && !a[0].isText()) {
        double fid = a[0].scalar();
        if (fid != 1 && fid != 2) {
            bad("fprintf writes to 1 (output) or 2 (error) only.");
        }
        stream = static_cast<int>(fid);
        first = 1;
        if (a.size() == 1) {
            bad("fprintf needs a format.");
        }
    }
    std::string fmt = textArg(a[first], "fprintf");
    Args rest(a.begin() + static_cast<std::ptrdiff_t>(first + 1), a.end());
    std::string text = formatText(fmt, rest);
    ev.write(stream, text);
    if (nargout > 0) {
        out.push_back(Value::number(static_cast<double>(text.size())));
    }
}

BUILTIN(bi_sprintf) {
    needArgs(a, 1, 1000, "sprintf");
    std::string fmt = textArg(a[0], "sprintf");
    Args rest(a.begin() + 1, a.end());
    std::string text = formatText(fmt, rest);
    // The result is a row also when it is empty.
    out.push_back(text.empty()
                      ? Value::adopt(hvCreateCharArray(2, std::vector<std::size_t>{1, 0}.data()))
                      : Value::text(text));
}

bool looksLikeId(std::string const& s) {
    if (s.find(':') == std::string::npos || s.back() == ':' || s.front() == ':') {
        return false;
    }
    for (char c : s) {
        if (!(std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == ':' || c == '-')) {
            return false;
        }
    }
    return true;
}

BUILTIN(bi_error) {
    needArgs(a, 1, 1000, "error");
    if (a[0].isStruct()) {
        LanguageError e = ev.errorFromStruct(a[0]);
        LanguageError fresh(e.identifier(), e.message());
        throw fresh;
    }
    std::string first = textArg(a[0], "error");
    if (a.size() == 1) {
        throw LanguageError("", first);
    }
    std::string id;
    std::size_t fmtAt = 0;
    if (looksLikeId(first)) {
        id = first;
        fmtAt = 1;
    }
    std::string fmt = textArg(a[fmtAt], "error");
    Args rest(a.begin() + static_cast<std::ptrdiff_t>(fmtAt + 1), a.end());
    throw LanguageError(id, formatText(fmt, rest));
}

BUILTIN(bi_warning) {
    needArgs(a, 1, 1000, "warning");
    std::string first = textArg(a[0], "warning");
    if (first == "off" || first == "on") {
        return;
    }
    std::size_t fmtAt = a.size() > 1 && looksLikeId(first) ? 1 : 0;
    std::string fmt = textArg(a[fmtAt], "warning");
    Args rest(a.begin() + static_cast<std::ptrdiff_t>(fmtAt + 1), a.end());
    std::string msg = a.size() == 1 ? fmt : formatText(fmt, rest);
    ev.write(2, "Warning: " + msg + "\n");
}

BUILTIN(bi_rethrow) {
    needArgs(a, 1, 1, "rethrow");
    LanguageError e = ev.errorFromStruct(a[0]);
    e.markRethrown();
    throw e;
}

BUILTIN(bi_assert) {
    needArgs(a, 1, 1000, "assert");
    if (a[0].truth()) {
        return;
    }
    if (a.size() == 1) {
        throw LanguageError("quorl:assertionFailed", "Assertion failed.");
    }
    Args rest(a.begin() + 1, a.end());
    bi_error(ev, rest, 0, out);
}

// ---------------------------------------------------------------------------------------------
// Sizes and classes

BUILTIN(bi_size) {
    needArgs(a, 1, 2, "size");
    std::vector<std::size_t> d = a[0].dims();
    if (a.size() == 2) {
        std::size_t k = sizeArg(a[1]);
        if (k < 1) {
            bad("Dimension argument must be a positive integer.");
        }
        out.push_back(Value::number(k <= d.size() ? static_cast<double>(d[k - 1]) : 1.0));
        return;
    }
    if (nargout <= 1) {
        std::vector<double> v(d.begin(), d.end());
        out.push_back(makeDoubleArray({1, v.size()}, v));
        return;
    }
    for (int i = 0; i < nargout; ++i) {
        std::size_t k = static_cast<std::size_t>(i);
        double v = 1;
        if (i == nargout - 1) {
            for (std::size_t j = k; j < d.size(); ++j) {
                v *= static_cast<double>(d[j]);
            }
        } else {
            v = k < d.size() ? static_cast<double>(d[k]) : 1.0;
        }
        out.push_back(Value::number(v));
    }
}

BUILTIN(bi_numel) {
    needArgs(a, 1, 1, "numel");
    out.push_back(Value::number(static_cast<double>(a[0].numel())));
}

BUILTIN(bi_length) {
    needArgs(a, 1, 1, "length");
    std::vector<std::size_t> d = a[0].dims();
    std::size_t m = a[0].isEmpty() ? 0 : *std::max_element(d.begin(), d.end());
    out.push_back(Value::number(static_cast<double>(m)));
}

BUILTIN(bi_ndims) {
    needArgs(a, 1, 1, "ndims");
    out.push_back(Value::number(static_cast<double>(a[0].dims().size())));
}

BUILTIN(bi_isempty) {
    needArgs(a, 1, 1, "isempty");
    out.push_back(boolValue(a[0].isEmpty()));
}

BUILTIN(bi_isscalar) {
    needArgs(a, 1, 1, "isscalar");
    out.push_back(boolValue(a[0].numel() == 1));
}

BUILTIN(bi_isvector) {
    needArgs(a, 1, 1, "isvector");
    std::vector<std::size_t> d = a[0].dims();
    out.push_back(boolValue(d.size() == 2 && (d[0] == 1 || d[1] == 1) && a[0].numel() >= 1));
}

BUILTIN(bi_isrow) {
    needArgs(a, 1, 1, "isrow");
    out.push_back(boolValue(a[0].dims().size() == 2 && a[0].rows() == 1));
}

BUILTIN(bi_iscolumn) {
    needArgs(a, 1, 1, "iscolumn");
    out.push_back(boolValue(a[0].dims().size() == 2 && a[0].cols() == 1));
}

BUILTIN(bi_class) {
    needArgs(a, 1, 1, "class");
    out.push_back(Value::text(a[0].className()));
}

BUILTIN(bi_isa) {
    needArgs(a, 2, 2, "isa");
    std::string n = textArg(a[1], "isa");
    if (a[0].kind() == Value::Kind::Lambda) {
        out.push_back(boolValue(n == "function_handle"));
        return;
    }
    out.push_back(boolValue(hvIsA(a[0].hv(), n.c_str())));
}

BUILTIN(bi_isnumeric) {
    needArgs(a, 1, 1, "isnumeric");
    out.push_back(boolValue(a[0].isNumeric()));
}
BUILTIN(bi_ischar) {
    needArgs(a, 1, 1, "ischar");
    out.push_back(boolValue(a[0].isChar()));
}
BUILTIN(bi_iscell) {
    needArgs(a, 1, 1, "iscell");
    out.push_back(boolValue(a[0].isCell()));
}
BUILTIN(bi_isstruct) {
    needArgs(a, 1, 1, "isstruct");
    out.push_back(boolValue(a[0].isStruct()));
}
BUILTIN(bi_islogical) {
    needArgs(a, 1, 1, "islogical");
    out.push_back(boolValue(a[0].classID() == hvLOGICAL_CLASS));
}
BUILTIN(bi_isstring) {
    needArgs(a, 1, 1, "isstring");
    out.push_back(boolValue(a[0].isStringObject()));
}
BUILTIN(bi_isreal) {
    needArgs(a, 1, 1, "isreal");
    out.push_back(boolValue(a[0].isNumericOrLogical() || a[0].isChar()));
}

BUILTIN(bi_iscellstr) {
    needArgs(a, 1, 1, "iscellstr");
    bool ok = a[0].isCell();
    for (std::size_t i = 0; ok && i < a[0].numel(); ++i) {
        Value e = cellAt(a[0], i);
        ok = e.isChar() && (e.rows() == 1 || e.isEmpty());
    }
    out.push_back(boolValue(ok));
}

BUILTIN(bi_isequal) {
    needArgs(a, 2, 1000, "isequal");
    bool eq = true;
    for (std::size_t i = 1; i < a.size() && eq; ++i) {
        eq = valuesEqual(a[0], a[i]);
    }
    out.push_back(boolValue(eq));
}

// ---------------------------------------------------------------------------------------------
// Construction

BUILTIN(bi_zeros) {
    std::string cls;
    std::vector<std::size_t> d = dimsArgs(a, 0, &cls);
    out.push_back(filled(d, 0, cls));
}

BUILTIN(bi_ones) {
    std::string cls;
    std::vector<std::size_t> d = dimsArgs(a, 0, &cls);
    out.push_back(filled(d, 1, cls));
}

BUILTIN(bi_eye) {
    std::vector<std::size_t> d = dimsArgs(a, 0);
    if (d.size() != 2) {
        bad("eye makes 2-D matrices only.");
    }
    Value r = makeMatrix(d[0], d[1]);
    if (d[0] * d[1] > 0) {
        double* p = static_cast<double*>(hvGetData(r.mutableHv()));
        for (std::size_t i = 0; i < std::min(d[0], d[1]); ++i) {
            p[i + i * d[0]] = 1;
        }
    }
    out.push_back(d[0] == 1 && d[1] == 1 ? Value::number(1) : r);
}

BUILTIN(bi_nan) {
    out.push_back(filled(dimsArgs(a, 0), nan(), ""));
}
BUILTIN(bi_inf) {
    out.push_back(filled(dimsArgs(a, 0), std::numeric_limits<double>::infinity(), ""));
}
BUILTIN(bi_pi) {
    out.push_back(filled(dimsArgs(a, 0), 3.14159265358979323846, ""));
}
BUILTIN(bi_eps) {
    out.push_back(filled(dimsArgs(a, 0), std::numeric_limits<double>::epsilon(), ""));
}

Value logicalFilled(Args const& a, bool v) {
    std::vector<std::size_t> d = dimsArgs(a, 0);
    if (d.size() == 2 && d[0] == 1 && d[1] == 1) {
        return Value::boolean(v);
    }
    return makeLogicalArray(d, std::vector<bool>(product(d), v));
}

BUILTIN(bi_true) {
    out.push_back(logicalFilled(a, true));
}
BUILTIN(bi_false) {
    out.push_back(logicalFilled(a, false));
}

BUILTIN(bi_rand) {
    std::vector<std::size_t> d = dimsArgs(a, 0);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    std::vector<double> v(product(d));
    for (double& x : v) {
        x = u(ev.rng());
    }
    out.push_back(v.size() == 1 ? Value::number(v[0]) : makeDoubleArray(d, v));
}

BUILTIN(bi_randn) {
    std::vector<std::size_t> d = dimsArgs(a, 0);
    std::normal_distribution<double> n(0.0, 1.0);
    std::vector<double> v(product(d));
    for (double& x : v) {
        x = n(ev.rng());
    }
    out.push_back(v.size() == 1 ? Value::number(v[0]) : makeDoubleArray(d, v));
}

BUILTIN(bi_rng) {
    needArgs(a, 1, 2, "rng");
    double seed = a[0].isText() ? 0 : a[0].scalar();
    ev.rng().seed(static_cast<std::uint64_t>(seed));
}

BUILTIN(bi_linspace) {
    needArgs(a, 2, 3, "linspace");
    double lo = a[0].scalar(), hi = a[1].scalar();
    std::size_t n = a.size() == 3 ? sizeArg(a[2]) : 100;
    std::vector<double> v(n);
    for (std::size_t i = 0; i < n; ++i) {
        v[i] = n == 1 ? hi : lo + (hi - lo) * static_cast<double>(i) / static_cast<double>(n - 1);
    }
    out.push_back(makeDoubleArray({1, n}, v));
}

BUILTIN(bi_repmat) {
    needArgs(a, 2, 3, "repmat");
    std::vector<std::size_t> reps =
        a.size() == 3 ? std::vector<std::size_t>{sizeArg(a[1]), sizeArg(a[2])} : dimsArgs(a, 1);
    Value const& v = a[0];
    std::size_t m = v.rows(), n = v.cols();
    if (v.dims().size() > 2 || reps.size() > 2) {
        bad("repmat works on 2-D arrays only.");
    }
    std::size_t rm = m * reps[0], rn = n * reps[1];
    Value r = createLike(v, {rm, rn});
    if (rm * rn > 0) {
        hvArray* dst = r.mutableHv();
        for (std::size_t j = 0; j < rn; ++j) {
            for (std::size_t i = 0; i < rm; ++i) {
                copyElement(dst, i + j * rm, v.hv(), (i % m) + (j % n) * m);
            }
        }
    }
    out.push_back(r);
}

BUILTIN(bi_reshape) {
    needArgs(a, 2, 100, "reshape");
    std::vector<std::size_t> d;
    std::size_t unknown = 100;
    if (a.size() == 2) {
        d = dimsArgs(a, 1);
    } else {
        for (std::size_t i = 1; i < a.size(); ++i) {
            if (a[i].isEmpty()) {
                unknown = d.size();
                d.push_back(1);
            } else {
                d.push_back(sizeArg(a[i]));
            }
        }
    }
    if (unknown != 100) {
        std::size_t p = product(d);
        if (p == 0 || a[0].numel() % p != 0) {
            bad("Size arguments do not divide the number of elements.");
        }
        d[unknown] = a[0].numel() / p;
    }
    while (d.size() > 2 && d.back() == 1) {
        d.pop_back();
    }
    out.push_back(reshapeValue(a[0], d));
}

BUILTIN(bi_cell) {
    std::vector<std::size_t> d = dimsArgs(a, 0);
    out.push_back(Value::adopt(hvCreateCellArray(d.size(), d.data())));
}

BUILTIN(bi_struct) {
    if (a.size() % 2 != 0) {
        bad("struct needs name and value pairs.");
    }
    std::vector<std::string> names;
    std::vector<std::size_t> dims{1, 1};
    for (std::size_t i = 0; i < a.size(); i += 2) {
        names.push_back(textArg(a[i], "struct"));
        if (a[i + 1].isCell() && a[i + 1].numel() != 1) {
            dims = a[i + 1].dims();
        }
    }
    std::vector<char const*> np;
    for (auto const& n : names) {
        np.push_back(n.c_str());
    }
    hvArray* s = hvCreateStructArray(dims.size(), dims.data(), np.size(), np.data());
    Value r = Value::adopt(s);
    std::size_t n = product(dims);
    for (std::size_t f = 0; f < names.size(); ++f) {
        Value const& v = a[2 * f + 1];
        for (std::size_t e = 0; e < n; ++e) {
            Value item = v;
            if (v.isCell()) {
                if (v.numel() == 1) {
                    item = cellAt(v, 0);
                } else if (v.dims() == dims) {
                    item = cellAt(v, e);
                } else {
                    bad("Cell values of struct must all have the same size.");
                }
            }
            hvSetFieldByNumber(r.mutableHv(), e, f, item.toHv().release());
        }
    }
    out.push_back(r);
}

BUILTIN(bi_fieldnames) {
    needArgs(a, 1, 1, "fieldnames");
    std::vector<std::string> n;
    if (a[0].isStruct() || (a[0].classID() == hvOBJECT_CLASS && !a[0].isStringObject())) {
        // Fields of a struct, properties of an object.
        for (std::size_t f = 0; f < hvGetNumberOfFields(a[0].hv()); ++f) {
            n.push_back(hvGetFieldNameByNumber(a[0].hv(), f));
        }
    } else {
        bad("fieldnames needs a struct.");
    }
    out.push_back(cellOfTexts(n, true));
}

BUILTIN(bi_isfield) {
    needArgs(a, 2, 2, "isfield");
    if (!a[0].isStruct()) {
        out.push_back(boolValue(false));
        return;
    }
    auto has = [&](std::string const& n) { return hvGetFieldNumber(a[0].hv(), n.c_str()) >= 0; };
    if (a[1].isCell()) {
        std::vector<bool> r;
        for (std::size_t i = 0; i < a[1].numel(); ++i) {
            Value e = cellAt(a[1], i);
            r.push_back(e.isText() && has(e.str()));
        }
        out.push_back(makeLogicalArray(a[1].dims(), r));
        return;
    }
    out.push_back(boolValue(a[1].isText() && has(a[1].str())));
}

BUILTIN(bi_rmfield) {
    needArgs(a, 2, 2, "rmfield");
    if (!a[0].isStruct()) {
        bad("rmfield needs a struct.");
    }
    std::vector<std::string> names = a[1].isCell()
                                         ? cellTexts(a[1], "rmfield")
                                         : std::vector<std::string>{textArg(a[1], "rmfield")};
    Value r = a[0];
    for (std::string const& n : names) {
        int f = hvGetFieldNumber(r.hv(), n.c_str());
        if (f < 0) {
            throw LanguageError(errid::noField, "A field named '" + n + "' does not exist.");
        }
        hvRemoveField(r.mutableHv(), static_cast<std::size_t>(f));
    }
    out.push_back(r);
}

BUILTIN(bi_deal) {
    needArgs(a, 1, 1000, "deal");
    int n = std::max(nargout, 1);
    if (a.size() == 1) {
        for (int i = 0; i < n; ++i) {
            out.push_back(a[0]);
        }
        return;
    }
    if (static_cast<int>(a.size()) != n) {
        bad("deal needs one input, or as many inputs as outputs.");
    }
    out = a;
}

// ---------------------------------------------------------------------------------------------
// Arithmetic functions

BUILTIN(bi_sum) {
    needArgs(a, 1, 2, "sum");
    Value const& v = a[0];
    if (v.classID() == hvDOUBLE_CLASS && a.size() == 1 && v.dims().size() == 2 &&
        (v.rows() == 1 || v.cols() == 1)) {
        std::size_t n = v.numel();
        double const* p = n ? static_cast<double const*>(hvGetReadOnlyData(v.hv())) : nullptr;
        // Four partial sums let the loop run without waiting on one accumulator.
        double s0 = 0, s1 = 0, s2 = 0, s3 = 0;
        std::size_t i = 0;
        for (; i + 4 <= n; i += 4) {
            s0 += p[i];
            s1 += p[i + 1];
            s2 += p[i + 2];
            s3 += p[i + 3];
        }
        for (; i < n; ++i) {
            s0 += p[i];
        }
        out.push_back(Value::number((s0 + s1) + (s2 + s3)));
        return;
    }
    out.push_back(reduce(v, reduceDim(v, a, 1), 0.0, [](double s, double x) { return s + x; }));
}

BUILTIN(bi_prod) {
    needArgs(a, 1, 2, "prod");
    out.push_back(
        reduce(a[0], reduceDim(a[0], a, 1), 1.0, [](double s, double x) { return s * x; }));
}

BUILTIN(bi_mean) {
    needArgs(a, 1, 2, "mean");
    out.push_back(reduce(
        a[0], reduceDim(a[0], a, 1), 0.0, [](double s, double x) { return s + x; }, false, true));
}

BUILTIN(bi_any) {
    needArgs(a, 1, 2, "any");
    out.push_back(reduce(
        a[0], reduceDim(a[0], a, 1), 0.0,
        [](double s, double x) { return (s != 0 || (x != 0 && !std::isnan(x))) ? 1.0 : 0.0; },
        true));
}

BUILTIN(bi_all) {
    needArgs(a, 1, 2, "all");
    out.push_back(reduce(
        a[0], reduceDim(a[0], a, 1), 1.0,
        [](double s, double x) { return (s != 0 && x != 0) ? 1.0 : 0.0; }, true));
}

BUILTIN(bi_cumsum) {
    needArgs(a, 1, 2, "cumsum");
    Value const& v = a[0];
    std::size_t k = reduceDim(v, a, 1);
    std::vector<double> x = v.doubles();
    alongDim(v.dims(), k, [&](std::size_t start, std::size_t stride, std::size_t len, std::size_t) {
        for (std::size_t i = 1; i < len; ++i) {
            x[start + i * stride] += x[start + (i - 1) * stride];
        }
    });
    out.push_back(makeDoubleArray(v.dims(), x));
}

BUILTIN(bi_cumprod) {
    needArgs(a, 1, 2, "cumprod");
    Value const& v = a[0];
    std::size_t k = reduceDim(v, a, 1);
    std::vector<double> x = v.doubles();
    alongDim(v.dims(), k, [&](std::size_t start, std::size_t stride, std::size_t len, std::size_t) {
        for (std::size_t i = 1; i < len; ++i) {
            x[start + i * stride] *= x[start + (i - 1) * stride];
        }
    });
    out.push_back(makeDoubleArray(v.dims(), x));
}

void minmax(Args& a, int nargout, Args& out, bool isMax, char const* fn) {
    needArgs(a, 1, 3, fn);
    auto better = [isMax](double x, double y) { return isMax ? x > y : x < y; };
    if (a.size() >= 2 && !a[1].isEmpty()) {
        // Element-wise of two arrays; NaN loses to any number.
        out.push_back(map2(a[0], a[1], [&](double x, double y) {
            if (std::isnan(x)) {
                return y;
            }
            if (std::isnan(y)) {
                return x;
            }
            return better(y, x) ? y : x;
        }));
        return;
    }
    Value const& v = a[0];
    std::size_t k = reduceDim(v, a, 2);
    std::vector<std::size_t> d = v.dims();
    if (v.isEmpty()) {
        out.push_back(Value::empty());
        out.push_back(Value::empty());
        return;
    }
    std::vector<double> x = v.doubles();
    std::vector<std::size_t> rd = reducedDims(d, k);
    std::vector<double> best(product(rd)), where(product(rd));
    alongDim(d, k, [&](std::size_t start, std::size_t stride, std::size_t len, std::size_t o) {
        double b = nan();
        double w = 1;
        for (std::size_t i = 0; i < len; ++i) {
            double y = x[start + i * stride];
            if (!std::isnan(y) && (std::isnan(b) || better(y, b))) {
                b = y;
                w = static_cast<double>(i + 1);
            }
        }
        best[o] = b;
        where[o] = w;
    });
    Value r = makeDoubleArray(rd, best);
    hvClassID c = v.classID();
    out.push_back(c == hvDOUBLE_CLASS ? (best.size() == 1 ? Value::number(best[0]) : r)
                                      : convertClass(r, c == hvCHAR_CLASS ? hvDOUBLE_CLASS : c));
    if (nargout > 1) {
        out.push_back(where.size() == 1 ? Value::number(where[0]) : makeDoubleArray(rd, where));
    }
}

BUILTIN(bi_max) {
    minmax(a, nargout, out, true, "max");
}
BUILTIN(bi_min) {
    minmax(a, nargout, out, false, "min");
}

#define MATH1(name, expr)                                                                          \
    BUILTIN(bi_##name) {                                                                           \
        needArgs(a, 1, 1, #name);                                                                  \
        out.push_back(mapNumeric(a[0], [](double x) { return expr; }));                            \
    }

MATH1(abs, std::fabs(x))
MATH1(sqrt, std::sqrt(x))
MATH1(exp, std::exp(x))
MATH1(log, std::log(x))
MATH1(log2, std::log2(x))
MATH1(log10, std::log10(x))
MATH1(sin, std::sin(x))
MATH1(cos, std::cos(x))
MATH1(tan, std::tan(x))
MATH1(asin, std::asin(x))
MATH1(acos, std::acos(x))
MATH1(atan, std::atan(x))
MATH1(floor, std::floor(x))
MATH1(ceil, std::ceil(x))
MATH1(round, std::round(x))
MATH1(fix, std::trunc(x))
MATH1(sign, static_cast<double>((x > 0) - (x < 0)))

Value logicalMap(Value const& v, bool (*fn)(double)) {
    std::vector<double> d = v.doubles();
    std::vector<bool> b(d.size());
    for (std::size_t i = 0; i < d.size(); ++i) {
        b[i] = fn(d[i]);
    }
    if (b.size() == 1 && v.dims().size() == 2) {
        return Value::boolean(b[0]);
    }
    return makeLogicalArray(v.dims(), b);
}

BUILTIN(bi_isnan) {
    needArgs(a, 1, 1, "isnan");
    out.push_back(logicalMap(a[0], [](double x) { return std::isnan(x); }));
}
BUILTIN(bi_isinf) {
    needArgs(a, 1, 1, "isinf");
    out.push_back(logicalMap(a[0], [](double x) { return std::isinf(x); }));
}
BUILTIN(bi_isfinite) {
    needArgs(a, 1, 1, "isfinite");
    out.push_back(logicalMap(a[0], [](double x) { return std::isfinite(x); }));
}

BUILTIN(bi_mod) {
    needArgs(a, 2, 2, "mod");
    out.push_back(map2(a[0], a[1], [](double x, double y) {
        if (y == 0) {
            return x;
        }
        double r = x - std::floor(x / y) * y;
        return r != 0 && std::fabs(r - y) < std::fabs(y) * 1e-15 ? 0.0 : r;
    }));
}

BUILTIN(bi_rem) {
    needArgs(a, 2, 2, "rem");
    out.push_back(map2(a[0], a[1],
                       [](double x, double y) { return y == 0 ? x : x - std::trunc(x / y) * y; }));
}

BUILTIN(bi_power) {
    needArgs(a, 2, 2, "power");
    out.push_back(binaryOp(Op::ElPower, a[0], a[1]));
}

BUILTIN(bi_nnz) {
    needArgs(a, 1, 1, "nnz");
    double n = 0;
    for (double x : a[0].doubles()) {
        n += x != 0;
    }
    out.push_back(Value::number(n));
}

BUILTIN(bi_find) {
    needArgs(a, 1, 2, "find");
    Value const& v = a[0];
    std::vector<double> x = v.doubles();
    std::size_t limit = a.size() == 2 ? sizeArg(a[1]) : x.size();
    std::vector<double> idx;
    for (std::size_t i = 0; i < x.size() && idx.size() < limit; ++i) {
        if (x[i] != 0) {
            idx.push_back(static_cast<double>(i + 1));
        }
    }
    bool row = v.dims().size() == 2 && v.rows() == 1 && v.cols() != 1;
    auto shape = [&](std::vector<double> const& d) {
        return row ? makeDoubleArray({1, d.size()}, d) : makeDoubleArray({d.size(), 1}, d);
    };
    if (nargout <= 1) {
        out.push_back(shape(idx));
        return;
    }
    std::size_t m = v.rows();
    std::vector<double> r, c;
    for (double i : idx) {
        std::size_t k = static_cast<std::size_t>(i) - 1;
        r.push_back(static_cast<double>(k % m + 1));
        c.push_back(static_cast<double>(k / m + 1));
    }
    out.push_back(shape(r));
    out.push_back(shape(c));
}

BUILTIN(bi_sort) {
    needArgs(a, 1, 3, "sort");
    bool descend = false;
    for (std::size_t i = 1; i < a.size(); ++i) {
        if (a[i].isText()) {
            std::string m = a[i].str();
            if (m == "descend") {
                descend = true;
            } else if (m != "ascend") {
                bad("sort direction must be 'ascend' or 'descend'.");
            }
        }
    }
    Value const& v = a[0];
    if (v.isCell()) {
        std::vector<std::string> t = cellTexts(v, "sort");
        std::vector<std::size_t> order(t.size());
        std::iota(order.begin(), order.end(), 0);
        std::stable_sort(order.begin(), order.end(), [&](std::size_t x, std::size_t y) {
            return descend ? t[x] > t[y] : t[x] < t[y];
        });
        std::vector<std::string> s;
        std::vector<double> idx;
        for (std::size_t o : order) {
            s.push_back(t[o]);
            idx.push_back(static_cast<double>(o + 1));
        }
        Value r = cellOfTexts(s, v.cols() == 1 && v.rows() > 1);
        out.push_back(r);
        if (nargout > 1) {
            out.push_back(makeDoubleArray(r.dims(), idx));
        }
        return;
    }
    std::size_t k = 0;
    for (std::size_t i = 1; i < a.size(); ++i) {
        if (!a[i].isText()) {
            k = reduceDim(v, a, i);
        }
    }
    if (a.size() == 1 || (a.size() == 2 && a[1].isText())) {
        k = reduceDim(v, Args{}, 0);
    }
    std::vector<double> x = v.doubles(), y(x.size()), idx(x.size());
    alongDim(v.dims(), k, [&](std::size_t start, std::size_t stride, std::size_t len, std::size_t) {
        std::vector<std::size_t> order(len);
        std::iota(order.begin(), order.end(), 0);
        auto at = [&](std::size_t i) { return x[start + i * stride]; };
        std::stable_sort(order.begin(), order.end(), [&](std::size_t p, std::size_t q) {
            double u = at(p), w = at(q);
            if (std::isnan(u) || std::isnan(w)) {
                return !std::isnan(u) && std::isnan(w)
                           ? !descend
                           : (std::isnan(u) && !std::isnan(w) ? descend : false);
            }
            return descend ? u > w : u < w;
        });
        for (std::size_t i = 0; i < len; ++i) {
            y[start + i * stride] = at(order[i]);
            idx[start + i * stride] = static_cast<double>(order[i] + 1);
        }
    });
    Value r = makeDoubleArray(v.dims(), y);
    out.push_back(v.classID() == hvDOUBLE_CLASS ? r : convertClass(r, v.classID()));
    if (nargout > 1) {
        out.push_back(makeDoubleArray(v.dims(), idx));
    }
}

BUILTIN(bi_fliplr) {
    needArgs(a, 1, 1, "fliplr");
    Subscript all;
    all.colon = true;
    Subscript cols;
    for (std::size_t j = a[0].cols(); j-- > 0;) {
        cols.idx.push_back(j);
    }
    cols.shape = {1, cols.idx.size()};
    out.push_back(indexValue(a[0], {all, cols}));
}

BUILTIN(bi_flipud) {
    needArgs(a, 1, 1, "flipud");
    Subscript all;
    all.colon = true;
    Subscript rows;
    for (std::size_t j = a[0].rows(); j-- > 0;) {
        rows.idx.push_back(j);
    }
    rows.shape = {1, rows.idx.size()};
    out.push_back(indexValue(a[0], {rows, all}));
}

BUILTIN(bi_horzcat) {
    out.push_back(horzcat(a));
}
BUILTIN(bi_vertcat) {
    out.push_back(vertcat(a));
}

// ---------------------------------------------------------------------------------------------
// Conversions

BUILTIN(bi_double) {
    needArgs(a, 1, 1, "double");
    if (a[0].isStringObject()) {
        std::vector<double> d;
        for (std::size_t i = 0; i < a[0].numel(); ++i) {
            std::string t = toUtf8(hvGetStringElement(a[0].hv(), i));
            char* end = nullptr;
            double x = std::strtod(t.c_str(), &end);
            d.push_back(end != t.c_str() && *end == '\0' ? x : nan());
        }
        out.push_back(makeDoubleArray(a[0].dims(), d));
        return;
    }
    Value r = convertClass(a[0], hvDOUBLE_CLASS);
    out.push_back(r.numel() == 1 && r.dims().size() == 2 ? Value::number(r.scalar()) : r);
}

template <hvClassID C> BUILTIN(bi_convert) {
    needArgs(a, 1, 1, "conversion");
    out.push_back(convertClass(a[0], C));
}

BUILTIN(bi_logical) {
    needArgs(a, 1, 1, "logical");
    Value r = convertClass(a[0], hvLOGICAL_CLASS);
    out.push_back(r.numel() == 1 && r.dims().size() == 2 ? Value::boolean(r.scalar() != 0) : r);
}

BUILTIN(bi_char) {
    needArgs(a, 1, 1000, "char");
    std::vector<std::string> rows;
    for (Value const& v : a) {
        if (v.isCell()) {
            for (std::string const& t : cellTexts(v, "char")) {
                rows.push_back(t);
            }
        } else if (v.isStringObject()) {
            for (std::size_t i = 0; i < v.numel(); ++i) {
                rows.push_back(toUtf8(hvGetStringElement(v.hv(), i)));
            }
        } else if (a.size() == 1 && !v.isCell()) {
            out.push_back(convertClass(v, hvCHAR_CLASS));
            return;
        } else {
            rows.push_back(v.str());
        }
    }
    std::size_t w = 0;
    std::vector<std::u16string> u;
    for (auto const& r : rows) {
        u.push_back(toUtf16(r));
        w = std::max(w, u.back().size());
    }
    hvArray* c = hvCreateCharArray(2, std::vector<std::size_t>{u.size(), w}.data());
    if (!u.empty() && w > 0) {
        char16_t* p = static_cast<char16_t*>(hvGetData(c));
        for (std::size_t i = 0; i < u.size(); ++i) {
            for (std::size_t j = 0; j < w; ++j) {
                p[i + j * u.size()] = j < u[i].size() ? u[i][j] : u' ';
            }
        }
    }
    out.push_back(Value::adopt(c));
}

BUILTIN(bi_string) {
    needArgs(a, 1, 1, "string");
    Value const& v = a[0];
    if (v.isStringObject()) {
        out.push_back(v);
        return;
    }
    if (v.isChar()) {
        out.push_back(makeStringObject(v.str()));
        return;
    }
    std::vector<std::string> texts;
    if (v.isCell()) {
        texts = cellTexts(v, "string");
    } else if (v.isNumericOrLogical()) {
        for (double x : v.doubles()) {
            texts.push_back(num2str(Value::number(x), ""));
        }
    } else {
        bad("Cannot convert a value of class " + v.className() + " to string.");
    }
    std::vector<char const*> p;
    for (auto const& t : texts) {
        p.push_back(t.c_str());
    }
    std::vector<std::size_t> d = v.dims();
    out.push_back(Value::adopt(hvCreateStringObjectArray(d.size(), d.data(), p.data())));
}

BUILTIN(bi_cellstr) {
    needArgs(a, 1, 1, "cellstr");
    Value const& v = a[0];
    if (v.isCell()) {
        cellTexts(v, "cellstr");
        out.push_back(v);
        return;
    }
    if (v.isStringObject()) {
        hvArray* method = hvFindMethod(v.hv(), "cellstr");
        HvArrayPtr hold(method);
        hvArray* res = nullptr;
        const hvArray* in = v.hv();
        if (method == nullptr || !hvCallMethod(method, 1, &res, 1, &in)) {
            bad("cellstr failed for this string.");
        }
        out.push_back(Value::adopt(res));
        return;
    }
    if (v.isChar()) {
        std::vector<std::string> rows = charRows(v);
        for (std::string& r : rows) {
            r.erase(r.find_last_not_of(' ') + 1);
        }
        if (rows.empty()) {
            rows.push_back("");
        }
        out.push_back(cellOfTexts(rows, true));
        return;
    }
    bad("cellstr needs text or a cell array of texts.");
}

BUILTIN(bi_num2str) {
    needArgs(a, 1, 2, "num2str");
    std::string fmt;
    if (a.size() == 2) {
        if (a[1].isText()) {
            fmt = a[1].str();
        } else {
            fmt = "%." + std::to_string(sizeArg(a[1])) + "g";
        }
    }
    std::string s = num2str(a[0], fmt);
    if (s.find('\n') == std::string::npos) {
        out.push_back(Value::text(s));
        return;
    }
    std::vector<Value> rows;
    std::size_t start = 0;
    std::vector<std::string> parts;
    for (std::size_t i = 0; i <= s.size(); ++i) {
        if (i == s.size() || s[i] == '\n') {
            parts.push_back(s.substr(start, i - start));
            start = i + 1;
        }
    }
    Args ca;
    for (auto const& p : parts) {
        ca.push_back(Value::text(p));
    }
    bi_char(ev, ca, 1, out);
}

BUILTIN(bi_int2str) {
    needArgs(a, 1, 1, "int2str");
    out.push_back(
        Value::text(num2str(mapNumeric(a[0], [](double x) { return std::round(x); }), "")));
}

double parseDouble(std::string t) {
    std::size_t b = t.find_first_not_of(" \t\n");
    std::size_t e = t.find_last_not_of(" \t\n");
    if (b == std::string::npos) {
        return nan();
    }
    t = t.substr(b, e - b + 1);
    std::string low = t;
    std::transform(low.begin(), low.end(), low.begin(), ::tolower);
    if (low == "inf" || low == "+inf") {
        return std::numeric_limits<double>::infinity();
    }
    if (low == "-inf") {
        return -std::numeric_limits<double>::infinity();
    }
    if (low == "nan") {
        return nan();
    }
    t.erase(std::remove(t.begin(), t.end(), ','), t.end());
    char* end = nullptr;
    double x = std::strtod(t.c_str(), &end);
    if (end == t.c_str() || *end != '\0' || low.find('x') != std::string::npos ||
        low.find("inf") != std::string::npos || low.find("nan") != std::string::npos) {
        return nan();
    }
    return x;
}

BUILTIN(bi_str2double) {
    needArgs(a, 1, 1, "str2double");
    Value const& v = a[0];
    if (v.isCell() || (v.isStringObject() && v.numel() != 1)) {
        std::vector<double> d;
        for (std::size_t i = 0; i < v.numel(); ++i) {
            Value e =
                v.isCell() ? cellAt(v, i) : Value::text(toUtf8(hvGetStringElement(v.hv(), i)));
            d.push_back(e.isText() ? parseDouble(e.str()) : nan());
        }
        out.push_back(makeDoubleArray(v.dims(), d));
        return;
    }
    out.push_back(Value::number(v.isText() ? parseDouble(v.str()) : nan()));
}

// ---------------------------------------------------------------------------------------------
// Text

std::string trimRight(std::string s) {
    while (!s.empty() && std::isspace(static_cast<unsigned char>(s.back()))) {
        s.pop_back();
    }
    return s;
}

BUILTIN(bi_strcat) {
    needArgs(a, 1, 1000, "strcat");
    std::size_t n = 1;
    bool anyCell = false;
    for (Value const& v : a) {
        if (v.isCell()) {
            anyCell = true;
            if (v.numel() != 1) {
                if (n != 1 && n != v.numel()) {
                    bad("strcat needs cells of the same size.");
                }
                n = v.numel();
            }
        }
    }
    if (!anyCell) {
        std::string s;
        for (Value const& v : a) {
            s += v.isChar() ? trimRight(v.str()) : textArg(v, "strcat");
        }
        out.push_back(a[0].isStringObject() ? makeStringObject(s) : Value::text(s));
        return;
    }
    std::vector<std::string> r(n);
    for (Value const& v : a) {
        for (std::size_t i = 0; i < n; ++i) {
            if (v.isCell()) {
                r[i] += cellAt(v, v.numel() == 1 ? 0 : i).str();
            } else {
                r[i] += textArg(v, "strcat");
            }
        }
    }
    out.push_back(cellOfTexts(r));
}

void compareTexts(Args& a, Args& out, bool ignoreCase, std::size_t limit, char const* fn) {
    needArgs(a, 2, limit == 0 ? 2 : 3, fn);
    auto norm = [&](std::string s) {
        if (ignoreCase) {
            std::transform(s.begin(), s.end(), s.begin(), ::tolower);
        }
        return s;
    };
    std::size_t n = limit == 0 ? std::string::npos : sizeArg(a[2]);
    auto eq = [&](Value const& x, Value const& y) {
        if (!x.isText() || !y.isText()) {
            return false;
        }
        std::string s = norm(x.str()), t = norm(y.str());
        if (n != std::string::npos) {
            return s.size() >= n && t.size() >= n && s.compare(0, n, t, 0, n) == 0;
        }
        return s == t;
    };
    auto elements = [](Value const& v) {
        std::vector<Value> e;
        if (v.isCell()) {
            for (std::size_t i = 0; i < v.numel(); ++i) {
                e.push_back(cellAt(v, i));
            }
        } else if (v.isStringObject() && v.numel() != 1) {
            for (std::size_t i = 0; i < v.numel(); ++i) {
                e.push_back(Value::text(toUtf8(hvGetStringElement(v.hv(), i))));
            }
        }
        return e;
    };
    bool ca = a[0].isCell() || (a[0].isStringObject() && a[0].numel() != 1);
    bool cb = a[1].isCell() || (a[1].isStringObject() && a[1].numel() != 1);
    if (!ca && !cb) {
        out.push_back(Value::boolean(eq(a[0], a[1])));
        return;
    }
    std::vector<Value> x = ca ? elements(a[0]) : std::vector<Value>{a[0]};
    std::vector<Value> y = cb ? elements(a[1]) : std::vector<Value>{a[1]};
    if (ca && cb && x.size() != y.size()) {
        bad(std::string("'") + fn + "' needs cells of the same size.");
    }
    std::size_t count = std::max(x.size(), y.size());
    std::vector<bool> r(count);
    for (std::size_t i = 0; i < count; ++i) {
        r[i] = eq(x[ca ? i : 0], y[cb ? i : 0]);
    }
    out.push_back(makeLogicalArray(ca ? a[0].dims() : a[1].dims(), r));
}

BUILTIN(bi_strcmp) {
    compareTexts(a, out, false, 0, "strcmp");
}
BUILTIN(bi_strcmpi) {
    compareTexts(a, out, true, 0, "strcmpi");
}
BUILTIN(bi_strncmp) {
    compareTexts(a, out, false, 1, "strncmp");
}

BUILTIN(bi_strsplit) {
    needArgs(a, 1, 2, "strsplit");
    std::string s = textArg(a[0], "strsplit");
    std::vector<std::string> delims;
    if (a.size() == 2) {
        delims = a[1].isCell() ? cellTexts(a[1], "strsplit")
                               : std::vector<std::string>{unescape(textArg(a[1], "strsplit"))};
    } else {
        delims = {" "};
    }
    std::vector<std::string> parts;
    std::string curr;
    std::size_t i = 0;
    while (i < s.size()) {
        bool hit = false;
        for (std::string const& d : delims) {
            if (!d.empty() && s.compare(i, d.size(), d) == 0) {
                parts.push_back(curr);
                curr.clear();
                i += d.size();
                hit = true;
                break;
            }
        }
        if (!hit) {
            curr += s[i++];
        }
    }
    parts.push_back(curr);
    out.push_back(cellOfTexts(parts));
}

BUILTIN(bi_strjoin) {
    needArgs(a, 1, 2, "strjoin");
    std::vector<std::string> t = cellTexts(a[0], "strjoin");
    std::string d = a.size() == 2 ? unescape(textArg(a[1], "strjoin")) : " ";
    std::string s;
    for (std::size_t i = 0; i < t.size(); ++i) {
        s += (i ? d : "") + t[i];
    }
    out.push_back(Value::text(s));
}

template <class F> Value mapTexts(Value const& v, F fn, char const* name) {
    if (v.isCell()) {
        std::vector<std::string> t = cellTexts(v, name);
        for (std::string& s : t) {
            s = fn(s);
        }
        Value r = cellOfTexts(t);
        return reshapeValue(r, v.dims());
    }
    if (v.isStringObject()) {
        return makeStringObject(fn(v.str()));
    }
    if (v.isChar()) {
        if (v.rows() > 1) {
            bad(std::string("'") + name + "' needs a character row.");
        }
        return Value::text(fn(v.str()));
    }
    bad(std::string("'") + name + "' needs text, not a value of class " + v.className() + ".");
}

BUILTIN(bi_upper) {
    needArgs(a, 1, 1, "upper");
    out.push_back(mapTexts(
        a[0],
        [](std::string s) {
            std::transform(s.begin(), s.end(), s.begin(), ::toupper);
            return s;
        },
        "upper"));
}

BUILTIN(bi_lower) {
    needArgs(a, 1, 1, "lower");
    out.push_back(mapTexts(
        a[0],
        [](std::string s) {
            std::transform(s.begin(), s.end(), s.begin(), ::tolower);
            return s;
        },
        "lower"));
}

BUILTIN(bi_strtrim) {
    needArgs(a, 1, 1, "strtrim");
    out.push_back(mapTexts(
        a[0],
        [](std::string s) {
            std::size_t b = s.find_first_not_of(" \t\n\r\v\f");
            if (b == std::string::npos) {
                return std::string();
            }
            std::size_t e = s.find_last_not_of(" \t\n\r\v\f");
            return s.substr(b, e - b + 1);
        },
        "strtrim"));
}

BUILTIN(bi_strrep) {
    needArgs(a, 3, 3, "strrep");
    std::string from = textArg(a[1], "strrep"), to = textArg(a[2], "strrep");
    out.push_back(mapTexts(
        a[0],
        [&](std::string s) {
            if (from.empty()) {
                return s;
            }
            std::string r;
            std::size_t i = 0;
            while (i < s.size()) {
                if (s.compare(i, from.size(), from) == 0) {
                    r += to;
                    i += from.size();
                } else {
                    r += s[i++];
                }
            }
            return r;
        },
        "strrep"));
}

BUILTIN(bi_strfind) {
    needArgs(a, 2, 2, "strfind");
    std::string s = textArg(a[0], "strfind"), p = textArg(a[1], "strfind");
    std::vector<double> idx;
    if (!p.empty()) {
        for (std::size_t i = 0; i + p.size() <= s.size(); ++i) {
            if (s.compare(i, p.size(), p) == 0) {
                idx.push_back(static_cast<double>(i + 1));
            }
        }
    }
    out.push_back(idx.empty() ? makeMatrix(1, 0) : makeDoubleArray({1, idx.size()}, idx));
}

// ---------------------------------------------------------------------------------------------
// Functions

BUILTIN(bi_feval) {
    needArgs(a, 1, 1000, "feval");
    Value fn = a[0];
    Args rest(a.begin() + 1, a.end());
    ev.callValue(fn, rest, nargout, out);
}

BUILTIN(bi_func2str) {
    needArgs(a, 1, 1, "func2str");
    Value const& f = a[0];
    if (f.kind() == Value::Kind::Lambda) {
        std::string t = f.closure()->text;
        out.push_back(Value::text(t.size() > 1 && t[1] != '(' ? t.substr(1) : t));
        return;
    }
    if (!f.isFunction()) {
        bad("func2str needs a function handle.");
    }
    out.push_back(Value::text(hvGetFunctionName(f.hv())));
}

BUILTIN(bi_str2func) {
    needArgs(a, 1, 1, "str2func");
    std::string s = textArg(a[0], "str2func");
    if (!s.empty() && s[0] == '@') {
        std::shared_ptr<Unit> unit = Parser::parse(s, "", "str2func");
        if (unit->main->body.size() != 1 || !unit->main->body[0]->expr ||
            unit->main->body[0]->expr->kind != ExprKind::AnonFn) {
            bad("str2func needs a function name or an anonymous function.");
        }
        Expr const& e = *unit->main->body[0]->expr;
        auto c = std::make_shared<Closure>();
        c->unit = unit;
        c->def = e.lambda.get();
        c->text = ev.closureText(*e.lambda);
        out.push_back(Value::lambda(c));
        return;
    }
    out.push_back(ev.makeHandle(s, nullptr));
}

BUILTIN(bi_isvarname) {
    needArgs(a, 1, 1, "isvarname");
    bool ok = a[0].isText();
    if (ok) {
        std::string s = a[0].str();
        ok = !s.empty() && s.size() <= 63 && std::isalpha(static_cast<unsigned char>(s[0])) &&
             !isKeyword(s);
        for (char c : s) {
            ok = ok && (std::isalnum(static_cast<unsigned char>(c)) || c == '_');
        }
    }
    out.push_back(boolValue(ok));
}

BUILTIN(bi_exist) {
    needArgs(a, 1, 2, "exist");
    std::string n = textArg(a[0], "exist");
    std::string kind = a.size() == 2 ? textArg(a[1], "exist") : "";
    Value v;
    if ((kind.empty() || kind == "var") && ev.variable(ev.currentFrame(), n, v)) {
        out.push_back(Value::number(1));
        return;
    }
    if (kind == "var") {
        out.push_back(Value::number(0));
        return;
    }
    bool builtin = false;
    if (ev.functionExists(n, builtin)) {
        out.push_back(Value::number(builtin ? 5 : 2));
        return;
    }
    out.push_back(Value::number(0));
}

BUILTIN(bi_nargin) {
    Frame& f = ev.currentFrame();
    if (f.ws != nullptr) {
        bad("nargin is valid only inside a function.");
    }
    out.push_back(Value::number(f.nargin));
}

BUILTIN(bi_nargout) {
    Frame& f = ev.currentFrame();
    if (f.ws != nullptr) {
        bad("nargout is valid only inside a function.");
    }
    out.push_back(Value::number(f.nargout));
}

BUILTIN(bi_cellfun) {
    needArgs(a, 2, 1000, "cellfun");
    bool uniform = true;
    Args cells;
    for (std::size_t i = 1; i < a.size(); ++i) {
        if (a[i].isText() && a[i].str() == "UniformOutput" && i + 1 < a.size()) {
            uniform = a[i + 1].truth();
            ++i;
            continue;
        }
        if (!a[i].isCell()) {
            bad("cellfun needs cell arrays.");
        }
        cells.push_back(a[i]);
    }
    if (cells.empty()) {
        bad("cellfun needs a cell array.");
    }
    Value fn = a[0];
    std::size_t n = cells[0].numel();
    std::vector<Value> results;
    for (std::size_t i = 0; i < n; ++i) {
        Args args;
        for (Value const& c : cells) {
            args.push_back(cellAt(c, i));
        }
        Args r;
        ev.callValue(fn, args, 1, r);
        if (r.empty()) {
            bad("The function given to cellfun returned no value.");
        }
        if (uniform && (r[0].numel() != 1 || !(r[0].isNumericOrLogical() || r[0].isChar()))) {
            bad("cellfun with uniform output needs scalar results; use 'UniformOutput', false.");
        }
        results.push_back(r[0]);
    }
    std::vector<std::size_t> d = cells[0].dims();
    if (!uniform) {
        hvArray* c = hvCreateCellArray(d.size(), d.data());
        for (std::size_t i = 0; i < n; ++i) {
            hvSetCell(c, i, results[i].toHv().release());
        }
        out.push_back(Value::adopt(c));
        return;
    }
    if (results.empty()) {
        out.push_back(Value::adopt(hvCreateNumericArray(hvDOUBLE_CLASS, d.size(), d.data())));
        return;
    }
    bool allLogical = true;
    std::vector<double> vals;
    for (Value const& r : results) {
        allLogical = allLogical && r.classID() == hvLOGICAL_CLASS;
        vals.push_back(r.scalar());
    }
    Value r = makeDoubleArray(d, vals);
    out.push_back(allLogical ? convertClass(r, hvLOGICAL_CLASS) : r);
}

BUILTIN(bi_arrayfun) {
    needArgs(a, 2, 1000, "arrayfun");
    Args converted;
    converted.push_back(a[0]);
    for (std::size_t i = 1; i < a.size(); ++i) {
        if (a[i].isText() && a[i].str() == "UniformOutput") {
            converted.push_back(a[i]);
            if (i + 1 < a.size()) {
                converted.push_back(a[++i]);
            }
            continue;
        }
        std::vector<std::size_t> d = a[i].dims();
        hvArray* c = hvCreateCellArray(d.size(), d.data());
        for (std::size_t k = 0; k < a[i].numel(); ++k) {
            hvSetCell(c, k, elementAt(a[i], k).toHv().release());
        }
        converted.push_back(Value::adopt(c));
    }
    bi_cellfun(ev, converted, nargout, out);
}

// ---------------------------------------------------------------------------------------------
// Session

BUILTIN(bi_tic) {
    ev.ticTime() = std::chrono::steady_clock::now();
    if (nargout > 0) {
        out.push_back(Value::number(static_cast<double>(
            std::chrono::duration_cast<std::chrono::microseconds>(ev.ticTime().time_since_epoch())
                .count())));
    }
}

BUILTIN(bi_toc) {
    double s =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - ev.ticTime()).count();
    if (nargout > 0) {
        out.push_back(Value::number(s));
        return;
    }
    ev.write(1, formatText("Elapsed time is %f seconds.\n", {Value::number(s)}));
}

BUILTIN(bi_pause) {
    needArgs(a, 0, 1, "pause");
    if (a.empty()) {
        return;
    }
    double secs = a[0].scalar();
    if (std::isnan(secs) || secs <= 0) {
        return;
    }
    // Waits in short ticks so that an interrupt ends the pause promptly.
    auto const tick = std::chrono::milliseconds(2);
    auto start = std::chrono::steady_clock::now();
    for (;;) {
        ev.checkInterrupt();
        auto elapsed = std::chrono::steady_clock::now() - start;
        double left = secs - std::chrono::duration<double>(elapsed).count();
        if (left <= 0) {
            return;
        }
        auto wait = std::chrono::duration<double>(left) < tick
                        ? std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                              std::chrono::duration<double>(left))
                        : std::chrono::duration_cast<std::chrono::steady_clock::duration>(tick);
        std::this_thread::sleep_for(wait);
    }
}

BUILTIN(bi_who) {
    std::vector<std::string> names = ev.variableNames(ev.currentFrame());
    if (nargout > 0) {
        out.push_back(cellOfTexts(names, true));
        return;
    }
    if (names.empty()) {
        return;
    }
    std::string s = "Variables:\n";
    for (std::size_t i = 0; i < names.size(); ++i) {
        s += (i ? "  " : "    ") + names[i];
    }
    ev.write(1, s + "\n");
}

BUILTIN(bi_clear) {
    Frame& f = ev.currentFrame();
    if (a.empty()) {
        ev.clearAll(f);
        return;
    }
    for (Value const& v : a) {
        std::string n = textArg(v, "clear");
        if (n == "all" || n == "variables" || n == "-all") {
            ev.clearAll(f);
        } else if (n == "functions") {
            continue;
        } else {
            ev.clearVariable(f, n);
        }
    }
}

BUILTIN(bi_format) {
    // One display format only; accepted for scripts that set one.
}

BUILTIN(bi_refbox) {
    needArgs(a, 0, 2, "RefBox");
    out.push_back(
        makeRefBox(a.empty() ? Value::empty() : a[0], a.size() > 1 ? a[1] : Value::text("")));
}

#undef BUILTIN

} // namespace

void registerBuiltins(std::map<std::string, Builtin>& t) {
    t["disp"] = bi_disp;
    t["fprintf"] = bi_fprintf;
    t["sprintf"] = bi_sprintf;
    t["error"] = bi_error;
    t["warning"] = bi_warning;
    t["rethrow"] = bi_rethrow;
    t["assert"] = bi_assert;
    t["size"] = bi_size;
    t["numel"] = bi_numel;
    t["length"] = bi_length;
    t["ndims"] = bi_ndims;
    t["isempty"] = bi_isempty;
    t["isscalar"] = bi_isscalar;
    t["isvector"] = bi_isvector;
    t["isrow"] = bi_isrow;
    t["iscolumn"] = bi_iscolumn;
    t["class"] = bi_class;
    t["isa"] = bi_isa;
    t["isnumeric"] = bi_isnumeric;
    t["ischar"] = bi_ischar;
    t["iscell"] = bi_iscell;
    t["isstruct"] = bi_isstruct;
    t["islogical"] = bi_islogical;
    t["isstring"] = bi_isstring;
    t["isreal"] = bi_isreal;
    t["iscellstr"] = bi_iscellstr;
    t["isequal"] = bi_isequal;
    t["zeros"] = bi_zeros;
    t["ones"] = bi_ones;
    t["eye"] = bi_eye;
    t["NaN"] = bi_nan;
    t["nan"] = bi_nan;
    t["Inf"] = bi_inf;
    t["inf"] = bi_inf;
    t["pi"] = bi_pi;
    t["eps"] = bi_eps;
    t["true"] = bi_true;
    t["false"] = bi_false;
    t["rand"] = bi_rand;
    t["randn"] = bi_randn;
    t["rng"] = bi_rng;
    t["linspace"] = bi_linspace;
    t["repmat"] = bi_repmat;
    t["reshape"] = bi_reshape;
    t["cell"] = bi_cell;
    t["struct"] = bi_struct;
    t["fieldnames"] = bi_fieldnames;
    t["isfield"] = bi_isfield;
    t["rmfield"] = bi_rmfield;
    t["deal"] = bi_deal;
    t["sum"] = bi_sum;
    t["prod"] = bi_prod;
    t["mean"] = bi_mean;
    t["any"] = bi_any;
    t["all"] = bi_all;
    t["cumsum"] = bi_cumsum;
    t["cumprod"] = bi_cumprod;
    t["max"] = bi_max;
    t["min"] = bi_min;
    t["abs"] = bi_abs;
    t["sqrt"] = bi_sqrt;
    t["exp"] = bi_exp;
    t["log"] = bi_log;
    t["log2"] = bi_log2;
    t["log10"] = bi_log10;
    t["sin"] = bi_sin;
    t["cos"] = bi_cos;
    t["tan"] = bi_tan;
    t["asin"] = bi_asin;
    t["acos"] = bi_acos;
    t["atan"] = bi_atan;
    t["floor"] = bi_floor;
    t["ceil"] = bi_ceil;
    t["round"] = bi_round;
    t["fix"] = bi_fix;
    t["sign"] = bi_sign;
    t["isnan"] = bi_isnan;
    t["isinf"] = bi_isinf;
    t["isfinite"] = bi_isfinite;
    t["mod"] = bi_mod;
    t["rem"] = bi_rem;
    t["power"] = bi_power;
    t["nnz"] = bi_nnz;
    t["find"] = bi_find;
    t["sort"] = bi_sort;
    t["fliplr"] = bi_fliplr;
    t["flipud"] = bi_flipud;
    t["horzcat"] = bi_horzcat;
    t["vertcat"] = bi_vertcat;
    t["double"] = bi_double;
    t["single"] = bi_convert<hvSINGLE_CLASS>;
    t["int8"] = bi_convert<hvINT8_CLASS>;
    t["uint8"] = bi_convert<hvUINT8_CLASS>;
    t["int16"] = bi_convert<hvINT16_CLASS>;
    t["uint16"] = bi_convert<hvUINT16_CLASS>;
    t["int32"] = bi_convert<hvINT32_CLASS>;
    t["uint32"] = bi_convert<hvUINT32_CLASS>;
    t["int64"] = bi_convert<hvINT64_CLASS>;
    t["uint64"] = bi_convert<hvUINT64_CLASS>;
    t["logical"] = bi_logical;
    t["char"] = bi_char;
    t["string"] = bi_string;
    t["cellstr"] = bi_cellstr;
    t["num2str"] = bi_num2str;
    t["int2str"] = bi_int2str;
    t["str2double"] = bi_str2double;
    t["strcat"] = bi_strcat;
    t["strcmp"] = bi_strcmp;
    t["strcmpi"] = bi_strcmpi;
    t["strncmp"] = bi_strncmp;
    t["strsplit"] = bi_strsplit;
    t["strjoin"] = bi_strjoin;
    t["upper"] = bi_upper;
    t["lower"] = bi_lower;
    t["strtrim"] = bi_strtrim;
    t["strrep"] = bi_strrep;
    t["strfind"] = bi_strfind;
    t["feval"] = bi_feval;
    t["func2str"] = bi_func2str;
    t["str2func"] = bi_str2func;
    t["isvarname"] = bi_isvarname;
    t["exist"] = bi_exist;
    t["nargin"] = bi_nargin;
    t["nargout"] = bi_nargout;
    t["cellfun"] = bi_cellfun;
    t["arrayfun"] = bi_arrayfun;
    t["tic"] = bi_tic;
    t["toc"] = bi_toc;
    t["pause"] = bi_pause;
    t["who"] = bi_who;
    t["clear"] = bi_clear;
    t["format"] = bi_format;
    t["RefBox"] = bi_refbox;
}

} // namespace language
} // namespace quorl
