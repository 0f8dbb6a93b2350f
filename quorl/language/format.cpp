#include <quorl/language/format.hpp>

#include <quorl/language/ast.hpp>
#include <quorl/language/languageerror.hpp>
#include <quorl/language/valueops.hpp>

#include <hv/hvopaque.hpp>
#include <hv/utprintf.hpp>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <mutex>

namespace quorl {
namespace language {

namespace {

// Where utPrintf text of this thread goes while a class displays a value here; null otherwise.
thread_local std::string* printCapture = nullptr;

// Installs, once, a utPrintf sink that hands a capturing thread's text to it and everything else
// to the sink that was there before.
void captureClassPrints() {
    static std::once_flag once;
    std::call_once(once, [] {
        auto previous = std::make_shared<utPrintfSink>();
        *previous = utSetPrintfSink([previous](char const* text, std::size_t length) {
            if (printCapture != nullptr) {
                printCapture->append(text, length);
            } else if (*previous) {
                (*previous)(text, length);
            } else {
                std::fwrite(text, 1, length, stdout);
            }
        });
    });
}

// The text that the class of an opaque array prints for it through its "disp" method, when the
// class has one.
bool classDisplay(Value const& v, std::string& out) {
    if (v.kind() == Value::Kind::Lambda || v.classID() != hvOPAQUE_CLASS) {
        return false;
    }
    hvOpaqueClass const* cls = hvGetOpaqueClass(v.hv());
    hvOpaqueClassOps const* ops = cls != nullptr ? hvGetOpaqueClassOps(cls) : nullptr;
    if (ops == nullptr || ops->findMethod == nullptr || ops->callMethod == nullptr) {
        return false;
    }
    HvArrayPtr method(ops->findMethod(v.hv(), "disp"));
    if (!method) {
        return false;
    }
    captureClassPrints();
    std::string text;
    hvArray const* args[] = {v.hv()};
    printCapture = &text;
    bool shown = false;
    try {
        shown = ops->callMethod(method.get(), 0, nullptr, 1, args);
    } catch (...) {
        printCapture = nullptr;
        throw;
    }
    printCapture = nullptr;
    if (shown) {
        out = std::move(text);
    }
    return shown;
}

std::string cfmt(char const* format, double v) {
    char buf[512];
    std::snprintf(buf, sizeof buf, format, v);
    return buf;
}

std::string special(double v) {
    if (std::isnan(v)) {
        return "NaN";
    }
    return v > 0 ? "Inf" : "-Inf";
}

// How a set of numbers is shown: as integers, fixed with four decimals, or exponential.
enum class NumStyle { Integer, Fixed, Exp };

NumStyle styleOf(std::vector<double> const& d) {
    bool allInt = true;
    double maxAbs = 0;
    for (double x : d) {
        if (!std::isfinite(x)) {
            continue;
        }
        allInt = allInt && x == std::floor(x) && std::fabs(x) < 1e10;
        maxAbs = std::max(maxAbs, std::fabs(x));
    }
    if (allInt) {
        return NumStyle::Integer;
    }
    if (maxAbs >= 1e5 || maxAbs < 1e-3) {
        return NumStyle::Exp;
    }
    return NumStyle::Fixed;
}

std::string numText(double x, NumStyle s) {
    if (!std::isfinite(x)) {
        return special(x);
    }
    switch (s) {
    case NumStyle::Integer:
        return cfmt("%.0f", x == 0 ? 0.0 : x);
    case NumStyle::Fixed:
        return cfmt("%.4f", x);
    default:
        return cfmt("%.4e", x);
    }
}

std::string quoteChar(std::string const& s) {
    return "'" + s + "'";
}

bool isRawClass(Value const& v) {
    return v.isNumericOrLogical() || v.isChar();
}

// Rows of a numeric 2-D array, columns right-aligned to one width.
std::vector<std::string> numberRows(Value const& v) {
    std::vector<double> d = v.doubles();
    NumStyle s = styleOf(d);
    std::vector<std::size_t> dims = v.dims();
    std::size_t m = dims[0], n = v.numel() / std::max<std::size_t>(m, 1);
    std::vector<std::string> texts(d.size());
    std::size_t w = 0;
    for (std::size_t i = 0; i < d.size(); ++i) {
        texts[i] = numText(d[i], s);
        w = std::max(w, texts[i].size());
    }
    std::vector<std::string> rows;
    for (std::size_t i = 0; i < m; ++i) {
        std::string r;
        for (std::size_t j = 0; j < n; ++j) {
            std::string const& t = texts[i + j * m];
            r += (j ? "  " : "") + std::string(w - t.size(), ' ') + t;
        }
        rows.push_back(r);
    }
    return rows;
}

std::string stringElement(Value const& v, std::size_t i) {
    return "\"" + toUtf8(hvGetStringElement(v.hv(), i)) + "\"";
}

std::string emptyText(Value const& v) {
    std::string d = dimsText(v.dims());
    if (v.isChar()) {
        return v.rows() == 0 && v.cols() == 0 ? "''" : "''(" + d + ")";
    }
    if (v.isCell()) {
        return "{}(" + d + ")";
    }
    if (v.isStringObject()) {
        return "string(" + d + ")";
    }
    if (v.isStruct()) {
        return d + " struct array with no elements";
    }
    return "[](" + d + ")";
}

std::string closureOrHandle(Value const& v) {
    if (v.kind() == Value::Kind::Lambda) {
        return v.closure()->text;
    }
    return "@" + hvGetFunctionName(v.hv());
}

std::string elementIndexText(std::vector<std::size_t> const& dims, std::size_t i) {
    if (dims.size() == 2 && (dims[0] == 1 || dims[1] == 1)) {
        return std::to_string(i + 1);
    }
    std::string s;
    std::size_t rest = i;
    for (std::size_t k = 0; k < dims.size(); ++k) {
        s += (k ? "," : "") + std::to_string(rest % dims[k] + 1);
        rest /= dims[k];
    }
    return s;
}

// The body lines of a value's display (without the name), each without a line end.
std::vector<std::string> bodyLines(Value const& v);

std::vector<std::string> fieldLines(Value const& s) {
    std::vector<std::string> lines;
    const hvArray* a = s.hv();
    for (std::size_t f = 0; f < hvGetNumberOfFields(a); ++f) {
        const hvArray* e = hvGetFieldByNumber(a, 0, f);
        lines.push_back(std::string(hvGetFieldNameByNumber(a, f)) + ": " +
                        summary(e ? Value::share(e) : Value::empty()));
    }
    return lines;
}

std::vector<std::string> bodyLines(Value const& v) {
    if (v.kind() == Value::Kind::Lambda || v.isFunction()) {
        return {closureOrHandle(v)};
    }
    if (v.isEmpty() && !v.isStruct()) {
        return {emptyText(v)};
    }
    if (v.isChar()) {
        std::vector<std::string> rows = charRows(v);
        for (std::string& r : rows) {
            r = quoteChar(r);
        }
        return rows;
    }
    if (isRawClass(v)) {
        if (v.dims().size() > 2) {
            return {"[" + dimsText(v.dims()) + " " + v.className() + "]"};
        }
        return numberRows(v);
    }
    if (v.isStringObject()) {
        std::size_t m = v.rows(), n = v.numel() / std::max<std::size_t>(v.rows(), 1);
        std::vector<std::string> rows;
        for (std::size_t i = 0; i < m; ++i) {
            std::string r;
            for (std::size_t j = 0; j < n; ++j) {
                r += (j ? "  " : "") + stringElement(v, i + j * m);
            }
            rows.push_back(r);
        }
        return rows;
    }
    if (v.isCell()) {
        std::vector<std::string> lines;
        std::vector<std::size_t> d = v.dims();
        for (std::size_t i = 0; i < v.numel(); ++i) {
            lines.push_back("{" + elementIndexText(d, i) + "}: " + summary(cellAt(v, i)));
        }
        return lines;
    }
    if (v.isStruct()) {
        if (v.numel() == 1) {
            return fieldLines(v);
        }
        std::string names;
        for (std::size_t f = 0; f < hvGetNumberOfFields(v.hv()); ++f) {
            names += (f ? ", " : "") + std::string(hvGetFieldNameByNumber(v.hv(), f));
        }
        return {dimsText(v.dims()) + " struct array with fields: " + names};
    }
    if (v.classID() == hvOBJECT_CLASS) {
        std::vector<std::string> lines;
        const hvArray* a = v.hv();
        for (std::size_t f = 0; f < hvGetNumberOfFields(a); ++f) {
            char const* n = hvGetFieldNameByNumber(a, f);
            hvArray* p = hvGetProperty(a, 0, n);
            if (p != nullptr) {
                lines.push_back(std::string(n) + ": " + summary(Value::adopt(p)));
            }
        }
        return lines;
    }
    return {"[" + dimsText(v.dims()) + " " + v.className() + "]"};
}

bool oneLine(Value const& v) {
    if (v.kind() == Value::Kind::Lambda || v.isFunction()) {
        return true;
    }
    if (v.isEmpty() && !v.isStruct()) {
        return true;
    }
    if (v.isStruct()) {
        return v.numel() != 1;
    }
    if (v.isChar()) {
        return v.rows() == 1;
    }
    if (isRawClass(v) || v.isStringObject()) {
        return v.numel() == 1;
    }
    return false;
}

std::string header(Value const& v) {
    std::string d = dimsText(v.dims());
    if (v.isCell()) {
        return d + " cell";
    }
    if (v.isStruct()) {
        return "struct with fields:";
    }
    if (v.classID() == hvOBJECT_CLASS && !v.isStringObject()) {
        return v.className() + " with properties:";
    }
    return "";
}

} // namespace

std::vector<std::string> charRows(Value const& v) {
    std::vector<std::string> rows;
    std::size_t m = v.rows(), n = v.cols();
    std::vector<double> d = v.doubles();
    for (std::size_t i = 0; i < m; ++i) {
        std::u16string r;
        for (std::size_t j = 0; j < n; ++j) {
            r += static_cast<char16_t>(d[i + j * m]);
        }
        rows.push_back(toUtf8(r));
    }
    return rows;
}

std::string summary(Value const& v) {
    if (v.kind() == Value::Kind::Lambda || v.isFunction()) {
        return closureOrHandle(v);
    }
    if (v.isEmpty() && !v.isStruct()) {
        return emptyText(v);
    }
    if (v.isChar() && v.rows() == 1) {
        return quoteChar(v.str());
    }
    if (v.isStringObject() && v.numel() == 1) {
        return stringElement(v, 0);
    }
    if (isRawClass(v) && v.rows() == 1 && v.dims().size() == 2 && v.numel() <= 10) {
        if (v.numel() == 1) {
            return numberRows(v)[0];
        }
        std::vector<double> d = v.doubles();
        NumStyle s = styleOf(d);
        std::string r = "[";
        for (std::size_t i = 0; i < d.size(); ++i) {
            r += (i ? " " : "") + numText(d[i], s);
        }
        return r + "]";
    }
    if (v.isCell()) {
        return "{" + dimsText(v.dims()) + " cell}";
    }
    return "[" + dimsText(v.dims()) + " " + v.className() + "]";
}

std::string displayText(std::string const& name, Value const& v) {
    std::string shown;
    if (classDisplay(v, shown)) {
        return name + " =\n" + shown;
    }
    if (oneLine(v)) {
        return name + " = " + bodyLines(v)[0] + "\n";
    }
    std::string h = header(v);
    std::string out = name + " =" + (h.empty() ? "" : " " + h) + "\n";
    for (std::string const& l : bodyLines(v)) {
        out += "    " + l + "\n";
    }
    return out;
}

std::string dispText(Value const& v) {
    std::string shown;
    if (classDisplay(v, shown)) {
        return shown;
    }
    if (v.isChar()) {
        std::string out;
        for (std::string const& r : charRows(v)) {
            out += r + "\n";
        }
        return out;
    }
    if (v.isStringObject() && v.numel() == 1) {
        return toUtf8(hvGetStringElement(v.hv(), 0)) + "\n";
    }
    if (v.isEmpty() && !v.isStruct()) {
        return "";
    }
    std::string out;
    bool indent = !oneLine(v) && !isRawClass(v) && !v.isStringObject();
    std::string h = header(v);
    if (!h.empty()) {
        out += h + "\n";
    }
    for (std::string const& l : bodyLines(v)) {
        out += (indent ? "    " : "") + l + "\n";
    }
    return out;
}

std::string unescape(std::string const& s) {
    std::string out;
    for (std::size_t i = 0; i < s.size(); ++i) {
        char c = s[i];
        if (c != '\\' || i + 1 >= s.size()) {
            out += c;
            continue;
        }
        char n = s[++i];
        switch (n) {
        case 'n':
            out += '\n';
            break;
        case 't':
            out += '\t';
            break;
        case 'r':
            out += '\r';
            break;
        case 'a':
            out += '\a';
            break;
        case 'b':
            out += '\b';
            break;
        case 'f':
            out += '\f';
            break;
        case 'v':
            out += '\v';
            break;
        case '\\':
            out += '\\';
            break;
        case '"':
            out += '"';
            break;
        case '\'':
            out += '\'';
            break;
        case 'x': {
            std::size_t j = i + 1;
            int code = 0;
            while (j < s.size() && std::isxdigit(static_cast<unsigned char>(s[j])) && j < i + 5) {
                code = code * 16 + (std::isdigit(static_cast<unsigned char>(s[j]))
                                        ? s[j] - '0'
                                        : (std::tolower(s[j]) - 'a' + 10));
                ++j;
            }
            out += toUtf8(std::u16string(1, static_cast<char16_t>(code)));
            i = j - 1;
            break;
        }
        default:
            if (n >= '0' && n <= '7') {
                int code = 0;
                std::size_t j = i;
                while (j < s.size() && j < i + 3 && s[j] >= '0' && s[j] <= '7') {
                    code = code * 8 + (s[j] - '0');
                    ++j;
                }
                out += toUtf8(std::u16string(1, static_cast<char16_t>(code)));
                i = j - 1;
            } else {
                out += '\\';
                out += n;
            }
        }
    }
    return out;
}

namespace {

// One argument value of a format: a number or a text.
struct Atom {
    bool isText = false;
    double num = 0;
    std::string text;
};

std::vector<Atom> atomsOf(std::vector<Value> const& args) {
    std::vector<Atom> atoms;
    for (Value const& v : args) {
        if (v.isChar()) {
            Atom a;
            a.isText = true;
            a.text = v.isEmpty() ? std::string() : hvArrayToStdString(v.hv());
            atoms.push_back(a);
        } else if (v.isStringObject()) {
            for (std::size_t i = 0; i < v.numel(); ++i) {
                Atom a;
                a.isText = true;
                a.text = toUtf8(hvGetStringElement(v.hv(), i));
                atoms.push_back(a);
            }
        } else if (v.isNumericOrLogical()) {
            for (double d : v.doubles()) {
                Atom a;
                a.num = d;
                atoms.push_back(a);
            }
        } else if (v.isCell()) {
            throw LanguageError(errid::wrongType,
                                "Format arguments cannot be cells; use c{:} to pass their "
                                "contents.");
        } else {
            throw LanguageError(errid::wrongType,
                                "Format arguments cannot be of class " + v.className() + ".");
        }
    }
    return atoms;
}

std::string shortNumber(double x) {
    if (!std::isfinite(x)) {
        return special(x);
    }
    if (x == std::floor(x) && std::fabs(x) < 1e15) {
        return cfmt("%.0f", x);
    }
    return cfmt("%g", x);
}

struct Spec {
    std::string flags;
    int width = -1;
    int precision = -1;
    char conv = 0;
};

std::string applyWidth(Spec const& sp, std::string s) {
    if (sp.width > 0 && static_cast<int>(s.size()) < sp.width) {
        std::size_t pad = static_cast<std::size_t>(sp.width) - s.size();
        if (sp.flags.find('-') != std::string::npos) {
            s += std::string(pad, ' ');
        } else {
            s = std::string(pad, ' ') + s;
        }
    }
    return s;
}

std::string formatNumber(Spec const& sp, char conv, double x) {
    std::string f = "%" + sp.flags;
    if (sp.width >= 0) {
        f += std::to_string(sp.width);
    }
    if (!std::isfinite(x)) {
        Spec s2 = sp;
        std::string t = special(x);
        if (x > 0 && sp.flags.find('+') != std::string::npos && !std::isnan(x)) {
            t = "+" + t;
        }
        return applyWidth(s2, t);
    }
    switch (conv) {
    case 'd':
    case 'i':
    case 'u':
        if (x != std::floor(x)) {
            // Non-integers under an integer conversion are shown exponentially.
            return formatNumber(sp, 'e', x);
        }
        return cfmt((f + ".0f").c_str(), x);
    case 'x':
    case 'X':
    case 'o': {
        if (x != std::floor(x) || x < 0) {
            return formatNumber(sp, 'e', x);
        }
        char buf[128];
        std::snprintf(buf, sizeof buf, (f + "ll" + conv).c_str(),
                      static_cast<unsigned long long>(x));
        return buf;
    }
    case 'c': {
        std::string t = toUtf8(std::u16string(1, static_cast<char16_t>(x)));
        return applyWidth(sp, t);
    }
    default: {
        if (sp.precision >= 0) {
            f += "." + std::to_string(sp.precision);
        }
        f += conv;
        return cfmt(f.c_str(), x);
    }
    }
}

} // namespace

std::string formatText(std::string const& format, std::vector<Value> const& args) {
    std::vector<Atom> atoms = atomsOf(args);
    std::string fmt = unescape(format);
    std::string out;
    std::size_t next = 0;
    bool hasConversion = false;
    bool noArgs = atoms.empty();
    for (;;) {
        bool consumedThisPass = false;
        for (std::size_t i = 0; i < fmt.size(); ++i) {
            char c = fmt[i];
            if (c != '%') {
                out += c;
                continue;
            }
            if (i + 1 < fmt.size() && fmt[i + 1] == '%') {
                out += '%';
                ++i;
                continue;
            }
            std::size_t j = i + 1;
            Spec sp;
            while (j < fmt.size() && std::strchr("-+ 0#", fmt[j]) != nullptr) {
                sp.flags += fmt[j++];
            }
            auto readNumber = [&](int& target) {
                if (j < fmt.size() && fmt[j] == '*') {
                    ++j;
                    if (next < atoms.size()) {
                        target = static_cast<int>(atoms[next++].num);
                        consumedThisPass = true;
                    }
                    return;
                }
                if (j < fmt.size() && std::isdigit(static_cast<unsigned char>(fmt[j]))) {
                    target = 0;
                    while (j < fmt.size() && std::isdigit(static_cast<unsigned char>(fmt[j]))) {
                        target = target * 10 + (fmt[j++] - '0');
                    }
                }
            };
            readNumber(sp.width);
            if (j < fmt.size() && fmt[j] == '.') {
                ++j;
                sp.precision = 0;
                readNumber(sp.precision);
            }
            while (j < fmt.size() && (fmt[j] == 'l' || fmt[j] == 'h')) {
                ++j;
            }
            if (j >= fmt.size() || std::strchr("diuoxXfFeEgGcs", fmt[j]) == nullptr) {
                // Not a conversion: the text stands as it is.
                out += fmt.substr(i, j - i);
                i = j - 1;
                continue;
            }
            sp.conv = fmt[j];
            hasConversion = true;
            i = j;
            if (noArgs) {
                continue;
            }
            if (next >= atoms.size()) {
                return out;
            }
            if (atoms[next].isText && sp.conv != 's' && sp.conv != 'c') {
                // A numeric conversion takes a text's characters as numbers, one at a time.
                std::u16string u = toUtf16(atoms[next].text);
                std::vector<Atom> codes(u.size());
                for (std::size_t k = 0; k < u.size(); ++k) {
                    codes[k].num = static_cast<double>(u[k]);
                }
                atoms.erase(atoms.begin() + static_cast<std::ptrdiff_t>(next));
                atoms.insert(atoms.begin() + static_cast<std::ptrdiff_t>(next), codes.begin(),
                             codes.end());
                if (next >= atoms.size()) {
                    return out;
                }
            }
            Atom a = atoms[next++];
            consumedThisPass = true;
            if (sp.conv == 's') {
                std::string t = a.isText ? a.text : shortNumber(a.num);
                if (!a.isText && a.num == std::floor(a.num) && a.num >= 0 && a.num < 65536) {
                    t = toUtf8(std::u16string(1, static_cast<char16_t>(a.num)));
                }
                if (sp.precision >= 0 && static_cast<std::size_t>(sp.precision) < t.size()) {
                    t = t.substr(0, static_cast<std::size_t>(sp.precision));
                }
                out += applyWidth(sp, t);
            } else if (a.isText) {
                out += applyWidth(sp, a.text);
            } else {
                out += formatNumber(sp, sp.conv, a.num);
            }
        }
        if (noArgs || !hasConversion || next >= atoms.size() || !consumedThisPass) {
            return out;
        }
    }
}

std::string num2str(Value const& v, std::string const& format) {
    if (v.isChar()) {
        return v.str();
    }
    if (!v.isNumericOrLogical()) {
        throw LanguageError(errid::wrongType,
                            "num2str needs a numeric, logical or char value, not " + v.className() +
                                ".");
    }
    std::vector<double> d = v.doubles();
    std::size_t m = v.rows(), n = v.numel() / std::max<std::size_t>(m, 1);
    std::vector<std::string> rows;
    for (std::size_t i = 0; i < m; ++i) {
        std::string r;
        for (std::size_t j = 0; j < n; ++j) {
            double x = d[i + j * m];
            std::string t;
            if (!format.empty()) {
                t = formatText(format, {Value::number(x)});
            } else if (!std::isfinite(x)) {
                t = special(x);
            } else if (x == std::floor(x) && std::fabs(x) < 1e15) {
                t = cfmt("%.0f", x == 0 ? 0.0 : x);
            } else {
                int digits =
                    std::max(0, static_cast<int>(std::floor(std::log10(std::fabs(x))))) + 5;
                t = cfmt(("%." + std::to_string(digits) + "g").c_str(), x);
            }
            r += (j && format.empty() ? "  " : "") + t;
        }
        rows.push_back(r);
    }
    if (rows.size() == 1) {
        return rows[0];
    }
    std::string out;
    for (std::size_t i = 0; i < rows.size(); ++i) {
        out += (i ? "\n" : "") + rows[i];
    }
    return out;
}

} // namespace language
} // namespace quorl
