#include "storedconversationmodel.h"

#include "mediainfo.h"
#include "messageclient.h"

#include <QDateTime>
#include <QMetaObject>

namespace {

// What a view shows of a conversation is the same.
bool same(const StoredConversation &a, const StoredConversation &b)
{
    return a.unread == b.unread && a.last.id == b.last.id && a.last.state == b.last.state && a.last.time == b.last.time;
}

} // namespace

StoredConversationModel::StoredConversationModel(MessageClient *client, QObject *parent)
    : QAbstractListModel(parent), m_client(client)
{
    if (client == nullptr)
        return;
    connect(client, &MessageClient::storedMessageChanged, this, &StoredConversationModel::refreshSoon);
    m_rows = client->storedConversations();
}

StoredConversation StoredConversationModel::conversation(int row) const
{
    return row >= 0 && row < m_rows.size() ? m_rows.at(row) : StoredConversation();
}

int StoredConversationModel::rowOf(const QString &peer) const
{
    for (int row = 0; row < m_rows.size(); ++row) {
        if (m_rows.at(row).conversation == peer)
            return row;
    }
    return -1;
}

// Several changes in a row (a batch of the store's, a catch-up) cost one
// read of the conversations, after the last of them.
void StoredConversationModel::refreshSoon()
{
    if (m_refreshDue)
        return;
    m_refreshDue = true;
    QMetaObject::invokeMethod(
        this,
        [this] {
            if (m_refreshDue)
                refresh();
        },
        Qt::QueuedConnection);
}

// Row by row, the rows above `row` already match: the conversation that
// belongs at `row` is inserted or moved up there, then updated; what is
// left below the last one is gone from the store.
void StoredConversationModel::refresh()
{
    m_refreshDue = false;
    if (m_client.isNull())
        return;
    const QList<StoredConversation> fresh = m_client->storedConversations();
    for (int row = 0; row < fresh.size(); ++row) {
        const StoredConversation &wanted = fresh.at(row);
        int from = row;
        while (from < m_rows.size() && m_rows.at(from).conversation != wanted.conversation)
            ++from;
        if (from == m_rows.size()) {
            beginInsertRows(QModelIndex(), row, row);
            m_rows.insert(row, wanted);
            endInsertRows();
            continue;
        }
        if (from != row) {
            beginMoveRows(QModelIndex(), from, from, QModelIndex(), row);
            m_rows.move(from, row);
            endMoveRows();
        }
        if (!same(m_rows.at(row), wanted)) {
            m_rows[row] = wanted;
            emit dataChanged(index(row), index(row));
        }
    }
    if (m_rows.size() > fresh.size()) {
        beginRemoveRows(QModelIndex(), fresh.size(), m_rows.size() - 1);
        m_rows.erase(m_rows.begin() + fresh.size(), m_rows.end());
        endRemoveRows();
    }
}

int StoredConversationModel::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : m_rows.size();
}

QVariant StoredConversationModel::data(const QModelIndex &index, int role) const
{
    if (!checkIndex(index, CheckIndexOption::IndexIsValid | CheckIndexOption::ParentIsInvalid))
        return QVariant();
    const StoredConversation &c = m_rows.at(index.row());
    switch (role) {
    case Qt::DisplayRole:
    case PeerRole:
        return c.conversation;
    case RoomRole:
        return c.last.messageType == MediaInfo::MESSAGE_TYPE_GROUPCHAT;
    case LastTextRole:
        return c.last.body;
    case LastTimeRole:
        return QDateTime::fromMSecsSinceEpoch(c.last.time);
    case LastSenderRole:
        return c.last.sender;
    case LastOutgoingRole:
        return c.last.outgoing;
    case LastStateRole:
        return int(c.last.state);
    case UnreadRole:
        return c.unread;
    default:
        return QVariant();
    }
}

QHash<int, QByteArray> StoredConversationModel::roleNames() const
{
    return { { PeerRole, "peer" }, { RoomRole, "room" }, { LastTextRole, "lastText" }, { LastTimeRole, "lastTime" },
        { LastSenderRole, "lastSender" }, { LastOutgoingRole, "lastOutgoing" }, { LastStateRole, "lastState" },
        { UnreadRole, "unread" }, { Qt::DisplayRole, "display" } };
}
