#ifndef PUSHCHAT_JSONEVENTADAPTER_H
#define PUSHCHAT_JSONEVENTADAPTER_H

/// \file
/// JsonEventAdapter: the callback interfaces as one stream of JSON events.

#include <pushchat/imeventreciever.h>
#include <pushchat/pushchat_export.h>

#include <QJsonObject>

#include <functional>

/// A callback object that turns every callback of ImEventReciever and
/// ImMUCEventReciever into one JSON object,
/// `{"event": <callback name>, <argument name>: <value>, ...}`, and hands it
/// to the sink the application gives.
///
/// Texts stay texts (JSON bodies included, as the library passes them; a
/// null `const char*` becomes ""), numbers and flags stay numbers and
/// flags. onRoomChanged carries the room as its JSON object ("room",
/// Room::toJson) and the sub-command's number ("cmd");
/// onStoredMessageChanged the message as the object storedMessage() makes
/// ("message"); onConnected and onDisconnected have no argument.
///
/// Give it to Message_lib as both callback objects. A subclass may override
/// a callback to add to it (calling this class's) or to drop its events;
/// the sink may add fields to an event before passing it on.
///
/// Threads: the sink is called on whatever thread the callback arrives on
/// (see imeventreciever.h), possibly on several at once. The adapter keeps
/// no state but the sink.
class PUSHCHAT_EXPORT JsonEventAdapter : public ImEventReciever, public ImMUCEventReciever {
public:
    /// Receives each event; an empty sink drops them.
    using Sink = std::function<void(QJsonObject event)>;

    /// Hands every event to `sink`.
    explicit JsonEventAdapter(Sink sink);
    ~JsonEventAdapter() override;

    void onConnected() override;    ///< `{"event":"onConnected"}`
    void onDisconnected() override; ///< `{"event":"onDisconnected"}`
    /// "from", "to", "body", "bodyType", "msgType", "messageKey", "stamp",
    /// "readable".
    void onMessageReceive(QString from, QString to, QString body, int bodyType, int msgType, QString messageKey,
        QString stamp, bool readable) override;
    void onHistoryMessages(const char *json) override;    ///< "json"
    void onConversations(const char *json) override;      ///< "json"
    void onConversationDetail(const char *json) override; ///< "json"
    void onPresence(QString from, QString body) override; ///< "from", "body"
    /// "modifier", "uuid", "status".
    void onMessageStatusModified(QString modifier, QString uuid, int status) override;
    void onFriendAdded(QString from, QString to, QString body) override; ///< "from", "to", "body"
    void onFriendAccepted(QString from, QString to, int flag) override;  ///< "from", "to", "flag"
    void onFriendDeleted(QString from, QString to, int flag) override;   ///< "from", "to", "flag"
    void onFriendList(const char *json) override;                        ///< "json"
    /// "from", "to", "body".
    void onRemoteDesktopControlRequest(const char *from, const char *to, const char *body) override;
    /// "from", "to", "body".
    void onRemoteDesktopControlResponse(const char *from, const char *to, const char *body) override;
    /// "from", "to", "body".
    void onRemoteDesktopBeControlRequest(const char *from, const char *to, const char *body) override;
    /// "from", "to", "body".
    void onRemoteDesktopBeControlResponse(const char *from, const char *to, const char *body) override;
    void onStoredMessageChanged(const StoredMessage &message) override; ///< "message"
    void onStoreError(QString text) override;                           ///< "text"

    void onRoomListRefreshed(QString json) override;          ///< "json"
    void onRoomChanged(Room &room, GroupSubCmd cmd) override; ///< "room", "cmd"

    /// A stored message as a JSON object: "id", "conversation", "key",
    /// "sender", "time", "stamp", "body", "bodyType", "msgType" (its
    /// messageType), "level" (its securityLevel), "outgoing" and "state"
    /// (the StoredState's number).
    static QJsonObject storedMessage(const StoredMessage &message);

private:
    void report(const char *event, QJsonObject arguments = QJsonObject()) const;

    const Sink m_sink;
};

#endif // PUSHCHAT_JSONEVENTADAPTER_H
