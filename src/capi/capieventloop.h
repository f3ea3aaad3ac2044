#ifndef PUSHCHAT_CAPIEVENTLOOP_H
#define PUSHCHAT_CAPIEVENTLOOP_H

// CapiEventLoop: a C client's hold on a Qt application object. Qt allows
// one per process and needs it for the history over HTTP (its sockets wait
// in event loops) and the settings store; a C host has none.
//
// While any CapiEventLoop lives and the process had no QCoreApplication of
// its own when the first one was made, the library runs one on a thread of
// its own, started then (Qt's main thread is then that thread) and ended
// with the last hold: the loop quits, the application object is destroyed
// on its thread, and the thread is joined. When the process has its own
// application object (a Qt application), that one is used and nothing is
// started; it must outlive the clients.
//
// This is the library's one process-wide state, as the application object
// it keeps is process-wide by Qt's design: a count of holds, guarded by a
// mutex, and the thread. Holds may be made and dropped on any thread.

class CapiEventLoop {
public:
    CapiEventLoop();
    ~CapiEventLoop();
    CapiEventLoop(const CapiEventLoop &) = delete;
    CapiEventLoop &operator=(const CapiEventLoop &) = delete;

    /// The library runs its own application object now (for tests).
    static bool running();
};

#endif // PUSHCHAT_CAPIEVENTLOOP_H
