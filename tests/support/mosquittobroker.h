#ifndef MOSQUITTOBROKER_H
#define MOSQUITTOBROKER_H

#include <string>
#include <sys/types.h>
#include <utility>

// A real mosquitto broker for tests, listening on 127.0.0.1 only.
//
// start() writes a configuration into a fresh temporary directory (TCP_NODELAY
// on, max_queued_messages 100000, the log in that directory), runs the
// mosquitto binary, and returns once the port accepts connections. The first
// start picks a free port; stop() ends the broker (SIGTERM, then waitpid) and
// a later start() or restart() reuses the same port, so clients can
// reconnect. The destructor stops the broker and removes the directory.
//
//   MosquittoBroker broker;
//   ASSERT_TRUE(broker.start()) << broker.log();
//   client.start_connect(broker.host(), broker.port(), 60);
class MosquittoBroker {
public:
    struct Options {
        bool allowAnonymous = true;
        // Keep sessions, subscriptions and queued messages across stop() and
        // start() (saved on SIGTERM, read back at start).
        bool persistence = false;
        // Appended to the configuration as is.
        std::string extraConfig;
    };

    MosquittoBroker() : MosquittoBroker(Options()) { }
    explicit MosquittoBroker(Options options) : m_options(std::move(options)) { }
    ~MosquittoBroker();
    MosquittoBroker(const MosquittoBroker &) = delete;
    MosquittoBroker &operator=(const MosquittoBroker &) = delete;

    bool start();
    // Ends the broker with `signal` (SIGKILL: nothing saved) and waits.
    void stop(int signal = 15);
    // Sends a signal (SIGSTOP, SIGCONT, SIGUSR1: save now) to the broker.
    void signal(int number) const;
    bool restart() { return stop(), start(); }
    bool running() const { return m_pid > 0; }
    pid_t pid() const { return m_pid; }

    const char *host() const { return "127.0.0.1"; }
    int port() const { return m_port; }
    // What the broker logged so far (connections, refusals, errors).
    std::string log() const;

    // A free TCP port on 127.0.0.1, for further listeners.
    static int freePort();
    // Makes throw-away certificates and a password file in `dir` (see the
    // script make-tls-files beside this file).
    static bool makeTlsFiles(const std::string &dir);

private:
    bool prepareDirectory();
    bool writeConfig() const;
    bool launch();

    Options m_options;
    std::string m_dir;
    int m_port = 0;
    pid_t m_pid = -1;
};

#endif // MOSQUITTOBROKER_H
