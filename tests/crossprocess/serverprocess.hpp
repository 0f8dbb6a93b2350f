#pragma once
// A server program run as a child process for a test: started with fork and exec, its standard
// output read through a pipe, so that a test waits for what it prints rather than for time.
#include <chrono>
#include <string>
#include <sys/types.h>
#include <vector>

namespace crossprocess {

class ServerProcess {
public:
    ServerProcess(std::string program, std::vector<std::string> args);
    ~ServerProcess(); // kills the child if it still runs

    ServerProcess(ServerProcess const&) = delete;
    ServerProcess& operator=(ServerProcess const&) = delete;

    // Waits until a line of its output holds `text`; false if the child closed its output or
    // the time ran out first. Every line read is kept in output().
    bool waitForLine(std::string const& text,
                     std::chrono::milliseconds patience = std::chrono::seconds(20));
    void signal(int sig);
    // Waits for the child to end; its exit code, or 128 + the signal that ended it, or -1 if it
    // still ran after `patience`.
    int wait(std::chrono::milliseconds patience = std::chrono::seconds(20));
    std::string const& output() const { return output_; }
    pid_t pid() const { return pid_; }
    std::string const& errors();

private:
    pid_t pid_ = -1;
    int out_ = -1;
    int err_ = -1;
    std::string output_;
    std::string errors_;
    std::size_t scanned_ = 0;
};

// The output and exit code of a program run to its end (no input).
struct RunResult {
    int code;
    std::string out;
    std::string err;
};
RunResult runToEnd(std::string const& program, std::vector<std::string> const& args);

// A TCP port on 127.0.0.1 that nothing listens on at the moment of the call.
int freeTcpPort();

// A fresh directory of mode 0700 under /tmp, removed by the destructor.
class PrivateDir {
public:
    PrivateDir();
    ~PrivateDir();
    std::string const& path() const { return path_; }

private:
    std::string path_;
};

} // namespace crossprocess
