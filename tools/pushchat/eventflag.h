#ifndef PUSHCHAT_CLI_EVENTFLAG_H
#define PUSHCHAT_CLI_EVENTFLAG_H

// A flag that any thread may raise and that a waiting thread can poll(2)
// for, beside other descriptors (an eventfd underneath).

class EventFlag {
public:
    EventFlag();
    ~EventFlag();
    EventFlag(const EventFlag &) = delete;
    EventFlag &operator=(const EventFlag &) = delete;

    /// False if the descriptor could not be created.
    bool valid() const { return m_fd >= 0; }
    /// Readable once raised. Stays readable until clear().
    int fd() const { return m_fd; }
    /// Raises the flag; async-signal-safe and callable from any thread.
    void raise();
    /// Lowers the flag; true if it was raised.
    bool clear();

private:
    int m_fd;
};

#endif // PUSHCHAT_CLI_EVENTFLAG_H
