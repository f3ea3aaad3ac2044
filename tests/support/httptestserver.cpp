#include "httptestserver.h"

#include <arpa/inet.h>
#include <cerrno>
#include <fcntl.h>
#include <map>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

HttpTestServer::~HttpTestServer()
{
    stop();
}

bool HttpTestServer::start()
{
    listenFd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    if (listenFd_ < 0 || ::bind(listenFd_, reinterpret_cast<sockaddr *>(&addr), len) != 0 ||
        ::listen(listenFd_, 64) != 0 || ::getsockname(listenFd_, reinterpret_cast<sockaddr *>(&addr), &len) != 0 ||
        ::pipe2(wakeFds_, O_CLOEXEC) != 0) {
        if (listenFd_ >= 0)
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
    while (::write(wakeFds_[1], "x", 1) < 0 && errno == EINTR) {
    }
    thread_.join();
    for (int fd : { listenFd_, wakeFds_[0], wakeFds_[1] })
        ::close(fd);
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
        for (const auto &c : clients)
            fds.push_back({ c.first, POLLIN, 0 });
        if (::poll(fds.data(), fds.size(), -1) < 0 && errno != EINTR)
            break;
        if (fds[0].revents != 0)
            break;
        if (fds[1].revents & POLLIN) {
            const int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd >= 0)
                clients.emplace(fd, std::string());
        }
        for (std::size_t i = 2; i < fds.size(); ++i) {
            if (fds[i].revents != 0 && !serve(fds[i].fd, clients[fds[i].fd])) {
                ::close(fds[i].fd);
                clients.erase(fds[i].fd);
            }
        }
    }
    for (const auto &c : clients)
        ::close(c.first);
}

bool HttpTestServer::serve(int fd, std::string &pending)
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
        response = "HTTP/1.1 " + std::to_string(status_) + " Status\r\nContent-Type: application/json\r\n" +
                   "Content-Length: " + std::to_string(body_.size()) + "\r\nConnection: close\r\n\r\n" + body_;
    }
    for (std::size_t done = 0; done < response.size();) {
        const ssize_t sent = ::send(fd, response.data() + done, response.size() - done, MSG_NOSIGNAL);
        if (sent <= 0 && errno != EINTR)
            break;
        done += sent > 0 ? std::size_t(sent) : 0;
    }
    return false;
}
