#include "devserver.h"

#include "answerbudget.h"
#include "compactjson.h"
#include "devserverlog.h"
#include "groupevent.h"
#include "inputlimits.h"
#include "jidrefusal.h"
#include "mqttmessage.h"

#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QUuid>

#include <algorithm>
#include <cstring>
#include <vector>

namespace {

constexpr int kQos = 2;
constexpr int kSubscriptionQos = 1;
constexpr int kKeepaliveSeconds = 60;
constexpr int kGroupChat = 4; // MESSAGE_TYPE_GROUPCHAT

const GroupSubCmd kRoomCommands[] = { GroupSub_Create, GroupSub_Release, GroupSub_Invite, GroupSub_Kick,
    GroupSub_SetGroupName, GroupSub_Exit, GroupSub_Query, GroupSub_Join, GroupSub_SetRoomCreater, GroupSub_Refresh,
    GroupSub_Modify_Type };

// Locations are raw "FIRST:SECOND" texts on "LOCATION/<target>".
constexpr const char *kLocationPrefix = "LOCATION/";

const QString kHttpPrefix = QStringLiteral("/vantrel_api/instance_message/");

QString fromUtf8(const std::string &text)
{
    return QString::fromStdString(text);
}

// How much of a topic a "dropped" line shows.
constexpr int kShownTopicBytes = 256;

QJsonObject objectOf(const QString &json)
{
    return QJsonDocument::fromJson(json.toUtf8()).object();
}

// Why a request's values may not be used: `jid` (may be empty) fails the
// JID check, or `uuid` is over DevStore::kMaxFieldBytes; empty when neither.
QString valueRefusal(const QString &jid, const char *what, const QString &uuid = QString())
{
    const QString reason = JidRefusal::of(jid, what, true);
    const qsizetype uuidBytes = uuid.toUtf8().size();
    if (!reason.isEmpty() || uuidBytes <= DevStore::kMaxFieldBytes)
        return reason;
    return QStringLiteral("uuid of %1 bytes, over %2").arg(uuidBytes).arg(DevStore::kMaxFieldBytes);
}

QJsonObject friendJson(const DevStore::Friend &f)
{
    return { { QStringLiteral("jid"), f.jid }, { QStringLiteral("online"), f.online },
        { QStringLiteral("properties"), f.properties }, { QStringLiteral("text"), f.text } };
}

// One page of a friend list, within the answer's bounds: a friend that does
// not fit ends the page ("more"); one too large for any page is listed
// without its text and properties.
QJsonObject friendPage(DevStore &store, const QString &owner, const QJsonObject &request)
{
    const int type = request.value(QLatin1String("type")).toInt(1);
    const int count = std::clamp(request.value(QLatin1String("count")).toInt(20), 1, HistoryAnswers::kMaxPage);
    const QString cursor = request.value(QLatin1String("last_friend_id")).toString();
    const auto list = type == 2 || type == 3 ? DevStore::FriendList(type) : DevStore::FriendList::Friends;
    bool more = false;
    AnswerBudget budget;
    QJsonArray friends;
    QString last = cursor;
    store.friends(owner, list, cursor, count + 1, [&](DevStore::Friend &&f) {
        if (friends.size() == count) {
            more = true;
            return false;
        }
        QJsonObject entry = friendJson(f);
        if (!budget.take(entry)) {
            if (!friends.isEmpty()) {
                more = true;
                return false;
            }
            f.text.clear(); // too large for any page
            f.properties.clear();
            entry = friendJson(f);
            budget.take(entry);
        }
        friends.append(entry);
        last = f.jid;
        return true;
    });
    return { { QStringLiteral("type"), int(list) }, { QStringLiteral("friends"), friends },
        { QStringLiteral("last_friend_id"), last }, { QStringLiteral("more"), more } };
}

} // namespace

DevServer::DevServer(Settings settings, DevStore *store, JsonLineWriter *log, QObject *parent)
    : QObject(parent), m_settings(std::move(settings)), m_jid(fromUtf8(m_settings.serverJid)),
      m_readyTopic("pushchat-devserver/ready/" + m_settings.serverJid), m_store(store), m_log(log),
      m_rooms(store, [this](const QString &reason) { dropped(reason); }), m_history(store),
      m_http([this](const QString &path, const QUrlQuery &query) { return answerHttp(path, query); })
{
    qRegisterMetaType<PushConnectionError>(); // for receivers of linkFailed on other threads
}

DevServer::~DevServer()
{
    // The client's callbacks read m_client until its destructor returns, so
    // destroy the client first and clear the pointer afterwards. Messages
    // still queued for this object are dropped with it.
    delete m_client.get();
    m_client.release();
}

bool DevServer::start(QString *error)
{
    if (!m_http.listen(m_settings.httpAddress, m_settings.httpPort)) {
        *error = QStringLiteral("HTTP port %1: %2").arg(m_settings.httpPort).arg(m_http.errorString());
        return false;
    }
    std::string id = m_settings.serverJid + "@devserver";
    m_client = std::make_unique<PushClient>(id.data(), m_settings.push);
    m_client->setMaxQos(m_settings.maxQos);
    m_client->setEventRecv(this);
    m_client->start_connect(m_settings.host.c_str(), m_settings.port, kKeepaliveSeconds);
    return true;
}

void DevServer::connectStatus(bool connected)
{
    if (!connected) {
        // Told on the server's thread, through the queue the deliveries take.
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_failures.emplace_back(m_client->lastError(), QString::fromStdString(m_client->lastErrorText()));
        }
        QMetaObject::invokeMethod(this, "drain", Qt::QueuedConnection);
        return;
    }
    const std::string &jid = m_settings.serverJid;
    // At QoS 1, as the library subscribes: libmosquitto hands a QoS 2
    // delivery over only once its handshake is done, so a QoS 0 message (a
    // user's "APP_QUIT") would overtake the messages sent before it. The
    // push client drops the repeats QoS 1 allows.
    m_client->subscribe({ "s/g/c/" + jid + "/#", "s/h/c/" + jid + "/#", "m/i/#", "s/f/c/#", "s/f/i/#",
                            std::string(kLocationPrefix) + "#", m_readyTopic },
        kSubscriptionQos);
    // Comes back once the subscriptions are in place.
    m_client->publish(m_readyTopic.c_str(), "", kQos, false);
}

void DevServer::messgeRecievedMore(int, char *topic, void *payload, int length, int, bool)
{
    // Measured before anything is copied: the topic only up to one byte past
    // its limit.
    Arrived arrived;
    arrived.topicBytes = qsizetype(strnlen(topic, std::size_t(InputLimits::TOPIC_BYTES) + 1));
    arrived.payloadBytes = length;
    arrived.oversized = arrived.topicBytes > InputLimits::TOPIC_BYTES || length > InputLimits::PAYLOAD_BYTES;
    arrived.topic = QByteArray(
        topic, int(arrived.oversized ? std::min<qsizetype>(arrived.topicBytes, kShownTopicBytes) : arrived.topicBytes));
    if (!arrived.oversized)
        arrived.payload = QByteArray(static_cast<const char *>(payload), length);
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_arrived.push_back(std::move(arrived));
    }
    QMetaObject::invokeMethod(this, "drain", Qt::QueuedConnection);
}

void DevServer::drain()
{
    std::deque<Arrived> arrived;
    std::deque<std::pair<PushConnectionError, QString>> failures;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        arrived.swap(m_arrived);
        failures.swap(m_failures);
    }
    for (const auto &[error, reason] : failures)
        emit linkFailed(error, reason);
    for (const Arrived &one : arrived) {
        m_handling = QString::fromUtf8(one.topic.left(kShownTopicBytes));
        handle(one);
        m_handling.clear();
    }
}

void DevServer::dropped(const QString &reason, const std::string &from)
{
    m_log->write({ { QStringLiteral("event"), QStringLiteral("dropped") }, { QStringLiteral("topic"), m_handling },
        { QStringLiteral("from"),
            QString::fromUtf8(from.data(), int(std::min<std::size_t>(from.size(), kShownTopicBytes))) },
        { QStringLiteral("reason"), reason } });
}

QString DevServer::refusal(const MQTTMessage &in)
{
    if (in.body.size() > std::size_t(InputLimits::BODY_BYTES))
        return QStringLiteral("body of %1 bytes, over %2").arg(in.body.size()).arg(InputLimits::BODY_BYTES);
    for (const std::string *field : { &in.messageKey, &in.stamp }) {
        if (field->size() > std::size_t(DevStore::kMaxFieldBytes))
            return QStringLiteral("%1 of %2 bytes, over %3")
                .arg(field == &in.stamp ? QLatin1String("stamp") : QLatin1String("uuid"))
                .arg(field->size())
                .arg(DevStore::kMaxFieldBytes);
    }
    QString reason = JidRefusal::of(in.from, "sender");
    if (reason.isEmpty())
        reason = JidRefusal::of(in.protocol.jid, "topic JID");
    if (reason.isEmpty())
        reason = JidRefusal::of(in.to, "addressee", true);
    return reason;
}

void DevServer::handle(const Arrived &arrived)
{
    const QByteArray &topic = arrived.topic, &payload = arrived.payload;
    if (arrived.oversized) {
        const bool topicOver = arrived.topicBytes > InputLimits::TOPIC_BYTES;
        dropped(topicOver ? QStringLiteral("topic over %1 bytes").arg(InputLimits::TOPIC_BYTES)
                          : QStringLiteral("payload of %1 bytes, over %2")
                                .arg(arrived.payloadBytes)
                                .arg(InputLimits::PAYLOAD_BYTES));
        return;
    }
    if (topic == QByteArray::fromStdString(m_readyTopic)) {
        m_log->write({ { QStringLiteral("event"), QStringLiteral("ready") }, { QStringLiteral("server"), m_jid },
            { QStringLiteral("http_port"), int(httpPort()) } });
        return;
    }
    if (topic.startsWith(kLocationPrefix)) {
        m_log->write({ { QStringLiteral("event"), QStringLiteral("location") },
            { QStringLiteral("target"), // a JID: '/' is a dot given back (see below)
                QString::fromUtf8(topic.mid(int(std::strlen(kLocationPrefix))))
                    .replace(QLatin1Char('/'), QLatin1Char('.')) },
            { QStringLiteral("position"), QString::fromUtf8(payload) } });
        return;
    }
    MQTTMessage in(nullptr, true);
    if (!in.fromTopic(topic.constData(), payload.constData())) {
        if (in.oversized)
            dropped(QStringLiteral("envelope over %1 bytes").arg(InputLimits::ENVELOPE_BYTES));
        return; // not a command
    }
    if (fromUtf8(in.from) == m_jid)
        return; // one of ours coming back
    // A JID never holds '/': one in the topic's JID comes from a broker that
    // delivers the dots of a level as separators (RabbitMQ's MQTT plugin).
    // The server's wildcard filters let the library's own restoration
    // (which knows only filters naming a JID) pass it by.
    std::replace(in.protocol.jid.begin(), in.protocol.jid.end(), '/', '.');
    if (const QString reason = refusal(in); !reason.isEmpty()) {
        dropped(reason, in.from);
        return;
    }
    m_log->write({ { QStringLiteral("event"), QStringLiteral("received") },
        { QStringLiteral("topic"), QString::fromUtf8(topic) }, { QStringLiteral("from"), fromUtf8(in.from) },
        { QStringLiteral("body"), fromUtf8(in.body) } });
    const QString topicJid = fromUtf8(in.protocol.jid);
    // A complete chain: the top-level code, the family, the sub-command(s).
    const int family = in.protocol.next ? in.protocol.next->code : 0;
    if (in.protocol.code == MESSAGE && family == MESSAGE_INFO)
        messageInfo(in, topicJid);
    else if (in.protocol.code != SYSTEM)
        return;
    else if (family == FriendCMD || family == FriendInfo)
        friendCommand(in, topicJid);
    else if (topicJid == m_jid && family == GroupCMD)
        roomCommand(in);
    else if (topicJid == m_jid && family == HistoryCMD)
        historyCommand(in);
}

void DevServer::send(const std::string &to, int family, int sub1, int sub2, const QString &body, const QString &from)
{
    // The addressee may come from the store, where an older version kept
    // whatever it was given.
    if (const QString reason = JidRefusal::of(to, "addressee"); !reason.isEmpty())
        return dropped(reason);
    const ServerMessage out = makeServerMessage(to, family, sub1, sub2, body, from.isEmpty() ? m_jid : from);
    if (out.payload.empty())
        return dropped(QStringLiteral("answer of %1 characters to %2: over the envelope limit")
                           .arg(body.size())
                           .arg(JidRefusal::shown(to)));
    m_client->publish(out.topic.c_str(), out.payload.c_str(), kQos, false);
    m_log->write(
        { { QStringLiteral("event"), QStringLiteral("sent") }, { QStringLiteral("topic"), fromUtf8(out.topic) },
            { QStringLiteral("to"), fromUtf8(to) }, { QStringLiteral("body"), body } });
}

void DevServer::roomCommand(MQTTMessage &in)
{
    for (GroupSubCmd cmd : kRoomCommands) {
        if (!in.matchSysProtocol(3, SYSTEM, GroupCMD, int(cmd)))
            continue;
        for (const RoomDirectory::Event &event : m_rooms.answer(cmd, in.from, QByteArray::fromStdString(in.body)))
            send(event.userJid, GroupINFO, SubInfo_CMD_RESPONSE, int(event.cmd), event.body);
        return;
    }
}

void DevServer::messageInfo(MQTTMessage &in, const QString &topicJid)
{
    const QString from = fromUtf8(in.from), body = fromUtf8(in.body);
    if (in.matchSysProtocol(3, MESSAGE, MESSAGE_INFO, MESSAGE_NORMAL)) {
        DevStore::Message m;
        m.uuid = in.messageKey.empty() ? QUuid::createUuid().toString(QUuid::WithoutBraces) : fromUtf8(in.messageKey);
        m.from = from;
        m.to = topicJid; // whoever the message went to
        m.body = body;
        m.bodyType = in.bodyType;
        m.msgType = in.msgType;
        m.secLevel = in.secLevel;
        m.stamp = fromUtf8(in.stamp);
        m.at = QDateTime::currentMSecsSinceEpoch();
        if (m.msgType == kGroupChat && !m_store->isMember(from, topicJid))
            return; // not a room of the sender's
        if (m_store->addMessage(m))
            m_log->write({ { QStringLiteral("event"), QStringLiteral("recorded") }, { QStringLiteral("uuid"), m.uuid },
                { QStringLiteral("from"), m.from }, { QStringLiteral("to"), m.to } });
        return;
    }
    if (topicJid != m_jid)
        return;
    if (in.matchSysProtocol(3, MESSAGE, MESSAGE_INFO, MESSAGE_PRESENCE)) {
        presence(from, body);
    } else if (in.matchSysProtocol(3, MESSAGE, MESSAGE_INFO, MESSAGE_MODYFY_STATUS)) {
        const QJsonObject request = objectOf(body);
        const QString uuid = request.value(QLatin1String("uuid")).toString();
        const int status = request.value(QLatin1String("status")).toInt();
        if (const QString reason = valueRefusal(QString(), "", uuid); !reason.isEmpty())
            return dropped(reason, in.from);
        const bool known = changeStatus(uuid, status, from);
        send(in.from, MESSAGE_INFO, MESSAGE_MODYFY_STATUS, 0,
            CompactJson::text({ { QStringLiteral("uuid"), uuid }, { QStringLiteral("status"), status },
                { QStringLiteral("result"), known ? QStringLiteral("ok") : QStringLiteral("unknown message") } }));
    }
}

void DevServer::presence(const QString &from, const QString &body)
{
    const QJsonObject presence = objectOf(body);
    m_store->setPresence(from, presence.value(QLatin1String("type")).toInt() != 0, presence);
    for (const QString &friendJid : m_store->friendsOf(from))
        send(friendJid.toStdString(), MESSAGE_INFO, MESSAGE_PRESENCE, 0, body, from);
}

bool DevServer::changeStatus(const QString &uuid, int status, const QString &modifier)
{
    const std::optional<DevStore::Message> message = m_store->message(uuid);
    if (!message || !m_store->setStatus(uuid, status, modifier))
        return false;
    send(message->from.toStdString(), MESSAGE_INFO, MESSAGE_MODYFY_CLIENT_STATUS, 0,
        CompactJson::text({ { QStringLiteral("uuid"), uuid }, { QStringLiteral("modifier"), modifier },
            { QStringLiteral("status"), status } }));
    return true;
}

void DevServer::friendCommand(MQTTMessage &in, const QString &topicJid)
{
    const QString from = fromUtf8(in.from), body = fromUtf8(in.body);
    if (in.matchSysProtocol(3, SYSTEM, FriendCMD, FriendSub_Add))
        m_store->requestFriend(from, topicJid, body);
    else if (in.matchSysProtocol(3, SYSTEM, FriendCMD, FriendSub_Del))
        m_store->dropFriend(from, topicJid);
    else if (in.matchSysProtocol(3, SYSTEM, FriendInfo, FriendSubInfo_Accept))
        m_store->acceptFriend(from, topicJid);
    else if (topicJid != m_jid)
        return;
    else if (in.matchSysProtocol(3, SYSTEM, FriendCMD, FriendSub_SetPro))
        m_store->setFriendProperties(from, fromUtf8(in.to), body);
    else if (in.matchSysProtocol(3, SYSTEM, FriendCMD, FriendSub_List)) {
        const QJsonObject request = objectOf(body);
        const QString cursor = request.value(QLatin1String("last_friend_id")).toString();
        if (const QString reason = valueRefusal(cursor, "last_friend_id"); !reason.isEmpty())
            return dropped(reason, in.from);
        send(in.from, FriendInfo, FriendSubInfo_List, 0, CompactJson::text(friendPage(*m_store, from, request)));
    }
}

void DevServer::historyCommand(MQTTMessage &in)
{
    const QString from = fromUtf8(in.from);
    const QJsonObject request = objectOf(fromUtf8(in.body));
    const auto text = [&](const char *key) { return request.value(QLatin1String(key)).toString(); };
    if (const QString reason = valueRefusal(text("conv_id"), "conv_id", text("msg_uuid")); !reason.isEmpty())
        return dropped(reason, in.from);
    if (in.matchSysProtocol(3, SYSTEM, HistoryCMD, HistorySub_List))
        send(in.from, HistoryINFO, HistorySubInfo_List, 0, CompactJson::text(m_history.list(from, request)));
    else if (in.matchSysProtocol(3, SYSTEM, HistoryCMD, HistorySub_Converstaion))
        send(in.from, HistoryINFO, HistorySubInfo_Converstaion, 0,
            CompactJson::text(m_history.conversations(from, request)));
    else if (in.matchSysProtocol(3, SYSTEM, HistoryCMD, HistorySub_Converstaion_Detail))
        send(in.from, HistoryINFO, HistorySubInfo_Converstaion_Detail, 0,
            CompactJson::text(m_history.conversationDetail(from, request)));
}

HttpService::Reply DevServer::answerHttp(const QString &path, const QUrlQuery &query)
{
    const auto value = [&](const char *key) { return query.queryItemValue(QLatin1String(key), QUrl::FullyDecoded); };
    bool valid = true;
    const auto number = [&](const char *key) {
        bool ok = false;
        const int n = value(key).toInt(&ok);
        valid = valid && ok;
        return n;
    };
    const QString name = path.startsWith(kHttpPrefix) ? path.mid(kHttpPrefix.size()) : QString();
    const bool pull = name == QLatin1String("pull_history_message");
    const bool sync = name == QLatin1String("sync_history_message");
    const bool modify = name == QLatin1String("modify_message_status");
    if (!pull && !sync && !modify)
        return { 404, "{\"error\":\"no such path\"}" };
    const int level = number("my_sec_level");
    const int first = pull ? number("type") : modify ? number("status") : 0;
    const int count = pull ? number("count") : 0;
    if (!valid)
        return { 400, "{\"error\":\"a number is missing or malformed\"}" };
    if (const QString reason = valueRefusal(value("user_id"), "user_id", value(modify ? "uuid" : "msg_uuid"));
        !reason.isEmpty()) {
        m_handling = path;
        dropped(reason);
        m_handling.clear();
        return { 400, CompactJson::text({ { QStringLiteral("error"), reason } }).toUtf8() };
    }
    QJsonObject answer;
    int status = 200;
    if (pull) {
        answer = m_history.pull(value("user_id"), first, 0, count, value("msg_uuid"), level);
    } else if (sync) {
        answer = m_history.sync(value("user_id"), value("msg_uuid"), level);
    } else {
        const bool known = changeStatus(value("uuid"), first, QString());
        answer = { { QStringLiteral("uuid"), value("uuid") },
            { QStringLiteral("result"), known ? QStringLiteral("ok") : QStringLiteral("unknown message") } };
        status = known ? 200 : 404;
    }
    return { status, CompactJson::text(answer).toUtf8() };
}
