#include <foundation/msg_svc/serialization/archives.hpp>

#include <quorl/cmddistributor/fevaliip.hpp>

#include <quorl/cmddistributor/fennlock.hpp>
#include <quorl/cmddistributor/fevalarrays.hpp>
#include <quorl/extstring/extstring.hpp>
#include <quorl/matrixref/matrixref.hpp>

#include <hv/matrix.hpp>

#include <boost/make_shared.hpp>
#include <boost/serialization/base_object.hpp>
#include <boost/serialization/string.hpp>
#include <boost/serialization/variant.hpp>
#include <boost/serialization/vector.hpp>

namespace cmddistributor {

using foundation::msg_svc::exchange::IDType;
using quorl::cmddistributor::EDIDataWrapper;
using quorl::contextmgr::TarnID;

namespace {

// The data of a packet read from an archive: the arguments as they travelled.
class ServerSideData : public FEvalIIP::Data {
public:
    ServerSideData(FEvalIIP::Payload&& payload, const TarnID& client, const TarnID& server,
                   bool isOutputConvertedFromEDI)
        : inputPayload_(std::move(payload)), clientTarnID_(client), serverTarnID_(server),
          isOutputConvertedFromEDI_(isOutputConvertedFromEDI) {}

    FEvalIIP::Payload serialize() override { return inputPayload_; }

    FEvalIIP::Inputs getInputs() override {
        if (auto bytes = boost::get<std::vector<std::vector<std::uint8_t>>>(&inputPayload_)) {
            std::vector<hvArray*> made = quorl::cmddistributor::detail::deserializeHvArrays(*bytes);
            return std::vector<const hvArray*>(made.begin(), made.end());
        }
        return boost::get<EDIDataWrapper>(inputPayload_);
    }

    boost::shared_ptr<FEvalCompletedEvent>
    createEvent(const IDType& id, std::vector<foundation::extdata::Array>&& results) override {
        FEvalCompletedEvent::DataArrays arrays(
            new std::vector<foundation::extdata::Array>(std::move(results)));
        return boost::make_shared<FEvalCompletedEvent>(id, std::move(arrays));
    }

    boost::shared_ptr<FEvalCompletedEvent> createEvent(const IDType& id,
                                                       std::vector<hvArray*>& results) override {
        quorl::cmddistributor::detail::FennLock lock;
        FEvalCompletedEvent::Bytes bytes;
        bytes.reserve(results.size());
        for (auto& slot : results) {
            if (slot) {
                // Strings become portable strings, and what cannot travel becomes a reference.
                HvArrayPtr taken = matrix::from_veldra_old(slot);
                slot = nullptr;
                std::string error;
                HvArrayPtr converted = quorl::extstring::extstrCreateConvertedStringCopy(taken);
                HvArrayPtr result = quorl::matrixref::refCopyAndConvertArray(
                    converted, clientTarnID_, serverTarnID_, error);
                if (!result || !error.empty())
                    throw RuntimeException(quorl::cmddistributor::ExecutionError, error,
                                           std::string(), std::string(),
                                           std::vector<RuntimeException::StackFrame>(),
                                           std::vector<RuntimeException>());
                slot = result.release();
            }
            HvArrayPtr serialized = matrix::from_veldra_old(hvSerialize(slot));
            auto data = static_cast<const std::uint8_t*>(hvGetReadOnlyData(serialized.get()));
            bytes.emplace_back(data, data + hvGetNumberOfElements(serialized.get()));
        }
        return boost::make_shared<FEvalCompletedEvent>(id, std::move(bytes));
    }

    bool isOutputConvertedFromEDI() override { return isOutputConvertedFromEDI_; }

private:
    const FEvalIIP::Payload inputPayload_;
    const TarnID clientTarnID_;
    const TarnID serverTarnID_;
    const bool isOutputConvertedFromEDI_;
};

} // namespace

FEvalIIP::Data::~Data() = default;

void FEvalIIP::Data::setDeleters(quorl::contextmgr::FennID) {}

boost::shared_ptr<FEvalIIP::Data>
FEvalIIP::Data::makeServerSideData(EDIDataWrapper&& arguments, const TarnID& clientTarnID,
                                   const TarnID& serverTarnID, bool isOutputConvertedFromEDI) {
    // Copied on purpose: the caller's wrapper stays intact.
    Payload payload{EDIDataWrapper(static_cast<const EDIDataWrapper&>(arguments))};
    return boost::make_shared<ServerSideData>(std::move(payload), clientTarnID, serverTarnID,
                                              isOutputConvertedFromEDI);
}

FEvalIIP::FEvalIIP()
    : nlhs_(0), clientTarnID_(quorl::contextmgr::UndefinedTarnID),
      serverTarnID_(quorl::contextmgr::UndefinedTarnID) {}

FEvalIIP::FEvalIIP(const std::string& plugin, const std::string& function, std::size_t nlhs,
                   boost::shared_ptr<Data> data, IqmStreamID streamID,
                   const boost::shared_ptr<quorl::io::VeldraSink>& outputSink,
                   const boost::shared_ptr<quorl::io::VeldraSink>& errorSink,
                   const TarnID& clientTarnID, const TarnID& serverTarnID)
    : IIP(plugin, streamID, outputSink, errorSink), function_(function), nlhs_(nlhs),
      data_(std::move(data)), clientTarnID_(clientTarnID), serverTarnID_(serverTarnID) {}

FEvalIIP::FEvalIIP(const std::string& function, std::size_t nlhs, boost::shared_ptr<Data> data,
                   IqmStreamID streamID, const boost::shared_ptr<quorl::io::VeldraSink>& outputSink,
                   const boost::shared_ptr<quorl::io::VeldraSink>& errorSink,
                   const TarnID& clientTarnID, const TarnID& serverTarnID)
    : FEvalIIP(pluginType(), function, nlhs, std::move(data), streamID, outputSink, errorSink,
               clientTarnID, serverTarnID) {}

FEvalIIP::~FEvalIIP() = default;

void FEvalIIP::write(std::ostream& out) const {
    IIP::write(out);
    out << "function: " << function_ << std::endl;
    out << "nlhs: " << nlhs_ << std::endl;
    out << "isOutputConvertedFromEDI" << data_->isOutputConvertedFromEDI() << std::endl;
}

void FEvalIIP::setTarnIDs(const TarnID& client, const TarnID& server) {
    clientTarnID_ = client;
    serverTarnID_ = server;
}

void FEvalIIP::setDeleters(quorl::contextmgr::FennID id) const {
    data_->setDeleters(id);
}

FEvalIIP::Inputs FEvalIIP::getInputArguments() const {
    return data_->getInputs();
}

boost::shared_ptr<FEvalCompletedEvent>
FEvalIIP::createEvent(const IDType& id, std::vector<foundation::extdata::Array>&& results) const {
    return data_->createEvent(id, std::move(results));
}

boost::shared_ptr<FEvalCompletedEvent> FEvalIIP::createEvent(const IDType& id,
                                                             std::vector<hvArray*>& results) const {
    return data_->createEvent(id, results);
}

bool FEvalIIP::isOutputConvertedFromEDI() const {
    return data_->isOutputConvertedFromEDI();
}

template <class Archive> void FEvalIIP::serializeExplicit(Archive& ar, unsigned int) {
    using boost::serialization::make_nvp;
    ar& make_nvp("iip", boost::serialization::base_object<IIP>(*this));
    ar& make_nvp("function", function_);
    ar& make_nvp("nlhs", nlhs_);
    ar& make_nvp("clientTarnID", clientTarnID_.value);
    ar& make_nvp("serverTarnID", serverTarnID_.value);
    if constexpr (Archive::is_saving::value) {
        Payload rhs = data_->serialize();
        bool flag = data_->isOutputConvertedFromEDI();
        ar << make_nvp("rhs", rhs);
        ar << make_nvp("isOutputConvertedFromEDI", flag);
    } else {
        Payload rhs;
        bool flag = false;
        ar >> make_nvp("rhs", rhs);
        ar >> make_nvp("isOutputConvertedFromEDI", flag);
        data_ =
            boost::make_shared<ServerSideData>(std::move(rhs), clientTarnID_, serverTarnID_, flag);
    }
}
ZN_SERIALIZE_EXPLICIT(FEvalIIP)

} // namespace cmddistributor

BOOST_CLASS_EXPORT_IMPLEMENT(cmddistributor::FEvalIIP)
