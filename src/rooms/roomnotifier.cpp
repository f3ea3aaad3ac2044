// The bounded pool of room notification threads.

#include "roomnotifier.h"

#include "pushchatlog.h"

#include <algorithm>
#include <exception>
#include <system_error>
#include <utility>

namespace {

// The notifier whose worker the current thread is, if any: finish() must
// not wait for the thread it runs on, and post() from a worker must not
// block on the queue that worker drains.
thread_local const RoomNotifier *currentWorkerOf = nullptr;

std::thread startStdThread(std::function<void()> body)
{
    return std::thread(std::move(body));
}

} // namespace

RoomNotifier::RoomNotifier(std::size_t maxThreads, std::size_t maxQueued, ThreadStarter starter)
    : m_maxThreads(std::max<std::size_t>(1, maxThreads)), m_maxQueued(std::max<std::size_t>(1, maxQueued)),
      m_starter(starter ? std::move(starter) : ThreadStarter(startStdThread))
{
    // Room for every worker up front: storing a started thread never
    // reallocates, so it cannot fail and leave a joinable thread behind.
    m_workers.reserve(m_maxThreads);
}

RoomNotifier::~RoomNotifier()
{
    finish();
}

void RoomNotifier::post(Work work)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    if (currentWorkerOf != this)
        m_spaceFree.wait(lock, [this] { return m_queue.size() < m_maxQueued; });

    if (!m_stopping) {
        m_queue.push_back(std::move(work));
        // After a failed start the running workers carry on alone, rather
        // than every later event trying (and logging) again.
        const bool wantWorker =
            m_queue.size() > m_idle && m_workers.size() < m_maxThreads && (m_workers.empty() || !m_startFailed);
        if (!wantWorker || startWorker() || !m_workers.empty()) {
            m_workReady.notify_one();
            return;
        }
        // No thread at all: the work runs here rather than being lost.
        work = std::move(m_queue.back());
        m_queue.pop_back();
    }
    ++m_running;
    lock.unlock();
    runGuarded(work);
    work = nullptr;
    lock.lock();
    --m_running;
    if (m_queue.empty() && m_running == 0)
        m_allDone.notify_all();
}

bool RoomNotifier::startWorker()
{
    try {
        m_workers.push_back(m_starter([this] { workerLoop(); }));
    } catch (const std::system_error &error) {
        qCWarning(lcEngine).noquote() << "[RoomNotifier]: cannot start a notification thread:" << error.what();
        m_startFailed = true;
        return false;
    }
    ++m_idle; // until it takes its first piece of work
    m_peak = std::max(m_peak, m_workers.size());
    return true;
}

void RoomNotifier::workerLoop()
{
    currentWorkerOf = this;
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        m_workReady.wait(lock, [this] { return !m_queue.empty() || m_stopping; });
        if (m_queue.empty()) {
            --m_idle;
            return; // stopping, and nothing left to run
        }
        Work work = std::move(m_queue.front());
        m_queue.pop_front();
        --m_idle;
        ++m_running;
        m_spaceFree.notify_one();
        lock.unlock();

        runGuarded(work);
        work = nullptr; // the captured copies go before the lock is taken

        lock.lock();
        --m_running;
        ++m_idle;
        if (m_queue.empty() && m_running == 0)
            m_allDone.notify_all();
    }
}

void RoomNotifier::runGuarded(const Work &work)
{
    try {
        work();
    } catch (const std::exception &error) {
        qCWarning(lcEngine).noquote() << "[RoomNotifier]: a room callback threw:" << error.what();
    } catch (...) {
        qCWarning(lcEngine).noquote() << "[RoomNotifier]: a room callback threw";
    }
}

void RoomNotifier::finish()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    if (currentWorkerOf == this)
        return; // a worker cannot wait for itself; a later finish() joins
    m_allDone.wait(lock, [this] { return m_queue.empty() && m_running == 0; });
    if (m_workers.empty())
        return;
    m_stopping = true;
    std::vector<std::thread> stopped;
    stopped.swap(m_workers);
    m_workers.reserve(m_maxThreads);
    m_workReady.notify_all();
    lock.unlock();

    for (std::thread &worker : stopped)
        worker.join();

    lock.lock();
    m_stopping = false;
    m_startFailed = false;
}

std::size_t RoomNotifier::threadCount() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_workers.size();
}

std::size_t RoomNotifier::peakThreadCount() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_peak;
}
