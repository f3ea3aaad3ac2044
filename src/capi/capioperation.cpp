// The C interface's requests, one row per façade operation; see
// capioperation.h.

#include "capioperation.h"

#include "capievents.h"

#include <QDateTime>
#include <QJsonArray>
#include <QUuid>

namespace {

using Type = CapiArguments::Type;
using Mode = CapiOperation::Mode;
using Args = const CapiArguments &;

constexpr CapiArguments::Field required(const char *name, Type type)
{
    return { name, type, true };
}
constexpr CapiArguments::Field optional(const char *name, Type type)
{
    return { name, type, false };
}

QJsonObject result(QJsonValue value)
{
    return { { QStringLiteral("result"), value } };
}

// A request's key, or a fresh one; its stamp, or the time now.
QString keyOf(Args a)
{
    return a.text("key", QUuid::createUuid().toString(QUuid::WithoutBraces));
}

QString stampOf(Args a)
{
    return a.text("stamp", QDateTime::currentDateTime().toString(QStringLiteral("yyyy-MM-dd hh:mm:ss")));
}

QJsonObject sendText(Message_lib &lib, Args a, QString to, int level, MESSAGE_BODY_TYPE bodyType, bool room)
{
    const QString key = keyOf(a);
    QJsonObject fields =
        result(lib.sendTextMessageTo(QString(), to, level, a.text("text"), bodyType, room, key, stampOf(a)));
    fields.insert(QStringLiteral("key"), key);
    return fields;
}

QJsonArray messages(const QList<StoredMessage> &list)
{
    QJsonArray array;
    for (const StoredMessage &message : list)
        array.append(CapiEvents::storedMessage(message));
    return array;
}

// The four remote-desktop requests share their arguments.
using PeerCall = int (Message_lib::*)(QString, QString, QString);
template <PeerCall call> QJsonObject peerText(Message_lib &lib, const CapiConfig &, Args a)
{
    return result((lib.*call)(QString(), a.text("jid"), a.text("text")));
}

const CapiArguments::Field room = required("room", Type::Text);
const CapiArguments::Field jid = required("jid", Type::Text);
const CapiArguments::Field text = optional("text", Type::Text);

const std::vector<CapiOperation> operations = {
    { "login", {}, Mode::Exclusive,
        [](Message_lib &lib, const CapiConfig &c, Args) {
            return result(lib.registerToImServer(c.host, c.port, c.user, QString(), c.level, c.domain, QString()));
        } },
    { "logout", {}, Mode::Exclusive,
        [](Message_lib &lib, const CapiConfig &, Args) { return result(lib.unRegisterToImServer()); } },
    { "chat",
        { required("to", Type::Text), required("text", Type::Text), optional("level", Type::Integer),
            optional("room", Type::Flag), optional("key", Type::Text), optional("stamp", Type::Text),
            optional("body_type", Type::Integer) },
        Mode::Plain,
        [](Message_lib &lib, const CapiConfig &c, Args a) {
            return sendText(lib, a, a.text("to"), a.integer("level", c.level),
                static_cast<MESSAGE_BODY_TYPE>(a.integer("body_type", BODY_TYPE_DEFAULT)), a.flag("room"));
        } },
    { "notice",
        { required("to", Type::Text), required("text", Type::Text), optional("key", Type::Text),
            optional("stamp", Type::Text) },
        Mode::Plain,
        [](Message_lib &lib, const CapiConfig &c, Args a) {
            return sendText(lib, a, a.text("to"), c.level, BODY_TYPE_NOTICE, false);
        } },
    { "location", { required("target", Type::Text), required("first", Type::Text), required("second", Type::Text) },
        Mode::Plain,
        [](Message_lib &lib, const CapiConfig &, Args a) {
            return result(lib.sendLocation(a.text("target"), a.text("first"), a.text("second")));
        } },
    { "status", { required("uuid", Type::Text), required("status", Type::Integer) }, Mode::Plain,
        [](Message_lib &lib, const CapiConfig &, Args a) {
            return result(lib.modifyMessageStatus(a.text("uuid"), static_cast<MSG_STATUS>(a.integer("status"))));
        } },
    { "room_create",
        { room, required("name", Type::Text), required("members", Type::Names), optional("type", Type::Integer) },
        Mode::Plain,
        [](Message_lib &lib, const CapiConfig &, Args a) {
            return result(lib.createMucRoom(
                a.text("room"), a.text("name"), a.names("members"), static_cast<ROOM_TYPE>(a.integer("type"))));
        } },
    { "room_invite", { room, required("members", Type::Names) }, Mode::Plain,
        [](Message_lib &lib, const CapiConfig &, Args a) {
            return result(lib.inviteToRoom(a.text("room"), a.names("members")));
        } },
    { "room_kick", { room, required("members", Type::Names) }, Mode::Plain,
        [](Message_lib &lib, const CapiConfig &, Args a) {
            return result(lib.kickFromRoom(a.text("room"), a.names("members")));
        } },
    { "room_rename", { room, required("name", Type::Text) }, Mode::Plain,
        [](Message_lib &lib, const CapiConfig &, Args a) {
            return result(lib.setRoomHumanName(a.text("room"), a.text("name")));
        } },
    { "room_owner", { room, required("member", Type::Text) }, Mode::Plain,
        [](Message_lib &lib, const CapiConfig &, Args a) {
            return result(lib.setRoomCreater(a.text("room"), a.text("member")));
        } },
    { "room_type", { room, required("type", Type::Integer) }, Mode::Plain,
        [](Message_lib &lib, const CapiConfig &, Args a) {
            return result(lib.modifyRoomType(a.text("room"), static_cast<ROOM_TYPE>(a.integer("type"))));
        } },
    { "room_destroy", { room }, Mode::Plain,
        [](Message_lib &lib, const CapiConfig &, Args a) { return result(lib.destoryRoom(a.text("room"))); } },
    { "conversations",
        { required("type", Type::Integer), optional("page", Type::Integer), optional("page_size", Type::Integer) },
        Mode::Plain,
        [](Message_lib &lib, const CapiConfig &, Args a) {
            lib.fetchConversations(
                static_cast<MediaInfo::MessageType>(a.integer("type")), a.integer("page"), a.integer("page_size", 20));
            return result(1);
        } },
    { "conversation",
        { required("conv_id", Type::Text), optional("page", Type::Integer), optional("page_size", Type::Integer) },
        Mode::Plain,
        [](Message_lib &lib, const CapiConfig &, Args a) {
            lib.getMsgByConvid(a.text("conv_id"), a.integer("page"), a.integer("page_size", 20));
            return result(1);
        } },
    { "history_pull",
        { required("pull_type", Type::Integer), optional("start", Type::Integer), required("count", Type::Integer),
            optional("uuid", Type::Text) },
        Mode::Plain,
        [](Message_lib &lib, const CapiConfig &, Args a) {
            lib.startPullMessage(a.integer("pull_type"), a.integer("start"), a.integer("count"), a.text("uuid"));
            return result(1);
        } },
    { "history_sync", { optional("uuid", Type::Text) }, Mode::Plain,
        [](Message_lib &lib, const CapiConfig &, Args a) {
            lib.startSyncMessage(a.text("uuid"));
            return result(1);
        } },
    { "http_history_pull",
        { required("type", Type::Integer), required("count", Type::Integer), optional("uuid", Type::Text) },
        Mode::Blocking,
        [](Message_lib &lib, const CapiConfig &, Args a) {
            lib.startPullMessageRun(a.integer("type"), a.integer("count"), a.text("uuid"));
            const QString error = lib.lastHistoryError();
            return QJsonObject{ { QStringLiteral("result"), error.isEmpty() ? 1 : 0 },
                { QStringLiteral("reason"), error } };
        } },
    { "http_history_sync", { optional("uuid", Type::Text) }, Mode::Blocking,
        [](Message_lib &lib, const CapiConfig &, Args a) {
            lib.startSyncMessageRun(a.text("uuid"));
            const QString error = lib.lastHistoryError();
            return QJsonObject{ { QStringLiteral("result"), error.isEmpty() ? 1 : 0 },
                { QStringLiteral("reason"), error } };
        } },
    { "friend_add", { jid, text }, Mode::Plain, peerText<&Message_lib::addFriend> },
    { "friend_accept", { jid, text }, Mode::Plain, peerText<&Message_lib::acceptFriend> },
    { "friend_delete", { jid }, Mode::Plain,
        [](Message_lib &lib, const CapiConfig &, Args a) { return result(lib.delFriend(QString(), a.text("jid"))); } },
    { "friend_properties", { jid, required("text", Type::Text) }, Mode::Plain,
        peerText<&Message_lib::setFriendPropoties> },
    { "friend_list",
        { optional("type", Type::Integer), optional("count", Type::Integer), optional("cursor", Type::Text) },
        Mode::Plain,
        [](Message_lib &lib, const CapiConfig &, Args a) {
            return result(lib.listFriends(a.integer("type", 1), a.integer("count", 20), a.text("cursor")));
        } },
    { "rdp_control", { jid, text }, Mode::Plain, peerText<&Message_lib::remoteDesktopControl> },
    { "rdp_be_control", { jid, text }, Mode::Plain, peerText<&Message_lib::remoteDesktopBeControl> },
    { "rdp_control_reply", { jid, text }, Mode::Plain, peerText<&Message_lib::remoteDesktopControlReply> },
    { "rdp_be_control_reply", { jid, text }, Mode::Plain, peerText<&Message_lib::remoteDesktopBeControlReply> },
    { "subscribe", { jid }, Mode::Plain,
        [](Message_lib &lib, const CapiConfig &, Args a) { return result(lib.subScribe(a.text("jid"), QString())); } },
    { "unsubscribe", { jid }, Mode::Plain,
        [](Message_lib &lib, const CapiConfig &, Args a) {
            return result(lib.unSubScribe(a.text("jid"), QString()));
        } },
    { "subscribe_accept", { jid, required("accept", Type::Flag) }, Mode::Plain,
        [](Message_lib &lib, const CapiConfig &, Args a) {
            return result(lib.acceptSubScribe(a.text("jid"), a.flag("accept")));
        } },
    { "vcard", { required("text", Type::Text) }, Mode::Plain,
        [](Message_lib &lib, const CapiConfig &, Args a) {
            lib.uploadVCardInfo(a.text("text"));
            return result(1);
        } },
    { "connection", {}, Mode::Plain,
        [](Message_lib &lib, const CapiConfig &, Args) {
            const DroppedInputs dropped = lib.droppedInputs();
            return QJsonObject{ { QStringLiteral("result"), static_cast<int>(lib.lastConnectionError()) },
                { QStringLiteral("errorText"), lib.lastConnectionErrorText() },
                { QStringLiteral("droppedOversized"), static_cast<double>(dropped.oversized) },
                { QStringLiteral("droppedRoomJids"), static_cast<double>(dropped.invalidRoomJids) },
                { QStringLiteral("droppedRooms"), static_cast<double>(dropped.roomsOverLimit) } };
        } },
    { "store_conversations", {}, Mode::Plain,
        [](Message_lib &lib, const CapiConfig &, Args) {
            QJsonArray list;
            for (const StoredConversation &conversation : lib.storedConversations())
                list.append(QJsonObject{ { QStringLiteral("conversation"), conversation.conversation },
                    { QStringLiteral("last"), CapiEvents::storedMessage(conversation.last) },
                    { QStringLiteral("unread"), conversation.unread } });
            return result(list);
        } },
    { "store_messages",
        { required("peer", Type::Text), optional("before", Type::Text), optional("limit", Type::Integer) }, Mode::Plain,
        [](Message_lib &lib, const CapiConfig &, Args a) {
            return result(messages(lib.storedMessages(a.text("peer"), a.text("before"), a.integer("limit", 50))));
        } },
    { "store_search", { required("text", Type::Text), optional("peer", Type::Text), optional("limit", Type::Integer) },
        Mode::Plain,
        [](Message_lib &lib, const CapiConfig &, Args a) {
            return result(messages(lib.searchStoredMessages(a.text("text"), a.text("peer"), a.integer("limit", 50))));
        } },
    { "store_mark_read", { required("peer", Type::Text), optional("tell_peer", Type::Flag) }, Mode::Plain,
        [](Message_lib &lib, const CapiConfig &, Args a) {
            return result(lib.markConversationRead(a.text("peer"), a.flag("tell_peer")));
        } },
    { "store_retention", { optional("max_age_s", Type::Integer), optional("max_per_conversation", Type::Integer) },
        Mode::Plain,
        [](Message_lib &lib, const CapiConfig &, Args a) {
            lib.setStoreRetention(a.integer("max_age_s"), a.integer("max_per_conversation"));
            return result(1);
        } },
    { "store_info", {}, Mode::Plain,
        [](Message_lib &lib, const CapiConfig &, Args) {
            return QJsonObject{ { QStringLiteral("result"), static_cast<double>(lib.storeFileBytes()) },
                { QStringLiteral("pending"), lib.storedPendingCount() },
                { QStringLiteral("reason"), lib.lastStoreError() } };
        } },
};

} // namespace

const CapiOperation *CapiOperation::find(const QString &name)
{
    for (const CapiOperation &operation : operations)
        if (name == QLatin1String(operation.name))
            return &operation;
    return nullptr;
}
