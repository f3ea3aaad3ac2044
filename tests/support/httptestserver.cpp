#include "httptestserver.h"

#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// False once the client has gone.
bool sendAll(int fd, const std::string &data)
{
    for (std::size_t done = 0; done < data.size();) {
        const ssize_t sent = ::send(fd, data.data() + done, data.size() - done, MSG_NOSIGNAL);
        if (sent <= 0)
            return false;
        done += std::size_t(sent);
    }
    return true;
}

} // namespace

bool HttpTestServer::start()
{
    stopping_ = false;
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
    stopping_ = true;                 // ends a reply that would go on
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
    const std::string length = std::to_string(body.size()); // before the body moves
    answerRaw("HTTP/1.1 " + std::to_string(status) +
                  " Status\r\nContent-Type: application/json\r\nContent-Length: " + length + "\r\n",
        std::move(body));
}

void HttpTestServer::answerRaw(std::string head, std::string piece, int times, int pauseMs)
{
    std::lock_guard<std::mutex> lock(mutex_);
    head_ = std::move(head) + "Connection: close\r\n\r\n";
    piece_ = std::move(piece);
    times_ = times;
    pauseMs_ = pauseMs;
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
        std::string head, piece;
        int times = 0, pauseMs = 0;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            requests_.push_back(request.substr(0, request.find("\r\n")));
            if (quiet_) {
                held_.push_back(fd);
                continue;
            }
            head = head_, piece = piece_, times = times_, pauseMs = pauseMs_;
        }
        bool sending = sendAll(fd, head);
        for (int i = 0; sending && (times == 0 || i < times) && !stopping_; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(i > 0 ? pauseMs : 0));
            sending = sendAll(fd, piece);
        }
        ::close(fd);
    }
}
