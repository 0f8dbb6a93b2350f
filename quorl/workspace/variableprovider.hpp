#pragma once
// VariableProvider: an empty marker class of the workspace exchange, kept for the library's
// interface. No data, no virtual operations; copying copies nothing. Any thread; never throws.
namespace quorl {
namespace workspace {

class VariableProvider {
public:
    VariableProvider() = default;
    VariableProvider(VariableProvider const&) = default;
    VariableProvider& operator=(VariableProvider const&) { return *this; }
};

} // namespace workspace
} // namespace quorl
