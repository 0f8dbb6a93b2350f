#include <foundation/msg_svc/serialization/archives.hpp>

#include <quorl/cmddistributor/evaliip.hpp>

#include <quorl/workspace/workspaceholder.hpp>

#include <fl/i18n/conversions.hpp>
#include <foundation/msg_svc/serialization/ustring.hpp>

#include <boost/make_shared.hpp>
#include <boost/serialization/base_object.hpp>
#include <boost/serialization/item_version_type.hpp>
#include <boost/serialization/library_version_type.hpp>
#include <boost/serialization/shared_ptr.hpp>

namespace {
typedef boost::optional<boost::shared_ptr<quorl::workspace::WorkspaceHolder>> OptionalHolder;
}

namespace boost {
namespace serialization {

// The optional holder: "initialized", then, when set, "item_version" (after library version 3)
// and "value". The optional itself has class version 0.
template <> struct version<OptionalHolder> {
    typedef mpl::int_<0> type;
    typedef mpl::integral_c_tag tag;
    BOOST_STATIC_CONSTANT(int, value = 0);
};

template <class Archive> void save(Archive& ar, OptionalHolder const& holder, unsigned int) {
    bool const initialized = holder.is_initialized();
    ar << make_nvp("initialized", initialized);
    if (!initialized)
        return;
    if (library_version_type(3) < ar.get_library_version()) {
        item_version_type const itemVersion(
            version<boost::shared_ptr<quorl::workspace::WorkspaceHolder>>::value);
        ar << make_nvp("item_version", itemVersion);
    }
    ar << make_nvp("value", *holder);
}

template <class Archive> void load(Archive& ar, OptionalHolder& holder, unsigned int) {
    bool initialized = false;
    ar >> make_nvp("initialized", initialized);
    if (!initialized) {
        holder.reset();
        return;
    }
    if (library_version_type(3) < ar.get_library_version()) {
        item_version_type itemVersion(0);
        ar >> make_nvp("item_version", itemVersion);
    }
    boost::shared_ptr<quorl::workspace::WorkspaceHolder> value;
    ar >> make_nvp("value", value);
    holder = value;
}

template <class Archive> void serialize(Archive& ar, OptionalHolder& holder, unsigned int version) {
    split_free(ar, holder, version);
}

} // namespace serialization
} // namespace boost

namespace cmddistributor {

using quorl::workspace::WorkspaceHolder;

EvalIIP::EvalIIP() : codeType_(UndefinedCodeType) {}

EvalIIP::EvalIIP(std::string const& pluginType, IqmStreamID streamID,
                 boost::shared_ptr<quorl::io::VeldraSink> const& out,
                 boost::shared_ptr<quorl::io::VeldraSink> const& err, std::u16string const& command)
    : IIP(pluginType, streamID, out, err), command_(command), codeType_(ConventionalType) {}

EvalIIP::EvalIIP(std::string const& pluginType, IqmStreamID streamID,
                 boost::shared_ptr<ICustomWorkspace> const& workspace,
                 boost::shared_ptr<quorl::io::VeldraSink> const& out,
                 boost::shared_ptr<quorl::io::VeldraSink> const& err, std::u16string const& command,
                 CodeType const& codeType)
    : IIP(pluginType, streamID, out, err), command_(command), codeType_(codeType) {
    // One published holder per workspace, however many packets use it.
    if (auto holder = WorkspaceHolder::lookupHolder(workspace))
        wsHolder_ = holder;
    else if (workspace)
        wsHolder_ = boost::make_shared<WorkspaceHolder>(workspace);
}

EvalIIP::~EvalIIP() = default;

boost::shared_ptr<EvalIIP::ICustomWorkspace> EvalIIP::getExternalWorkspace() const {
    if (!wsHolder_ || !*wsHolder_)
        return nullptr;
    return (*wsHolder_)->getClientWorkspace();
}

void EvalIIP::setExchangeNames(std::string const& destination, std::string const& client) {
    if (wsHolder_ && *wsHolder_)
        (*wsHolder_)->setExchangeNames(destination, client);
}

void EvalIIP::write(std::ostream& out) const {
    IIP::write(out);
    out << "CMDLEN " << command_.size() << std::endl;
    out << "CMD " << fl::i18n::to_string(command_) << std::endl;
    out << "codeType " << codeTypeName(codeType_) << std::endl;
    if (wsHolder_ && *wsHolder_)
        (*wsHolder_)->write(out);
}

template <class Archive> void EvalIIP::serializeExplicit(Archive& ar, unsigned int version) {
    using boost::serialization::make_nvp;
    ar& make_nvp("EvalIIP", boost::serialization::base_object<IIP>(*this));
    if (version != 1)
        return;
    ar& make_nvp("evalstring", command_);
    std::int32_t type = codeType_;
    ar& make_nvp("codeType", type);
    codeType_ = static_cast<CodeType>(type);
    ar& make_nvp("wsHolder", wsHolder_);
    // A loaded holder publishes what it brought, so that later packets of the same workspace
    // find it (the provider is reused) and the client's messages find their holder.
    if (Archive::is_loading::value && wsHolder_ && *wsHolder_)
        (*wsHolder_)->saveClientWorkspace();
}
ZN_SERIALIZE_EXPLICIT(EvalIIP)

} // namespace cmddistributor

BOOST_CLASS_EXPORT_IMPLEMENT(cmddistributor::EvalIIP)
