#include <foundation/msg_svc/serialization/archives.hpp>

#include <quorl/cmddistributor/iip.hpp>

#include <foundation/core/memory/poolallocator.hpp>

#include <boost/archive/archive_exception.hpp>

#include <sstream>

namespace cmddistributor {

namespace {
boost::shared_ptr<IIP::EventMgrBypass> newBypass() {
    return foundation::core::memory::makePooledBoostShared<IIP::EventMgrBypass>();
}
} // namespace

using quorl::io::SinkTraits;
using quorl::io::VeldraSink;

IIP::IIP()
    : streamID_(UnsetIqmStreamID), outTraits_(SinkTraits(boost::shared_ptr<VeldraSink>())),
      errTraits_(SinkTraits(boost::shared_ptr<VeldraSink>())), eventMgrBypass_(newBypass()),
      wasSerializedFlag_(false) {}

IIP::IIP(std::string const& pluginType, IqmStreamID streamID,
         boost::shared_ptr<VeldraSink> const& out, boost::shared_ptr<VeldraSink> const& err)
    : streamID_(streamID), pluginType_(pluginType), outSink_(out), errSink_(err),
      eventMgrBypass_(newBypass()), wasSerializedFlag_(false) {}

IIP::IIP(std::string const& pluginType, IqmStreamID streamID, SinkTraits const& out,
         SinkTraits const& err)
    : streamID_(streamID), pluginType_(pluginType), outTraits_(out), errTraits_(err),
      eventMgrBypass_(newBypass()), wasSerializedFlag_(false) {}

IIP::~IIP() = default;

bool IIP::canBeSerialized() const {
    return true;
}

SinkTraits const& IIP::lateTraits(boost::optional<SinkTraits>& traits,
                                  boost::shared_ptr<VeldraSink> const& sink) const {
    boost::mutex::scoped_lock lock(traitsMutex_);
    if (!traits)
        traits = SinkTraits(sink);
    return *traits;
}

SinkTraits const& IIP::getOutTraits() const {
    return lateTraits(outTraits_, outSink_);
}

SinkTraits const& IIP::getErrTraits() const {
    return lateTraits(errTraits_, errSink_);
}

void IIP::write(std::ostream& out) const {
    out << std::dec;
    out << "PLUGINTYPE " << pluginType_ << std::endl;
    out << "STREAM " << static_cast<int>(streamID_) << std::endl;
    boost::optional<SinkTraits> outTraits, errTraits;
    {
        boost::mutex::scoped_lock lock(traitsMutex_);
        outTraits = outTraits_;
        errTraits = errTraits_;
    }
    auto traitsLines = [&out](boost::optional<SinkTraits> const& t) {
        if (out.good()) {
            if (t)
                out << ' ' << *t;
            else
                out << "--";
        }
        out << std::endl;
    };
    out << "Output Traits:" << std::endl;
    traitsLines(outTraits);
    out << "Error Traits:" << std::endl;
    traitsLines(errTraits);
}

std::string IIP::toString() const {
    std::ostringstream s;
    write(s);
    return s.str();
}

template <class Archive> void IIP::serializeExplicit(Archive& ar, unsigned int version) {
    if constexpr (Archive::is_saving::value) {
        if (version == 1) {
            int stream = static_cast<int>(streamID_);
            ar& boost::serialization::make_nvp("streamid", stream);
            ar& boost::serialization::make_nvp("plugintype", pluginType_);
            // The packet's own traits objects, not copies on the stack: the archive tracks
            // SinkTraits by address, and stack copies of two packets saved into one archive
            // would share an address, so the second would be written as a reference to the
            // first's.
            SinkTraits const& out = getOutTraits();
            SinkTraits const& err = getErrTraits();
            ar& boost::serialization::make_nvp("outtraits", out);
            ar& boost::serialization::make_nvp("errtraits", err);
        }
        return;
    }
    if (version == 1) {
        outTraits_ = SinkTraits();
        errTraits_ = SinkTraits();
        int stream = 0;
        ar& boost::serialization::make_nvp("streamid", stream);
        streamID_ = static_cast<IqmStreamID>(stream);
        ar& boost::serialization::make_nvp("plugintype", pluginType_);
        ar& boost::serialization::make_nvp("outtraits", *outTraits_);
        ar& boost::serialization::make_nvp("errtraits", *errTraits_);
    }
    if (!canBeSerialized())
        throw boost::archive::archive_exception(
            boost::archive::archive_exception::unregistered_cast);
    wasSerializedFlag_ = true;
}
ZN_SERIALIZE_EXPLICIT(IIP)

} // namespace cmddistributor

BOOST_CLASS_EXPORT_IMPLEMENT(cmddistributor::IIP)
