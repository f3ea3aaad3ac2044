#ifndef PUSHCHAT_STOREDMESSAGE_H
#define PUSHCHAT_STOREDMESSAGE_H

/// \file
/// What the local message store keeps: messages and conversations, as the
/// store's read operations return them (see Message_lib::openMessageStore).

#include <QList>
#include <QString>
#include <QtGlobal>

/// Where a stored message stands.
enum class StoredState : int {
    Pending = 0,  ///< sent by this user, not yet acknowledged by the broker
    Sent = 1,     ///< sent by this user and acknowledged by the broker
    Received = 2, ///< received, not yet marked read
    Read = 3,     ///< received and marked read, or sent and read by the peer
};

/// One chat message, room message or notice, sent or received.
struct StoredMessage {
    qint64 id = 0;                             ///< recording order in this store, ascending
    QString conversation;                      ///< the peer's JID, or the room's
    QString key;                               ///< the message key (unique per conversation and sender)
    QString sender;                            ///< the sender's JID
    qint64 time = 0;                           ///< milliseconds since the epoch: when it was sent or received here
    QString stamp;                             ///< the sender's stamp, as sent
    QString body;                              ///< the text (what the user's level may not read: a placeholder)
    int bodyType = 0;                          ///< MESSAGE_BODY_TYPE
    int messageType = 0;                       ///< MediaInfo::MessageType (chat or room)
    int securityLevel = 0;                     ///< the message's level
    bool outgoing = false;                     ///< sent by this user
    StoredState state = StoredState::Received; ///< where it stands
};

/// One conversation: its newest message and how many received ones are unread.
struct StoredConversation {
    QString conversation; ///< the peer's JID, or the room's
    StoredMessage last;   ///< the newest message
    int unread = 0;       ///< received messages not yet marked read
};

#endif // PUSHCHAT_STOREDMESSAGE_H
