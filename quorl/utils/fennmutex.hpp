#pragma once
// The fenn mutex: the process-wide recursive lock that an interpreter holds while it runs.
// Created during static initialisation, alive for the whole process. A thread that blocks on
// work for the interpreter must give it up first (ReleaseCountedMutexGuard).
//
// The C functions and the accessors may be called from any thread.
#include <foundation/msg_svc/threadutil/countedmutex.hpp>

#include <boost/shared_ptr.hpp>

extern "C" {
// Takes the mutex (recursively).
void fenn_acquire_mutex();
// Gives up one level; throws std::logic_error if the caller does not hold it.
void fenn_release_mutex();
// Whether any thread holds it (a snapshot).
bool fenn_mutex_is_acquired();
}

namespace quorl {
namespace utils {

boost::shared_ptr<foundation::msg_svc::threadutil::CountedMutex> const& getFennMutex();
// The mutex while someone holds it, otherwise null: the mutex source of event managers.
boost::shared_ptr<foundation::msg_svc::threadutil::CountedMutex> getFennMutexIfLocked();

} // namespace utils
} // namespace quorl
