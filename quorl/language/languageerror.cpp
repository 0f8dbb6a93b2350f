#include <quorl/language/languageerror.hpp>

#include <sstream>

namespace quorl {
namespace language {

LanguageError::LanguageError(std::string identifier, std::string const& message)
    : std::runtime_error(message), identifier_(std::move(identifier)) {}

void LanguageError::setStack(std::vector<StackFrame> stack) {
    stack_ = std::move(stack);
    stackSet_ = true;
}

std::string LanguageError::report(std::string const& indent) const {
    std::ostringstream os;
    os << indent << "Error";
    if (!identifier_.empty()) {
        os << " (" << identifier_ << ")";
    }
    os << ": " << what() << "\n";
    for (StackFrame const& f : stack_) {
        os << indent << "  at " << f.function;
        if (!f.file.empty()) {
            os << " (" << f.file << ")";
        }
        os << " line " << f.line << "\n";
    }
    for (LanguageError const& c : causes_) {
        os << indent << "Caused by:\n" << c.report(indent + "  ");
    }
    return os.str();
}

InterruptedError::InterruptedError()
    : LanguageError(errid::interrupted, "Execution was interrupted.") {}

} // namespace language
} // namespace quorl
