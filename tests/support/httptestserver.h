#ifndef HTTPTESTSERVER_H
#define HTTPTESTSERVER_H

#include <mutex>
#include <string>
#include <thread>
#include <vector>

// A real HTTP server for tests, on a free port of 127.0.0.1, served by one
// thread of its own, one request at a time.
//
// Every request's line ("GET /path?query HTTP/1.1") is recorded as it
// arrived. Each request is then answered with the configured status and body
// (Content-Length, connection closed), or, after stayQuiet(), never
// answered: the connection is held open until stop(). The calls are
// thread-safe; the destructor stops the server.
//
//   HttpTestServer server;
//   ASSERT_TRUE(server.start());
//   server.answer(200, "[]");
//   task.httpResult(QString::fromStdString(server.baseAddress() + "/x"));
//   server.requestLines(); // {"GET /x HTTP/1.1"}
class HttpTestServer
{
public:
    HttpTestServer() = default;
    ~HttpTestServer() { stop(); }
    HttpTestServer(const HttpTestServer&) = delete;
    HttpTestServer& operator=(const HttpTestServer&) = delete;

    bool start();
    void stop();

    int port() const { return port_; }
    /// "http://127.0.0.1:<port>"
    std::string baseAddress() const { return "http://127.0.0.1:" + std::to_string(port_); }

    /// Answers later requests with this status and body (default 200, "").
    void answer(int status, std::string body);
    /// Accepts and reads later requests but never answers them.
    void stayQuiet();

    std::vector<std::string> requestLines() const;

private:
    void run();

    int listenFd_ = -1;
    std::vector<int> held_; // quiet connections, closed by stop()
    int port_ = 0;
    std::thread thread_;

    mutable std::mutex mutex_;
    int status_ = 200;
    std::string body_;
    bool quiet_ = false;
    std::vector<std::string> requests_;
};

#endif // HTTPTESTSERVER_H
