#include "roomserverpeer.h"

#include "groupevent.h"
#include "mqttmessage.h"

#include <chrono>

namespace {

constexpr const char *kReadyTopic = "peer/ready";
constexpr int kQos = 2;

} // namespace

RoomServerPeer::RoomServerPeer(std::string serverJid) : serverJid_(std::move(serverJid)) {}

RoomServerPeer::~RoomServerPeer()
{
    client_.reset(); // no callback runs after this
}

bool RoomServerPeer::connect(const char *host, int port)
{
    std::string id = serverJid_ + "@peer";
    client_ = std::make_unique<PushClient>(id.data());
    client_->setEventRecv(this);
    client_->start_connect(host, port, 60);
    return waitUntil([this] { return ready_; });
}

void RoomServerPeer::connectStatus(bool connected)
{
    if (!connected)
        return;
    std::string commands = "s/g/c/" + serverJid_ + "/#";
    std::string ready = kReadyTopic;
    client_->subscribe(commands.data());
    client_->subscribe(ready.data());
    client_->publish(kReadyTopic, "", kQos, false); // back to us once both are in place
}

void RoomServerPeer::messgeRecievedMore(int, char *topic, void *payload, int, int, bool)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (std::string(topic) == kReadyTopic) {
        ready_ = true;
    } else {
        MQTTMessage in(nullptr, true);
        in.fromTopic(topic, static_cast<const char *>(payload));
        requests_.push_back({ topic, in.from, in.to, in.body, in.msgType, in.secLevel, in.bodyType, in.encrypted });
    }
    changed_.notify_all();
}

std::vector<RoomServerPeer::Request> RoomServerPeer::requests() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
}

bool RoomServerPeer::waitForRequests(std::size_t count)
{
    return waitUntil([&] { return requests_.size() >= count; });
}

bool RoomServerPeer::waitUntil(const std::function<bool()> &condition)
{
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(10), condition);
}

void RoomServerPeer::sendEvent(const std::string &userJid, GroupSubCmd cmd, const QString &body)
{
    const GroupEvent event = makeGroupEvent(userJid, cmd, body, QString::fromStdString(serverJid_));
    client_->publish(event.topic.c_str(), event.payload.c_str(), kQos, false);
}

void RoomServerPeer::sendMessage(const QString &from, const std::string &to, const QString &text)
{
    MQTTMessage out(client_.get(), true);
    out.setSysProtocol(to.c_str(), 2, MESSAGE_INFO, MESSAGE_NORMAL);
    out.fromText(from, QString::fromStdString(to), text, MediaInfo::MESSAGE_TYPE_GROUPCHAT,
                 SECURITY_LEVEL_UNRESTRICTED, BODY_TYPE_DEFAULT, QString(), QString());
    out.send(kQos);
}
