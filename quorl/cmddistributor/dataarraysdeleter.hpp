#pragma once
// DataArraysDeleter: the deleter of a heap vector of foundation::extdata::Array values (EDI
// arrays). It takes no lock and knows no context: EDI values need neither. Stateless; any thread;
// null does nothing. Never throws.
#include <foundation/extdata/array.hpp>

#include <vector>

namespace cmddistributor {

struct DataArraysDeleter {
    void operator()(std::vector<foundation::extdata::Array>* arrays) const noexcept {
        delete arrays;
    }
};

} // namespace cmddistributor
