// A C client's thread for blocking requests; see capiworker.h.

#include "capiworker.h"

#include <QThread>

void CapiWorker::post(std::function<void()> job)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_stopping)
        return;
    m_jobs.push_back(std::move(job));
    if (!m_thread.joinable())
        m_thread = std::thread([this] { work(); });
    m_posted.notify_one();
}

void CapiWorker::stop()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_stopping = true;
    m_jobs.clear();
    if (m_qthread != nullptr)
        m_qthread->exit(); // a waiting request ends, "interrupted"
    m_posted.notify_one();
    lock.unlock();
    if (m_thread.joinable())
        m_thread.join();
}

void CapiWorker::work()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_qthread = QThread::currentThread();
    for (;;) {
        m_posted.wait(lock, [this] { return m_stopping || !m_jobs.empty(); });
        if (m_stopping)
            break;
        std::function<void()> job = std::move(m_jobs.front());
        m_jobs.pop_front();
        lock.unlock();
        job();
        lock.lock();
    }
    m_qthread = nullptr;
}
