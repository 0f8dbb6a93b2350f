#pragma once
// Process termination: a library that is unloaded tells the service whether the whole process is
// ending. When it is, the service's threads are abandoned at exit instead of joined (the system
// ends them), so that exit cannot hang on a thread blocked in user code.
namespace foundation {
namespace msg_svc {
namespace shutdown {

void setProcessTerminating(bool terminating);
bool isProcessTerminating();

// True once the process has begun to exit (its exit handlers run). A library unloaded before
// that sees false.
bool processExitStarted();

} // namespace shutdown
} // namespace msg_svc
} // namespace foundation
