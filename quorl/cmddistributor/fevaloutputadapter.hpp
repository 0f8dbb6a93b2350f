#pragma once
// FEvalOutputAdapter<T>: turns what an interpreter returned from a function call into the
// client's result form T:
//   - the managed result vectors (boost::shared_ptr of a boost::container::vector of
//     std::unique_ptr<[const] hvArray, HvArrayDeleter>) from a std::vector<hvArray*>, which they
//     take over (see makeManagedResultVector);
//   - std::vector<foundation::extdata::Array> from the EDI heap vector, taken without a copy;
//     a default-constructed element (what the payload reader leaves for an array the serializer
//     could not write) raises RuntimeException (status 5) "Error: At least one return argument
//     is larger than 2 GB.";
//   - void: nothing; the arrays are left to their owner.
// Stateless; any thread.
#include <quorl/cmddistributor/dataarraysdeleter.hpp>
#include <quorl/cmddistributor/fevalarrays.hpp>
#include <quorl/cmddistributor/runtimeexception.hpp>

#include <memory>
#include <vector>

namespace cmddistributor {

template <class T> struct FEvalOutputAdapter;

template <>
struct FEvalOutputAdapter<boost::shared_ptr<quorl::cmddistributor::ManagedConstArrayVector>> {
    boost::shared_ptr<quorl::cmddistributor::ManagedConstArrayVector>
    operator()(std::vector<hvArray*>& arrays) const {
        return quorl::cmddistributor::detail::makeManagedConstResultVector(arrays);
    }
};

template <>
struct FEvalOutputAdapter<boost::shared_ptr<quorl::cmddistributor::ManagedArrayVector>> {
    boost::shared_ptr<quorl::cmddistributor::ManagedArrayVector>
    operator()(std::vector<hvArray*>& arrays) const {
        return quorl::cmddistributor::detail::makeManagedResultVector(arrays);
    }
};

template <> struct FEvalOutputAdapter<std::vector<foundation::extdata::Array>> {
    std::vector<foundation::extdata::Array>
    operator()(std::unique_ptr<std::vector<foundation::extdata::Array>, DataArraysDeleter>&& arrays)
        const {
        std::vector<foundation::extdata::Array> result;
        if (arrays && arrays.get() != &result)
            result.swap(*arrays);
        for (auto const& a : result) {
            if (a.getType() == 0)
                throw RuntimeException(quorl::cmddistributor::ExecutionCommunicationError,
                                       std::string("Error: At least one return argument is larger "
                                                   "than 2 GB."),
                                       std::string(), std::string(),
                                       std::vector<RuntimeException::StackFrame>(),
                                       std::vector<RuntimeException>());
        }
        return result;
    }
};

template <> struct FEvalOutputAdapter<void> {
    void operator()(const std::vector<hvArray*>&) const {}
};

} // namespace cmddistributor
