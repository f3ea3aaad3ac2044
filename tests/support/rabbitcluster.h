#ifndef RABBITCLUSTER_H
#define RABBITCLUSTER_H

#include <string>
#include <sys/types.h>

// The project's three-node RabbitMQ cluster (scripts/cluster) for tests and
// benchmarks: start() runs `scripts/cluster start` in a fresh temporary
// directory and reads each node's MQTT port; the destructor runs `stop` and
// removes the directory. Users alice, bob, carol, ... and server, each with
// their name as password (see the script).
class RabbitCluster
{
public:
    static constexpr int kNodes = 3;

    RabbitCluster() = default;
    ~RabbitCluster();
    RabbitCluster(const RabbitCluster&) = delete;
    RabbitCluster& operator=(const RabbitCluster&) = delete;

    // Whether the package is installed: without it start() fails.
    static bool available();
    bool start();
    const char* host() const { return "127.0.0.1"; }
    // Node 1 to kNodes.
    int port(int node) const { return ports_[node - 1]; }
    // The node's Erlang VM, from its PID file; -1 when it does not run.
    pid_t pid(int node) const;
    // Ends node `node` with SIGKILL and waits until it is gone.
    void kill(int node);
    const std::string& dir() const { return dir_; }
    // What the script printed, for a failure's message.
    std::string log() const;

private:
    std::string dir_;
    int ports_[kNodes] = {};
};

#endif // RABBITCLUSTER_H
