#pragma once
// CustomWorkspaceAdapter: a Workspace over a client's foundation::extdata::array::
// ICustomWorkspace. Values cross as foundation::extdata::Array, converted here from and to the
// array library's form (toExternal / fromExternal): numeric, logical and char arrays, "string"
// arrays, cells and structs. Function handles, objects and opaque arrays have no external form
// of their own: an ExternalBorder given by the host converts them (to references, say), and
// without one they raise LanguageError (quorl:wrongType) when written.
//
// Ownership: borrows the client's workspace, which must outlive the adapter.
// Threads: the interpreter thread that uses it; the client's workspace sees calls from that
// thread only. Errors: what the client's workspace throws, passed on.
#include <quorl/language/workspace.hpp>

#include <foundation/extdata/array.hpp>
#include <foundation/extdata/array/icustomworkspace.hpp>

#include <functional>

namespace quorl {
namespace language {

// The host's conversions for what has no external form of its own.
struct ExternalBorder {
    // Called for each value (also inside cells and structs) that has no external form; throws
    // to refuse it.
    std::function<foundation::extdata::Array(const hvArray*)> toExternal;
    // Asked first for each value coming in (also inside cells and structs): the array it stands
    // for, or null when it is an ordinary value.
    std::function<HvArrayPtr(foundation::extdata::Array const&)> fromExternal;
};

foundation::extdata::Array toExternal(const hvArray* array, ExternalBorder const* border = nullptr);
// A new array owned by the caller.
HvArrayPtr fromExternal(foundation::extdata::Array const& array,
                        ExternalBorder const* border = nullptr);

class CustomWorkspaceAdapter : public Workspace {
public:
    // `border` is borrowed and may be null.
    explicit CustomWorkspaceAdapter(foundation::extdata::array::ICustomWorkspace& client,
                                    ExternalBorder const* border = nullptr)
        : client_(client), border_(border) {}

    bool get(std::string const& name, Value& out) override;
    void set(std::string const& name, Value const& value) override;
    void clear(std::string const& name) override;
    std::vector<std::string> names() override;

private:
    foundation::extdata::array::ICustomWorkspace& client_;
    ExternalBorder const* border_;
};

} // namespace language
} // namespace quorl
