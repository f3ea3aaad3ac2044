// The engine's identity and connection lifecycle: construction, login, the
// online sequence, receiving, presence, room topics and logout.

#include "messageprivate.h"

#include "compactjson.h"
#include "contactmanager.h"
#include "inputlimits.h"
#include "jid.h"
#include "messagestore.h"
#include "pushchatlog.h"
#include "roomnotifier.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QSettings>
#include <QSysInfo>
#include <QUuid>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

namespace {

constexpr const char *kDeviceIdKey = "sms_uuid";
constexpr const char *kStartupText = "APP_STARTUP";
constexpr const char *kQuitText = "APP_QUIT";
constexpr const char *kLostText = "NETWORK_DISCONNECTED";
constexpr const char *kRefreshBody = "empty_message";
constexpr int kWillQos = 2;
constexpr int kStartupQos = 2;
constexpr int kQuitQos = 0;
constexpr int kCommandQos = 2;

// The persisted device id, generated once per installation.
std::string persistedDeviceId()
{
    QSettings settings;
    const QString fresh = QUuid::createUuid().toString().remove(QLatin1Char('{')).remove(QLatin1Char('}'));
    const QString id = settings.value(QLatin1String(kDeviceIdKey), fresh).toString();
    settings.setValue(QLatin1String(kDeviceIdKey), id);
    return id.toStdString();
}

// A value from the network, short and quoted with escapes, for a log line.
QString shown(const char *text, std::size_t length)
{
    constexpr std::size_t kShown = 80;
    return QString::fromUtf8(text, int(std::min(length, kShown)));
}

// A mutable NUL-terminated copy, for the push client's char* parameters.
std::vector<char> mutableText(const std::string &text)
{
    return std::vector<char>(text.c_str(), text.c_str() + text.size() + 1);
}

} // namespace

const char *const MessagePrivate::UNREADABLE_TEXT = "[此消息已加密,您无权阅读]";

MessagePrivate::MessagePrivate(ImEventReciever *im, ImMUCEventReciever *muc, std::string devId, std::string devName)
    : imReciever(im), mucReciever(muc), roomNotifier(newRoomNotifier())
{
    deviceId = devId.empty() ? persistedDeviceId() : std::move(devId);
    deviceName =
        devName.empty()
            ? (QSysInfo::prettyProductName() + QLatin1Char(':') + QSysInfo::currentCpuArchitecture()).toStdString()
            : std::move(devName);
    contactManager = std::make_unique<ContactManager>();
}

MessagePrivate::~MessagePrivate()
{
    disconnectToIMServer();
    roomNotifier->finish(); // also when events arrived without a login
}

void MessagePrivate::setServerJid(const QString &serverJidText)
{
    configuredServerJid = serverJidText;
}

QString MessagePrivate::serverJid() const
{
    if (!effectiveServerJid.isEmpty())
        return effectiveServerJid;
    return configuredServerJid.isEmpty() ? QStringLiteral("server@") + domain : configuredServerJid;
}

std::string MessagePrivate::serverJidText() const
{
    return serverJid().toStdString();
}

QString MessagePrivate::completeJid(const QString &id) const
{
    return id.contains(QLatin1Char('@')) ? id : QStringLiteral("%1@%2").arg(id, domain);
}

int MessagePrivate::registerToServer(
    QString host, int port, QString user, QString extra1, int level, QString loginDomain, QString extra2)
{
    // The delivery thread of a live connection reads securityLevel: end
    // that connection before the level changes.
    if (pushClient != nullptr)
        disconnectToIMServer();
    securityLevel = level;
    return registerToIMServer(
        std::move(host), port, std::move(user), std::move(extra1), std::move(loginDomain), std::move(extra2));
}

int MessagePrivate::registerToIMServer(
    QString host, int port, QString user, QString extra1, QString loginDomain, QString extra2)
{
    Q_UNUSED(extra1)
    Q_UNUSED(extra2)
    if (pushClient != nullptr)
        disconnectToIMServer(); // one connection at a time: the old one logs out in order
    if (loginDomain.isEmpty())
        loginDomain = host;
    // Checked before anything is sent: the user's JID is in every topic it
    // subscribes and publishes.
    loginError.clear();
    for (const auto &[what, value] : { std::pair{ "user id", &user }, std::pair{ "domain", &loginDomain } }) {
        const Jid::Problem problem = Jid::checkPart(*value);
        if (problem != Jid::Problem::None) {
            loginError = QStringLiteral("login refused: the %1 %2")
                             .arg(QLatin1String(what), QLatin1String(Jid::describe(problem)));
            qCWarning(lcEngine).noquote() << loginError;
            return 0;
        }
    }

    serverHost = host;
    closing = false;
    domain = loginDomain;
    jid = QStringLiteral("%1@%2").arg(user, loginDomain).toStdString();
    userId = user.toStdString();
    effectiveServerJid.clear();
    effectiveServerJid = serverJid();

    std::vector<char> clientId = mutableText(jid + "@" + deviceId);
    pushClient = new PushClient(clientId.data(), pushOptions);
    pushClient->setIncomingLimit(std::size_t(InputLimits::PAYLOAD_BYTES)); // not copied past it
    pushClient->setMaxQos(maxQos);
    unverifiedLink = pushOptions.tls.enabled && pushOptions.tls.insecure;
    pushClient->setEventRecv(this);

    setFreshWill();
    reloadUnsent(); // what the last run did not see acknowledged goes first
    pushClient->start_connect(host.toUtf8().constData(), port, PUSH_KEEPALIVE_SECONDS);

    PUSHCHAT_TRACE(lcEngine, "registerToServer")
        << "MessagePrivate::registerToServer connecting to " << host << ":" << port << " userid:" << user;
    return 1;
}

// Every enciphering draws fresh random bytes: a will made anew for each
// connection never repeats the bytes of one the broker published before
// (receivers drop byte-identical repeats as transport redeliveries).
void MessagePrivate::setFreshWill()
{
    std::unique_ptr<MQTTMessage> will(createPresenseMsg(PRESENCE_OFFLINE, kLostText));
    std::vector<char> willPayload = mutableText(will->payload);
    pushClient->will_set(will->protocol.topic.c_str(), willPayload.data(), kWillQos, false);
}

void MessagePrivate::connectStatus(bool connected)
{
    PUSHCHAT_TRACE(lcEngine, "connectStatus")
        << "MessagePrivate::connectStatus connection is " << (connected ? "true" : "false");
    if (!connected) {
        if (pushClient->state() == PushClient::State::Refused)
            qCWarning(lcEngine).noquote() << "connection refused, not retried:" << lastConnectionErrorText();
        else
            setFreshWill(); // for the next attempt
        if (imReciever != nullptr)
            imReciever->onDisconnected();
        return;
    }
    if (unverifiedLink)
        qCWarning(lcEngine) << "connected over TLS WITHOUT verifying the broker's certificate or host name:"
                               " anyone on the path can read and change the traffic";
    // One SUBSCRIBE per topic, no UNSUBSCRIBE before it: a subscription of a
    // filter the session holds replaces it without interrupting its flow
    // (MQTT 3.1.1, 3.8.4), where unsubscribing first would lose what the
    // broker routed between the two packets.
    for (const std::string &topic : MqttMesaageProtocol::getRecieveTopic(jid)) {
        PUSHCHAT_TRACE(lcEngine, "connectStatus") << "subscribe:" << topic.c_str();
        std::vector<char> t = mutableText(topic);
        pushClient->subscribe(t.data());
    }
    refreshGroupList();
    send_online_state(PRESENCE_ONLINE, kStartupText, kStartupQos);
    catchUp();
    if (imReciever != nullptr)
        imReciever->onConnected();
}

// Logged once per login: a broker that offers less than the deployment
// asked for (setMaxQos) delivers at the lower level from then on.
void MessagePrivate::subscriptionGranted(int requested, int granted)
{
    if (granted > 2)
        qCWarning(lcEngine) << "the broker refused a subscription (SUBACK" << granted
                            << "): messages on that topic do not reach this client; check the broker's access rules";
    else
        qCInfo(lcEngine) << "the broker grants delivery level" << granted << "where" << requested
                         << "was asked; messages are delivered at that level (setMaxQos sets the level asked for)";
}

void MessagePrivate::messgeRecieved(char *topic, char *payload)
{
    Q_UNUSED(topic)
    Q_UNUSED(payload)
}

void MessagePrivate::dropOversized(const char *topic, const char *what, int limit)
{
    ++droppedOversized;
    qCWarning(lcEngine).nospace() << "message dropped: its " << what << " passes the limit of " << limit
                                  << " bytes; topic " << shown(topic, strnlen(topic, InputLimits::TOPIC_BYTES));
}

void MessagePrivate::messgeRecievedMore(int mid, char *topic, void *payload, int length, int qos, bool retain)
{
    Q_UNUSED(mid)
    Q_UNUSED(qos)
    Q_UNUSED(retain)
    const char *text = static_cast<const char *>(payload);
    // Bounds first: nothing over a limit is copied, deciphered or inflated.
    const std::size_t topicLength = strnlen(topic, std::size_t(InputLimits::TOPIC_BYTES) + 1);
    if (topicLength > std::size_t(InputLimits::TOPIC_BYTES))
        return dropOversized(topic, "topic", InputLimits::TOPIC_BYTES);
    if (length > InputLimits::PAYLOAD_BYTES)
        return dropOversized(topic, "payload", InputLimits::PAYLOAD_BYTES);
    PUSHCHAT_TRACE(lcEngine, "messgeRecievedMore") << "messgeRecieved:" << topic << " msg:" << text;

    MQTTMessage msg(pushClient, true);
    if (std::strcmp(topic, NOTICE_TOPIC) == 0) {
        // Notices are for everyone: no command chain, no security check.
        if (!msg.parseMessage(text) && msg.oversized)
            return dropOversized(topic, "envelope", InputLimits::ENVELOPE_BYTES);
        PUSHCHAT_TRACE(lcEngine, "messgeRecievedMore")
            << "messgeRecieved:" << msg.from.c_str() << " msg:" << msg.to.c_str();
        if (imReciever != nullptr)
            imReciever->onMessageReceive(QString::fromStdString(msg.from), QString::fromStdString(msg.to),
                QString::fromStdString(msg.body), msg.bodyType, msg.msgType, QString::fromStdString(msg.messageKey),
                QString::fromStdString(msg.stamp), true);
        return;
    }
    if (msg.fromTopic(topic, text) && (msg.protocol.code == MESSAGE || msg.protocol.code == SYSTEM))
        msg.startMatchSys(this);
    else if (msg.oversized)
        dropOversized(topic, "envelope", InputLimits::ENVELOPE_BYTES);
}

MQTTMessage *MessagePrivate::createPresenseMsg(MESSAGE_PRESENCE_TYPE type, std::string text)
{
    QJsonObject body;
    body.insert(QLatin1String("type"), int(type));
    body.insert(QLatin1String("text"), QString::fromStdString(text));
    body.insert(QLatin1String("device_id"), QString::fromStdString(deviceId));
    body.insert(QLatin1String("device_name"), QString::fromStdString(deviceName));

    auto *msg = new MQTTMessage(pushClient, true);
    msg->setSysProtocol(serverJidText().c_str(), 2, MESSAGE_INFO, MESSAGE_PRESENCE);
    msg->fromText(QString::fromStdString(jid), serverJid(), CompactJson::text(body), MediaInfo::MESSAGE_TYPE_SYSTEM,
        SECURITY_LEVEL_UNRESTRICTED, BODY_TYPE_DEFAULT, QString(), QString());
    return msg;
}

int MessagePrivate::send_online_state(MESSAGE_PRESENCE_TYPE type, std::string text, int qos)
{
    std::unique_ptr<MQTTMessage> msg(createPresenseMsg(type, std::move(text)));
    msg->send(qos);
    return 1;
}

bool MessagePrivate::sendCommand(
    const QString &topicJid, const QString &to, int family, int command, const QString &body)
{
    MQTTMessage msg(pushClient, true);
    // A chain that cannot be built would leave the message on some other
    // topic: send nothing then.
    if (!msg.setSysProtocol(topicJid.toUtf8().constData(), 2, family, command))
        return false;
    if (!msg.fromText(QString::fromStdString(jid), to, body, MediaInfo::MESSAGE_TYPE_SYSTEM,
            SECURITY_LEVEL_UNRESTRICTED, BODY_TYPE_DEFAULT, QString(), QString()))
        return false;
    return msg.send(kCommandQos);
}

bool MessagePrivate::sendSystemRequest(int family, int command, const QString &body)
{
    const QString server = serverJid();
    return sendCommand(server, server, family, command, body);
}

bool MessagePrivate::sendToPeer(int family, int command, const QString &peer, const QString &body)
{
    const QString target = completeJid(peer);
    return sendCommand(target, target, family, command, body);
}

int MessagePrivate::refreshGroupList()
{
    return sendSystemRequest(GroupCMD, GroupSub_Refresh, QLatin1String(kRefreshBody)) ? 1 : 0;
}

namespace {

std::vector<std::string> roomFilters(const QList<std::string> &roomJids)
{
    std::vector<std::string> filters;
    filters.reserve(std::size_t(roomJids.size()));
    for (const std::string &room : roomJids) {
        if (Jid::check(room) == Jid::Problem::None)
            filters.push_back(MqttMesaageProtocol::getSendToTopic(room) + "#");
    }
    return filters;
}

} // namespace

// Each room's topic is subscribed in batches, so thousands of rooms cost a
// few dozen packets. A room is recorded once,
// however often the room list arrives (at every reconnection).
bool MessagePrivate::refusedAddressee(const QString &jid, const char *what) const
{
    const Jid::Problem problem = Jid::check(jid);
    if (problem == Jid::Problem::None)
        return false;
    qCWarning(lcEngine).noquote() << what << "not sent: the JID" << Jid::describe(problem) << ":" << jid.left(80);
    return true;
}

bool MessagePrivate::refusedRoomJid(const std::string &roomJid)
{
    const Jid::Problem problem = Jid::check(roomJid);
    if (problem == Jid::Problem::None)
        return false;
    ++droppedRoomJids;
    qCWarning(lcEngine) << "room dropped: its JID" << Jid::describe(problem) << ":"
                        << shown(roomJid.c_str(), roomJid.size());
    return true;
}

QList<std::string> MessagePrivate::admissibleRooms(const QList<std::string> &roomJids)
{
    QList<std::string> rooms;
    std::size_t refused = 0;
    std::lock_guard<std::mutex> lock(roomsMutex);
    for (const std::string &room : roomJids) {
        if (refusedRoomJid(room))
            continue;
        if (subscribedRooms.count(room) == 0 &&
            subscribedRooms.size() + std::size_t(rooms.size()) >= std::size_t(InputLimits::ROOMS)) {
            ++refused;
            continue;
        }
        rooms.append(room);
    }
    if (refused > 0) {
        droppedRooms += refused;
        qCWarning(lcEngine) << refused << "rooms not subscribed: the client holds the most room topics it may,"
                            << InputLimits::ROOMS;
    }
    return rooms;
}

// Only rooms that pass admissibleRooms reach the broker: no wildcard from
// the network is ever subscribed.
int MessagePrivate::subscribe_message_group(QList<std::string> roomJids)
{
    if (pushClient == nullptr || roomJids.isEmpty())
        return 1; // not logged in: nothing subscribed, nothing recorded
    roomJids = admissibleRooms(roomJids);
    if (roomJids.isEmpty())
        return 1;
    const std::vector<std::string> filters = roomFilters(roomJids);
    PUSHCHAT_TRACE(lcEngine, "subscribe_message_group") << "subscribe:" << filters.size() << "rooms";
    pushClient->subscribe(filters); // replaces a subscription held, without a gap
    std::lock_guard<std::mutex> lock(roomsMutex);
    for (const std::string &room : roomJids)
        subscribedRooms.insert(room);
    return 1;
}

int MessagePrivate::unsubscribe_message_group(QList<std::string> roomJids)
{
    if (pushClient == nullptr || roomJids.isEmpty())
        return 1;
    PUSHCHAT_TRACE(lcEngine, "unsubscribe_message_group") << "unsubscribe:" << roomJids.size() << "rooms";
    pushClient->unsubscribe(roomFilters(roomJids));
    return 1; // the rooms stay recorded until disconnection
}

QList<std::string> MessagePrivate::subscribedRoomJids() const
{
    std::lock_guard<std::mutex> lock(roomsMutex);
    return QList<std::string>(subscribedRooms.begin(), subscribedRooms.end());
}

int MessagePrivate::disconnectToIMServer()
{
    closing = true;
    if (pushClient == nullptr)
        return 1;
    // The logout presence travels at QoS 0, which the broker forwards at
    // once, while a QoS 2 message is forwarded only after its handshake:
    // published with acknowledgements outstanding, it would overtake what
    // was sent before it. So it waits for them, within a bound.
    const auto deadline = std::chrono::steady_clock::now() + pushOptions.closeTimeout;
    while (pushClient->pendingCount() > 0 && pushClient->state() == PushClient::State::Online &&
           std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    send_online_state(PRESENCE_OFFLINE, kQuitText, kQuitQos);
    for (const std::string &topic : MqttMesaageProtocol::getRecieveTopic(jid)) {
        PUSHCHAT_TRACE(lcEngine, "disconnectToIMServer") << "unsubscribe:" << topic.c_str();
        pushClient->unsubscribe(topic.c_str());
    }
    unsubscribe_message_group(subscribedRoomJids());
    {
        std::lock_guard<std::mutex> lock(roomsMutex);
        subscribedRooms.clear();
    }
    // The client's destructor waits for a callback in progress and stops
    // its thread: no callback reaches this engine afterwards.
    delete pushClient;
    pushClient = nullptr;
    // No event arrives any more: deliver those already received, end the
    // notification threads.
    roomNotifier->finish();
    PUSHCHAT_TRACE(lcEngine, "disconnectToIMServer") << "[MessagePrivate::disconnectToIMServer]";
    return 1;
}

void MessagePrivate::delayedSyncMessage(std::string topic, std::string data)
{
    std::this_thread::sleep_for(std::chrono::seconds(5));
    PUSHCHAT_TRACE(lcEngine, "delayedSyncMessage")
        << "delayedSyncMessage,topic:" << topic.c_str() << "data:" << data.c_str();
    if (pushClient != nullptr && !closing)
        pushClient->publish(topic.c_str(), data.c_str(), 0, false);
}

void MessagePrivate::setMaxQos(int qos)
{
    maxQos = std::clamp(qos, 1, 2);
}

void MessagePrivate::setPushClientOptions(const PushClientOptions &options)
{
    pushOptions = options;
}

PushConnectionError MessagePrivate::lastConnectionError() const
{
    return pushClient != nullptr ? pushClient->lastError() : PushConnectionError::None;
}

QString MessagePrivate::lastConnectionErrorText() const
{
    return pushClient != nullptr ? QString::fromStdString(pushClient->lastErrorText()) : loginError;
}

DroppedInputs MessagePrivate::droppedInputs() const
{
    DroppedInputs counts;
    counts.oversized = droppedOversized;
    counts.invalidRoomJids = droppedRoomJids;
    counts.roomsOverLimit = droppedRooms;
    return counts;
}
