#pragma once
// The 16-bit instantiations of the standard stream classes that the platform passes around:
// std::basic_streambuf<char16_t>, std::basic_stringbuf<char16_t> and std::basic_ostream<char16_t>.
// They are instantiated once in this library and declared extern here, so every user shares
// one instantiation.
//
// Unformatted output (put, write, and inserting strings with no field width) works on the
// stream; formatted numeric output needs facets the standard library does not provide for
// char16_t and fails with std::bad_cast.
#include <ostream>
#include <sstream>
#include <streambuf>

extern template class std::basic_streambuf<char16_t>;
extern template class std::basic_stringbuf<char16_t>;

namespace cpp11compat {

typedef std::basic_streambuf<char16_t> u16streambuf;
typedef std::basic_stringbuf<char16_t> u16stringbuf;
typedef std::basic_ostream<char16_t> u16ostream;

// Writes a 16-bit string unformatted; returns the stream.
u16ostream& write(u16ostream& os, std::u16string const& text);

} // namespace cpp11compat
