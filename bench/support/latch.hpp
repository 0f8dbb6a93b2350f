#pragma once
// Latch: counts signals from another thread and lets a benchmark wait for a count; the plainest
// cross-thread handoff, used by the benchmarks and their floors alike.
#include <condition_variable>
#include <mutex>

namespace quorl_bench {

struct Latch {
    std::mutex m;
    std::condition_variable cv;
    long count = 0;
    void add() {
        {
            std::lock_guard<std::mutex> l(m);
            ++count;
        }
        cv.notify_one();
    }
    void waitFor(long n) {
        std::unique_lock<std::mutex> l(m);
        cv.wait(l, [&] { return count >= n; });
    }
};

} // namespace quorl_bench
