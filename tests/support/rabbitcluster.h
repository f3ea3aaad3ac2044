#ifndef RABBITCLUSTER_H
#define RABBITCLUSTER_H

// The project's three-node RabbitMQ cluster, started by `scripts/cluster
// start DIR` (ctest does so around the tests labelled "cluster", and stops
// it after them): each node's MQTT port and process, read from DIR
// ($PUSHCHAT_CLUSTER_DIR). Users alice, bob, ... and server; each password
// is the user's name.

#include "eventlog.h"

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <sys/types.h>
#include <thread>

class RabbitCluster {
public:
    static constexpr int kNodes = 3;

    explicit RabbitCluster(const char *dir = std::getenv("PUSHCHAT_CLUSTER_DIR")) : m_dir(dir ? dir : "")
    {
        std::istringstream env(fileText(m_dir + "/cluster.env"));
        for (std::string word; env >> word;)
            for (int n = 1; n <= kNodes; ++n)
                std::sscanf(word.c_str(), ("mqtt_port_" + std::to_string(n) + "=%d").c_str(), &m_ports[n - 1]);
    }
    /// Every node's port is known.
    bool known() const { return m_ports[0] && m_ports[1] && m_ports[2]; }
    const char *host() const { return "127.0.0.1"; }
    int port(int node) const { return m_ports[node - 1]; }
    const std::string &dir() const { return m_dir; }
    /// Ends node `node`'s VM with SIGKILL and waits (at most 5 s) until it is gone.
    void kill(int node) const
    {
        const pid_t pid = std::atoi(fileText(m_dir + "/node" + std::to_string(node) + "/pid").c_str());
        for (int i = 0; pid > 0 && i < 500 && ::kill(pid, i == 0 ? SIGKILL : 0) == 0; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }

private:
    std::string m_dir;
    int m_ports[kNodes] = {};
};

#endif // RABBITCLUSTER_H
