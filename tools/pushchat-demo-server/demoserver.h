#ifndef PUSHCHAT_DEMO_DEMOSERVER_H
#define PUSHCHAT_DEMO_DEMOSERVER_H

// The network side of the stand-in server: a PushClient that subscribes to
// the server's group-command topics ("s/g/c/<server JID>/#"), reads each
// command's envelope with MQTTMessage, lets a RoomDirectory decide the
// answer and publishes it as group-information events
// ("s/g/i/<user JID>/r/<letter>"), enciphered, from the server's JID.
//
// It reports on `log`, one JSON line each: {"event":"ready","server":JID}
// once the command topics are subscribed, {"event":"received","topic",
// "from","body"} for every command (body deciphered) and {"event":"sent",
// "topic","body"} for every answer. All of it happens on the push client's
// network thread; destroying the server stops it.

#include "jsonlinewriter.h"
#include "pushclient.h"
#include "roomdirectory.h"

#include <memory>
#include <string>

class DemoServer : public PushEventReciever {
public:
    /// `log` is borrowed.
    DemoServer(std::string serverJid, JsonLineWriter *log);
    ~DemoServer() override;
    DemoServer(const DemoServer &) = delete;
    DemoServer &operator=(const DemoServer &) = delete;

    /// Starts connecting; returns at once.
    void start(const std::string &host, int port);

    void messgeRecievedMore(int mid, char *topic, void *payload, int length, int qos, bool retain) override;
    void connectStatus(bool connected) override;

private:
    void handleCommand(const char *topic, const char *payload);

    const std::string m_serverJid;
    const std::string m_readyTopic;
    JsonLineWriter *m_log;
    RoomDirectory m_rooms;
    std::unique_ptr<PushClient> m_client; // declared last: destroyed first
};

#endif // PUSHCHAT_DEMO_DEMOSERVER_H
