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
    m_stopping = false;
    m_listenFd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    if (m_listenFd < 0 || ::bind(m_listenFd, reinterpret_cast<sockaddr *>(&addr), len) != 0 ||
        ::listen(m_listenFd, 64) != 0 || ::getsockname(m_listenFd, reinterpret_cast<sockaddr *>(&addr), &len) != 0) {
        stop();
        return false;
    }
    m_port = ntohs(addr.sin_port);
    m_thread = std::thread(&HttpTestServer::run, this);
    return true;
}

void HttpTestServer::stop()
{
    if (m_listenFd < 0)
        return;
    m_stopping = true;                 // ends a reply that would go on
    ::shutdown(m_listenFd, SHUT_RDWR); // ends the accept() the thread waits in
    if (m_thread.joinable())
        m_thread.join();
    for (int fd : m_held)
        ::close(fd);
    m_held.clear();
    ::close(m_listenFd);
    m_listenFd = -1;
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
    std::lock_guard<std::mutex> lock(m_mutex);
    m_head = std::move(head) + "Connection: close\r\n\r\n";
    m_piece = std::move(piece);
    m_times = times;
    m_pauseMs = pauseMs;
    m_quiet = false;
}

void HttpTestServer::stayQuiet()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_quiet = true;
}

std::vector<std::string> HttpTestServer::requestLines() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_requests;
}

// One request at a time: read up to the end of the headers, record the
// request line, answer and close (or, when quiet, hold the connection).
void HttpTestServer::run()
{
    for (int fd; (fd = ::accept4(m_listenFd, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
        std::string request;
        char chunk[4096];
        for (ssize_t n = 1; n > 0 && request.find("\r\n\r\n") == std::string::npos;) {
            n = ::recv(fd, chunk, sizeof chunk, 0);
            request.append(chunk, std::size_t(std::max<ssize_t>(n, 0)));
        }
        std::string head, piece;
        int times = 0, pauseMs = 0;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_requests.push_back(request.substr(0, request.find("\r\n")));
            if (m_quiet) {
                m_held.push_back(fd);
                continue;
            }
            head = m_head, piece = m_piece, times = m_times, pauseMs = m_pauseMs;
        }
        bool sending = sendAll(fd, head);
        for (int i = 0; sending && (times == 0 || i < times) && !m_stopping; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(i > 0 ? pauseMs : 0));
            sending = sendAll(fd, piece);
        }
        ::close(fd);
    }
}
