#include <quorl/language/interpreter.hpp>
