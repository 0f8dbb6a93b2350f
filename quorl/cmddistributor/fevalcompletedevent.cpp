#include <foundation/msg_svc/serialization/archives.hpp>

#include <quorl/cmddistributor/fevalcompletedevent.hpp>

#include <foundation/core/diag/terminate.hpp>

#include <boost/serialization/base_object.hpp>
#include <boost/serialization/variant.hpp>
#include <boost/serialization/vector.hpp>

namespace cmddistributor {

using foundation::core::diag::detail::demangle_typeid_name;
using foundation::msg_svc::eventmgr::BaseEvent;
using foundation::msg_svc::eventmgr::typeInformationOf;
using foundation::msg_svc::exchange::IDType;

FEvalCompletedEvent::FEvalCompletedEvent()
    : IIPCompletedEvent(typeInformationOf<FEvalCompletedEvent>(), IDType(0, 0),
                        boost::optional<RuntimeException>()),
      results_(boost::any()) {}

FEvalCompletedEvent::FEvalCompletedEvent(const IDType& id,
                                         std::vector<foundation::extdata::Array>&& arrays)
    : IIPCompletedEvent(typeInformationOf<FEvalCompletedEvent>(), id,
                        boost::optional<RuntimeException>()),
      results_(DataArrays(new std::vector<foundation::extdata::Array>(std::move(arrays)))) {}

FEvalCompletedEvent::FEvalCompletedEvent(const IDType& id, Bytes bytes)
    : IIPCompletedEvent(typeInformationOf<FEvalCompletedEvent>(), id,
                        boost::optional<RuntimeException>()),
      results_(std::move(bytes)) {}

FEvalCompletedEvent::FEvalCompletedEvent(const IDType& id, DataArrays&& arrays)
    : IIPCompletedEvent(typeInformationOf<FEvalCompletedEvent>(), id,
                        boost::optional<RuntimeException>()),
      results_(std::move(arrays)) {}

FEvalCompletedEvent::FEvalCompletedEvent(const IDType& id, boost::any&& results)
    : IIPCompletedEvent(typeInformationOf<FEvalCompletedEvent>(), id,
                        boost::optional<RuntimeException>()),
      results_(std::move(results)) {}

FEvalCompletedEvent::FEvalCompletedEvent(const FEvalCompletedEvent& other)
    : IIPCompletedEvent(other), results_(boost::any()) {
    boost::unique_lock<boost::mutex> lock(other.resultsMutex_);
    switch (other.results_.which()) {
    case InMemory:
        results_ = boost::any(boost::get<boost::any>(other.results_));
        break;
    case SerializedBytes:
        results_ = boost::get<Bytes>(other.results_);
        break;
    case EDIArrays: {
        auto const& source = boost::get<DataArrays>(other.results_);
        results_ =
            DataArrays(source ? new std::vector<foundation::extdata::Array>(*source) : nullptr);
        break;
    }
    default:
        results_ = ResultsAlreadyMoved();
        break;
    }
}

FEvalCompletedEvent::~FEvalCompletedEvent() = default;

BaseEvent* FEvalCompletedEvent::clone() const {
    return new FEvalCompletedEvent(*this);
}

bool FEvalCompletedEvent::canBeSerialized() const {
    if (!IIPCompletedEvent::canBeSerialized())
        return false;
    return results_.which() != AlreadyMoved;
}

FEvalCompletedEvent::ResultsForm FEvalCompletedEvent::getResultsForm() const {
    boost::unique_lock<boost::mutex> lock(resultsMutex_);
    return static_cast<ResultsForm>(results_.which());
}

FEvalCompletedEvent::Results FEvalCompletedEvent::takeResults() const {
    boost::unique_lock<boost::mutex> lock(resultsMutex_);
    Results taken(ResultsAlreadyMoved{});
    taken.swap(results_);
    return taken;
}

std::ostream& FEvalCompletedEvent::fillStream(std::ostream& os) const {
    boost::unique_lock<boost::mutex> lock(resultsMutex_);
    std::string name;
    switch (results_.which()) {
    case InMemory:
        name = demangle_typeid_name(boost::get<boost::any>(results_).type());
        break;
    case SerializedBytes:
        name = demangle_typeid_name(typeid(Bytes));
        break;
    case EDIArrays:
        name = demangle_typeid_name(typeid(DataArrays));
        break;
    default:
        name = demangle_typeid_name(typeid(ResultsAlreadyMoved));
        break;
    }
    BaseCompletedEventType::fillStream(os);
    os << "EXECUTION_STATUS " << static_cast<int>(getExecutionStatus()) << '\n';
    return os << "typeid: " << name << '\n';
}

template <class Archive> void FEvalCompletedEvent::serializeExplicit(Archive& ar, unsigned int) {
    ar& boost::serialization::make_nvp("IIPCompletedEvent",
                                       boost::serialization::base_object<IIPCompletedEvent>(*this));
    if constexpr (Archive::is_saving::value) {
        // The data is swapped into the wire form and back, never copied.
        WireResults wire{ResultsAlreadyMoved{}};
        int const form = results_.which();
        if (form == SerializedBytes) {
            wire = Bytes();
            boost::get<Bytes>(wire).swap(boost::get<Bytes>(results_));
        } else if (form == EDIArrays) {
            wire = quorl::cmddistributor::EDIDataWrapper();
            boost::get<quorl::cmddistributor::EDIDataWrapper>(wire).getData().swap(
                boost::get<DataArrays>(results_));
        }
        struct SwapBack {
            WireResults& wire;
            Results& results;
            int form;
            ~SwapBack() {
                if (form == SerializedBytes)
                    boost::get<Bytes>(wire).swap(boost::get<Bytes>(results));
                else if (form == EDIArrays)
                    boost::get<quorl::cmddistributor::EDIDataWrapper>(wire).getData().swap(
                        boost::get<DataArrays>(results));
            }
        } swapBack{wire, results_, form};
        ar << boost::serialization::make_nvp("results", wire);
    } else {
        WireResults wire{ResultsAlreadyMoved{}};
        ar >> boost::serialization::make_nvp("results", wire);
        switch (wire.which()) {
        case 0: {
            Bytes bytes;
            bytes.swap(boost::get<Bytes>(wire));
            results_ = std::move(bytes);
            break;
        }
        case 1:
            results_ = std::move(boost::get<quorl::cmddistributor::EDIDataWrapper>(wire).getData());
            break;
        default:
            results_ = ResultsAlreadyMoved();
            break;
        }
    }
}
ZN_SERIALIZE_EXPLICIT(FEvalCompletedEvent)

} // namespace cmddistributor

BOOST_CLASS_EXPORT_IMPLEMENT(cmddistributor::FEvalCompletedEvent)
