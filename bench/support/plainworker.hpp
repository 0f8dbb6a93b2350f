#pragma once
// PlainWorker: one thread fed through a deque under a mutex and condition variable: the floor
// that the benchmarks measure the library's thread handoffs against.
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace quorl_bench {

class PlainWorker {
public:
    PlainWorker() : thread_([this] { run(); }) {}
    ~PlainWorker() {
        {
            std::lock_guard<std::mutex> l(m_);
            stop_ = true;
        }
        cv_.notify_one();
        thread_.join();
    }
    void post(std::function<void()> job) {
        {
            std::lock_guard<std::mutex> l(m_);
            q_.push_back(std::move(job));
        }
        cv_.notify_one();
    }

private:
    void run() {
        for (;;) {
            std::function<void()> job;
            {
                std::unique_lock<std::mutex> l(m_);
                cv_.wait(l, [this] { return stop_ || !q_.empty(); });
                if (q_.empty())
                    return; // stopping, and nothing left
                job = std::move(q_.front());
                q_.pop_front();
            }
            job();
        }
    }
    std::mutex m_;
    std::condition_variable cv_;
    std::deque<std::function<void()>> q_;
    bool stop_ = false;
    std::thread thread_;
};

} // namespace quorl_bench
