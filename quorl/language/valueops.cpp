#include <quorl/language/valueops.hpp>

#include <quorl/language/languageerror.hpp>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <numeric>

namespace quorl {
namespace language {

namespace {

bool isRaw(hvClassID c) {
    return c == hvLOGICAL_CLASS || c == hvCHAR_CLASS ||
           (c >= hvDOUBLE_CLASS && c <= hvUINT64_CLASS);
}

bool isComparison(Op op) {
    return op == Op::Lt || op == Op::Le || op == Op::Gt || op == Op::Ge || op == Op::Eq ||
           op == Op::Ne || op == Op::And || op == Op::Or;
}

inline double apply(Op op, double x, double y) {
    switch (op) {
    case Op::Plus:
        return x + y;
    case Op::Minus:
        return x - y;
    case Op::Times:
    case Op::ElTimes:
        return x * y;
    case Op::RDiv:
    case Op::ElRDiv:
        return x / y;
    case Op::LDiv:
    case Op::ElLDiv:
        return y / x;
    case Op::Power:
    case Op::ElPower:
        return std::pow(x, y);
    case Op::Lt:
        return x < y;
    case Op::Le:
        return x <= y;
    case Op::Gt:
        return x > y;
    case Op::Ge:
        return x >= y;
    case Op::Eq:
        return x == y;
    case Op::Ne:
        return x != y;
    case Op::And:
        return x != 0 && y != 0;
    case Op::Or:
        return x != 0 || y != 0;
    default:
        return 0;
    }
}

std::vector<std::size_t> trimDims(std::vector<std::size_t> d) {
    while (d.size() > 2 && d.back() == 1) {
        d.pop_back();
    }
    return d;
}

std::size_t product(std::vector<std::size_t> const& d, std::size_t from = 0) {
    std::size_t p = 1;
    for (std::size_t i = from; i < d.size(); ++i) {
        p *= d[i];
    }
    return p;
}

hvClassID resultClass(Op op, hvClassID ca, hvClassID cb) {
    if (isComparison(op)) {
        return hvLOGICAL_CLASS;
    }
    bool ia = isIntegerClass(ca), ib = isIntegerClass(cb);
    if (ia && ib && ca != cb) {
        throw LanguageError(errid::wrongType,
                            "Integers can only be combined with integers of the same class, or "
                            "scalar doubles.");
    }
    if (ia) {
        return ca;
    }
    if (ib) {
        return cb;
    }
    if (ca == hvSINGLE_CLASS || cb == hvSINGLE_CLASS) {
        return hvSINGLE_CLASS;
    }
    return hvDOUBLE_CLASS;
}

void requireNumeric(Value const& v, Op op) {
    if (!isRaw(v.classID())) {
        throw LanguageError(errid::wrongType, std::string("Operator '") + opSymbol(op) +
                                                  "' is not defined for values of class " +
                                                  v.className() + ".");
    }
}

Value fromDoubles(hvClassID cls, std::vector<std::size_t> const& dims, std::vector<double>& d) {
    if (cls == hvLOGICAL_CLASS) {
        std::vector<bool> b(d.size());
        for (std::size_t i = 0; i < d.size(); ++i) {
            b[i] = d[i] != 0;
        }
        return makeLogicalArray(dims, b);
    }
    Value r = makeDoubleArray(dims, d);
    return cls == hvDOUBLE_CLASS ? r : convertClass(r, cls);
}

Value elementwise(Op op, Value const& a, Value const& b) {
    requireNumeric(a, op);
    requireNumeric(b, op);
    hvClassID rc = resultClass(op, a.classID(), b.classID());
    std::vector<std::size_t> da = a.dims(), db = b.dims();
    std::size_t na = a.numel(), nb = b.numel();
    // Double arrays of one shape, or with one scalar side: straight loops over the data.
    if (rc == hvDOUBLE_CLASS && a.classID() == hvDOUBLE_CLASS && b.classID() == hvDOUBLE_CLASS &&
        (da == db || na == 1 || nb == 1)) {
        std::vector<std::size_t> dims = na == 1 ? db : da;
        std::size_t n = na == 1 ? nb : na;
        hvArray* r = hvCreateNumericArray(hvDOUBLE_CLASS, dims.size(), dims.data());
        if (n > 0) {
            double* out = static_cast<double*>(hvGetData(r));
            double const* x = static_cast<double const*>(hvGetReadOnlyData(a.hv()));
            double const* y = static_cast<double const*>(hvGetReadOnlyData(b.hv()));
            if (na == nb) {
                for (std::size_t i = 0; i < n; ++i) {
                    out[i] = apply(op, x[i], y[i]);
                }
            } else if (na == 1) {
                for (std::size_t i = 0; i < n; ++i) {
                    out[i] = apply(op, x[0], y[i]);
                }
            } else {
                for (std::size_t i = 0; i < n; ++i) {
                    out[i] = apply(op, x[i], y[0]);
                }
            }
        }
        return Value::adopt(r);
    }
    std::size_t nd = std::max(da.size(), db.size());
    da.resize(nd, 1);
    db.resize(nd, 1);
    std::vector<std::size_t> dr(nd);
    for (std::size_t k = 0; k < nd; ++k) {
        if (da[k] == db[k] || db[k] == 1) {
            dr[k] = da[k];
        } else if (da[k] == 1) {
            dr[k] = db[k];
        } else {
            throw LanguageError(errid::dimensionMismatch,
                                "Arrays have incompatible sizes for this operation (" +
                                    dimsText(trimDims(da)) + " and " + dimsText(trimDims(db)) +
                                    ").");
        }
    }
    std::vector<double> x = a.doubles(), y = b.doubles();
    std::size_t n = product(dr);
    std::vector<double> out(n);
    std::vector<std::size_t> sub(nd, 0);
    for (std::size_t i = 0; i < n; ++i) {
        std::size_t ia = 0, ib = 0, sa = 1, sb = 1;
        for (std::size_t k = 0; k < nd; ++k) {
            ia += (da[k] == 1 ? 0 : sub[k]) * sa;
            ib += (db[k] == 1 ? 0 : sub[k]) * sb;
            sa *= da[k];
            sb *= db[k];
        }
        double r = apply(op, x[ia], y[ib]);
        out[i] = isIntegerClass(rc) ? saturate(rc, r) : r;
        for (std::size_t k = 0; k < nd; ++k) {
            if (++sub[k] < dr[k]) {
                break;
            }
            sub[k] = 0;
        }
    }
    return fromDoubles(rc, trimDims(dr), out);
}

void require2d(Value const& v, char const* what) {
    if (v.dims().size() > 2) {
        throw LanguageError(errid::dimensionMismatch,
                            std::string(what) + " is defined for 2-D arrays only.");
    }
}

Value matmul(Value const& a, Value const& b) {
    require2d(a, "Matrix multiplication");
    require2d(b, "Matrix multiplication");
    std::size_t m = a.rows(), k = a.cols(), k2 = b.rows(), n = b.cols();
    if (k != k2) {
        throw LanguageError(errid::dimensionMismatch, "Inner matrix dimensions must agree (" +
                                                          dimsText(a.dims()) + " and " +
                                                          dimsText(b.dims()) + ").");
    }
    std::vector<double> x = a.doubles(), y = b.doubles(), r(m * n, 0.0);
    for (std::size_t j = 0; j < n; ++j) {
        for (std::size_t p = 0; p < k; ++p) {
            double yv = y[p + j * k];
            for (std::size_t i = 0; i < m; ++i) {
                r[i + j * m] += x[i + p * m] * yv;
            }
        }
    }
    return makeDoubleArray({m, n}, r);
}

// Solves A X = B: square systems by elimination with partial pivoting, tall ones in the
// least-squares sense through the normal equations.
Value solve(Value const& A, Value const& B) {
    require2d(A, "Matrix division");
    require2d(B, "Matrix division");
    std::size_t m = A.rows(), n = A.cols(), k = B.cols();
    if (B.rows() != m) {
        throw LanguageError(errid::dimensionMismatch, "Matrix dimensions must agree (" +
                                                          dimsText(A.dims()) + " and " +
                                                          dimsText(B.dims()) + ").");
    }
    std::vector<double> a = A.doubles(), b = B.doubles();
    if (m > n) {
        Value At = unaryOp(Op::Transpose, A);
        return solve(matmul(At, A), matmul(At, B));
    }
    if (m < n) {
        throw LanguageError(errid::dimensionMismatch,
                            "Underdetermined systems are not supported by '\\'.");
    }
    for (std::size_t c = 0; c < n; ++c) {
        std::size_t piv = c;
        for (std::size_t r = c + 1; r < n; ++r) {
            if (std::fabs(a[r + c * n]) > std::fabs(a[piv + c * n])) {
                piv = r;
            }
        }
        if (piv != c) {
            for (std::size_t j = 0; j < n; ++j) {
                std::swap(a[c + j * n], a[piv + j * n]);
            }
            for (std::size_t j = 0; j < k; ++j) {
                std::swap(b[c + j * n], b[piv + j * n]);
            }
        }
        double d = a[c + c * n];
        for (std::size_t r = c + 1; r < n; ++r) {
            double f = a[r + c * n] / d;
            if (f == 0) {
                continue;
            }
            for (std::size_t j = c; j < n; ++j) {
                a[r + j * n] -= f * a[c + j * n];
            }
            for (std::size_t j = 0; j < k; ++j) {
                b[r + j * n] -= f * b[c + j * n];
            }
        }
    }
    std::vector<double> x(n * k);
    for (std::size_t j = 0; j < k; ++j) {
        for (std::size_t r = n; r-- > 0;) {
            double s = b[r + j * n];
            for (std::size_t c = r + 1; c < n; ++c) {
                s -= a[r + c * n] * x[c + j * n];
            }
            x[r + j * n] = s / a[r + r * n];
        }
    }
    return makeDoubleArray({n, k}, x);
}

Value transpose(Value const& v) {
    require2d(v, "Transpose");
    std::size_t m = v.rows(), n = v.cols();
    if (v.isInlineScalar()) {
        return v;
    }
    Value r = createLike(v, {n, m});
    hvArray* dst = r.mutableHv();
    const hvArray* src = v.hv();
    for (std::size_t i = 0; i < m; ++i) {
        for (std::size_t j = 0; j < n; ++j) {
            copyElement(dst, j + i * n, src, i + j * m);
        }
    }
    return r;
}

} // namespace

char const* opSymbol(Op op) {
    switch (op) {
    case Op::Plus:
        return "+";
    case Op::Minus:
        return "-";
    case Op::Times:
        return "*";
    case Op::RDiv:
        return "/";
    case Op::LDiv:
        return "\\";
    case Op::ElTimes:
        return ".*";
    case Op::ElRDiv:
        return "./";
    case Op::ElLDiv:
        return ".\\";
    case Op::Power:
        return "^";
    case Op::ElPower:
        return ".^";
    case Op::Lt:
        return "<";
    case Op::Le:
        return "<=";
    case Op::Gt:
        return ">";
    case Op::Ge:
        return ">=";
    case Op::Eq:
        return "==";
    case Op::Ne:
        return "~=";
    case Op::And:
        return "&";
    case Op::Or:
        return "|";
    case Op::Not:
        return "~";
    case Op::Neg:
        return "-";
    default:
        return "'";
    }
}

Value binaryOp(Op op, Value const& a, Value const& b) {
    if (a.isInlineScalar() && b.isInlineScalar()) {
        double r = apply(op, a.inlineScalar(), b.inlineScalar());
        return isComparison(op) ? Value::boolean(r != 0) : Value::number(r);
    }
    switch (op) {
    case Op::Times:
        if (a.isScalar() || b.isScalar()) {
            return elementwise(op, a, b);
        }
        requireNumeric(a, op);
        requireNumeric(b, op);
        return matmul(a, b);
    case Op::LDiv:
        if (a.isScalar()) {
            return elementwise(op, a, b);
        }
        requireNumeric(a, op);
        requireNumeric(b, op);
        return solve(a, b);
    case Op::RDiv:
        if (b.isScalar()) {
            return elementwise(op, a, b);
        }
        requireNumeric(a, op);
        requireNumeric(b, op);
        return transpose(solve(transpose(b), transpose(a)));
    case Op::Power:
        if (a.isScalar() && b.isScalar()) {
            return elementwise(op, a, b);
        }
        requireNumeric(a, op);
        requireNumeric(b, op);
        if (b.isScalar() && a.rows() == a.cols() && b.scalar() >= 0 &&
            b.scalar() == std::floor(b.scalar())) {
            std::size_t n = a.rows();
            std::vector<double> id(n * n, 0.0);
            for (std::size_t i = 0; i < n; ++i) {
                id[i + i * n] = 1;
            }
            Value r = makeDoubleArray({n, n}, id);
            for (double p = b.scalar(); p > 0; --p) {
                r = matmul(r, a);
            }
            return r;
        }
        throw LanguageError(errid::dimensionMismatch,
                            "'^' needs a square matrix and a non-negative integer power; use '.^' "
                            "for element-wise powers.");
    default:
        return elementwise(op, a, b);
    }
}

Value unaryOp(Op op, Value const& a) {
    switch (op) {
    case Op::Neg:
        if (a.kind() == Value::Kind::Number) {
            return Value::number(-a.inlineScalar());
        }
        requireNumeric(a, op);
        return elementwise(Op::Minus, Value::number(0), a);
    case Op::UPlus:
        requireNumeric(a, op);
        if (a.classID() == hvCHAR_CLASS || a.classID() == hvLOGICAL_CLASS) {
            return convertClass(a, hvDOUBLE_CLASS);
        }
        return a;
    case Op::Not:
        if (a.isInlineScalar()) {
            return Value::boolean(a.inlineScalar() == 0);
        }
        requireNumeric(a, op);
        return elementwise(Op::Eq, a, Value::number(0));
    default:
        return transpose(a);
    }
}

// ---------------------------------------------------------------------------------------------
// Elements

Value createLike(Value const& like, std::vector<std::size_t> const& dims) {
    hvClassID c = like.classID();
    switch (c) {
    case hvCELL_CLASS:
        return Value::adopt(hvCreateCellArray(dims.size(), dims.data()));
    case hvSTRUCT_CLASS: {
        const hvArray* s = like.hv();
        std::vector<char const*> names;
        for (std::size_t f = 0; f < hvGetNumberOfFields(s); ++f) {
            names.push_back(hvGetFieldNameByNumber(s, f));
        }
        return Value::adopt(
            hvCreateStructArray(dims.size(), dims.data(), names.size(), names.data()));
    }
    case hvCHAR_CLASS:
        return Value::adopt(hvCreateCharArray(dims.size(), dims.data()));
    case hvLOGICAL_CLASS:
        return Value::adopt(hvCreateLogicalArray(dims.size(), dims.data()));
    default:
        if (c >= hvDOUBLE_CLASS && c <= hvUINT64_CLASS) {
            return Value::adopt(hvCreateNumericArray(c, dims.size(), dims.data()));
        }
        if (like.isStringObject()) {
            std::size_t n = product(dims);
            std::vector<char const*> texts(n, "");
            return Value::adopt(hvCreateStringObjectArray(dims.size(), dims.data(), texts.data()));
        }
        throw LanguageError(errid::wrongType,
                            "Arrays of class " + like.className() + " cannot be indexed or grown.");
    }
}

void copyElement(hvArray* dst, std::size_t di, const hvArray* src, std::size_t si) {
    hvClassID c = hvGetClassID(dst);
    if (isRaw(c)) {
        std::size_t sz = hvGetElementSize(dst);
        std::memcpy(static_cast<char*>(hvGetData(dst)) + di * sz,
                    static_cast<char const*>(hvGetReadOnlyData(src)) + si * sz, sz);
        return;
    }
    if (c == hvCELL_CLASS) {
        hvSetCell(dst, di, hvCreateSharedDataCopy(hvGetCell(src, si)));
        return;
    }
    if (c == hvSTRUCT_CLASS) {
        std::size_t nf = hvGetNumberOfFields(dst);
        for (std::size_t f = 0; f < nf; ++f) {
            const hvArray* v = hvGetField(src, si, hvGetFieldNameByNumber(dst, f));
            hvSetFieldByNumber(dst, di, f, hvCreateSharedDataCopy(v));
        }
        return;
    }
    if (c == hvOBJECT_CLASS && std::strcmp(hvGetClassName(dst), "string") == 0) {
        hvSetStringElement(dst, di, hvGetStringElement(src, si));
        return;
    }
    throw LanguageError(errid::wrongType, std::string("Arrays of class ") + hvGetClassName(dst) +
                                              " cannot be indexed or grown.");
}

Value elementAt(Value const& v, std::size_t i) {
    if (v.isInlineScalar() || v.kind() == Value::Kind::Lambda) {
        return v;
    }
    hvClassID c = v.classID();
    if (c == hvDOUBLE_CLASS) {
        return Value::number(static_cast<double const*>(hvGetReadOnlyData(v.hv()))[i]);
    }
    if (c == hvLOGICAL_CLASS) {
        return Value::boolean(static_cast<unsigned char const*>(hvGetReadOnlyData(v.hv()))[i] != 0);
    }
    if (v.numel() == 1 && (c == hvFUNCTION_CLASS || c == hvOBJECT_CLASS || c == hvOPAQUE_CLASS)) {
        return v;
    }
    Value r = createLike(v, {1, 1});
    copyElement(r.mutableHv(), 0, v.hv(), i);
    return r;
}

Value cellAt(Value const& c, std::size_t i) {
    const hvArray* e = hvGetCell(c.hv(), i);
    if (e == nullptr) {
        return Value::empty();
    }
    hvClassID k = hvGetClassID(e);
    if (hvGetNumberOfElements(e) == 1 && hvIsPlainArray(e)) {
        if (k == hvDOUBLE_CLASS) {
            return Value::number(hvGetScalar(e));
        }
        if (k == hvLOGICAL_CLASS) {
            return Value::boolean(hvGetScalar(e) != 0);
        }
    }
    return Value::share(e);
}

// ---------------------------------------------------------------------------------------------
// Subscripts and indexing

Subscript makeSubscript(Value const& v) {
    Subscript s;
    s.shape = v.dims();
    if (v.classID() == hvLOGICAL_CLASS) {
        std::vector<double> d = v.doubles();
        for (std::size_t i = 0; i < d.size(); ++i) {
            if (d[i] != 0) {
                s.idx.push_back(i);
            }
        }
        bool row = s.shape.size() == 2 && s.shape[0] == 1;
        s.shape = row ? std::vector<std::size_t>{1, s.idx.size()}
                      : std::vector<std::size_t>{s.idx.size(), 1};
        return s;
    }
    if (v.isInlineScalar()) {
        double d = v.inlineScalar();
        if (!(d >= 1) || d != std::floor(d)) {
            throw LanguageError(errid::badIndex,
                                "Array indices must be positive integers or logical values.");
        }
        s.idx.push_back(static_cast<std::size_t>(d) - 1);
        return s;
    }
    if (!v.isNumericOrLogical() && !v.isChar()) {
        throw LanguageError(errid::badIndex,
                            "Subscripts must be numeric or logical, not " + v.className() + ".");
    }
    std::vector<double> d = v.doubles();
    s.idx.reserve(d.size());
    for (double x : d) {
        if (!(x >= 1) || x != std::floor(x)) {
            throw LanguageError(errid::badIndex,
                                "Array indices must be positive integers or logical values.");
        }
        s.idx.push_back(static_cast<std::size_t>(x) - 1);
    }
    return s;
}

namespace {

// Linear positions addressed by `subs` in an array of dims `d`, and the result's dimensions.
std::vector<std::size_t> positions(std::vector<std::size_t> const& d,
                                   std::vector<Subscript> const& subs,
                                   std::vector<std::size_t>& shape) {
    std::size_t numel = product(d);
    std::vector<std::size_t> pos;
    if (subs.size() == 1) {
        Subscript const& s = subs[0];
        if (s.colon) {
            pos.resize(numel);
            std::iota(pos.begin(), pos.end(), 0);
            shape = {numel, 1};
            return pos;
        }
        for (std::size_t i : s.idx) {
            if (i >= numel) {
                throw LanguageError(errid::indexOutOfBounds,
                                    "Index exceeds the number of array elements. Index must not "
                                    "exceed " +
                                        std::to_string(numel) + ".");
            }
        }
        pos = s.idx;
        bool subVector = s.shape.size() == 2 && (s.shape[0] == 1 || s.shape[1] == 1);
        bool srcVector = d.size() == 2 && (d[0] == 1 || d[1] == 1);
        if (subVector && srcVector && numel > 0) {
            shape = d[0] == 1 && !(d[1] == 1 && s.shape[0] != 1)
                        ? std::vector<std::size_t>{1, pos.size()}
                        : std::vector<std::size_t>{pos.size(), 1};
            if (d[0] == 1 && d[1] == 1) {
                shape = s.shape;
            }
        } else {
            shape = s.shape;
        }
        return pos;
    }
    std::size_t n = subs.size();
    std::vector<std::size_t> ed(n, 1);
    for (std::size_t k = 0; k < n; ++k) {
        ed[k] = k < d.size() ? d[k] : 1;
    }
    if (d.size() > n) {
        ed[n - 1] = product(d, n - 1);
    }
    std::vector<std::vector<std::size_t>> lists(n);
    shape.assign(n, 0);
    for (std::size_t k = 0; k < n; ++k) {
        if (subs[k].colon) {
            lists[k].resize(ed[k]);
            std::iota(lists[k].begin(), lists[k].end(), 0);
        } else {
            for (std::size_t i : subs[k].idx) {
                if (i >= ed[k]) {
                    throw LanguageError(errid::indexOutOfBounds,
                                        "Index in position " + std::to_string(k + 1) +
                                            " exceeds array bounds. Index must not exceed " +
                                            std::to_string(ed[k]) + ".");
                }
            }
            lists[k] = subs[k].idx;
        }
        shape[k] = lists[k].size();
    }
    std::size_t total = product(shape);
    pos.reserve(total);
    std::vector<std::size_t> sub(n, 0);
    for (std::size_t t = 0; t < total; ++t) {
        std::size_t p = 0, stride = 1;
        for (std::size_t k = 0; k < n; ++k) {
            p += lists[k][sub[k]] * stride;
            stride *= ed[k];
        }
        pos.push_back(p);
        for (std::size_t k = 0; k < n; ++k) {
            if (++sub[k] < shape[k]) {
                break;
            }
            sub[k] = 0;
        }
    }
    shape = trimDims(shape);
    return pos;
}

Value gather(Value const& v, std::vector<std::size_t> const& pos,
             std::vector<std::size_t> const& shape) {
    if (pos.size() == 1 && shape.size() == 2 && shape[0] == 1 && shape[1] == 1) {
        return elementAt(v, pos[0]);
    }
    Value r = createLike(v, shape);
    if (pos.empty()) {
        return r;
    }
    hvArray* dst = r.mutableHv();
    const hvArray* src = v.hv();
    hvClassID c = v.classID();
    if (c == hvDOUBLE_CLASS) {
        double* o = static_cast<double*>(hvGetData(dst));
        double const* in = static_cast<double const*>(hvGetReadOnlyData(src));
        for (std::size_t i = 0; i < pos.size(); ++i) {
            o[i] = in[pos[i]];
        }
        return r;
    }
    for (std::size_t i = 0; i < pos.size(); ++i) {
        copyElement(dst, i, src, pos[i]);
    }
    return r;
}

} // namespace

Value indexValue(Value const& v, std::vector<Subscript> const& subs) {
    if (subs.empty()) {
        return v;
    }
    if (v.isInlineScalar() && subs.size() == 1 && !subs[0].colon && subs[0].idx.size() == 1 &&
        subs[0].idx[0] == 0) {
        return v;
    }
    std::vector<std::size_t> shape;
    std::vector<std::size_t> pos = positions(v.dims(), subs, shape);
    return gather(v, pos, shape);
}

namespace {

// Makes `v` fit to receive values of `rhs`'s class by paren assignment.
void harmonizeForAssign(Value& v, Value const& rhs) {
    hvClassID vc = v.classID(), rc = rhs.classID();
    if (!v.defined() || (vc == hvDOUBLE_CLASS && v.isEmpty() && rc != hvDOUBLE_CLASS)) {
        std::vector<std::size_t> d = v.defined() ? v.dims() : std::vector<std::size_t>{0, 0};
        v = createLike(rhs, d);
        return;
    }
    if (vc == rc) {
        if (vc == hvSTRUCT_CLASS) {
            // Fields of the right side that the target lacks are added.
            const hvArray* r = rhs.hv();
            for (std::size_t f = 0; f < hvGetNumberOfFields(r); ++f) {
                char const* name = hvGetFieldNameByNumber(r, f);
                if (hvGetFieldNumber(v.hv(), name) < 0) {
                    hvAddField(v.mutableHv(), name);
                }
            }
        }
        return;
    }
    if (isRaw(vc) && isRaw(rc)) {
        if ((vc == hvCHAR_CLASS || vc == hvLOGICAL_CLASS) && rc != vc) {
            v = convertClass(v, isIntegerClass(rc) ? rc : hvDOUBLE_CLASS);
        }
        return;
    }
    if (v.isStringObject() && (rc == hvCHAR_CLASS || rhs.isStringObject())) {
        return;
    }
    throw LanguageError(errid::wrongType, "Conversion to " + v.className() + " from " +
                                              rhs.className() + " is not possible.");
}

Value rhsAs(Value const& v, Value const& rhs) {
    hvClassID vc = v.classID();
    if (rhs.classID() == vc) {
        return rhs;
    }
    if (isRaw(vc)) {
        return convertClass(rhs, vc);
    }
    if (v.isStringObject() && rhs.isChar()) {
        return makeStringObject(rhs.str());
    }
    return rhs;
}

void growTo(Value& v, std::vector<std::size_t> const& newDims) {
    std::vector<std::size_t> od = v.dims();
    if (od == newDims) {
        return;
    }
    Value g = createLike(v, newDims);
    hvArray* dst = g.mutableHv();
    const hvArray* src = v.hv();
    std::size_t n = product(od);
    std::size_t nd = std::max(od.size(), newDims.size());
    std::vector<std::size_t> a = od, b = newDims;
    a.resize(nd, 1);
    b.resize(nd, 1);
    std::vector<std::size_t> sub(nd, 0);
    for (std::size_t i = 0; i < n; ++i) {
        std::size_t p = 0, stride = 1;
        for (std::size_t k = 0; k < nd; ++k) {
            p += sub[k] * stride;
            stride *= b[k];
        }
        copyElement(dst, p, src, i);
        for (std::size_t k = 0; k < nd; ++k) {
            if (++sub[k] < a[k]) {
                break;
            }
            sub[k] = 0;
        }
    }
    v = std::move(g);
}

} // namespace

void assignIndex(Value& v, std::vector<Subscript> const& subs, Value const& rhsIn) {
    harmonizeForAssign(v, rhsIn);
    Value rhs = rhsAs(v, rhsIn);
    std::vector<std::size_t> d = v.dims();
    if (subs.size() == 1) {
        Subscript const& s = subs[0];
        if (!s.colon) {
            std::size_t need = 0;
            for (std::size_t i : s.idx) {
                need = std::max(need, i + 1);
            }
            std::size_t numel = product(d);
            if (need > numel) {
                if (numel == 0 && d.size() == 2 && !(d[1] == 1 && d[0] == 0 && false)) {
                    growTo(v, d[1] == 0 || d[0] != 0 ? std::vector<std::size_t>{1, need}
                                                     : std::vector<std::size_t>{need, 1});
                } else if (d.size() == 2 && d[0] == 1) {
                    growTo(v, {1, need});
                } else if (d.size() == 2 && d[1] == 1) {
                    growTo(v, {need, 1});
                } else {
                    throw LanguageError(errid::indexOutOfBounds,
                                        "Attempt to grow array along ambiguous dimension.");
                }
                d = v.dims();
            }
        }
    } else {
        std::size_t n = subs.size();
        if (d.size() > n) {
            // Fewer subscripts than dimensions: the last one spans the rest, no growth there.
            std::vector<std::size_t> shape;
            positions(d, subs, shape);
        } else {
            std::vector<std::size_t> nd(n, 1);
            std::vector<std::size_t> rd = rhs.dims();
            bool grow = false;
            for (std::size_t k = 0; k < n; ++k) {
                std::size_t cur = k < d.size() ? d[k] : 1;
                std::size_t want = cur;
                if (subs[k].colon) {
                    if (cur == 0 && product(d) == 0) {
                        // x(:, 1) = column on an empty x takes its size from the right side.
                        std::size_t nonColon = 0;
                        for (auto const& s : subs) {
                            nonColon += s.colon ? 0 : 1;
                        }
                        want = rhs.numel() == 1                       ? 1
                               : (nonColon + 1 == n || k < rd.size()) ? (k < rd.size() ? rd[k] : 1)
                                                                      : 1;
                        if (rhs.numel() != 1 && n == 2 && rd.size() == 2) {
                            // Vectors fill the colon dimension whatever their orientation.
                            std::size_t other = subs[1 - k].colon ? 0 : subs[1 - k].idx.size();
                            if (other == 1) {
                                want = rhs.numel();
                            }
                        }
                    }
                } else {
                    for (std::size_t i : subs[k].idx) {
                        want = std::max(want, i + 1);
                    }
                }
                nd[k] = want;
                grow = grow || want != cur;
            }
            if (grow) {
                growTo(v, trimDims(nd));
                d = v.dims();
            }
        }
    }
    std::vector<std::size_t> shape;
    std::vector<std::size_t> pos = positions(d, subs, shape);
    std::size_t rn = rhs.numel();
    if (rn != 1 && rn != pos.size()) {
        throw LanguageError(errid::dimensionMismatch,
                            "Unable to perform assignment because the left and right sides have "
                            "different numbers of elements (" +
                                std::to_string(pos.size()) + " and " + std::to_string(rn) + ").");
    }
    if (pos.empty()) {
        return;
    }
    if (v.isInlineScalar() && rhs.isInlineScalar() && v.kind() == rhs.kind()) {
        v = rhs;
        return;
    }
    hvArray* dst = v.mutableHv();
    const hvArray* src = rhs.hv();
    if (v.classID() == hvDOUBLE_CLASS) {
        double* o = static_cast<double*>(hvGetData(dst));
        double const* in = static_cast<double const*>(hvGetReadOnlyData(src));
        for (std::size_t i = 0; i < pos.size(); ++i) {
            o[pos[i]] = in[rn == 1 ? 0 : i];
        }
        return;
    }
    for (std::size_t i = 0; i < pos.size(); ++i) {
        copyElement(dst, pos[i], src, rn == 1 ? 0 : i);
    }
}

void deleteElements(Value& v, std::vector<Subscript> const& subs) {
    if (!v.defined()) {
        throw LanguageError(errid::undefined, "Cannot delete elements of an undefined variable.");
    }
    std::vector<std::size_t> d = v.dims();
    std::size_t numel = product(d);
    if (subs.size() == 1) {
        if (subs[0].colon) {
            v = createLike(v, {0, 0});
            return;
        }
        std::vector<bool> drop(numel, false);
        for (std::size_t i : subs[0].idx) {
            if (i >= numel) {
                throw LanguageError(errid::indexOutOfBounds,
                                    "Index exceeds the number of array elements. Index must not "
                                    "exceed " +
                                        std::to_string(numel) + ".");
            }
            drop[i] = true;
        }
        std::vector<std::size_t> keep;
        for (std::size_t i = 0; i < numel; ++i) {
            if (!drop[i]) {
                keep.push_back(i);
            }
        }
        bool column = d.size() == 2 && d[1] == 1 && d[0] != 1;
        if (!column && !(d.size() == 2 && d[0] == 1) && keep.size() == numel) {
            return;
        }
        std::vector<std::size_t> shape = column ? std::vector<std::size_t>{keep.size(), 1}
                                                : std::vector<std::size_t>{1, keep.size()};
        Value r = createLike(v, shape);
        for (std::size_t i = 0; i < keep.size(); ++i) {
            copyElement(r.mutableHv(), i, v.hv(), keep[i]);
        }
        v = std::move(r);
        return;
    }
    std::size_t n = subs.size();
    std::size_t which = n;
    for (std::size_t k = 0; k < n; ++k) {
        if (!subs[k].colon) {
            if (which != n) {
                throw LanguageError(errid::badIndex,
                                    "A null assignment can have only one non-colon index.");
            }
            which = k;
        }
    }
    if (which == n) {
        v = createLike(v, {0, 0});
        return;
    }
    std::vector<std::size_t> ed(n, 1);
    for (std::size_t k = 0; k < n; ++k) {
        ed[k] = k < d.size() ? d[k] : 1;
    }
    if (d.size() > n) {
        ed[n - 1] = product(d, n - 1);
    }
    std::vector<bool> drop(ed[which], false);
    for (std::size_t i : subs[which].idx) {
        if (i >= ed[which]) {
            throw LanguageError(errid::indexOutOfBounds,
                                "Index in position " + std::to_string(which + 1) +
                                    " exceeds array bounds. Index must not exceed " +
                                    std::to_string(ed[which]) + ".");
        }
        drop[i] = true;
    }
    std::vector<Subscript> keepSubs(n);
    for (std::size_t k = 0; k < n; ++k) {
        keepSubs[k].colon = true;
    }
    keepSubs[which].colon = false;
    for (std::size_t i = 0; i < ed[which]; ++i) {
        if (!drop[i]) {
            keepSubs[which].idx.push_back(i);
        }
    }
    keepSubs[which].shape = {1, keepSubs[which].idx.size()};
    std::vector<std::size_t> shape;
    std::vector<std::size_t> pos = positions(d, keepSubs, shape);
    shape.resize(n);
    for (std::size_t k = 0; k < n; ++k) {
        shape[k] = k == which ? keepSubs[which].idx.size() : ed[k];
    }
    Value r = createLike(v, trimDims(shape));
    for (std::size_t i = 0; i < pos.size(); ++i) {
        copyElement(r.mutableHv(), i, v.hv(), pos[i]);
    }
    v = std::move(r);
}

std::vector<Value> cellElements(Value const& c, std::vector<Subscript> const& subs) {
    if (!c.isCell()) {
        throw LanguageError(errid::wrongType,
                            "Brace indexing is not supported for values of class " + c.className() +
                                ".");
    }
    std::vector<std::size_t> shape;
    std::vector<std::size_t> pos = positions(c.dims(), subs, shape);
    std::vector<Value> out;
    out.reserve(pos.size());
    for (std::size_t p : pos) {
        out.push_back(cellAt(c, p));
    }
    return out;
}

void assignCell(Value& c, std::vector<Subscript> const& subs, Value const& rhs) {
    if (!c.defined() || (c.classID() == hvDOUBLE_CLASS && c.isEmpty())) {
        c = Value::adopt(hvCreateCellMatrix(0, 0));
    }
    if (!c.isCell()) {
        throw LanguageError(errid::wrongType,
                            "Brace indexing is not supported for values of class " + c.className() +
                                ".");
    }
    hvArray* one = hvCreateCellMatrix(1, 1);
    hvSetCell(one, 0, rhs.toHv().release());
    assignIndex(c, subs, Value::adopt(one));
}

std::vector<Value> getField(Value const& s, std::string const& name) {
    std::vector<Value> out;
    if (s.isStruct()) {
        const hvArray* a = s.hv();
        int f = hvGetFieldNumber(a, name.c_str());
        if (f < 0) {
            throw LanguageError(errid::noField, "Unrecognized field name \"" + name + "\".");
        }
        for (std::size_t i = 0; i < s.numel(); ++i) {
            const hvArray* e = hvGetFieldByNumber(a, i, static_cast<std::size_t>(f));
            if (e != nullptr && hvGetClassID(e) == hvDOUBLE_CLASS &&
                hvGetNumberOfElements(e) == 1 && hvIsPlainArray(e)) {
                out.push_back(Value::number(hvGetScalar(e)));
            } else {
                out.push_back(Value::share(e));
            }
        }
        return out;
    }
    if (s.classID() == hvOBJECT_CLASS && !s.isStringObject()) {
        for (std::size_t i = 0; i < s.numel(); ++i) {
            hvArray* p = hvGetProperty(s.hv(), i, name.c_str());
            if (p == nullptr) {
                throw LanguageError(errid::noField, "Unrecognized property \"" + name +
                                                        "\" for class " + s.className() + ".");
            }
            out.push_back(Value::adopt(p));
        }
        return out;
    }
    throw LanguageError(errid::wrongType,
                        "Dot indexing is not supported for values of class " + s.className() + ".");
}

void setField(Value& s, std::size_t index, std::string const& name, Value const& rhs) {
    if (!s.defined() || (s.classID() == hvDOUBLE_CLASS && s.isEmpty())) {
        s = Value::adopt(hvCreateStructMatrix(1, 1, 0, nullptr));
    }
    if (s.classID() == hvOBJECT_CLASS && !s.isStringObject()) {
        hvArray* p = hvGetProperty(s.hv(), index, name.c_str());
        if (p == nullptr) {
            throw LanguageError(errid::noField, "Unrecognized property \"" + name +
                                                    "\" for class " + s.className() + ".");
        }
        hvDestroyArray(p);
        hvSetProperty(s.mutableHv(), index, name.c_str(), rhs.hv());
        return;
    }
    if (!s.isStruct()) {
        throw LanguageError(errid::wrongType, "Field assignment to a value of class " +
                                                  s.className() + " is not possible.");
    }
    hvArray* a = s.mutableHv();
    hvAddField(a, name.c_str());
    if (index >= hvGetNumberOfElements(a)) {
        std::vector<std::size_t> d = s.dims();
        if (d.size() == 2 && d[1] == 1 && d[0] > 1) {
            growTo(s, {index + 1, 1});
        } else {
            growTo(s, {1, index + 1});
        }
        a = s.mutableHv();
    }
    hvSetField(a, index, name.c_str(), rhs.toHv().release());
}

std::size_t rangeCount(double a, double s, double b) {
    if (s == 0 || std::isnan(a) || std::isnan(s) || std::isnan(b) ||
        !((s > 0 && b >= a) || (s < 0 && b <= a))) {
        return 0;
    }
    // A little slack so that 0:0.1:1 ends at 1 despite rounding of the step.
    return static_cast<std::size_t>(std::floor((b - a) / s + 1e-10)) + 1;
}

Value makeRange(double a, double s, double b) {
    std::size_t n = rangeCount(a, s, b);
    hvArray* r = hvCreateNumericMatrix(hvDOUBLE_CLASS, 1, n);
    if (n > 0) {
        double* p = static_cast<double*>(hvGetData(r));
        for (std::size_t i = 0; i < n; ++i) {
            p[i] = a + static_cast<double>(i) * s;
        }
    }
    return Value::adopt(r);
}

Value reshapeValue(Value const& v, std::vector<std::size_t> dims) {
    if (product(dims) != v.numel()) {
        throw LanguageError(errid::dimensionMismatch,
                            "Number of elements must not change. Use [] as one of the size inputs "
                            "to automatically calculate the appropriate size for that dimension.");
    }
    Value r = v;
    hvArray* a = r.mutableHv();
    hvSetDimensions(a, dims.size(), dims.data());
    return r;
}

bool valuesEqual(Value const& a, Value const& b) {
    if (isRaw(a.classID()) && isRaw(b.classID())) {
        return trimDims(a.dims()) == trimDims(b.dims()) && a.doubles() == b.doubles();
    }
    if (a.kind() == Value::Kind::Lambda || b.kind() == Value::Kind::Lambda) {
        return a.closure() == b.closure();
    }
    if (a.classID() != b.classID() || a.dims() != b.dims()) {
        return false;
    }
    if (a.isCell()) {
        for (std::size_t i = 0; i < a.numel(); ++i) {
            if (!valuesEqual(cellAt(a, i), cellAt(b, i))) {
                return false;
            }
        }
        return true;
    }
    return hvAreMatricesEqual(a.hv(), b.hv());
}

// ---------------------------------------------------------------------------------------------
// Concatenation

namespace {

hvClassID concatClass(std::vector<Value> const& vs, bool& stringResult) {
    bool anyCell = false, anyStruct = false, anyChar = false, anySingle = false, allLogical = true;
    hvClassID integer = hvUNKNOWN_CLASS;
    stringResult = false;
    for (Value const& v : vs) {
        hvClassID c = v.classID();
        anyCell |= c == hvCELL_CLASS;
        anyStruct |= c == hvSTRUCT_CLASS;
        anyChar |= c == hvCHAR_CLASS;
        anySingle |= c == hvSINGLE_CLASS;
        stringResult |= v.isStringObject();
        allLogical &= c == hvLOGICAL_CLASS;
        if (isIntegerClass(c) && integer == hvUNKNOWN_CLASS) {
            integer = c;
        }
        if (c == hvFUNCTION_CLASS || (c == hvOBJECT_CLASS && !v.isStringObject())) {
            throw LanguageError(errid::wrongType,
                                "Values of class " + v.className() + " cannot be concatenated.");
        }
    }
    if (stringResult) {
        return hvOBJECT_CLASS;
    }
    if (anyCell) {
        return hvCELL_CLASS;
    }
    if (anyStruct) {
        return hvSTRUCT_CLASS;
    }
    if (integer != hvUNKNOWN_CLASS) {
        return integer;
    }
    if (anyChar) {
        return hvCHAR_CLASS;
    }
    if (anySingle) {
        return hvSINGLE_CLASS;
    }
    return allLogical ? hvLOGICAL_CLASS : hvDOUBLE_CLASS;
}

Value asClass(Value const& v, hvClassID cls, bool stringResult) {
    if (stringResult) {
        if (v.isStringObject()) {
            return v;
        }
        if (v.isChar()) {
            return makeStringObject(v.str());
        }
        if (v.isNumericOrLogical()) {
            std::vector<double> d = v.doubles();
            std::vector<std::string> texts;
            std::vector<char const*> ptrs;
            for (double x : d) {
                char buf[64];
                std::snprintf(buf, sizeof buf, "%.15g", x);
                texts.emplace_back(buf);
            }
            for (auto const& t : texts) {
                ptrs.push_back(t.c_str());
            }
            std::vector<std::size_t> dims = v.dims();
            return Value::adopt(hvCreateStringObjectArray(dims.size(), dims.data(), ptrs.data()));
        }
    }
    if (cls == hvCELL_CLASS && !v.isCell()) {
        hvArray* one = hvCreateCellMatrix(1, 1);
        hvSetCell(one, 0, v.toHv().release());
        return Value::adopt(one);
    }
    if (cls == hvSTRUCT_CLASS && !v.isStruct()) {
        throw LanguageError(errid::wrongType, "A struct can only be concatenated with structs.");
    }
    if (isRaw(cls) && v.classID() != cls) {
        return convertClass(v, cls);
    }
    return v;
}

// Concatenates along dimension `dim` (0 rows, 1 columns).
Value concatAlong(std::vector<Value> const& in, int dim) {
    std::vector<Value> vs;
    for (Value const& v : in) {
        std::vector<std::size_t> d = v.dims();
        if (!(d.size() == 2 && d[0] == 0 && d[1] == 0)) {
            vs.push_back(v);
        }
    }
    if (vs.empty()) {
        if (!in.empty() && (in[0].isChar() || in[0].isCell())) {
            return in[0];
        }
        for (Value const& v : in) {
            if (v.isChar() || v.isCell() || v.isStringObject()) {
                return v;
            }
        }
        return in.empty() ? Value::empty() : in[0];
    }
    if (vs.size() == 1) {
        return vs[0];
    }
    bool stringResult = false;
    hvClassID cls = concatClass(vs, stringResult);
    for (Value& v : vs) {
        v = asClass(v, cls, stringResult);
    }
    if (cls == hvSTRUCT_CLASS) {
        std::vector<std::string> names;
        for (std::size_t f = 0; f < hvGetNumberOfFields(vs[0].hv()); ++f) {
            names.push_back(hvGetFieldNameByNumber(vs[0].hv(), f));
        }
        for (Value const& v : vs) {
            bool same = hvGetNumberOfFields(v.hv()) == names.size();
            for (std::size_t f = 0; same && f < names.size(); ++f) {
                same = hvGetFieldNumber(v.hv(), names[f].c_str()) >= 0;
            }
            if (!same) {
                throw LanguageError(errid::dimensionMismatch,
                                    "Structs being concatenated must have the same field names.");
            }
        }
    }
    std::vector<std::size_t> d0 = vs[0].dims();
    if (d0.size() > 2) {
        throw LanguageError(errid::dimensionMismatch,
                            "Concatenation is supported for 2-D arrays only.");
    }
    std::size_t other = d0[1 - dim], total = 0;
    for (Value const& v : vs) {
        std::vector<std::size_t> d = v.dims();
        if (d.size() > 2 || d[1 - dim] != other) {
            throw LanguageError(errid::dimensionMismatch,
                                "Dimensions of arrays being concatenated are not consistent.");
        }
        total += d[dim];
    }
    std::vector<std::size_t> rd =
        dim == 1 ? std::vector<std::size_t>{other, total} : std::vector<std::size_t>{total, other};
    Value r = createLike(vs[0], rd);
    hvArray* dst = r.mutableHv();
    std::size_t offset = 0;
    for (Value const& v : vs) {
        const hvArray* src = v.hv();
        std::size_t m = v.rows(), n = v.cols();
        for (std::size_t j = 0; j < n; ++j) {
            for (std::size_t i = 0; i < m; ++i) {
                std::size_t di = dim == 1 ? i + (offset + j) * other : (offset + i) + j * total;
                copyElement(dst, di, src, i + j * m);
            }
        }
        offset += dim == 1 ? n : m;
    }
    return r;
}

} // namespace

Value horzcat(std::vector<Value> const& values) {
    if (values.size() == 1) {
        return values[0];
    }
    bool allScalars = !values.empty();
    for (Value const& v : values) {
        allScalars = allScalars && v.kind() == Value::Kind::Number;
    }
    if (allScalars) {
        std::vector<double> d;
        for (Value const& v : values) {
            d.push_back(v.inlineScalar());
        }
        return makeDoubleArray({1, d.size()}, d);
    }
    return concatAlong(values, 1);
}

Value vertcat(std::vector<Value> const& values) {
    if (values.size() == 1) {
        return values[0];
    }
    return concatAlong(values, 0);
}

Value concatenate(std::vector<std::vector<Value>> const& rows) {
    std::vector<Value> r;
    for (auto const& row : rows) {
        r.push_back(horzcat(row));
    }
    if (r.empty()) {
        return Value::empty();
    }
    return vertcat(r);
}

} // namespace language
} // namespace quorl
