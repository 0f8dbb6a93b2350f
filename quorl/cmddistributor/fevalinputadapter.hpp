#pragma once
// FEvalInputAdapter<T>: turns a client's argument container T into what a call's data keeps:
// std::vector<const hvArray*> of shared-data copies for the array forms (made under the fenn
// mutex; the caller owns them and hands them on or destroys them with nullSafeHvConstVecDestroy),
// an EDIDataWrapper holding a copy of the vector for EDI arguments, an empty vector for void.
// Stateless; any thread. The array forms pass on what the array library raises, after
// destroying the copies already made. Null elements are copied as null.
#include <quorl/cmddistributor/edidatawrapper.hpp>
#include <quorl/cmddistributor/fennlock.hpp>
#include <quorl/cmddistributor/fevalarrays.hpp>

#include <vector>

namespace cmddistributor {

namespace detail {
template <class Container, class Get>
std::vector<const hvArray*> sharedDataCopies(const Container& arrays, Get get) {
    quorl::cmddistributor::detail::FennLock lock;
    std::vector<const hvArray*> result;
    result.reserve(arrays.size());
    try {
        for (auto const& a : arrays)
            result.push_back(hvCreateSharedDataCopy(get(a)));
    } catch (...) {
        quorl::cmddistributor::detail::nullSafeHvConstVecDestroy(result);
        throw;
    }
    return result;
}
} // namespace detail

template <class T> struct FEvalInputAdapter;

template <>
struct FEvalInputAdapter<boost::shared_ptr<quorl::cmddistributor::ManagedConstArrayVector>> {
    std::vector<const hvArray*> operator()(
        const boost::shared_ptr<quorl::cmddistributor::ManagedConstArrayVector>& arrays) const {
        return detail::sharedDataCopies(*arrays, [](auto const& p) { return p.get(); });
    }
};

template <> struct FEvalInputAdapter<boost::shared_ptr<quorl::cmddistributor::ManagedArrayVector>> {
    std::vector<const hvArray*>
    operator()(const boost::shared_ptr<quorl::cmddistributor::ManagedArrayVector>& arrays) const {
        return detail::sharedDataCopies(*arrays, [](auto const& p) { return p.get(); });
    }
};

template <> struct FEvalInputAdapter<std::vector<boost::shared_ptr<const hvArray>>> {
    std::vector<const hvArray*>
    operator()(const std::vector<boost::shared_ptr<const hvArray>>& arrays) const {
        return detail::sharedDataCopies(arrays, [](auto const& p) { return p.get(); });
    }
};

template <> struct FEvalInputAdapter<std::vector<boost::shared_ptr<hvArray>>> {
    std::vector<const hvArray*>
    operator()(const std::vector<boost::shared_ptr<hvArray>>& arrays) const {
        return detail::sharedDataCopies(arrays, [](auto const& p) { return p.get(); });
    }
};

template <> struct FEvalInputAdapter<std::vector<foundation::extdata::Array>> {
    quorl::cmddistributor::EDIDataWrapper
    operator()(const std::vector<foundation::extdata::Array>& arrays) const {
        return quorl::cmddistributor::EDIDataWrapper(arrays);
    }
};

template <> struct FEvalInputAdapter<void> {
    std::vector<const hvArray*> operator()() const { return std::vector<const hvArray*>(); }
};

} // namespace cmddistributor
