#include <foundation/msg_svc/serialization/archives.hpp>

#include <quorl/cmddistributor/runtimeexception.hpp>

#include <foundation/msg_svc/serialization/ustring.hpp>

#include <fl/i18n/conversions.hpp>
#include <hv/hvarray.hpp>
#include <hv/matrix.hpp>

#include <boost/make_shared.hpp>
#include <boost/serialization/collection_size_type.hpp>
#include <boost/serialization/item_version_type.hpp>
#include <boost/serialization/shared_ptr.hpp>
#include <boost/serialization/string.hpp>
#include <boost/serialization/vector.hpp>
#include <boost/tokenizer.hpp>

#include <ostream>
#include <sstream>
#include <stdexcept>
#include <typeinfo>

namespace cmddistributor {

using quorl::cmddistributor::inExecutionStatus;

namespace {

// The message and identifier as read or given; the only implementation of AbstractMessageID.
class MessageIdPairImpl : public RuntimeException::AbstractMessageID {
public:
    MessageIdPairImpl(ustring message, std::string id)
        : message_(std::move(message)), id_(std::move(id)) {}
    ustring getMessage() const override { return message_; }
    std::string getId() const override { return id_; }

private:
    ustring const message_;
    std::string const id_;
};

boost::shared_ptr<RuntimeException::Data> makeData(inExecutionStatus status, ustring message,
                                                   std::string id, std::string functionName,
                                                   std::vector<RuntimeException::StackFrame> frames,
                                                   std::vector<RuntimeException> causes) {
    auto data = boost::make_shared<RuntimeException::Data>();
    data->status = status;
    data->messageId.reset(new MessageIdPairImpl(std::move(message), std::move(id)));
    data->functionName = std::move(functionName);
    data->frames = std::move(frames);
    data->causes = std::move(causes);
    return data;
}

// Causes nest recursively in an archive; a hostile archive must not exhaust the stack.
constexpr int maxCauseDepth = 256;
thread_local int causeDepth = 0;

struct CauseDepthGuard {
    CauseDepthGuard() {
        if (causeDepth >= maxCauseDepth)
            throw std::runtime_error("cmddistributor::RuntimeException: causes in the archive are "
                                     "nested more than 256 deep");
        ++causeDepth;
    }
    ~CauseDepthGuard() { --causeDepth; }
    CauseDepthGuard(CauseDepthGuard const&) = delete;
    CauseDepthGuard& operator=(CauseDepthGuard const&) = delete;
};

// Reads a vector in Boost's own form ("count", "item_version" after library version 3, then
// each "item") one element at a time, so that a count in the archive that its bytes do not
// back costs no memory up front.
template <class Archive, class T> void loadVectorByItem(Archive& ar, std::vector<T>& items) {
    boost::serialization::collection_size_type count;
    ar >> boost::serialization::make_nvp("count", count);
    if (boost::archive::library_version_type(3) < ar.get_library_version()) {
        boost::serialization::item_version_type itemVersion(0);
        ar >> boost::serialization::make_nvp("item_version", itemVersion);
    }
    items.clear();
    for (std::size_t i = 0; i < count; ++i) {
        T item;
        ar >> boost::serialization::make_nvp("item", item);
        items.push_back(item);
        ar.reset_object_address(&items.back(), &item);
    }
}

} // namespace

// Found by argument-dependent lookup from Boost's vector serialization, and preferred to its
// general form as the more specialised overload.
template <class Archive>
void load(Archive& ar, std::vector<RuntimeException>& items, unsigned int) {
    loadVectorByItem(ar, items);
}
template <class Archive>
void load(Archive& ar, std::vector<RuntimeException::StackFrame>& items, unsigned int) {
    loadVectorByItem(ar, items);
}

// ---------------------------------------------------------------------------------------------

bool RuntimeException::StackFrame::operator==(StackFrame const& other) const {
    return line == other.line && file == other.file && func == other.func;
}

template <class Archive>
void RuntimeException::StackFrame::serializeExplicit(Archive& ar, unsigned int version) {
    if constexpr (Archive::is_loading::value) {
        if (version < 1)
            throw boost::archive::archive_exception(
                boost::archive::archive_exception::unsupported_class_version,
                "cmddistributor::RuntimeException::StackFrame");
        if (version == 1) {
            // Version 1 held the file as UTF-8.
            std::string narrow;
            ar& boost::serialization::make_nvp("file", narrow);
            file = fl::i18n::to_ustring(narrow);
        } else {
            ar& boost::serialization::make_nvp("file", file);
        }
    } else {
        ar& boost::serialization::make_nvp("file", file);
    }
    ar& boost::serialization::make_nvp("func", func);
    ar& boost::serialization::make_nvp("line", line);
}
ZN_SERIALIZE_EXPLICIT(RuntimeException::StackFrame)

RuntimeException::AbstractMessageID::~AbstractMessageID() = default;

RuntimeException::AdditionalData::~AdditionalData() = default;

bool RuntimeException::AdditionalData::isEqual(AdditionalData const& other) const {
    return this == &other || typeid(*this) == typeid(other);
}

template <class Archive>
void RuntimeException::AdditionalData::serializeExplicit(Archive&, unsigned int) {}
ZN_SERIALIZE_EXPLICIT(RuntimeException::AdditionalData)

// ---------------------------------------------------------------------------------------------

RuntimeException::RuntimeException()
    : data_(makeData(quorl::cmddistributor::ExecutionError, ustring(), std::string(), std::string(),
                     {}, {})) {}

RuntimeException::RuntimeException(inExecutionStatus status, ustring message, std::string id,
                                   std::string functionName, std::vector<StackFrame> frames,
                                   std::vector<RuntimeException> causes)
    : data_(makeData(status, std::move(message), std::move(id), std::move(functionName),
                     std::move(frames), std::move(causes))) {}

RuntimeException::RuntimeException(inExecutionStatus status, std::string message, std::string id,
                                   std::string functionName, std::vector<StackFrame> frames,
                                   std::vector<RuntimeException> causes)
    : data_(makeData(status, fl::i18n::to_ustring(message), std::move(id), std::move(functionName),
                     std::move(frames), std::move(causes))) {}

RuntimeException::RuntimeException(RuntimeException const& other)
    : foundation::core::except::UserException(), boost::exception_detail::clone_base(),
      data_(other.data_), additionalData_(other.additionalData_) {}

RuntimeException::RuntimeException(RuntimeException const& other,
                                   boost::shared_ptr<AdditionalData> const& additionalData)
    : data_(other.data_), additionalData_(additionalData) {}

RuntimeException& RuntimeException::operator=(RuntimeException const& other) {
    // The base keeps the text of what() once asked; its assignment forgets it.
    foundation::core::except::UserException::operator=(other);
    data_ = other.data_;
    additionalData_ = other.additionalData_;
    return *this;
}

RuntimeException::~RuntimeException() noexcept = default;

RuntimeException* RuntimeException::clone() const {
    return new RuntimeException(*this);
}

void RuntimeException::rethrow() const {
    throw RuntimeException(*this);
}

std::string RuntimeException::GetID() const {
    return data_->messageId ? data_->messageId->getId() : std::string();
}

ustring RuntimeException::GetUnicodeMessageTxt() const {
    return data_->messageId ? data_->messageId->getMessage() : ustring();
}

inExecutionStatus RuntimeException::getExecutionStatus() const {
    return data_->status;
}

std::string const& RuntimeException::getFunctionName() const {
    return data_->functionName;
}

std::vector<RuntimeException::StackFrame> const& RuntimeException::getStackFrames() const {
    return data_->frames;
}

std::vector<RuntimeException> const& RuntimeException::getCauses() const {
    return data_->causes;
}

boost::shared_ptr<RuntimeException::AdditionalData> const&
RuntimeException::getAdditionalData() const {
    return additionalData_;
}

bool RuntimeException::operator==(RuntimeException const& other) const {
    if (this == &other)
        return true;
    Data const& a = *data_;
    Data const& b = *other.data_;
    if (a.status != b.status || GetMessageTxt() != other.GetMessageTxt() ||
        GetID() != other.GetID() || a.functionName != b.functionName ||
        a.frames.size() != b.frames.size() || a.causes.size() != b.causes.size())
        return false;
    for (std::size_t i = 0; i < a.frames.size(); ++i)
        if (a.frames[i] != b.frames[i])
            return false;
    for (std::size_t i = 0; i < a.causes.size(); ++i)
        if (a.causes[i] != b.causes[i])
            return false;
    if (additionalData_ == other.additionalData_)
        return true;
    if (!additionalData_ || !other.additionalData_)
        return false;
    return additionalData_->isEqual(*other.additionalData_);
}

std::ostream& RuntimeException::write(std::ostream& os, std::string const& indent) const {
    std::string const deeper = indent + "       ";
    os << indent << "status: " << static_cast<int>(data_->status) << '\n';
    os << indent << "msg: " << GetMessageTxt() << '\n';
    os << indent << "id: " << GetID() << '\n';
    os << indent << "func: " << data_->functionName << '\n';
    os << indent << "stack:";
    if (!data_->frames.empty()) {
        std::ostringstream text;
        for (StackFrame const& f : data_->frames) {
            text << "file: " << convert_str(f.file) << '\n';
            text << "func: " << f.func << '\n';
            text << "line: " << f.line << '\n';
            text << "----\n";
        }
        std::string const all = text.str();
        boost::char_separator<char> const lines("\n");
        for (std::string const& piece : boost::tokenizer<boost::char_separator<char>>(all, lines))
            os << '\n' << deeper << piece;
    }
    os << '\n' << indent << "cause:" << '\n';
    for (RuntimeException const& cause : data_->causes)
        cause.write(os, deeper);
    return os;
}

template <class Archive>
void RuntimeException::serializeExplicit(Archive& ar, unsigned int version) {
    using boost::serialization::make_nvp;
    if constexpr (Archive::is_saving::value) {
        std::string id = GetID();
        ustring message = GetUnicodeMessageTxt();
        int status = static_cast<int>(data_->status);
        ar& make_nvp("id", id);
        ar& make_nvp("message", message);
        ar& make_nvp("status", status);
        ar& make_nvp("function", data_->functionName);
        ar& make_nvp("frames", data_->frames);
        ar& make_nvp("causes", data_->causes);
        ar& make_nvp("additionalData", additionalData_);
    } else {
        if (version < 2)
            throw boost::archive::archive_exception(
                boost::archive::archive_exception::unsupported_class_version,
                "cmddistributor::RuntimeException");
        CauseDepthGuard depth;
        // The fields go straight into the shared record: copies made before see what is read,
        // so an archive is read into an instance of its own.
        Data& data = *data_;
        std::string id;
        ustring message;
        int status = 0;
        ar& make_nvp("id", id);
        if (version > 4) {
            std::string narrow;
            ar& make_nvp("message", narrow);
            message = fl::i18n::to_ustring(narrow);
        } else {
            ar& make_nvp("message", message);
        }
        ar& make_nvp("status", status);
        data.status = static_cast<inExecutionStatus>(status);
        ar& make_nvp("function", data.functionName);
        ar& make_nvp("frames", data.frames);
        ar& make_nvp("causes", data.causes);
        data.messageId.reset(new MessageIdPairImpl(std::move(message), std::move(id)));
        foundation::core::except::UserException::operator=(
            foundation::core::except::UserException());
        additionalData_.reset();
        if (version >= 3)
            ar& make_nvp("additionalData", additionalData_);
    }
}
ZN_SERIALIZE_EXPLICIT(RuntimeException)

boost::exception_ptr toExceptionPtr(RuntimeException const& e) {
    return boost::exception_ptr(
        boost::shared_ptr<boost::exception_detail::clone_base const>(e.clone()));
}

// ---------------------------------------------------------------------------------------------

namespace {

// The field's value in element `index` as text; an absent field or empty element gives "".
template <class Text, class Convert>
Text textField(hvArray const* stack, std::size_t index, int field, char const* name,
               Convert convert) {
    if (field < 0)
        return Text();
    hvArray const* value = hvGetFieldByNumber(stack, index, static_cast<std::size_t>(field));
    if (!value)
        return Text();
    try {
        return convert(value);
    } catch (std::invalid_argument const&) {
        throw std::invalid_argument("convertStack: field \"" + std::string(name) +
                                    "\" of element " + std::to_string(index + 1) +
                                    " of the call stack does not hold text");
    }
}

} // namespace

std::vector<RuntimeException::StackFrame> convertStack(hvArray const* stack) {
    std::vector<RuntimeException::StackFrame> frames;
    if (!stack)
        return frames;
    if (hvGetClassID(stack) != hvSTRUCT_CLASS)
        throw std::invalid_argument(std::string("convertStack: the call stack is a ") +
                                    hvGetClassName(stack) + " array, not a struct array");
    int const fileField = hvGetFieldNumber(stack, "file");
    int const nameField = hvGetFieldNumber(stack, "name");
    int const lineField = hvGetFieldNumber(stack, "line");
    std::size_t const count = hvGetNumberOfElements(stack);
    frames.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
        RuntimeException::StackFrame frame;
        frame.file = textField<ustring>(stack, i, fileField, "file",
                                        [](hvArray const* a) { return matrix::get_ustring(a); });
        frame.func = textField<std::string>(stack, i, nameField, "name",
                                            [](hvArray const* a) { return matrix::get_string(a); });
        if (lineField >= 0) {
            if (hvArray const* line =
                    hvGetFieldByNumber(stack, i, static_cast<std::size_t>(lineField))) {
                try {
                    frame.line = hvGetScalar(line);
                } catch (std::invalid_argument const&) {
                    throw std::invalid_argument("convertStack: field \"line\" of element " +
                                                std::to_string(i + 1) +
                                                " of the call stack does not hold a number");
                }
            }
        }
        frames.push_back(std::move(frame));
    }
    return frames;
}

} // namespace cmddistributor

BOOST_CLASS_EXPORT_IMPLEMENT(cmddistributor::RuntimeException::AdditionalData)
