// The bounded pool of room notification threads.

#include "roomnotifier.h"

#include "enginelog.h"

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
    : maxThreads_(std::max<std::size_t>(1, maxThreads)), maxQueued_(std::max<std::size_t>(1, maxQueued)),
      starter_(starter ? std::move(starter) : ThreadStarter(startStdThread))
{
    // Room for every worker up front: storing a started thread never
    // reallocates, so it cannot fail and leave a joinable thread behind.
    workers_.reserve(maxThreads_);
}

RoomNotifier::~RoomNotifier()
{
    finish();
}

void RoomNotifier::post(Work work)
{
    std::unique_lock<std::mutex> lock(mutex_);
    if (currentWorkerOf != this)
        spaceFree_.wait(lock, [this] { return queue_.size() < maxQueued_; });

    if (!stopping_) {
        queue_.push_back(std::move(work));
        // After a failed start the running workers carry on alone, rather
        // than every later event trying (and logging) again.
        const bool wantWorker =
            queue_.size() > idle_ && workers_.size() < maxThreads_ && (workers_.empty() || !startFailed_);
        if (!wantWorker || startWorker() || !workers_.empty()) {
            workReady_.notify_one();
            return;
        }
        // No thread at all: the work runs here rather than being lost.
        work = std::move(queue_.back());
        queue_.pop_back();
    }
    ++running_;
    lock.unlock();
    runGuarded(work);
    work = nullptr;
    lock.lock();
    --running_;
    if (queue_.empty() && running_ == 0)
        allDone_.notify_all();
}

bool RoomNotifier::startWorker()
{
    try {
        workers_.push_back(starter_([this] { workerLoop(); }));
    } catch (const std::system_error &error) {
        qCWarning(lcEngine).noquote() << "[RoomNotifier]: cannot start a notification thread:" << error.what();
        startFailed_ = true;
        return false;
    }
    ++idle_; // until it takes its first piece of work
    peak_ = std::max(peak_, workers_.size());
    return true;
}

void RoomNotifier::workerLoop()
{
    currentWorkerOf = this;
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        workReady_.wait(lock, [this] { return !queue_.empty() || stopping_; });
        if (queue_.empty()) {
            --idle_;
            return; // stopping, and nothing left to run
        }
        Work work = std::move(queue_.front());
        queue_.pop_front();
        --idle_;
        ++running_;
        spaceFree_.notify_one();
        lock.unlock();

        runGuarded(work);
        work = nullptr; // the captured copies go before the lock is taken

        lock.lock();
        --running_;
        ++idle_;
        if (queue_.empty() && running_ == 0)
            allDone_.notify_all();
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
    std::unique_lock<std::mutex> lock(mutex_);
    if (currentWorkerOf == this)
        return; // a worker cannot wait for itself; a later finish() joins
    allDone_.wait(lock, [this] { return queue_.empty() && running_ == 0; });
    if (workers_.empty())
        return;
    stopping_ = true;
    std::vector<std::thread> stopped;
    stopped.swap(workers_);
    workers_.reserve(maxThreads_);
    workReady_.notify_all();
    lock.unlock();

    for (std::thread &worker : stopped)
        worker.join();

    lock.lock();
    stopping_ = false;
    startFailed_ = false;
}

std::size_t RoomNotifier::threadCount() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return workers_.size();
}

std::size_t RoomNotifier::peakThreadCount() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return peak_;
}
