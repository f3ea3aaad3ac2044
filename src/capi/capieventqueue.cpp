// The C client's bounded event queue and its eventfd; see capieventqueue.h.

#include "capieventqueue.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>

CapiEventQueue::CapiEventQueue(std::size_t capacity)
    : m_capacity(capacity), m_fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{ }

CapiEventQueue::~CapiEventQueue()
{
    if (m_fd >= 0)
        ::close(m_fd);
}

void CapiEventQueue::signal(bool readable)
{
    if (readable == m_readable || m_fd < 0)
        return;
    m_readable = readable;
    std::uint64_t value = 1;
    // Non-blocking: the counter is 0 or 1 here, so neither call can fail
    // for want of room or of a value.
    const ssize_t done = readable ? ::write(m_fd, &value, sizeof value) : ::read(m_fd, &value, sizeof value);
    static_cast<void>(done);
}

void CapiEventQueue::push(std::string event, Room room)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    if (room == Room::Wait)
        m_changed.wait(lock, [this] { return m_closed || m_overflow > 0 || m_events.size() < m_capacity; });
    if (m_closed)
        return;
    m_events.push_back(std::move(event));
    signal(true);
    m_changed.notify_all();
}

bool CapiEventQueue::full() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_events.size() >= m_capacity;
}

const char *CapiEventQueue::pop(int timeoutMs)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    if (m_closed)
        return nullptr;
    ++m_popping;
    const auto ready = [this] { return m_closed || !m_events.empty(); };
    if (timeoutMs < 0)
        m_changed.wait(lock, ready);
    else
        m_changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), ready);
    --m_popping;
    if (m_closed) {
        m_left.notify_all();
        return nullptr;
    }
    if (m_events.empty())
        return nullptr;
    m_current = std::move(m_events.front());
    m_events.pop_front();
    signal(!m_events.empty());
    m_changed.notify_all(); // room for a waiting push
    return m_current.c_str();
}

void CapiEventQueue::overflow(bool allowed)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_overflow += allowed ? 1 : -1;
    m_changed.notify_all();
}

void CapiEventQueue::close()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_closed = true;
    m_events.clear();
    signal(true); // pollers wake and find the client closed
    m_changed.notify_all();
    m_left.wait(lock, [this] { return m_popping == 0; });
}
