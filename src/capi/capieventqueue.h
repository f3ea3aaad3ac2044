#ifndef PUSHCHAT_CAPIEVENTQUEUE_H
#define PUSHCHAT_CAPIEVENTQUEUE_H

// CapiEventQueue: the events of one C client, waiting for the application,
// oldest first, with a descriptor that is readable while one waits.
//
// Bounded: an event pushed with Room::Wait (a callback of the library's
// threads) waits while the queue holds `capacity` events, which holds back
// the library's delivery thread and leaves further traffic with the broker;
// Room::Never (a request's result, anything a logout delivers) is appended
// at once. overflow(true) makes every push Room::Never until
// overflow(false), for the operations that wait for the library's threads
// themselves (login, logout, close): a callback waiting for room while they
// wait for it would never end.
//
// Threads: push from any thread; pop from one thread at a time (the text
// it returns is replaced by the next pop). close() wakes every waiting push
// (its event is dropped) and pop (it returns null), and waits until the
// pops it woke have left, so that the queue may be destroyed right after.
//
// Ownership: the eventfd is the queue's, closed by its destructor.

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <string>

class CapiEventQueue {
public:
    enum class Room {
        Wait,
        Never
    };

    explicit CapiEventQueue(std::size_t capacity);
    ~CapiEventQueue();
    CapiEventQueue(const CapiEventQueue &) = delete;
    CapiEventQueue &operator=(const CapiEventQueue &) = delete;

    /// Readable while an event waits, and once closed; -1 if the system
    /// gave no descriptor.
    int fd() const { return m_fd; }
    /// Appends an event, first waiting for room if `room` says so.
    void push(std::string event, Room room);
    /// The queue holds `capacity` events or more.
    bool full() const;
    /// The next event, waiting at most `timeoutMs` (negative: no limit);
    /// null when none came in time or the queue is closed.
    const char *pop(int timeoutMs);
    /// See above.
    void overflow(bool allowed);
    /// Drops every event, wakes every waiter and waits for the pops to
    /// leave; later pushes are dropped and pops return null at once.
    void close();

private:
    void signal(bool readable); // the descriptor's state, under m_mutex

    const std::size_t m_capacity;
    const int m_fd;
    mutable std::mutex m_mutex;
    std::condition_variable m_changed; // an event came, room was made, or the queue closed
    std::condition_variable m_left;    // a pop left after the close
    std::deque<std::string> m_events;
    std::string m_current; // the text the last pop returned
    int m_overflow = 0;    // overflow(true) calls not yet undone
    int m_popping = 0;     // pops inside
    bool m_readable = false;
    bool m_closed = false;
};

#endif // PUSHCHAT_CAPIEVENTQUEUE_H
