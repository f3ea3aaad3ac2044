#include "httptestserver.h"

#include <arpa/inet.h>
#include <cerrno>
#include <fcntl.h>
#include <map>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

const char* reason(int status)
{
    switch (status) {
    case 200: return "OK";
    case 404: return "Not Found";
    case 500: return "Internal Server Error";
    default: return "Status";
    }
}

void sendAll(int fd, const std::string& data)
{
    std::size_t done = 0;
    while (done < data.size()) {
        const ssize_t n = ::send(fd, data.data() + done, data.size() - done, MSG_NOSIGNAL);
        if (n <= 0) {
            if (n < 0 && errno == EINTR)
                continue;
            return;
        }
        done += std::size_t(n);
    }
}

} // namespace

HttpTestServer::~HttpTestServer()
{
    stop();
}

bool HttpTestServer::start()
{
    listenFd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listenFd_ < 0)
        return false;
    const int on = 1;
    ::setsockopt(listenFd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = 0;
    socklen_t len = sizeof addr;
    if (::bind(listenFd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || ::listen(listenFd_, 64) != 0 ||
        ::getsockname(listenFd_, reinterpret_cast<sockaddr*>(&addr), &len) != 0 ||
        ::pipe2(wakeFds_, O_CLOEXEC) != 0) {
        ::close(listenFd_);
        listenFd_ = -1;
        return false;
    }
    port_ = ntohs(addr.sin_port);
    thread_ = std::thread(&HttpTestServer::run, this);
    return true;
}

void HttpTestServer::stop()
{
    if (!thread_.joinable())
        return;
    const char byte = 'x';
    while (::write(wakeFds_[1], &byte, 1) < 0 && errno == EINTR) {
    }
    thread_.join();
    ::close(listenFd_);
    ::close(wakeFds_[0]);
    ::close(wakeFds_[1]);
    listenFd_ = wakeFds_[0] = wakeFds_[1] = -1;
}

std::string HttpTestServer::baseAddress() const
{
    return "http://127.0.0.1:" + std::to_string(port_);
}

void HttpTestServer::answer(int status, std::string body)
{
    std::lock_guard<std::mutex> lock(mutex_);
    status_ = status;
    body_ = std::move(body);
    quiet_ = false;
}

void HttpTestServer::stayQuiet()
{
    std::lock_guard<std::mutex> lock(mutex_);
    quiet_ = true;
}

std::vector<std::string> HttpTestServer::requestLines() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
}

void HttpTestServer::run()
{
    std::map<int, std::string> clients; // fd -> bytes of a request not yet complete
    for (;;) {
        std::vector<pollfd> fds{ { wakeFds_[0], POLLIN, 0 }, { listenFd_, POLLIN, 0 } };
        for (const auto& c : clients)
            fds.push_back({ c.first, POLLIN, 0 });
        if (::poll(fds.data(), fds.size(), -1) < 0) {
            if (errno == EINTR)
                continue;
            break;
        }
        if (fds[0].revents != 0)
            break;
        if (fds[1].revents & POLLIN) {
            const int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd >= 0)
                clients.emplace(fd, std::string());
        }
        for (std::size_t i = 2; i < fds.size(); ++i) {
            if (fds[i].revents == 0)
                continue;
            if (!serve(fds[i].fd, clients[fds[i].fd])) {
                ::close(fds[i].fd);
                clients.erase(fds[i].fd);
            }
        }
    }
    for (const auto& c : clients)
        ::close(c.first);
}

bool HttpTestServer::serve(int fd, std::string& pending)
{
    char chunk[4096];
    const ssize_t n = ::recv(fd, chunk, sizeof chunk, 0);
    if (n <= 0)
        return n < 0 && errno == EINTR;
    const bool headersDone = pending.find("\r\n\r\n") != std::string::npos;
    pending.append(chunk, std::size_t(n));
    if (headersDone || pending.find("\r\n\r\n") == std::string::npos)
        return true; // more of the headers to come, or a quiet connection's extra bytes

    std::string response;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        requests_.push_back(pending.substr(0, pending.find("\r\n")));
        if (quiet_)
            return true;
        response = "HTTP/1.1 " + std::to_string(status_) + " " + reason(status_) +
                   "\r\nContent-Type: application/json\r\nContent-Length: " + std::to_string(body_.size()) +
                   "\r\nConnection: close\r\n\r\n" + body_;
    }
    sendAll(fd, response);
    return false;
}
