#include "demoserver.h"

#include "groupevent.h"
#include "mqttmessage.h"

#include <vector>

namespace {

constexpr int kQos = 2;
constexpr int kKeepaliveSeconds = 60;

const GroupSubCmd kCommands[] = {GroupSub_Create,         GroupSub_Release, GroupSub_Invite,     GroupSub_Kick,
                                  GroupSub_SetGroupName,   GroupSub_Exit,    GroupSub_Query,      GroupSub_Join,
                                  GroupSub_SetRoomCreater, GroupSub_Refresh, GroupSub_Modify_Type};

// PushClient takes some texts as char*.
std::vector<char> mutableText(const std::string &text)
{
    return std::vector<char>(text.c_str(), text.c_str() + text.size() + 1);
}

} // namespace

DemoServer::DemoServer(std::string serverJid, JsonLineWriter *log)
    : m_serverJid(std::move(serverJid)), m_readyTopic("pushchat-demo-server/ready/" + m_serverJid), m_log(log)
{
}

DemoServer::~DemoServer()
{
    // The client's callbacks read m_client until its destructor returns, so
    // destroy the client first and clear the pointer afterwards.
    delete m_client.get();
    m_client.release();
}

void DemoServer::start(const std::string &host, int port)
{
    std::vector<char> id = mutableText(m_serverJid + "@demo-server");
    m_client = std::make_unique<PushClient>(id.data());
    m_client->setEventRecv(this);
    m_client->start_connect(host.c_str(), port, kKeepaliveSeconds);
}

void DemoServer::connectStatus(bool connected)
{
    if (!connected)
        return;
    std::vector<char> commands = mutableText("s/g/c/" + m_serverJid + "/#");
    std::vector<char> ready = mutableText(m_readyTopic);
    m_client->subscribe(commands.data());
    m_client->subscribe(ready.data());
    // Comes back once both subscriptions are in place.
    m_client->publish(m_readyTopic.c_str(), "", kQos, false);
}

void DemoServer::messgeRecievedMore(int, char *topic, void *payload, int, int, bool)
{
    if (m_readyTopic == topic)
        m_log->write({{"event", "ready"}, {"server", QString::fromStdString(m_serverJid)}});
    else
        handleCommand(topic, static_cast<const char *>(payload));
}

void DemoServer::handleCommand(const char *topic, const char *payload)
{
    MQTTMessage in(nullptr, true);
    const bool readable = in.fromTopic(topic, payload);
    m_log->write({{"event", "received"},
                  {"topic", QString::fromUtf8(topic)},
                  {"from", QString::fromStdString(in.from)},
                  {"body", QString::fromStdString(in.body)}});
    if (!readable)
        return;
    for (GroupSubCmd cmd : kCommands) {
        if (!in.matchSysProtocol(3, SYSTEM, GroupCMD, int(cmd)))
            continue;
        const QByteArray body = QByteArray::fromStdString(in.body);
        for (const RoomDirectory::Event &event : m_rooms.answer(cmd, in.from, body)) {
            const GroupEvent out =
                makeGroupEvent(event.userJid, event.cmd, event.body, QString::fromStdString(m_serverJid));
            m_client->publish(out.topic.c_str(), out.payload.c_str(), kQos, false);
            m_log->write({{"event", "sent"}, {"topic", QString::fromStdString(out.topic)}, {"body", event.body}});
        }
        return;
    }
}
