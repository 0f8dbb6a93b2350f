#include <quorl/cmddistributor/promisedelegate.hpp>

#include <chrono>

namespace cmddistributor {

template class PromiseDelegateT<void>;

PromiseDelegate::~PromiseDelegate() {
    ReadyTask* task = currentTask_.load();
    if (task && task != finishedMark())
        delete task; // an abandoned packaged_task makes the waiter's future ready
}

PromiseDelegate::ReadyTask* PromiseDelegate::getCurrentTask() const {
    ReadyTask* task = currentTask_.load();
    if (task)
        return task;
    ReadyTask* fresh = new ReadyTask;
    ReadyTask* expected = nullptr;
    if (currentTask_.compare_exchange_strong(expected, fresh))
        return fresh;
    delete fresh;
    return expected; // another thread came first; may be the finished mark
}

void PromiseDelegate::tryRunTask() {
    ReadyTask* task = currentTask_.load();
    if (!task) {
        if (currentTask_.compare_exchange_strong(task, finishedMark()))
            return; // no waiter exists, and none will need a task
    }
    if (task != finishedMark())
        task->task();
}

std::shared_future<void> PromiseDelegate::readyHandle() const {
    // Publishes this thread's use of the object to a destructor that may release it.
    currentTask_.fetch_add(0, std::memory_order_release);
    ReadyTask* task = getCurrentTask();
    if (task == finishedMark())
        return std::shared_future<void>();
    return task->future; // shares the state, which outlives the task
}

void PromiseDelegate::waitTillReady() const {
    std::shared_future<void> handle = readyHandle();
    if (handle.valid())
        handle.wait();
}

bool PromiseDelegate::isPromiseDone() const {
    ReadyTask* task = getCurrentTask();
    if (task == finishedMark())
        return true;
    return task->future.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
}

} // namespace cmddistributor
