#pragma once
// FEvalCall: typed function calls for C++ clients. A call names a function, passes C++ values and
// gets typed results through a future:
//   - arguments: double, std::vector<double> (a row), std::string (a char row), or an array
//     (const hvArray*, shared-data copied);
//   - results: double, std::vector<double>, std::string, IgnoreVariadicReturn (no outputs asked
//     for, whatever comes is dropped), or a std::tuple of these for several outputs;
//   - foundation::extdata::Array: a call whose arguments are all foundation::extdata::Array
//     values and whose one result is one goes the EDI road, without arrays on the client.
// Results are checked with the fixed messages of resultadapters.hpp: a wrong count raises
// "feval expected N outputs, found M", a wrong type or size the hvArray messages, all as
// std::runtime_error from the future's get(). Errors of the function come as RuntimeException.
//
// Built on FEvalCmdRequest and the adapters; an FEvalCall holds only the distributor and the
// two contexts, and may be used from any thread. The calls are enqueued on the given
// distributor and evaluated in its context.
//
//   using quorl::cmddistributor::FEvalCall;
//   FEvalCall feval(cmddistributor::CmdDistributor::instance(quorl::contextmgr::FennID{0}));
//   double total = feval.call<double>("sum", std::vector<double>{1, 2, 3}).get();     // 6
//   std::string up = feval.call<std::string>("upper", std::string("abc")).get();      // "ABC"
//   auto [rows, cols] =
//       feval.call<std::tuple<double, double>>("size", std::vector<double>{1, 2}).get(); // 1, 2
//   foundation::extdata::Array p = feval.call<foundation::extdata::Array>(
//       "power", foundation::extdata::Array::createScalar(2.0),
//       foundation::extdata::Array::createScalar(3.0)).get();                         // 8
#include <quorl/cmddistributor/cmddistributor.hpp>
#include <quorl/cmddistributor/fennlock.hpp>
#include <quorl/cmddistributor/fevalcmdrequest.hpp>
#include <quorl/cmddistributor/resultadapters.hpp>

#include <boost/make_shared.hpp>
#include <boost/thread/future.hpp>

#include <limits>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

namespace quorl {
namespace cmddistributor {
namespace detail {

template <> struct T2Array<double> {
    HvArrayPtr operator()(double value) const {
        return matrix::from_veldra_old(hvCreateDoubleScalar(value));
    }
};

template <> struct T2Array<std::vector<double>> {
    HvArrayPtr operator()(const std::vector<double>& values) const {
        HvArrayPtr a = matrix::detail::create_numeric(hvDOUBLE_CLASS, 1, values.size());
        if (!values.empty())
            std::copy(values.begin(), values.end(), static_cast<double*>(hvGetData(a.get())));
        return a;
    }
};

template <> struct T2Array<std::string> {
    HvArrayPtr operator()(const std::string& text) const {
        return matrix::from_veldra_old(hvCreateString(text.c_str()));
    }
};

template <> struct Array2T<double> {
    double operator()(const hvArray* array) const {
        const hvArray* converted = hvGetClassID(array) == hvDOUBLE_CLASS ? array : nullptr;
        verifyHvArrayTypeAndSize(array, converted, typeid(double), 1, 1);
        return hvGetScalar(array);
    }
};

template <> struct Array2T<std::vector<double>> {
    std::vector<double> operator()(const hvArray* array) const {
        const hvArray* converted = hvGetClassID(array) == hvDOUBLE_CLASS ? array : nullptr;
        verifyHvArrayTypeAndSize(array, converted, typeid(std::vector<double>), 0,
                                 std::numeric_limits<std::size_t>::max());
        auto data = static_cast<const double*>(hvGetReadOnlyData(array));
        return std::vector<double>(data, data + hvGetNumberOfElements(array));
    }
};

template <> struct Array2T<std::string> {
    std::string operator()(const hvArray* array) const {
        const hvArray* converted = hvGetClassID(array) == hvCHAR_CLASS ? array : nullptr;
        verifyHvArrayTypeAndSize(array, converted, typeid(std::string), 0,
                                 std::numeric_limits<std::size_t>::max());
        return hvArrayToStdString(array);
    }
};

typedef boost::shared_ptr<ManagedArrayVector> FEvalArrays;
typedef std::vector<boost::shared_ptr<const hvArray>> FEvalArguments;

// How many outputs a result type asks for, and how it is made of the returned arrays.
template <class R> struct FEvalResult {
    static constexpr std::size_t nlhs = 1;
    static R convert(const ManagedArrayVector& arrays) {
        verifyMinimumOutputSize(1, arrays.size());
        return Array2T<R>()(arrays[0].get());
    }
};

template <> struct FEvalResult<IgnoreVariadicReturn> {
    static constexpr std::size_t nlhs = 0;
    static IgnoreVariadicReturn convert(const ManagedArrayVector&) {
        return IgnoreVariadicReturn();
    }
};

template <class... Ts> struct FEvalResult<std::tuple<Ts...>> {
    static constexpr std::size_t nlhs = sizeof...(Ts);
    static std::tuple<Ts...> convert(const ManagedArrayVector& arrays) {
        verifyMinimumOutputSize(nlhs, arrays.size());
        return convertEach(arrays, std::index_sequence_for<Ts...>());
    }
    template <std::size_t... I>
    static std::tuple<Ts...> convertEach(const ManagedArrayVector& arrays,
                                         std::index_sequence<I...>) {
        return std::tuple<Ts...>(Array2T<Ts>()(arrays[I].get())...);
    }
};

inline boost::shared_ptr<const hvArray> toArgument(const hvArray* array) {
    FennLock lock; // array copies run under the fenn mutex
    return boost::shared_ptr<const hvArray>(hvCreateSharedDataCopy(array), hvDestroyArray);
}
template <class T> boost::shared_ptr<const hvArray> toArgument(const T& value) {
    return boost::shared_ptr<const hvArray>(T2Array<T>()(value).release(), hvDestroyArray);
}

} // namespace detail

// The request of a typed call: arrays on the road, the typed value at the end.
template <class R>
class TypedFEvalCmdRequest
    : public ::cmddistributor::FEvalCmdRequest<detail::FEvalArrays, detail::FEvalArguments> {
public:
    using ::cmddistributor::FEvalCmdRequest<detail::FEvalArrays,
                                            detail::FEvalArguments>::FEvalCmdRequest;
};

// The request of a call with EDI values only.
class EdiFEvalCmdRequest
    : public ::cmddistributor::FEvalCmdRequest<std::vector<foundation::extdata::Array>,
                                               std::vector<foundation::extdata::Array>> {
public:
    using ::cmddistributor::FEvalCmdRequest<
        std::vector<foundation::extdata::Array>,
        std::vector<foundation::extdata::Array>>::FEvalCmdRequest;
};

} // namespace cmddistributor
} // namespace quorl

namespace cmddistributor {

template <class R> struct CmdRequestTraits<quorl::cmddistributor::TypedFEvalCmdRequest<R>> {
    static R extractResult(const IIPCompletedEvent& event) {
        auto arrays = detail::takeFEvalResults<quorl::cmddistributor::detail::FEvalArrays>(event);
        return quorl::cmddistributor::detail::FEvalResult<R>::convert(*arrays);
    }
};

template <> struct CmdRequestTraits<quorl::cmddistributor::EdiFEvalCmdRequest> {
    static foundation::extdata::Array extractResult(const IIPCompletedEvent& event) {
        auto values = detail::takeFEvalResults<std::vector<foundation::extdata::Array>>(event);
        quorl::cmddistributor::detail::verifyMinimumOutputSize(1, values.size());
        return std::move(values[0]);
    }
};

} // namespace cmddistributor

namespace quorl {
namespace cmddistributor {

class FEvalCall {
public:
    // Calls go to `distributor`; the two contexts name the caller and the evaluator for the
    // conversion of results that cannot travel by value.
    explicit FEvalCall(boost::shared_ptr<::cmddistributor::CmdDistributor> distributor,
                       contextmgr::TarnID clientTarnID = contextmgr::UndefinedTarnID,
                       contextmgr::TarnID serverTarnID = contextmgr::UndefinedTarnID)
        : distributor_(std::move(distributor)), client_(clientTarnID), server_(serverTarnID) {}

    template <class R, class... Args>
    boost::unique_future<R> call(const std::string& function, const Args&... args) const {
        if constexpr (std::is_same<R, foundation::extdata::Array>::value) {
            static_assert((std::is_same<Args, foundation::extdata::Array>::value && ...),
                          "an EDI call takes foundation::extdata::Array arguments only");
            auto request = boost::make_shared<EdiFEvalCmdRequest>(
                function, 1, std::vector<foundation::extdata::Array>{args...}, nullptr, nullptr,
                client_, server_);
            return distributor_->enqueueWithFuture(request);
        } else {
            detail::FEvalArguments arguments{detail::toArgument(args)...};
            auto request = boost::make_shared<TypedFEvalCmdRequest<R>>(
                function, detail::FEvalResult<R>::nlhs, arguments, nullptr, nullptr, client_,
                server_);
            return distributor_->enqueueWithFuture(request);
        }
    }

private:
    boost::shared_ptr<::cmddistributor::CmdDistributor> distributor_;
    contextmgr::TarnID client_;
    contextmgr::TarnID server_;
};

} // namespace cmddistributor
} // namespace quorl
