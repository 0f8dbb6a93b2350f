#pragma once
// Console: the command window of the quorl program, the one road by which text reaches the
// terminal. It owns a context of its own whose command-window sinks print to standard output and
// standard error; the sinks it hands to requests forward into that command window, so every piece
// of output is also copied to the diary and log streams when they are switched on, and printed
// at once (a long command's output appears while it runs). Messages of the program and errors of
// evaluated code take the error stream the same way.
//
// Ownership: owns its context, terminal sinks and the diary and log files it opens.
// Threads: any thread may write through the sinks and call the printing members; one mutex
// (writeMutex_) puts the pieces in a single order. Opening a diary or log throws
// std::runtime_error when the file cannot be written.
#include <quorl/cmddistributor/runtimeexception.hpp>
#include <quorl/io/veldrasink.hpp>

#include <foundation/usm/context.hpp>

#include <boost/shared_ptr.hpp>

#include <memory>
#include <mutex>
#include <ostream>
#include <streambuf>
#include <string>

namespace quorl {
namespace cli {

class Console {
public:
    typedef boost::shared_ptr<io::VeldraSink> SinkPtr;

    Console();
    ~Console();
    Console(Console const&) = delete;
    Console& operator=(Console const&) = delete;

    // Sinks for requests: output and errors of evaluated code.
    SinkPtr const& out() const { return out_; }
    SinkPtr const& err() const { return err_; }

    // Copies of everything the command window shows, from now on (appending).
    void openDiary(std::string const& path);
    void openLog(std::string const& path);
    // Typed input: to the diary and log only, as the terminal has shown it already.
    void echo(std::string const& prompt, std::string const& input);

    // An error of evaluated code: message and identifier, the call stack, then the causes.
    void printError(::cmddistributor::RuntimeException const& error);
    // A line of the program itself on the error stream.
    void message(std::string const& line);

private:
    class Forward;
    void write(std::basic_streambuf<char16_t>& target, char16_t const* s, std::streamsize n);

    std::mutex writeMutex_; // guards writes into the command window's buffers
    std::shared_ptr<foundation::usm::Context> context_;
    io::VeldraSink::UnicodeBufferPtr windowOut_, windowErr_;
    SinkPtr terminalOut_, terminalErr_;
    SinkPtr out_, err_;
    boost::shared_ptr<std::ostream> diary_;
    boost::shared_ptr<std::basic_ostream<char16_t>> log_;
};

} // namespace cli
} // namespace quorl
