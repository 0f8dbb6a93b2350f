#pragma once
// RuntimeException: the structured error of an interpreted program that reaches a client.
// It carries the execution status, the message and its identifier, the function in which the
// error arose, the interpreted call stack (innermost frame first) and the nested causes, and
// optionally data of another library (AdditionalData). It is thrown like any exception and is
// also a serializable value (written by value, inside IIPCompletedEvent).
//
// Ownership: all of the error lives in one Data record held by boost::shared_ptr; copies share
// it, as they share the AdditionalData. Reading an archive writes the fields straight into that
// shared record, so copies made before the read see what was read: read an archive into an
// instance of its own (a default-constructed one). Otherwise Data never changes after
// construction, and a published RuntimeException may be read by any number of threads at once.
//
// Passing through boost::exception_ptr: the class is a Boost clone_base, so
// boost::current_exception() in a handler keeps the dynamic type, and clone()/rethrow() copy
// and throw it. A subclass overrides clone() and rethrow() to keep its own type.
// toExceptionPtr() makes an exception pointer from an instance without throwing it; use it
// rather than boost::copy_exception, and throw the class itself rather than through
// boost::throw_exception: Boost's wrappers declare a clone() that does not compile with this one.
//
// Throws: the constructors and the text forms throw only std::bad_alloc, except that the
// constructor taking a UTF-8 message throws std::runtime_error for malformed UTF-8. Reading an
// archive throws boost::archive::archive_exception for a class version it cannot read (below 2,
// or below 1 for a StackFrame) and for truncated or corrupt bytes, and std::runtime_error for
// text that does not convert or for causes nested more than 256 deep.
// convertStack throws std::invalid_argument for an array that is not a struct array or whose
// fields do not hold text and numbers.
#include <foundation/core/except/exception.hpp>
#include <foundation/msg_svc/serialization/optional.hpp>
#include <foundation/msg_svc/serialization/serializable.hpp>
#include <quorl/cmddistributor/inexecutionstatus.hpp>

#include <fl/i18n/ustring.hpp>

#include <boost/exception/exception.hpp>
#include <boost/exception_ptr.hpp>
#include <boost/serialization/assume_abstract.hpp>
#include <boost/serialization/export.hpp>
#include <boost/shared_ptr.hpp>

#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

struct hvArray_tag;
typedef struct hvArray_tag hvArray;

namespace cmddistributor {

class RuntimeException : public virtual foundation::core::except::UserException,
                         public virtual boost::exception_detail::clone_base {
public:
    // One frame of the interpreted call stack.
    class StackFrame {
    public:
        StackFrame() = default;
        StackFrame(ustring file, std::string func, double line)
            : file(std::move(file)), func(std::move(func)), line(line) {}

        // Compares line first, as a double (a NaN line equals nothing), then file, then func.
        bool operator==(StackFrame const& other) const;
        bool operator!=(StackFrame const& other) const { return !(*this == other); }

        ustring file;
        std::string func;
        // A double because the array the frame comes from stores it so.
        double line = 0;

    private:
        ZN_SERIALIZABLE()
    };

    // The message and its identifier. Immutable; implementations may be read from any thread.
    class AbstractMessageID {
    public:
        virtual ustring getMessage() const = 0;
        virtual std::string getId() const = 0;
        virtual ~AbstractMessageID();
    };

    // Base of data that other libraries attach to an error. Derived classes register their own
    // export key and serialize this base first; the base itself has no fields.
    class AdditionalData {
    public:
        virtual ~AdditionalData();
        // True when both are the same object or of the same dynamic type. Derived classes
        // override it to compare their fields, and call this to check the type.
        virtual bool isEqual(AdditionalData const& other) const = 0;

        bool operator==(AdditionalData const& other) const { return isEqual(other); }
        bool operator!=(AdditionalData const& other) const { return !isEqual(other); }

    private:
        ZN_SERIALIZABLE()
    };

    // Everything of the error, shared between copies.
    struct Data {
        quorl::cmddistributor::inExecutionStatus status = quorl::cmddistributor::ExecutionError;
        // Null reads as an empty message and identifier.
        std::unique_ptr<AbstractMessageID const> messageId;
        std::string functionName;
        std::vector<StackFrame> frames;
        std::vector<RuntimeException> causes;
    };

    // Status 2 (ExecutionError) and everything else empty: the instance an archive is read
    // into.
    RuntimeException();
    RuntimeException(quorl::cmddistributor::inExecutionStatus status, ustring message,
                     std::string id, std::string functionName, std::vector<StackFrame> frames,
                     std::vector<RuntimeException> causes);
    // The message is UTF-8 text.
    RuntimeException(quorl::cmddistributor::inExecutionStatus status, std::string message,
                     std::string id, std::string functionName, std::vector<StackFrame> frames,
                     std::vector<RuntimeException> causes);
    // Shares the other's data and additional data.
    RuntimeException(RuntimeException const& other);
    // Shares the other's data and attaches `additionalData` (may be null) instead of its own.
    RuntimeException(RuntimeException const& other,
                     boost::shared_ptr<AdditionalData> const& additionalData);
    // Shares the other's data and additional data.
    RuntimeException& operator=(RuntimeException const& other);

    // A copy made with new; the caller owns it.
    RuntimeException* clone() const override;
    // Throws a copy of this exception.
    [[noreturn]] void rethrow() const override;
    ~RuntimeException() noexcept override;

    std::string GetID() const override;
    ustring GetUnicodeMessageTxt() const override;

    quorl::cmddistributor::inExecutionStatus getExecutionStatus() const;
    std::string const& getFunctionName() const;
    std::vector<StackFrame> const& getStackFrames() const;
    std::vector<RuntimeException> const& getCauses() const;
    // Null unless data was attached.
    boost::shared_ptr<AdditionalData> const& getAdditionalData() const;

    // Field by field, stopping at the first difference: status, narrow message, id, function,
    // the numbers of frames and causes, the frames, the causes (recursively), then the
    // additional data (both null, the same object, or isEqual). An object always equals itself;
    // a copy with a NaN line differs from its original.
    bool operator==(RuntimeException const& other) const;
    bool operator!=(RuntimeException const& other) const { return !(*this == other); }

    // A text for logs and the command window: status, message, id, function, the stack with
    // each frame's lines indented by `indent` and seven blanks, then the causes, each written
    // with that longer indent. Returns `os`.
    std::ostream& write(std::ostream& os, std::string const& indent) const;

private:
    ZN_SERIALIZABLE()

    boost::shared_ptr<Data> data_;
    boost::shared_ptr<AdditionalData> additionalData_;
};

// An exception pointer to a clone of `e` (of its dynamic type), without throwing it.
boost::exception_ptr toExceptionPtr(RuntimeException const& e);

// The interpreted call stack held in a struct array, one frame per element in element order:
// "file" (text), "name" (text) and "line" (a number). An absent field leaves the frame's member
// empty (line 0), as does an element whose field is empty. A null array gives no frames.
std::vector<RuntimeException::StackFrame> convertStack(hvArray const* stack);

} // namespace cmddistributor

ZN_SERIALIZATION_TRAITS(cmddistributor::RuntimeException, 4)
ZN_OPTIONAL_WIRE_FORM(cmddistributor::RuntimeException)
ZN_SERIALIZATION_TRAITS(cmddistributor::RuntimeException::StackFrame, 2)
ZN_SERIALIZATION_TRAITS(cmddistributor::RuntimeException::AdditionalData, 0)
BOOST_SERIALIZATION_ASSUME_ABSTRACT(cmddistributor::RuntimeException::AdditionalData)
BOOST_CLASS_EXPORT_KEY2(cmddistributor::RuntimeException::AdditionalData,
                        "cmddistributor::RuntimeException::AdditionalData")
