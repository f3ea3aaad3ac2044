#include "httptestserver.h"

#include <algorithm>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

bool HttpTestServer::start()
{
    listenFd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    if (listenFd_ < 0 || ::bind(listenFd_, reinterpret_cast<sockaddr *>(&addr), len) != 0 ||
        ::listen(listenFd_, 64) != 0 || ::getsockname(listenFd_, reinterpret_cast<sockaddr *>(&addr), &len) != 0) {
        stop();
        return false;
    }
    port_ = ntohs(addr.sin_port);
    thread_ = std::thread(&HttpTestServer::run, this);
    return true;
}

void HttpTestServer::stop()
{
    if (listenFd_ < 0)
        return;
    ::shutdown(listenFd_, SHUT_RDWR); // ends the accept() the thread waits in
    if (thread_.joinable())
        thread_.join();
    for (int fd : held_)
        ::close(fd);
    held_.clear();
    ::close(listenFd_);
    listenFd_ = -1;
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

// One request at a time: read up to the end of the headers, record the
// request line, answer and close (or, when quiet, hold the connection).
void HttpTestServer::run()
{
    for (int fd; (fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
        std::string request;
        char chunk[4096];
        for (ssize_t n = 1; n > 0 && request.find("\r\n\r\n") == std::string::npos;) {
            n = ::recv(fd, chunk, sizeof chunk, 0);
            request.append(chunk, std::size_t(std::max<ssize_t>(n, 0)));
        }
        std::string response;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            requests_.push_back(request.substr(0, request.find("\r\n")));
            if (quiet_) {
                held_.push_back(fd);
                continue;
            }
            response = "HTTP/1.1 " + std::to_string(status_) + " Status\r\nContent-Type: application/json\r\n" +
                       "Content-Length: " + std::to_string(body_.size()) + "\r\nConnection: close\r\n\r\n" + body_;
        }
        for (std::size_t done = 0; done < response.size();) {
            const ssize_t sent = ::send(fd, response.data() + done, response.size() - done, MSG_NOSIGNAL);
            if (sent <= 0)
                break;
            done += std::size_t(sent);
        }
        ::close(fd);
    }
}
