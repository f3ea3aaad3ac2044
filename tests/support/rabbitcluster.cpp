#include "rabbitcluster.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace {

std::string readFile(const std::string &path)
{
    std::ifstream in(path);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

int run(const std::string &command, const std::string &dir)
{
    return std::system(("'" PUSHCHAT_CLUSTER_SCRIPT "' " + command + " '" + dir + "' >>'" + dir + ".out' 2>&1").c_str());
}

} // namespace

bool RabbitCluster::available()
{
    return std::filesystem::exists("/usr/lib/rabbitmq/bin/rabbitmq-server");
}

bool RabbitCluster::start()
{
    char pattern[] = "/tmp/pushchat-cluster.XXXXXX";
    if (!mkdtemp(pattern))
        return false;
    dir_ = pattern;
    if (run("start", dir_) != 0)
        return false;
    std::istringstream out(readFile(dir_ + ".out"));
    int found = 0;
    for (std::string line; std::getline(out, line);) {
        int node = 0, port = 0;
        if (std::sscanf(line.c_str(), "node %d mqtt 127.0.0.1:%d", &node, &port) == 2 && node >= 1 && node <= kNodes)
            ports_[node - 1] = port, ++found;
    }
    return found == kNodes;
}

RabbitCluster::~RabbitCluster()
{
    if (dir_.empty())
        return;
    run("stop", dir_);
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
    std::filesystem::remove(dir_ + ".out", ignored);
}

pid_t RabbitCluster::pid(int node) const
{
    const pid_t pid = std::atoi(readFile(dir_ + "/node" + std::to_string(node) + "/pid").c_str());
    return pid > 0 && ::kill(pid, 0) == 0 ? pid : -1;
}

void RabbitCluster::kill(int node)
{
    const pid_t target = pid(node);
    if (target <= 0)
        return;
    ::kill(target, SIGKILL);
    for (int i = 0; i < 500 && ::kill(target, 0) == 0; ++i) // not our child: polled, not waited for
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
}

std::string RabbitCluster::log() const
{
    return readFile(dir_ + ".out");
}
