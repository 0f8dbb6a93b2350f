#pragma once
// Text forms of values: the display of a named value ("x = 5", matrices in aligned columns,
// cells and structs by their elements; an opaque array whose class has a "disp" method as that
// method prints it through utPrintf), disp's form without the name, the number forms of
// num2str, and printf-style formatting with the format recycled over the arguments.
//
// Free functions, any thread; the first class display installs a utPrintf sink that passes on
// all text but its own. Errors: LanguageError for arguments that cannot be shown or formatted.
#include <quorl/language/value.hpp>

#include <string>
#include <vector>

namespace quorl {
namespace language {

// "name = value\n" or "name =\n" followed by indented rows.
std::string displayText(std::string const& name, Value const& v);
// The value alone, as disp shows it.
std::string dispText(Value const& v);
// Printf formatting: %d %i %u %f %e %g %s %c %x %o %%, flags, widths and precisions (also
// '*'), escapes (\n \t \\ \a \r \" ...), the format used again while arguments remain.
std::string formatText(std::string const& format, std::vector<Value> const& args);
// Escape sequences of a format applied alone (for fprintf with no conversions).
std::string unescape(std::string const& s);
// num2str's text of a numeric or logical value; an empty `format` chooses one.
std::string num2str(Value const& v, std::string const& format);
// The rows of a char array as UTF-8 texts.
std::vector<std::string> charRows(Value const& v);
// A short one-line summary such as "[2x3 double]", used inside cells and structs.
std::string summary(Value const& v);

} // namespace language
} // namespace quorl
