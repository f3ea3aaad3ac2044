#ifndef PUSHCHAT_CLI_JSONEVENTS_H
#define PUSHCHAT_CLI_JSONEVENTS_H

// The client's callback object: every chat and room callback becomes one
// JSON object as the library's JsonEventAdapter maps it, {"event":
// <callback name>, <argument name>: <value>, ...}, handed to a
// JsonLineWriter. The message store's callbacks print nothing: the store
// commands report the store themselves.
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

#include <pushchat/jsoneventadapter.h>

#include <QJsonObject>

class AwaitedEvent;
class EventFlag;
class JsonLineWriter;

class JsonEvents : public JsonEventAdapter {
public:
    JsonEvents(JsonLineWriter *writer, EventFlag *connected, AwaitedEvent *awaited = nullptr, bool saveImages = false);

    void onConnected() override;
    void onDisconnected() override;
    void onStoredMessageChanged(const StoredMessage &message) override;
    void onStoreError(QString text) override;

private:
    void report(QJsonObject event) const;

    JsonLineWriter *m_writer;
    EventFlag *m_connected;
    AwaitedEvent *m_awaited;
    const bool m_saveImages;
};

#endif // PUSHCHAT_CLI_JSONEVENTS_H
