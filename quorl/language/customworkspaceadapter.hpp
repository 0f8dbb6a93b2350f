#pragma once
// CustomWorkspaceAdapter: a Workspace over a client's foundation::extdata::array::
// ICustomWorkspace. Values cross as foundation::extdata::Array, converted here from and to the
// array library's form (toExternal / fromExternal): numeric, logical and char arrays, "string"
// arrays, cells and structs. Function handles and objects have no external form and raise
// LanguageError (quorl:wrongType) when written.
//
// Ownership: borrows the client's workspace, which must outlive the adapter.
// Threads: the interpreter thread that uses it; the client's workspace sees calls from that
// thread only. Errors: what the client's workspace throws, passed on.
#include <quorl/language/workspace.hpp>

#include <foundation/extdata/array.hpp>
#include <foundation/extdata/array/icustomworkspace.hpp>

namespace quorl {
namespace language {

foundation::extdata::Array toExternal(const hvArray* array);
// A new array owned by the caller.
HvArrayPtr fromExternal(foundation::extdata::Array const& array);

class CustomWorkspaceAdapter : public Workspace {
public:
    explicit CustomWorkspaceAdapter(foundation::extdata::array::ICustomWorkspace& client)
        : client_(client) {}

    bool get(std::string const& name, Value& out) override;
    void set(std::string const& name, Value const& value) override;
    void clear(std::string const& name) override;
    std::vector<std::string> names() override;

private:
    foundation::extdata::array::ICustomWorkspace& client_;
};

} // namespace language
} // namespace quorl
