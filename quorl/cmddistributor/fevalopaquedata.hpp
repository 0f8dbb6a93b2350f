#pragma once
// FEvalOpaqueData<Output, Input>: the client's data behind an FEvalIIP. Its input part keeps the
// arguments (detail::FEvalOpaqueInputData<Input>): shared pointers to shared-data copies of the
// client's arrays, each with an HvArrayDeleter, or EDI values; its event part
// (detail::FEvalOpaqueDataEvent<Output>) makes the completion event in one process, putting the
// results through FEvalOutputAdapter<Output> into the event's boost::any. The void forms keep no
// arguments and drop the results.
//
// Ownership: the data owns its kept arguments; getInputs hands out new shared-data copies owned
// by the caller. Threads: built on the client's thread; getInputs, serialize and setDeleters may
// run on the interpreter's, and take no lock of their own beyond the array helpers'. Errors: what
// the array library and the payload form raise.
#include <quorl/cmddistributor/fevalarrays.hpp>
#include <quorl/cmddistributor/fevaliip.hpp>
#include <quorl/cmddistributor/fevaloutputadapter.hpp>

#include <boost/make_shared.hpp>

#include <type_traits>
#include <vector>

namespace cmddistributor {
namespace detail {

template <class T> class FEvalOpaqueInputData;

template <> class FEvalOpaqueInputData<void> {
public:
    FEvalIIP::Payload serialize() { return std::vector<std::vector<std::uint8_t>>(); }
    FEvalIIP::Inputs getInputs() { return std::vector<const hvArray*>(); }
    void setDeleters(quorl::contextmgr::FennID) {}
};

template <> class FEvalOpaqueInputData<const std::vector<boost::shared_ptr<const hvArray>>> {
public:
    explicit FEvalOpaqueInputData(std::vector<boost::shared_ptr<const hvArray>> data)
        : data_(std::move(data)) {}
    FEvalOpaqueInputData(const FEvalOpaqueInputData&) = default;
    FEvalOpaqueInputData(FEvalOpaqueInputData&&) = default;
    FEvalOpaqueInputData& operator=(const FEvalOpaqueInputData&) = default;
    FEvalOpaqueInputData& operator=(FEvalOpaqueInputData&&) = default;
    virtual ~FEvalOpaqueInputData() = default;

    const std::vector<boost::shared_ptr<const hvArray>>& getData() const { return data_; }

    // New shared-data copies of the kept arrays, owned by the caller.
    FEvalIIP::Inputs getInputs() {
        std::vector<const hvArray*> copies;
        copies.reserve(data_.size());
        for (auto const& a : data_)
            copies.push_back(hvCreateSharedDataCopy(a.get()));
        return copies;
    }

    FEvalIIP::Payload serialize() {
        std::vector<const hvArray*> raw;
        raw.reserve(data_.size());
        for (auto const& a : data_)
            raw.push_back(a.get());
        return quorl::cmddistributor::detail::serializeHvArrays(raw);
    }

    void setDeleters(quorl::contextmgr::FennID id) {
        for (auto const& a : data_) {
            if (auto* deleter = boost::get_deleter<quorl::cmddistributor::HvArrayDeleter>(a))
                deleter->set(id);
        }
    }

private:
    std::vector<boost::shared_ptr<const hvArray>> data_;
};

template <>
class FEvalOpaqueInputData<const std::vector<boost::shared_ptr<hvArray>>>
    : public FEvalOpaqueInputData<const std::vector<boost::shared_ptr<const hvArray>>> {
public:
    explicit FEvalOpaqueInputData(const std::vector<boost::shared_ptr<hvArray>>& data)
        : FEvalOpaqueInputData<const std::vector<boost::shared_ptr<const hvArray>>>(
              std::vector<boost::shared_ptr<const hvArray>>(data.begin(), data.end())) {}
};

template <>
class FEvalOpaqueInputData<const std::vector<const hvArray*>>
    : public FEvalOpaqueInputData<const std::vector<boost::shared_ptr<const hvArray>>> {
public:
    // Managed copies of the arrays; the caller keeps its own.
    explicit FEvalOpaqueInputData(const std::vector<const hvArray*>& arrays)
        : FEvalOpaqueInputData<const std::vector<boost::shared_ptr<const hvArray>>>(
              quorl::cmddistributor::detail::makeManagedArgumentVector(arrays)) {}
};

template <>
class FEvalOpaqueInputData<const std::vector<hvArray*>>
    : public FEvalOpaqueInputData<const std::vector<boost::shared_ptr<const hvArray>>> {
public:
    explicit FEvalOpaqueInputData(const std::vector<hvArray*>& arrays)
        : FEvalOpaqueInputData<const std::vector<boost::shared_ptr<const hvArray>>>(
              quorl::cmddistributor::detail::makeManagedArgumentVector(
                  std::vector<const hvArray*>(arrays.begin(), arrays.end()))) {}
};

// EDI arguments: they travel as payloads and know no context.
template <> class FEvalOpaqueInputData<const std::vector<foundation::extdata::Array>> {
public:
    explicit FEvalOpaqueInputData(quorl::cmddistributor::EDIDataWrapper data)
        : data_(std::move(data)) {}
    explicit FEvalOpaqueInputData(const std::vector<foundation::extdata::Array>& arrays)
        : data_(arrays) {}
    virtual ~FEvalOpaqueInputData() = default;
    FEvalIIP::Payload serialize() { return data_; }
    FEvalIIP::Inputs getInputs() { return data_; }
    void setDeleters(quorl::contextmgr::FennID) {}

private:
    quorl::cmddistributor::EDIDataWrapper data_;
};

// The results of a call in one process, put through the client's output adapter into the
// event's boost::any.
template <class T> class FEvalOpaqueDataEvent {
public:
    static constexpr bool outputConvertedFromEDI =
        std::is_same<T, std::vector<foundation::extdata::Array>>::value;

    boost::shared_ptr<FEvalCompletedEvent>
    createEvent(const foundation::msg_svc::exchange::IDType& id,
                std::vector<foundation::extdata::Array>&& results) {
        if constexpr (outputConvertedFromEDI) {
            FEvalCompletedEvent::DataArrays arrays(
                new std::vector<foundation::extdata::Array>(std::move(results)));
            boost::any held(FEvalOutputAdapter<T>()(std::move(arrays)));
            return boost::make_shared<FEvalCompletedEvent>(id, std::move(held));
        } else {
            // Arrays asked for, EDI values given: they go as they are, for the client to see.
            return boost::make_shared<FEvalCompletedEvent>(id, std::move(results));
        }
    }

    boost::shared_ptr<FEvalCompletedEvent>
    createEvent(const foundation::msg_svc::exchange::IDType& id, std::vector<hvArray*>& results) {
        if constexpr (outputConvertedFromEDI) {
            throw std::logic_error("EDI results were asked for, arrays were given.");
        } else {
            boost::any held(FEvalOutputAdapter<T>()(results));
            return boost::make_shared<FEvalCompletedEvent>(id, std::move(held));
        }
    }
};

// A call whose results are dropped: the arrays are neither destroyed nor touched.
template <> class FEvalOpaqueDataEvent<void> {
public:
    static constexpr bool outputConvertedFromEDI = false;

    boost::shared_ptr<FEvalCompletedEvent>
    createEvent(const foundation::msg_svc::exchange::IDType& id,
                std::vector<foundation::extdata::Array>&&) {
        return boost::make_shared<FEvalCompletedEvent>(id, boost::any());
    }
    boost::shared_ptr<FEvalCompletedEvent>
    createEvent(const foundation::msg_svc::exchange::IDType& id, std::vector<hvArray*>&) {
        return boost::make_shared<FEvalCompletedEvent>(id, boost::any());
    }
};

} // namespace detail

template <class Output, class Input>
class FEvalOpaqueData : public FEvalIIP::Data,
                        public detail::FEvalOpaqueInputData<Input>,
                        public detail::FEvalOpaqueDataEvent<Output> {
public:
    template <class... Args>
    explicit FEvalOpaqueData(Args&&... args)
        : detail::FEvalOpaqueInputData<Input>(std::forward<Args>(args)...) {}

    FEvalIIP::Payload serialize() override {
        return detail::FEvalOpaqueInputData<Input>::serialize();
    }
    FEvalIIP::Inputs getInputs() override {
        return detail::FEvalOpaqueInputData<Input>::getInputs();
    }
    void setDeleters(quorl::contextmgr::FennID id) override {
        detail::FEvalOpaqueInputData<Input>::setDeleters(id);
    }
    boost::shared_ptr<FEvalCompletedEvent>
    createEvent(const foundation::msg_svc::exchange::IDType& id,
                std::vector<foundation::extdata::Array>&& results) override {
        return detail::FEvalOpaqueDataEvent<Output>::createEvent(id, std::move(results));
    }
    boost::shared_ptr<FEvalCompletedEvent>
    createEvent(const foundation::msg_svc::exchange::IDType& id,
                std::vector<hvArray*>& results) override {
        return detail::FEvalOpaqueDataEvent<Output>::createEvent(id, results);
    }
    bool isOutputConvertedFromEDI() override {
        return detail::FEvalOpaqueDataEvent<Output>::outputConvertedFromEDI;
    }
};

} // namespace cmddistributor
