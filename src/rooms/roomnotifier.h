#ifndef PUSHCHAT_ROOMNOTIFIER_H
#define PUSHCHAT_ROOMNOTIFIER_H

// RoomNotifier: runs the room notifications (the application's room
// callbacks) away from the push client's delivery thread, on a bounded set
// of worker threads owned by the engine (internal header).
//
// Bound: at most `maxThreads` workers, started on demand (an engine that
// never sees a room event starts none) and kept until finish(). Posted work
// waits in a FIFO queue of at most `maxQueued` entries; when it is full,
// post() blocks its caller (the delivery thread) until a worker takes one,
// so a burst of events costs neither unbounded threads nor unbounded
// memory, and no event is dropped. Work starts in posting order, but with
// several workers it may run concurrently and finish in any order.
//
// No worker: when a thread cannot be started and no worker is running, the
// work runs inline on the posting thread instead of being lost; with a
// worker running it just waits in the queue (and no further start is tried
// until finish()). An exception escaping a piece
// of work is caught and logged; it never ends a worker or the process.
//
// Shutdown: finish() waits until every piece of work posted before it has
// run, then joins every worker; the destructor finishes. The engine
// finishes at logout and at destruction, after the push client is gone, so
// no worker outlives the engine's fields. finish() called from inside a
// piece of work (a callback logging out) returns at once: a worker cannot
// wait for itself; the workers are joined by a later finish().
//
// Threads: post() and finish() may be called from any thread; finish() is
// not to be called from two threads at once.

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

class RoomNotifier {
public:
    using Work = std::function<void()>;
    /// Starts a thread running its argument; may throw std::system_error.
    using ThreadStarter = std::function<std::thread(std::function<void()>)>;

    /// An empty starter uses std::thread.
    RoomNotifier(std::size_t maxThreads, std::size_t maxQueued, ThreadStarter starter = {});
    ~RoomNotifier();
    RoomNotifier(const RoomNotifier &) = delete;
    RoomNotifier &operator=(const RoomNotifier &) = delete;

    /// Queues `work` for a worker; see the header comment for the bound,
    /// the blocking and the inline fallback.
    void post(Work work);
    /// Runs everything posted so far, then joins the workers.
    void finish();

    /// Workers running now, and the most that ever ran at once.
    std::size_t threadCount() const;
    std::size_t peakThreadCount() const;

private:
    void workerLoop();
    bool startWorker(); // m_mutex held
    static void runGuarded(const Work &work);

    const std::size_t m_maxThreads;
    const std::size_t m_maxQueued;
    const ThreadStarter m_starter;

    mutable std::mutex m_mutex;
    std::condition_variable m_workReady; // work queued, or stopping
    std::condition_variable m_spaceFree; // the queue shrank
    std::condition_variable m_allDone;   // queue empty and no work running
    std::deque<Work> m_queue;
    std::vector<std::thread> m_workers;
    std::size_t m_idle = 0;
    std::size_t m_running = 0;
    std::size_t m_peak = 0;
    bool m_stopping = false;
    bool m_startFailed = false; // a start failed since the last finish()
};

#endif // PUSHCHAT_ROOMNOTIFIER_H
