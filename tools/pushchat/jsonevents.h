#ifndef PUSHCHAT_CLI_JSONEVENTS_H
#define PUSHCHAT_CLI_JSONEVENTS_H

// The client's callback object: every chat and room callback becomes one
// JSON object, {"event": <callback name>, <argument name>: <value>, ...},
// handed to a JsonLineWriter. Texts stay texts (JSON bodies included, as
// the library passes them), numbers stay numbers; onRoomChanged carries the
// room as its JSON object ("room") and the command number ("cmd").
//
// onConnected and onDisconnected also raise an EventFlag, which is how the
// main thread learns that the login succeeded or failed (the library's last
// connection error tells which). Every event is also offered to an AwaitedEvent,
// which is how a command waits for its answer. With saveImages, a received
// message whose body is an "image_encode" body is also written to a JPEG
// file (imagebody.h) and its line gains "saved": the file's path, or an
// empty text when it could not be written.
//
// The writer, the flag and the awaited event are optional and borrowed.
// Callbacks arrive on the library's threads; this class keeps no state of
// its own.

#include <pushchat/message_lib.h>

#include <QJsonObject>

class AwaitedEvent;
class EventFlag;
class JsonLineWriter;

class JsonEvents : public ImEventReciever, public ImMUCEventReciever {
public:
    JsonEvents(JsonLineWriter *writer, EventFlag *connected, AwaitedEvent *awaited = nullptr, bool saveImages = false);

    void onConnected() override;
    void onDisconnected() override;
    void onMessageReceive(QString from, QString to, QString body, int bodyType, int msgType, QString messageKey,
        QString stamp, bool readable) override;
    void onHistoryMessages(const char *json) override;
    void onConversations(const char *json) override;
    void onConversationDetail(const char *json) override;
    void onPresence(QString from, QString body) override;
    void onMessageStatusModified(QString modifier, QString uuid, int status) override;
    void onFriendAdded(QString from, QString to, QString body) override;
    void onFriendAccepted(QString from, QString to, int flag) override;
    void onFriendDeleted(QString from, QString to, int flag) override;
    void onFriendList(const char *json) override;
    void onRemoteDesktopControlRequest(const char *from, const char *to, const char *body) override;
    void onRemoteDesktopControlResponse(const char *from, const char *to, const char *body) override;
    void onRemoteDesktopBeControlRequest(const char *from, const char *to, const char *body) override;
    void onRemoteDesktopBeControlResponse(const char *from, const char *to, const char *body) override;

    void onRoomListRefreshed(QString json) override;
    void onRoomChanged(Room &room, GroupSubCmd cmd) override;

private:
    void report(const char *event, QJsonObject arguments = QJsonObject());
    void reportRemoteDesktop(const char *event, const char *from, const char *to, const char *body);

    JsonLineWriter *m_writer;
    EventFlag *m_connected;
    AwaitedEvent *m_awaited;
    const bool m_saveImages;
};

#endif // PUSHCHAT_CLI_JSONEVENTS_H
