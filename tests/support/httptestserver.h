#ifndef HTTPTESTSERVER_H
#define HTTPTESTSERVER_H

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// A real HTTP server for tests, on a free port of 127.0.0.1, served by one
// thread of its own, one request at a time.
//
// Every request's line ("GET /path?query HTTP/1.1") is recorded as it
// arrived. Each request is then answered with the configured status and body
// (Content-Length, connection closed), or with a raw reply that may trickle
// or never end (answerRaw), or, after stayQuiet(), never answered: the
// connection is held open until stop(). The calls are thread-safe; the
// destructor stops the server.
//
//   HttpTestServer server;
//   ASSERT_TRUE(server.start());
//   server.answer(200, "[]");
//   task.httpResult(QString::fromStdString(server.baseAddress() + "/x"));
//   server.requestLines(); // {"GET /x HTTP/1.1"}
class HttpTestServer {
public:
    HttpTestServer() = default;
    ~HttpTestServer() { stop(); }
    HttpTestServer(const HttpTestServer &) = delete;
    HttpTestServer &operator=(const HttpTestServer &) = delete;

    bool start();
    void stop();

    int port() const { return m_port; }
    /// "http://127.0.0.1:<port>"
    std::string baseAddress() const { return "http://127.0.0.1:" + std::to_string(m_port); }

    /// Answers later requests with this status and body (default 200, "").
    void answer(int status, std::string body);
    /// Answers later requests with `head` (the status line and header fields,
    /// each ending in "\r\n"; "Connection: close" is added) and then `piece`
    /// `times` times (0: until the client hangs up or stop()), `pauseMs`
    /// apart; the connection is closed after.
    void answerRaw(std::string head, std::string piece, int times = 1, int pauseMs = 0);
    /// Accepts and reads later requests but never answers them.
    void stayQuiet();

    std::vector<std::string> requestLines() const;

private:
    void run();

    int m_listenFd = -1;
    std::vector<int> m_held; // quiet connections, closed by stop()
    int m_port = 0;
    std::thread m_thread;

    std::atomic<bool> m_stopping{ false };

    mutable std::mutex m_mutex;
    std::string m_head = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
    std::string m_piece;
    int m_times = 1, m_pauseMs = 0;
    bool m_quiet = false;
    std::vector<std::string> m_requests;
};

#endif // HTTPTESTSERVER_H
