#include <quorl/language/valueops.hpp>
