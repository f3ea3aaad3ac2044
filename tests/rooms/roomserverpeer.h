#ifndef ROOMSERVERPEER_H
#define ROOMSERVERPEER_H

// Plays the IM server for room tests: a raw PushClient on the broker that
// receives every group command addressed to the server (s/g/c/<server>/#),
// reads its envelope, and sends room events and chat messages the way the
// server does.

#include "groupsubcmd.h"
#include "pushclient.h"

#include <QString>

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

class RoomServerPeer : public PushEventReciever {
public:
    /// One command as the server received it.
    struct Request {
        std::string topic;
        std::string from;
        std::string to;
        std::string body;
        int msgType = 0;
        int secLevel = 0;
        int bodyType = 0;
        bool encrypted = false;
    };

    explicit RoomServerPeer(std::string serverJid);
    ~RoomServerPeer() override;

    /// Connects and returns once the command topics are subscribed.
    bool connect(const char *host, int port);

    std::vector<Request> requests() const;
    /// Waits until `count` commands have arrived in all.
    bool waitForRequests(std::size_t count);

    /// A room event for `userJid` with `body`, from the server.
    void sendEvent(const std::string &userJid, GroupSubCmd cmd, const QString &body);
    /// A chat message from `from` on the message topic of `to` (a user or a
    /// room).
    void sendMessage(const QString &from, const std::string &to, const QString &text);

    void messgeRecievedMore(int mid, char *topic, void *payload, int length, int qos, bool retain) override;
    void connectStatus(bool connected) override;

private:
    bool waitUntil(const std::function<bool()> &condition);

    const std::string serverJid_;
    std::unique_ptr<PushClient> client_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    bool ready_ = false;
    std::vector<Request> requests_;
};

#endif // ROOMSERVERPEER_H
