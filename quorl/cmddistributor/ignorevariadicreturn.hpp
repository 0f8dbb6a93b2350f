#pragma once
// IgnoreVariadicReturn: the result type of a typed call that takes whatever outputs the call
// gave and drops them. An empty value type.
namespace quorl {
namespace cmddistributor {

struct IgnoreVariadicReturn {};

} // namespace cmddistributor
} // namespace quorl
