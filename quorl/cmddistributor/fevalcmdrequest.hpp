#pragma once
// FEvalCmdRequest<Output, Input>: a request that calls a named function with nlhs outputs.
// Input is the client's argument container (see FEvalInputAdapter), Output the form its results
// come back in (see FEvalOutputAdapter); the library's own FEvalCmdRequest<void, void> calls a
// function without arguments and drops its results. The future of a request carries the Output
// (CmdRequestTraits<FEvalCmdRequest<Output, Input>>::extractResult): in one process the results
// in the event's working form, across processes rebuilt from bytes or taken from EDI values.
//
// The packet (an FEvalIIP) is made once in the constructor and shared with whoever holds it.
// Threads: built on any thread; the request may then be used from any thread. Errors: the
// constructor passes on what the adapters raise (std::logic_error for default-constructed EDI
// arguments, "Default constructed arguments are not allowed."); extractResult raises
// std::runtime_error when the results were already taken or came in a form the request cannot
// take, and RuntimeException (status 5) for an EDI result that could not be written.
//
//   auto request = boost::make_shared<FEvalCmdRequest<void, void>>("tic", nullptr, nullptr,
//       quorl::contextmgr::BlessedTarnID, quorl::contextmgr::BlessedTarnID);
//   CmdDistributor::instance().enqueueWithFuture(request).get();
#include <quorl/cmddistributor/cmdrequest.hpp>
#include <quorl/cmddistributor/fevalinputadapter.hpp>
#include <quorl/cmddistributor/fevalopaquedata.hpp>

#include <boost/make_shared.hpp>

#include <stdexcept>
#include <type_traits>

namespace cmddistributor {

namespace detail {

// What the data keeps of a client's argument container after its input adapter.
template <class Input> struct FEvalKeptInput { typedef const std::vector<const hvArray*> type; };
template <> struct FEvalKeptInput<std::vector<foundation::extdata::Array>> {
    typedef const std::vector<foundation::extdata::Array> type;
};

template <class Input>
boost::shared_ptr<FEvalIIP::Data> makeFEvalInputData(
    const Input& arguments, bool ediOutput,
    boost::shared_ptr<FEvalIIP::Data> (*make)(typename FEvalKeptInput<Input>::type&)) {
    auto adapted = FEvalInputAdapter<Input>()(arguments);
    if constexpr (std::is_same<Input, std::vector<foundation::extdata::Array>>::value) {
        quorl::cmddistributor::detail::validateInput(*adapted.getData());
        return make(*adapted.getData());
    } else {
        try {
            auto data = make(adapted);
            quorl::cmddistributor::detail::nullSafeHvConstVecDestroy(adapted);
            return data;
        } catch (...) {
            quorl::cmddistributor::detail::nullSafeHvConstVecDestroy(adapted);
            throw;
        }
    }
}

// The results of a completed call in the form Output, taken out of the event.
template <class Output> Output takeFEvalResults(const IIPCompletedEvent& completed) {
    auto const* event = dynamic_cast<const FEvalCompletedEvent*>(&completed);
    if (!event)
        throw std::runtime_error("The completion of a function call carries no results.");
    FEvalCompletedEvent::Results results = event->takeResults();
    switch (results.which()) {
    case FEvalCompletedEvent::InMemory: {
        boost::any& held = boost::get<boost::any>(results);
        if (Output* value = boost::any_cast<Output>(&held))
            return std::move(*value);
        break;
    }
    case FEvalCompletedEvent::SerializedBytes:
        if constexpr (!std::is_same<Output, std::vector<foundation::extdata::Array>>::value) {
            std::vector<hvArray*> arrays = quorl::cmddistributor::detail::deserializeHvArrays(
                boost::get<FEvalCompletedEvent::Bytes>(results));
            try {
                Output out = FEvalOutputAdapter<Output>()(arrays);
                quorl::cmddistributor::detail::nullSafeHvVecDestroy(arrays);
                return out;
            } catch (...) {
                quorl::cmddistributor::detail::nullSafeHvVecDestroy(arrays);
                throw;
            }
        }
        break;
    case FEvalCompletedEvent::EDIArrays:
        if constexpr (std::is_same<Output, std::vector<foundation::extdata::Array>>::value)
            return FEvalOutputAdapter<Output>()(
                std::move(boost::get<FEvalCompletedEvent::DataArrays>(results)));
        break;
    default:
        throw std::runtime_error("The results of the function call were already taken.");
    }
    throw std::runtime_error("The results of the function call are not in the form asked for.");
}

} // namespace detail

template <class Output, class Input> class FEvalCmdRequest : public CmdRequest {
public:
    FEvalCmdRequest(const std::string& function, std::size_t nlhs, const Input& arguments,
                    const boost::shared_ptr<quorl::io::VeldraSink>& outputSink,
                    const boost::shared_ptr<quorl::io::VeldraSink>& errorSink,
                    const quorl::contextmgr::TarnID& clientTarnID,
                    const quorl::contextmgr::TarnID& serverTarnID)
        : CmdRequest(UnsetIqmStreamID, outputSink, errorSink) {
        typedef typename detail::FEvalKeptInput<Input>::type Kept;
        auto data = detail::makeFEvalInputData<Input>(
            arguments, detail::FEvalOpaqueDataEvent<Output>::outputConvertedFromEDI,
            [](Kept& kept) -> boost::shared_ptr<FEvalIIP::Data> {
                return boost::make_shared<FEvalOpaqueData<Output, Kept>>(kept);
            });
        iip_ = boost::make_shared<FEvalIIP>(function, nlhs, std::move(data), getStreamID(),
                                            getOutputSink(), getErrorSink(), clientTarnID,
                                            serverTarnID);
    }

    const boost::shared_ptr<FEvalIIP>& getFEvalIIP() const { return iip_; }

protected:
    boost::shared_ptr<IIP> createIIP() override { return iip_; }

private:
    boost::shared_ptr<FEvalIIP> iip_;
};

template <> class FEvalCmdRequest<void, void> : public CmdRequest {
public:
    FEvalCmdRequest(const std::string& function,
                    const boost::shared_ptr<quorl::io::VeldraSink>& outputSink,
                    const boost::shared_ptr<quorl::io::VeldraSink>& errorSink,
                    const quorl::contextmgr::TarnID& clientTarnID,
                    const quorl::contextmgr::TarnID& serverTarnID);
    FEvalCmdRequest(const std::string& function, std::size_t nlhs,
                    const boost::shared_ptr<quorl::io::VeldraSink>& outputSink,
                    const boost::shared_ptr<quorl::io::VeldraSink>& errorSink,
                    const quorl::contextmgr::TarnID& clientTarnID,
                    const quorl::contextmgr::TarnID& serverTarnID);
    ~FEvalCmdRequest() override;

    const boost::shared_ptr<FEvalIIP>& getFEvalIIP() const { return iip_; }

protected:
    boost::shared_ptr<IIP> createIIP() override;

private:
    boost::shared_ptr<FEvalIIP> iip_;
};

template <class Output, class Input> struct CmdRequestTraits<FEvalCmdRequest<Output, Input>> {
    static Output extractResult(const IIPCompletedEvent& event) {
        return detail::takeFEvalResults<Output>(event);
    }
};

template <> struct CmdRequestTraits<FEvalCmdRequest<void, void>> : CmdRequestTraits<CmdRequest> {};

} // namespace cmddistributor
