#include <foundation/msg_svc/serialization/archives.hpp>

#include <quorl/cmddistributor/fevaliip.hpp>

#include <quorl/cmddistributor/fennlock.hpp>
#include <quorl/cmddistributor/fevalarrays.hpp>
#include <quorl/cmddistributor/fevalopaquedata.hpp>
#include <quorl/extstring/extstring.hpp>
#include <quorl/matrixref/matrixref.hpp>

#include <foundation/msg_svc/serialization/guardediarchive.hpp>
#include <hv/matrix.hpp>

#include <boost/archive/archive_exception.hpp>
#include <boost/archive/binary_iarchive.hpp>
#include <boost/archive/binary_oarchive.hpp>
#include <boost/archive/detail/polymorphic_iarchive_route.hpp>
#include <boost/archive/detail/polymorphic_oarchive_route.hpp>
#include <boost/make_shared.hpp>
#include <boost/serialization/base_object.hpp>
#include <boost/serialization/collection_size_type.hpp>
#include <boost/serialization/item_version_type.hpp>
#include <boost/serialization/library_version_type.hpp>
#include <boost/serialization/string.hpp>
#include <boost/serialization/tracking.hpp>
#include <boost/serialization/variant.hpp>
#include <boost/serialization/vector.hpp>

namespace cmddistributor {

using foundation::msg_svc::exchange::IDType;
using quorl::cmddistributor::EDIDataWrapper;
using quorl::contextmgr::TarnID;

namespace {

// The hvSerialize bytes of `array` written straight into `out`, without a uint8 array between.
void appendSerialized(std::vector<std::uint8_t>& out, const hvArray* array) {
    hvSerializeTo(
        array, [&](std::size_t n) { out.reserve(out.size() + n); },
        [&](const void* p, std::size_t n) {
            auto const* b = static_cast<const std::uint8_t*>(p);
            out.insert(out.end(), b, b + n);
        });
}

// An argument as read from a binary archive: an array of raw elements is built as it is read;
// any other array stays as its bytes until the interpreter asks for it (opaque classes load
// there, under the fenn mutex).
struct LoadedArgument {
    HvArrayPtr array;
    std::vector<std::uint8_t> bytes;
};
typedef std::vector<LoadedArgument> LoadedArguments;

// The data of a packet read from an archive: the arguments as they travelled.
class ServerSideData : public FEvalIIP::Data {
public:
    ServerSideData(FEvalIIP::Payload&& payload, const TarnID& client, const TarnID& server,
                   bool isOutputConvertedFromEDI)
        : inputPayload_(std::move(payload)), clientTarnID_(client), serverTarnID_(server),
          isOutputConvertedFromEDI_(isOutputConvertedFromEDI) {}
    ServerSideData(LoadedArguments&& loaded, const TarnID& client, const TarnID& server,
                   bool isOutputConvertedFromEDI)
        : loaded_(std::move(loaded)), isLoaded_(true), clientTarnID_(client), serverTarnID_(server),
          isOutputConvertedFromEDI_(isOutputConvertedFromEDI) {}

    FEvalIIP::Payload serialize() override {
        if (!isLoaded_)
            return inputPayload_;
        quorl::cmddistributor::detail::FennLock lock;
        std::vector<std::vector<std::uint8_t>> bytes;
        bytes.reserve(loaded_.size());
        for (auto const& argument : loaded_) {
            if (!argument.array) {
                bytes.push_back(argument.bytes);
                continue;
            }
            bytes.emplace_back();
            appendSerialized(bytes.back(), argument.array.get());
        }
        return bytes;
    }

    FEvalIIP::Inputs getInputs() override {
        if (isLoaded_) {
            quorl::cmddistributor::detail::FennLock lock;
            std::vector<const hvArray*> made;
            made.reserve(loaded_.size());
            try {
                for (auto const& argument : loaded_) {
                    made.push_back(argument.array ? hvCreateSharedDataCopy(argument.array.get())
                                                  : hvDeserialize(argument.bytes.data(),
                                                                  argument.bytes.size()));
                }
            } catch (...) {
                quorl::cmddistributor::detail::nullSafeHvConstVecDestroy(made);
                throw;
            }
            return made;
        }
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
            bytes.emplace_back();
            appendSerialized(bytes.back(), slot);
        }
        return boost::make_shared<FEvalCompletedEvent>(id, std::move(bytes));
    }

    bool isOutputConvertedFromEDI() override { return isOutputConvertedFromEDI_; }

private:
    const FEvalIIP::Payload inputPayload_;
    const LoadedArguments loaded_;
    const bool isLoaded_ = false;
    const TarnID clientTarnID_;
    const TarnID serverTarnID_;
    const bool isOutputConvertedFromEDI_;
};

// The byte-vector alternative of Payload written straight from a client's arrays and read
// straight into arrays, without byte vectors in between, over the binary archives of the
// exchange. The bytes are Payload's: "which" 0, then the list (count, item version, and per array
// its count, item version and hvSerialize bytes). These two classes have the serialization
// traits of the variant and of the list (class information, version 0; the variant is always
// tracked, the list selectively), so the archive writes the same preambles, object ids and
// class counts.
struct HvArgumentListOut {
    const std::vector<boost::shared_ptr<const hvArray>>* arrays;

    template <class Archive> void serialize(Archive& ar, unsigned int) {
        using boost::serialization::make_nvp;
        boost::serialization::collection_size_type const count(arrays->size());
        boost::serialization::item_version_type const itemVersion(0);
        ar << make_nvp("count", count);
        ar << make_nvp("item_version", itemVersion);
        quorl::cmddistributor::detail::FennLock lock;
        for (auto const& array : *arrays) {
            hvSerializeTo(
                array.get(),
                [&](std::size_t n) {
                    boost::serialization::collection_size_type const bytes(n);
                    ar << make_nvp("count", bytes);
                    ar << make_nvp("item_version", itemVersion);
                },
                [&](const void* p, std::size_t n) { ar.save_binary(p, n); });
        }
    }
};

struct HvArgumentsOut {
    HvArgumentListOut list;

    template <class Archive> void serialize(Archive& ar, unsigned int) {
        int const which = 0;
        ar << boost::serialization::make_nvp("which", which);
        ar << boost::serialization::make_nvp("value", list);
    }
};

struct HvArgumentListIn {
    LoadedArguments* loaded;

    template <class Archive> void serialize(Archive& ar, unsigned int) {
        using boost::serialization::make_nvp;
        boost::serialization::library_version_type const library(ar.get_library_version());
        boost::serialization::collection_size_type count;
        boost::serialization::item_version_type itemVersion(0);
        ar >> make_nvp("count", count); // the guarded archive checks it: count <= bytes left
        if (boost::serialization::library_version_type(3) < library)
            ar >> make_nvp("item_version", itemVersion);
        loaded->reserve(count);
        for (std::size_t i = 0; i < count; ++i) {
            boost::serialization::collection_size_type size;
            ar >> make_nvp("count", size); // likewise checked before anything is allocated
            if (boost::serialization::library_version_type(3) < library)
                ar >> make_nvp("item_version", itemVersion);
            LoadedArgument argument;
            argument.array.reset(hvDeserializeFrom(
                size, [&](void* p, std::size_t n) { ar.load_binary(p, n); }, argument.bytes));
            loaded->push_back(std::move(argument));
        }
    }
};

struct HvArgumentsIn {
    HvArgumentListIn list;
    boost::optional<EDIDataWrapper> edi;

    template <class Archive> void serialize(Archive& ar, unsigned int) {
        int which = 0;
        ar >> boost::serialization::make_nvp("which", which);
        if (which == 0) {
            ar >> boost::serialization::make_nvp("value", list);
        } else if (which == 1) {
            EDIDataWrapper value;
            ar >> boost::serialization::make_nvp("value", value);
            edi = std::move(value);
        } else {
            boost::serialization::throw_exception(boost::archive::archive_exception(
                boost::archive::archive_exception::unsupported_version));
        }
    }
};

// The arguments of a client's packet when they are arrays, else null.
const std::vector<boost::shared_ptr<const hvArray>>* clientArrays(FEvalIIP::Data& data) {
    typedef detail::FEvalOpaqueInputData<const std::vector<boost::shared_ptr<const hvArray>>>
        Arrays;
    auto* arrays = dynamic_cast<Arrays*>(&data);
    return arrays ? &arrays->getData() : nullptr;
}

bool isBinary(boost::archive::polymorphic_oarchive& ar) {
    return dynamic_cast<boost::archive::detail::polymorphic_oarchive_route<
               boost::archive::binary_oarchive>*>(&ar) != nullptr;
}

bool isBinary(boost::archive::polymorphic_iarchive& ar) {
    return dynamic_cast<foundation::msg_svc::serialization::PolymorphicGuardedIArchive*>(&ar) ||
           dynamic_cast<boost::archive::detail::polymorphic_iarchive_route<
               boost::archive::binary_iarchive>*>(&ar);
}

} // namespace
} // namespace cmddistributor

// As the variant they stand for: tracked, so that the archive writes its object id.
BOOST_CLASS_TRACKING(cmddistributor::HvArgumentsOut, boost::serialization::track_always)
BOOST_CLASS_TRACKING(cmddistributor::HvArgumentsIn, boost::serialization::track_always)

namespace cmddistributor {

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
        if constexpr (std::is_same<Archive, boost::archive::polymorphic_oarchive>::value) {
            // The exchange's wire: arrays go straight into the archive.
            if (auto const* arrays = clientArrays(*data_); arrays && isBinary(ar)) {
                HvArgumentsOut const rhs{HvArgumentListOut{arrays}};
                bool const flag = data_->isOutputConvertedFromEDI();
                ar << make_nvp("rhs", rhs);
                ar << make_nvp("isOutputConvertedFromEDI", flag);
                return;
            }
        }
        Payload rhs = data_->serialize();
        bool flag = data_->isOutputConvertedFromEDI();
        ar << make_nvp("rhs", rhs);
        ar << make_nvp("isOutputConvertedFromEDI", flag);
    } else {
        if constexpr (std::is_same<Archive, boost::archive::polymorphic_iarchive>::value) {
            // Arrays of raw elements are built straight from the archive's bytes.
            if (isBinary(ar)) {
                LoadedArguments loaded;
                HvArgumentsIn rhs{HvArgumentListIn{&loaded}, boost::none};
                bool flag = false;
                ar >> make_nvp("rhs", rhs);
                ar >> make_nvp("isOutputConvertedFromEDI", flag);
                if (rhs.edi)
                    data_ = boost::make_shared<ServerSideData>(Payload(std::move(*rhs.edi)),
                                                               clientTarnID_, serverTarnID_, flag);
                else
                    data_ = boost::make_shared<ServerSideData>(std::move(loaded), clientTarnID_,
                                                               serverTarnID_, flag);
                return;
            }
        }
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
