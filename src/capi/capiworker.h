#ifndef PUSHCHAT_CAPIWORKER_H
#define PUSHCHAT_CAPIWORKER_H

// CapiWorker: a C client's own thread for the requests that block (history
// over HTTP), so that pushchat_send never waits for the network. Jobs run
// one at a time in the order posted; the thread starts with the first.
//
// stop() drops the jobs not started, ends the one running (its event loops
// are told to exit, which ends an HTTP request at once, "interrupted") and
// joins the thread; later posts are dropped. post() and stop() from any
// thread; the destructor stops.

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

class QThread;

class CapiWorker {
public:
    CapiWorker() = default;
    ~CapiWorker() { stop(); }
    CapiWorker(const CapiWorker &) = delete;
    CapiWorker &operator=(const CapiWorker &) = delete;

    void post(std::function<void()> job);
    void stop();

private:
    void work();

    std::mutex m_mutex;
    std::condition_variable m_posted;
    std::deque<std::function<void()>> m_jobs;
    std::thread m_thread;
    QThread *m_qthread = nullptr; // Qt's record of the thread, while it runs
    bool m_stopping = false;
};

#endif // PUSHCHAT_CAPIWORKER_H
