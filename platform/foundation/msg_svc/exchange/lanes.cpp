#include <foundation/msg_svc/exchange/lanes.hpp>
#include <foundation/msg_svc/shutdown/shutdown.hpp>

#include <memory>

namespace foundation {
namespace msg_svc {
namespace detail {

void finish(std::thread& t) {
    if (!t.joinable())
        return;
    if (t.get_id() == std::this_thread::get_id() || shutdown::isProcessTerminating())
        t.detach();
    else
        t.join();
}

namespace {
thread_local InlineSlot* tlsSlot = nullptr;
thread_local InlineSlot* tlsRunning = nullptr;
} // namespace

InlineSlot* InlineSlot::current() {
    return tlsSlot;
}

InlineSlot* InlineSlot::running() {
    return tlsRunning;
}

bool InlineSlot::offer(void const* key, Job&& job, Job&& release) {
    if (!jobs_.empty())
        return false;
    key_ = key;
    jobs_.push_back(std::move(job));
    release_ = std::move(release);
    return true;
}

bool InlineSlot::append(void const* key, Job&& job) {
    if (!joins(key))
        return false;
    jobs_.push_back(std::move(job));
    return true;
}

void InlineSlot::runAll() {
    // The slot is no thread's slot while its jobs run (the offering thread's Scope has ended),
    // so nothing joins them meanwhile.
    struct Finally {
        InlineSlot& slot;
        InlineSlot* outer;
        ~Finally() {
            tlsRunning = outer;
            Job release = std::move(slot.release_);
            slot.release_ = nullptr;
            slot.jobs_.clear(); // keeps the capacity for the next turn
            slot.key_ = nullptr;
            if (release)
                release();
            // Work left for after may leave more (an event dispatched there may be followed by
            // another): run until none is left.
            while (!slot.after_.empty()) {
                std::vector<Job> after;
                after.swap(slot.after_);
                for (auto& job : after) {
                    try {
                        job();
                    } catch (...) {
                        // Such work reports its own failures; the others still run.
                    }
                }
            }
        }
    } finally{*this, tlsRunning};
    tlsRunning = this;
    for (auto& job : jobs_)
        job();
}

InlineSlot::Scope::Scope(InlineSlot* slot) : previous_(tlsSlot) {
    tlsSlot = slot;
}

InlineSlot::Scope::~Scope() {
    tlsSlot = previous_;
}

SerialLane::SerialLane(std::function<void()> onStart) : onStart_(std::move(onStart)) {
    thread_ = std::thread([this] { run(); });
    threadId_ = thread_.get_id();
}

SerialLane::~SerialLane() {
    stop();
}

bool SerialLane::post(Job job) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (stopping_)
            return false;
        queue_.push_back(std::move(job));
        hasWork_.store(true, std::memory_order_release);
    }
    wake_.notify_one();
    return true;
}

bool SerialLane::tryClaim() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_ || claimed_ || !queue_.empty())
        return false;
    claimed_ = true;
    return true;
}

bool SerialLane::nothingQueued() {
    std::lock_guard<std::mutex> lock(mutex_);
    return queue_.empty();
}

void SerialLane::release() {
    bool queued;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        claimed_ = false;
        queued = !queue_.empty();
    }
    if (queued)
        wake_.notify_one();
}

void SerialLane::stop() {
    std::vector<Job> dropped;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
        hasWork_.store(true, std::memory_order_release);
        dropped.swap(queue_);
    }
    wake_.notify_all();
    dropped.clear(); // jobs die outside the lock: their promises break
    finish(thread_);
}

void SerialLane::run() {
    if (onStart_)
        onStart_();
    std::vector<Job> batch; // swapped with queue_, so both keep their capacity
    for (;;) {
        spinBriefly([this] { return hasWork_.load(std::memory_order_acquire); });
        {
            std::unique_lock<std::mutex> lock(mutex_);
            wake_.wait(lock, [this] { return stopping_ || (!queue_.empty() && !claimed_); });
            if (stopping_)
                return;
            batch.swap(queue_);
            claimed_ = true;
            hasWork_.store(false, std::memory_order_relaxed);
        }
        for (auto& job : batch) {
            // A stop discards the jobs not yet started, including the rest of this batch.
            if (stopping_.load(std::memory_order_acquire))
                break;
            job();
            job = nullptr;
        }
        batch.clear();
        std::lock_guard<std::mutex> lock(mutex_);
        claimed_ = false;
    }
}

ElasticLane::ElasticLane(unsigned maxThreads, std::function<void()> onStart)
    : maxThreads_(maxThreads ? maxThreads : 1), onStart_(std::move(onStart)) {}

ElasticLane::~ElasticLane() {
    stop();
}

bool ElasticLane::post(Job job) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (stopping_)
        return false;
    queue_.push_back(std::move(job));
    if (idle_ < queue_.size() && threads_.size() < maxThreads_) {
        threads_.emplace_back([this] { run(); });
    } else {
        lock.unlock();
        wake_.notify_one();
    }
    return true;
}

void ElasticLane::stop() {
    std::deque<Job> dropped;
    std::vector<std::thread> threads;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
        dropped.swap(queue_);
        threads.swap(threads_);
    }
    wake_.notify_all();
    dropped.clear();
    for (auto& t : threads)
        finish(t);
}

void ElasticLane::run() {
    if (onStart_)
        onStart_();
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        ++idle_;
        wake_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
        --idle_;
        if (stopping_)
            return;
        Job job = std::move(queue_.front());
        queue_.pop_front();
        lock.unlock();
        job();
        job = nullptr;
        lock.lock();
    }
}

} // namespace detail
} // namespace msg_svc
} // namespace foundation
