#pragma once
// Operations on values: arithmetic and comparison with scalar expansion, matrix products and
// solves, transposes, concatenation, and indexing (reading, assignment with growth, deletion)
// for every class the language has. Free functions used by the interpreter and the built-ins.
//
// Threads: none of their own; values of one thread. Errors: LanguageError with the language's
// identifiers (dimension mismatch, index out of bounds, wrong type).
#include <quorl/language/ast.hpp>
#include <quorl/language/value.hpp>

#include <cstddef>
#include <string>
#include <vector>

namespace quorl {
namespace language {

// The operator as written in code ("+", ".*", "~=", ...).
char const* opSymbol(Op op);

Value binaryOp(Op op, Value const& a, Value const& b);
Value unaryOp(Op op, Value const& a);

// [a, b; c, d]: rows of values, each row concatenated horizontally, then the rows vertically.
Value concatenate(std::vector<std::vector<Value>> const& rows);
Value horzcat(std::vector<Value> const& values);
Value vertcat(std::vector<Value> const& values);

// One subscript: all elements (':'), or one-based positions (a logical mask is turned into the
// positions of its true elements).
struct Subscript {
    bool colon = false;
    std::vector<std::size_t> idx;   // zero-based
    std::vector<std::size_t> shape; // dimensions of the subscript value, for the result's shape
};
Subscript makeSubscript(Value const& v);

// v(subs...): a new value of v's class.
Value indexValue(Value const& v, std::vector<Subscript> const& subs);
// v(subs...) = rhs, growing v as needed; an undefined v starts as an empty array of rhs's
// class.
void assignIndex(Value& v, std::vector<Subscript> const& subs, Value const& rhs);
// v(subs...) = []
void deleteElements(Value& v, std::vector<Subscript> const& subs);

// Cells: the elements c{subs...}, and c{subs...} = rhs (growing).
std::vector<Value> cellElements(Value const& c, std::vector<Subscript> const& subs);
void assignCell(Value& c, std::vector<Subscript> const& subs, Value const& rhs);

// Structs and objects: the field of every element, and the field of element `index` set
// (a non-struct empty value becomes a 1-by-1 struct).
std::vector<Value> getField(Value const& s, std::string const& name);
void setField(Value& s, std::size_t index, std::string const& name, Value const& rhs);

// Element `i` (zero-based) of any array as a 1-by-1 value (a cell element stays a cell).
Value elementAt(Value const& v, std::size_t i);
// Element i of a cell.
Value cellAt(Value const& c, std::size_t i);
// The number of elements of the range a:s:b (0 when it is empty).
std::size_t rangeCount(double a, double s, double b);
// The range a:s:b as a row.
Value makeRange(double a, double s, double b);
// Reshape to new dimensions with the same number of elements.
Value reshapeValue(Value const& v, std::vector<std::size_t> dims);
// Equality of two values as isequal sees it.
bool valuesEqual(Value const& a, Value const& b);
// A new array of the class of `like` (and its fields) with the given dimensions, empty/zero.
Value createLike(Value const& like, std::vector<std::size_t> const& dims);
// Copies element si of src into element di of dst (same class).
void copyElement(hvArray* dst, std::size_t di, const hvArray* src, std::size_t si);

} // namespace language
} // namespace quorl
