#ifndef PUSHCHAT_STOREDMESSAGEMODEL_H
#define PUSHCHAT_STOREDMESSAGEMODEL_H

/// \file
/// StoredMessageModel: one conversation of the message store for views.

#include <pushchat/pushchat_export.h>
#include <pushchat/storedmessage.h>

#include <QAbstractListModel>
#include <QList>
#include <QPointer>

class MessageClient;

/// The messages of one conversation of a MessageClient's message store as
/// a list model, for a chat view in Qt Widgets or QML: the oldest at the
/// top, the newest at the bottom, in the store's order (their times).
///
/// It starts with the newest page (pageSize messages) and loads older ones
/// as a view scrolls up: canFetchMore says whether there may be more, and
/// fetchMore inserts the page before the oldest row at the top. It follows
/// MessageClient::storedMessageChanged for its peer: a new message is
/// inserted where its time puts it (at the bottom, for what is sent or
/// arrives now; one older than every row waits for its page), and a
/// message whose state changes (pending, sent, read) updates its row.
///
/// The peer is the conversation's JID as the store records it: the user's
/// or the room's, with its domain. setPeer switches to another
/// conversation (a reset); an empty peer shows nothing.
///
/// The client is borrowed: once it is destroyed the model keeps the rows
/// it has and changes no more. The model lives on the client's thread and
/// is used there, as views use it.
class PUSHCHAT_EXPORT StoredMessageModel : public QAbstractListModel {
    Q_OBJECT
    /// The conversation shown; peerChanged tells each change.
    Q_PROPERTY(QString peer READ peer WRITE setPeer NOTIFY peerChanged)
public:
    /// The roles, named for QML as in brackets. Qt::DisplayRole is the body.
    enum Role {
        IdRole = Qt::UserRole + 1, ///< "id": the recording order in the store (qint64)
        KeyRole,                   ///< "key": the message key (QString)
        SenderRole,                ///< "sender": the sender's JID (QString)
        BodyRole,                  ///< "body": the text (QString)
        TimeRole,                  ///< "time": when it was sent or received (QDateTime, local)
        StampRole,                 ///< "stamp": the sender's stamp, as sent (QString)
        OutgoingRole,              ///< "outgoing": sent by this user (bool)
        StateRole,                 ///< "state": its StoredState (int)
        BodyTypeRole,              ///< "bodyType": its MESSAGE_BODY_TYPE (int)
        SecurityLevelRole,         ///< "securityLevel": its level (int)
    };
    Q_ENUM(Role)

    /// The conversation with `peer` in `client`'s store, loaded `pageSize`
    /// messages at a time (at least 1).
    explicit StoredMessageModel(
        MessageClient *client, const QString &peer = QString(), int pageSize = 50, QObject *parent = nullptr);

    /// The conversation's peer: a user's or a room's JID.
    QString peer() const { return m_peer; }
    /// Shows the newest page of the conversation with `peer`.
    void setPeer(const QString &peer);
    /// How many messages a page holds.
    int pageSize() const { return m_pageSize; }
    /// The message in `row` (an empty one outside the rows).
    StoredMessage message(int row) const;
    /// The row of the message with `key`, -1 when it is not loaded.
    Q_INVOKABLE int rowOf(const QString &key) const;
    /// Reads the newest page again (after the store was opened).
    Q_INVOKABLE void reload();

    /// The number of messages loaded (none under a valid parent).
    int rowCount(const QModelIndex &parent = QModelIndex()) const override;
    /// The message's `role` (see Role), or an invalid QVariant.
    QVariant data(const QModelIndex &index, int role = Qt::DisplayRole) const override;
    /// The roles' names, for QML delegates.
    QHash<int, QByteArray> roleNames() const override;
    /// Whether older messages may be in the store: the last page read was
    /// full (and the oldest row has a key to page from).
    bool canFetchMore(const QModelIndex &parent = QModelIndex()) const override;
    /// Inserts the next older page at the top.
    void fetchMore(const QModelIndex &parent = QModelIndex()) override;

signals:
    /// The model shows another conversation.
    void peerChanged(const QString &peer);

private:
    void changed(const StoredMessage &message);

    QPointer<MessageClient> m_client;
    QString m_peer;
    int m_pageSize;
    QList<StoredMessage> m_rows;
    bool m_older = false; // the last page read was full
};

#endif // PUSHCHAT_STOREDMESSAGEMODEL_H
