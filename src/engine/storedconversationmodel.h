#ifndef PUSHCHAT_STOREDCONVERSATIONMODEL_H
#define PUSHCHAT_STOREDCONVERSATIONMODEL_H

/// \file
/// StoredConversationModel: the message store's conversations for views.

#include <pushchat/pushchat_export.h>
#include <pushchat/storedmessage.h>

#include <QAbstractListModel>
#include <QList>
#include <QPointer>

class MessageClient;

/// The conversations of a MessageClient's message store as a list model,
/// for a conversation list in Qt Widgets or QML: one row per peer (a user
/// or a room), the most recent conversation first, with its newest message
/// and how many received messages are unread.
///
/// It reads MessageClient::storedConversations when made and follows
/// MessageClient::storedMessageChanged: changes that arrive together (a
/// batch of the store's, a catch-up) are applied at once after the last of
/// them, by reading the conversations again and moving, inserting, changing
/// and removing rows to match. A conversation that moves up keeps its persistent indexes, so a
/// view's selection stays on it. refresh() reads again at once (after the
/// store was opened, or after a retention pass removed conversations).
///
/// The client is borrowed: once it is destroyed the model keeps the rows
/// it has and changes no more. The model lives on the client's thread and
/// is used there, as views use it.
class PUSHCHAT_EXPORT StoredConversationModel : public QAbstractListModel {
    Q_OBJECT
public:
    /// The roles, named for QML as in brackets. Qt::DisplayRole is the peer.
    enum Role {
        PeerRole = Qt::UserRole + 1, ///< "peer": the user's or room's JID (QString)
        RoomRole,                    ///< "room": a room's conversation (bool)
        LastTextRole,                ///< "lastText": the newest message's body (QString)
        LastTimeRole,                ///< "lastTime": when it was sent or received (QDateTime, local)
        LastSenderRole,              ///< "lastSender": its sender's JID (QString)
        LastOutgoingRole,            ///< "lastOutgoing": sent by this user (bool)
        LastStateRole,               ///< "lastState": its StoredState (int)
        UnreadRole,                  ///< "unread": received messages not yet marked read (int)
    };
    Q_ENUM(Role)

    /// The conversations of `client`'s store (none while it has no store).
    explicit StoredConversationModel(MessageClient *client, QObject *parent = nullptr);

    /// The conversation in `row` (an empty one outside the rows).
    StoredConversation conversation(int row) const;
    /// The row of the conversation with `peer`, -1 when there is none.
    Q_INVOKABLE int rowOf(const QString &peer) const;
    /// Reads the store's conversations now and updates the rows to match.
    Q_INVOKABLE void refresh();

    /// The number of conversations (none under a valid parent).
    int rowCount(const QModelIndex &parent = QModelIndex()) const override;
    /// The conversation's `role` (see Role), or an invalid QVariant.
    QVariant data(const QModelIndex &index, int role = Qt::DisplayRole) const override;
    /// The roles' names, for QML delegates.
    QHash<int, QByteArray> roleNames() const override;

private:
    void refreshSoon();

    QPointer<MessageClient> m_client;
    QList<StoredConversation> m_rows;
    bool m_refreshDue = false;
};

#endif // PUSHCHAT_STOREDCONVERSATIONMODEL_H
