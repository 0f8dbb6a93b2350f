#pragma once
// RefBox: the language's built-in handle-object class (class 18 of the array library). A RefBox
// holds the properties "Value" and "Label"; copies of a RefBox share them, so a change through
// one copy is seen through all, and a RefBox cannot be serialized. Made by RefBox(value, label).
//
// The class is registered with the array library once per process, on first use, from any
// thread. Errors: LanguageError when the class cannot be made.
#include <quorl/language/value.hpp>

#include <string>
#include <vector>

namespace quorl {
namespace language {

Value makeRefBox(Value const& value, Value const& label);
// Registers the class (idempotent).
void registerRefBoxClass();

} // namespace language
} // namespace quorl
