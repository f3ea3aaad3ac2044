#include "mosquittobroker.h"

#include "eventlog.h"

#include <arpa/inet.h>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <netinet/in.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

extern char **environ;

namespace {

using Clock = std::chrono::steady_clock;

// Binds (port 0: any free port) or connects a socket on 127.0.0.1; the port
// bound, the port connected, or 0.
int loopback(int port, bool connectTo)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto *a = reinterpret_cast<sockaddr *>(&address);
    socklen_t length = sizeof address;
    const bool ok = fd >= 0 && (connectTo ? ::connect(fd, a, length) == 0
                                          : ::bind(fd, a, length) == 0 && ::getsockname(fd, a, &length) == 0);
    if (fd >= 0)
        ::close(fd);
    return ok ? ntohs(address.sin_port) : 0;
}

// Runs a program, its output appended to logPath; its pid or -1.
pid_t spawn(std::vector<std::string> argv, const std::string &logPath)
{
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    std::vector<char *> args;
    for (std::string &arg : argv)
        args.push_back(arg.data());
    args.push_back(nullptr);
    pid_t pid = -1;
    const int rc = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    return rc == 0 ? pid : -1;
}

} // namespace

MosquittoBroker::~MosquittoBroker()
{
    stop();
    std::error_code ignored;
    if (!m_dir.empty())
        std::filesystem::remove_all(m_dir, ignored);
}

int MosquittoBroker::freePort()
{
    return loopback(0, false);
}

bool MosquittoBroker::makeTlsFiles(const std::string &dir)
{
    return std::system((PUSHCHAT_MAKE_TLS_FILES " '" + dir + "'").c_str()) == 0;
}

bool MosquittoBroker::start()
{
    if (running())
        return true;
    if (m_dir.empty() && !prepareDirectory())
        return false;
    if (m_port != 0)
        return launch();
    // A free port is only free until someone takes it: try a few.
    for (int attempt = 0; attempt < 5; ++attempt) {
        m_port = loopback(0, false);
        if (m_port != 0 && launch())
            return true;
    }
    m_port = 0;
    return false;
}

void MosquittoBroker::signal(int number) const
{
    if (running())
        ::kill(m_pid, number);
}

void MosquittoBroker::stop(int signal)
{
    if (!running())
        return;
    ::kill(m_pid, signal);
    ::kill(m_pid, SIGCONT); // a frozen broker ends only once it runs again
    const auto limit = Clock::now() + std::chrono::seconds(5);
    pid_t done = 0;
    while ((done = ::waitpid(m_pid, nullptr, WNOHANG)) == 0 && Clock::now() < limit)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    if (done == 0 && ::kill(m_pid, SIGKILL) == 0)
        ::waitpid(m_pid, nullptr, 0);
    m_pid = -1;
}

std::string MosquittoBroker::log() const
{
    return fileText(m_dir + "/mosquitto.log");
}

bool MosquittoBroker::prepareDirectory()
{
    std::string pattern = (std::filesystem::temp_directory_path() / "pushchat-broker-XXXXXX").string();
    if (!::mkdtemp(pattern.data()))
        return false;
    m_dir = pattern;
    return true;
}

bool MosquittoBroker::writeConfig() const
{
    std::ofstream out(m_dir + "/mosquitto.conf");
    out << "listener " << m_port << " 127.0.0.1\nallow_anonymous " << (m_options.allowAnonymous ? "true" : "false")
        << "\nset_tcp_nodelay true\nmax_queued_messages 100000\nlog_dest stderr\nlog_timestamp_format %H:%M:%S\n"
        << "log_type error\nlog_type warning\nlog_type notice\nlog_type information\n";
    // As root, mosquitto becomes the "mosquitto" user unless told to stay;
    // that user could not write into our directory.
    if (::geteuid() == 0)
        out << "user root\n";
    if (m_options.persistence)
        out << "persistence true\npersistence_location " << m_dir << "/\n";
    out << m_options.extraConfig << "\n";
    return static_cast<bool>(out.flush());
}

bool MosquittoBroker::launch()
{
    if (!writeConfig())
        return false;
    // The broker logs " running" once it listens: counting those tells our
    // broker from another process that might hold the port.
    const auto listening = [this] {
        const std::string text = log();
        std::size_t count = 0;
        for (std::size_t at = text.find(" running"); at != std::string::npos; at = text.find(" running", at + 1))
            ++count;
        return count;
    };
    const std::size_t before = listening();
    m_pid = spawn({ "mosquitto", "-c", m_dir + "/mosquitto.conf" }, m_dir + "/mosquitto.log");
    const auto limit = Clock::now() + std::chrono::seconds(5);
    while (m_pid > 0 && Clock::now() < limit) {
        if (::waitpid(m_pid, nullptr, WNOHANG) == m_pid) // exited: port taken or bad configuration
            break;
        if (listening() > before && loopback(m_port, true) == m_port)
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    if (m_pid > 0 && Clock::now() >= limit)
        stop();
    m_pid = -1;
    return false;
}
