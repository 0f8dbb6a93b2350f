#pragma once
// Value: one value of the language. Real double and logical scalars are held inline, without an
// array of the array library, so that scalar arithmetic allocates nothing; every other value is
// an hvArray held by a counted pointer and shared between copies until one is changed
// (mutableHv gives the changer its own header; the array library copies the data on write).
// Anonymous functions are closures: parameters, a body and the values they captured.
//
// Ownership: a Value owns its array together with the Values that share it; hv() lends the
// array for as long as the Value lives unchanged; toHv() hands the caller a new shared copy.
// Threads: one Value is used by one thread at a time (the interpreter's).
// Errors: conversions that do not fit raise LanguageError (quorl:wrongType).
#include <hv/hvarray.hpp>

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace quorl {
namespace language {

struct Closure;

class Value {
public:
    enum class Kind : unsigned char { Undefined, Number, Bool, Array, Lambda };

    Value() = default;
    static Value number(double v) {
        Value r;
        r.kind_ = Kind::Number;
        r.d_ = v;
        return r;
    }
    static Value boolean(bool v) {
        Value r;
        r.kind_ = Kind::Bool;
        r.d_ = v ? 1.0 : 0.0;
        return r;
    }
    // Takes ownership of `array` (null gives an undefined Value).
    static Value adopt(hvArray* array);
    // A shared copy of a borrowed array.
    static Value share(const hvArray* array);
    static Value text(std::string const& utf8); // char row
    static Value empty();                       // 0-by-0 double
    static Value lambda(std::shared_ptr<Closure const> closure);

    Kind kind() const { return kind_; }
    bool defined() const { return kind_ != Kind::Undefined; }
    bool isInlineScalar() const { return kind_ == Kind::Number || kind_ == Kind::Bool; }
    double inlineScalar() const { return d_; }
    std::shared_ptr<Closure const> const& closure() const { return closure_; }

    hvClassID classID() const;
    std::string className() const;
    // The array form (made on demand for inline scalars and closures); borrowed.
    const hvArray* hv() const;
    // The array form to change in place: this Value's own header, inline scalars converted.
    hvArray* mutableHv();
    // A new array sharing this value's data, for callers outside the language.
    HvArrayPtr toHv() const;

    std::vector<std::size_t> dims() const;
    std::size_t numel() const;
    std::size_t rows() const;
    std::size_t cols() const;
    bool isEmpty() const { return numel() == 0; }
    bool isScalar() const { return numel() == 1; }
    bool isNumericOrLogical() const;
    bool isNumeric() const;
    bool isChar() const { return classID() == hvCHAR_CLASS; }
    bool isCell() const { return classID() == hvCELL_CLASS; }
    bool isStruct() const { return classID() == hvSTRUCT_CLASS; }
    bool isStringObject() const;
    bool isFunction() const { return classID() == hvFUNCTION_CLASS; }
    // A char row (or empty char) or a 1-by-1 string.
    bool isText() const;

    // The first element as a double (numeric, logical, char); wrongType otherwise.
    double scalar() const;
    // Elements as doubles (numeric, logical, char).
    std::vector<double> doubles() const;
    // Text of a char array or 1-by-1 string, UTF-8.
    std::string str() const;
    // Truth for if and while: not empty and every element nonzero.
    bool truth() const;

private:
    Kind kind_ = Kind::Undefined;
    double d_ = 0.0;
    mutable std::shared_ptr<hvArray> a_;
    std::shared_ptr<Closure const> closure_;
};

// A double array of the given dimensions from column-major values.
Value makeDoubleArray(std::vector<std::size_t> const& dims, std::vector<double> const& values);
Value makeMatrix(std::size_t m, std::size_t n, double fill = 0.0);
Value makeLogicalArray(std::vector<std::size_t> const& dims, std::vector<bool> const& values);
// A cell row of values.
Value makeCellRow(std::vector<Value> const& values);
Value makeStringObject(std::string const& utf8);
// A 1-by-1 struct with the given fields.
Value makeStruct(std::vector<std::string> const& names, std::vector<Value> const& values);
// Elements of a double array, converted into class `cls` (numeric: rounded and saturated for
// integers; logical; char).
Value convertClass(Value const& v, hvClassID cls);
// Converts a double to an integer class's range, rounding half away from zero.
double saturate(hvClassID cls, double v);
bool isIntegerClass(hvClassID cls);

std::string dimsText(std::vector<std::size_t> const& dims); // "2x3"
std::u16string toUtf16(std::string const& utf8);
std::string toUtf8(std::u16string const& text);

} // namespace language
} // namespace quorl
