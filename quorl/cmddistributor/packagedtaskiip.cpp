#include <foundation/msg_svc/serialization/archives.hpp>

#include <quorl/cmddistributor/packagedtaskiip.hpp>

#include <foundation/core/diag/terminate.hpp>

#include <boost/serialization/base_object.hpp>
#include <boost/serialization/string.hpp>

#include <stdexcept>

namespace cmddistributor {

namespace {
// The task of FcnCmdRequest<void> is declared as a std::function<void()>.
std::string voidTaskTypeName() {
    return foundation::core::diag::detail::demangle_typeid_name(typeid(std::function<void()>));
}
} // namespace

PackagedTaskIIP::PackagedTaskIIP() : taskTypeName_(&voidTaskTypeName) {}

PackagedTaskIIP::PackagedTaskIIP(Function func,
                                 boost::shared_ptr<quorl::io::VeldraSink> const& outputSink,
                                 boost::shared_ptr<quorl::io::VeldraSink> const& errorSink,
                                 std::string const& pluginType)
    : IIP(pluginType, UnsetIqmStreamID, outputSink, errorSink), func_(std::move(func)),
      taskTypeName_(&voidTaskTypeName) {
    if (!func_)
        throw std::invalid_argument("func cannot be empty.");
}

PackagedTaskIIP::~PackagedTaskIIP() = default;

void PackagedTaskIIP::write(std::ostream& out) const {
    IIP::write(out);
    out << taskTypeName_() << " cannot be serialized." << std::endl;
}

bool PackagedTaskIIP::canBeSerialized() const {
    return readingBase_;
}

template <class Archive> void PackagedTaskIIP::serializeExplicit(Archive& ar, unsigned int) {
    std::string taskType = taskTypeName_();
    if (Archive::is_loading::value)
        readingBase_ = true;
    try {
        ar& boost::serialization::make_nvp("iip", boost::serialization::base_object<IIP>(*this));
    } catch (...) {
        readingBase_ = false;
        throw;
    }
    readingBase_ = false;
    ar& boost::serialization::make_nvp("taskType", taskType);
    if (Archive::is_loading::value)
        throw std::logic_error("cannot deserialize cmddistributor::PackagedTaskIIP");
}
ZN_SERIALIZE_EXPLICIT(PackagedTaskIIP)

} // namespace cmddistributor

BOOST_CLASS_EXPORT_IMPLEMENT(cmddistributor::PackagedTaskIIP)
