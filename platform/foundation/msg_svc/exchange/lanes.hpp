#pragma once
// Delivery lanes of an exchange (private to the exchange and the event service).
//
// SerialLane: one thread that runs jobs in order of posting. It takes all queued jobs at once, so
// that a producer posting in bursts and the lane meet at the lock once per burst, not per job.
// ElasticLane: runs each job at once on an idle thread, starting another thread (up to a bound)
// when none is idle, so jobs overtake one another and may block without stalling the lane.
// Both: post() from any thread; stop() discards jobs not yet started and joins the threads,
// unless the process is terminating, in which case the threads are abandoned.
// InlineSlot: a thread that hands received frames to the exchange (a transport thread) may offer
// to run the deliveries of what it read itself, right afterwards; they then need no wake-up of a
// lane thread (the transport lets another thread take over its reading should they block). A
// serial lane's jobs run that way are claimed first (tryClaim), so that jobs posted after them
// wait for them and order is kept. A job may leave work to run after the jobs and their release
// (after()), outside the lane it held: the event service dispatches events that way.
#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace foundation {
namespace msg_svc {
namespace detail {

typedef std::function<void()> Job;

class SerialLane {
public:
    // `onStart` runs first on the lane's thread (to mark it as a delivery thread).
    explicit SerialLane(std::function<void()> onStart = nullptr);
    ~SerialLane();
    // False if the lane is stopped; the job is then not run.
    bool post(Job job);
    // Lets the caller run the next job of the lane itself: true if the lane was idle with nothing
    // queued, and then jobs posted later wait until release(). False if it is busy or stopped.
    bool tryClaim();
    void release();
    // True if nothing has been posted since the claim: a claimer may then run more jobs in turn.
    bool nothingQueued();
    void stop();
    bool onLaneThread() const { return std::this_thread::get_id() == threadId_; }

private:
    void run();
    std::function<void()> onStart_;
    std::mutex mutex_; // guards queue_; stopping_ is written under it
    std::condition_variable wake_;
    std::vector<Job> queue_;
    std::atomic<bool> stopping_{false}; // read without the lock between the jobs of a batch
    std::atomic<bool> hasWork_{false};  // a lock-free view of stopping_ || !queue_.empty()
    bool claimed_ = false; // a thread (the lane's own, or a claimer) runs the lane's jobs
    std::thread thread_;
    std::thread::id threadId_;
};

// Polls `ready` briefly (yielding the core) before a consumer goes to sleep, so that a producer
// sending in bursts finds the consumer awake instead of paying a wake-up per item.
template <class Ready> bool spinBriefly(Ready ready) {
    for (int i = 0; i < 64; ++i) {
        if (ready())
            return true;
        std::this_thread::yield();
    }
    return ready();
}

class ElasticLane {
public:
    ElasticLane(unsigned maxThreads, std::function<void()> onStart = nullptr);
    ~ElasticLane();
    bool post(Job job);
    void stop();

private:
    void run();
    unsigned maxThreads_;
    std::function<void()> onStart_;
    std::mutex mutex_; // guards everything below
    std::condition_variable wake_;
    std::deque<Job> queue_;
    unsigned idle_ = 0;
    bool stopping_ = false;
    std::vector<std::thread> threads_;
};

class InlineSlot {
public:
    // The slot the calling thread offers, or null.
    static InlineSlot* current();
    // Takes `job` if the slot is empty (false otherwise: the caller then posts it). `release` runs
    // after the last job; `key` names what the jobs share (a lane they hold), so that later jobs
    // of the same key may join them (append) and run after them, in order.
    bool offer(void const* key, Job&& job, Job&& release);
    bool append(void const* key, Job&& job);
    bool empty() const { return jobs_.empty(); }
    // True if a job of `key` would join the jobs taken already.
    bool joins(void const* key) const { return !jobs_.empty() && key && key == key_; }
    // Runs the jobs in order, then their release, then the work they left for after it; the
    // slot is empty afterwards. Not while the slot is offered (within its Scope).
    void runAll();

    // The slot whose jobs the calling thread is running (within runAll), or null.
    static InlineSlot* running();
    // Leaves `job` to run once the jobs and their release have run, on the same thread.
    void after(Job&& job) { after_.push_back(std::move(job)); }
    bool hasAfter() const { return !after_.empty(); }

    // Makes `slot` the calling thread's slot for its lifetime.
    class Scope {
    public:
        explicit Scope(InlineSlot* slot);
        ~Scope();
        Scope(Scope const&) = delete;
        Scope& operator=(Scope const&) = delete;

    private:
        InlineSlot* previous_;
    };

private:
    void const* key_ = nullptr;
    std::vector<Job> jobs_;
    Job release_;
    std::vector<Job> after_;
};

// Joins `t`, or detaches it when the process is terminating.
void finish(std::thread& t);

} // namespace detail
} // namespace msg_svc
} // namespace foundation
