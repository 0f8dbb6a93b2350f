#pragma once
// LanguageError: an error of the language, thrown by the interpreter and by built-ins, and what
// an evaluation that fails ends with. It carries the message, a stable identifier, the call
// stack of the interpreted program at the point of the error (innermost frame first) and the
// errors that caused it (an error raised inside a catch block keeps the caught one).
// InterruptedError is the error an interrupt ends an evaluation with; catch blocks of the
// language do not catch it.
//
// Values, copied freely; no threads of their own.
#include <stdexcept>
#include <string>
#include <vector>

namespace quorl {
namespace language {

struct StackFrame {
    std::string file;     // source file, empty for code typed in
    std::string function; // function name; the script or "eval" at top level
    int line = 0;
};

class LanguageError : public std::runtime_error {
public:
    LanguageError(std::string identifier, std::string const& message);

    std::string const& identifier() const { return identifier_; }
    std::string message() const { return what(); }
    std::vector<StackFrame> const& stack() const { return stack_; }
    std::vector<LanguageError> const& causes() const { return causes_; }

    bool hasStack() const { return stackSet_; }
    void setStack(std::vector<StackFrame> stack);
    void addCause(LanguageError cause) { causes_.push_back(std::move(cause)); }
    // An error thrown again by rethrow(err) keeps its own causes.
    bool rethrown() const { return rethrown_; }
    void markRethrown() { rethrown_ = true; }

    // Message, identifier, stack and causes as indented text, for logs and command windows.
    std::string report(std::string const& indent = "") const;

private:
    std::string identifier_;
    std::vector<StackFrame> stack_;
    std::vector<LanguageError> causes_;
    bool stackSet_ = false;
    bool rethrown_ = false;
};

class InterruptedError : public LanguageError {
public:
    InterruptedError();
};

// Identifiers of the errors the language itself raises.
namespace errid {
constexpr char const* undefined = "quorl:undefinedFunctionOrVariable";
constexpr char const* indexOutOfBounds = "quorl:indexOutOfBounds";
constexpr char const* badIndex = "quorl:badSubscript";
constexpr char const* dimensionMismatch = "quorl:dimensionMismatch";
constexpr char const* wrongType = "quorl:wrongType";
constexpr char const* tooManyOutputs = "quorl:tooManyOutputs";
constexpr char const* notEnoughOutputs = "quorl:notEnoughOutputs";
constexpr char const* recursionLimit = "quorl:recursionLimit";
constexpr char const* unsupported = "quorl:unsupported";
constexpr char const* tooManyInputs = "quorl:tooManyInputs";
constexpr char const* notEnoughInputs = "quorl:notEnoughInputs";
constexpr char const* syntax = "quorl:syntaxError";
constexpr char const* interrupted = "quorl:interrupted";
constexpr char const* badArgument = "quorl:badArgument";
constexpr char const* noField = "quorl:noSuchField";
constexpr char const* unassignedOutput = "quorl:unassignedOutput";
constexpr char const* fileError = "quorl:fileError";
constexpr char const* internal = "quorl:internal";
} // namespace errid

} // namespace language
} // namespace quorl
