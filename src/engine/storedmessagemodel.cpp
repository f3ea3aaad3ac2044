#include "storedmessagemodel.h"

#include "messageclient.h"

#include <QDateTime>

namespace {

// The store's order: by time, then by recording.
bool before(const StoredMessage &a, const StoredMessage &b)
{
    return a.time != b.time ? a.time < b.time : a.id < b.id;
}

} // namespace

StoredMessageModel::StoredMessageModel(MessageClient *client, const QString &peer, int pageSize, QObject *parent)
    : QAbstractListModel(parent), m_client(client), m_peer(peer), m_pageSize(qMax(1, pageSize))
{
    if (client != nullptr)
        connect(client, &MessageClient::storedMessageChanged, this, &StoredMessageModel::changed);
    reload();
}

void StoredMessageModel::setPeer(const QString &peer)
{
    if (peer == m_peer)
        return;
    m_peer = peer;
    reload();
    emit peerChanged(peer);
}

StoredMessage StoredMessageModel::message(int row) const
{
    return row >= 0 && row < m_rows.size() ? m_rows.at(row) : StoredMessage();
}

int StoredMessageModel::rowOf(const QString &key) const
{
    for (int row = m_rows.size() - 1; row >= 0; --row) {
        if (m_rows.at(row).key == key)
            return row;
    }
    return -1;
}

void StoredMessageModel::reload()
{
    beginResetModel();
    m_rows.clear();
    if (!m_client.isNull() && !m_peer.isEmpty())
        m_rows = m_client->storedMessages(m_peer, QString(), m_pageSize);
    m_older = m_rows.size() == m_pageSize;
    endResetModel();
}

bool StoredMessageModel::canFetchMore(const QModelIndex &parent) const
{
    return !parent.isValid() && m_older && !m_client.isNull() && !m_rows.first().key.isEmpty();
}

void StoredMessageModel::fetchMore(const QModelIndex &parent)
{
    if (!canFetchMore(parent))
        return;
    const QList<StoredMessage> page = m_client->storedMessages(m_peer, m_rows.first().key, m_pageSize);
    m_older = page.size() == m_pageSize;
    if (page.isEmpty())
        return;
    beginInsertRows(QModelIndex(), 0, page.size() - 1);
    m_rows = page + m_rows;
    endInsertRows();
}

// The rows are the newest messages of the conversation, in the store's
// order: a message already shown is updated in place, a new one goes where
// its time puts it, unless that is above a page still to be read.
void StoredMessageModel::changed(const StoredMessage &message)
{
    if (m_peer.isEmpty() || message.conversation != m_peer)
        return;
    for (int row = m_rows.size() - 1; row >= 0; --row) {
        if (m_rows.at(row).id == message.id) {
            m_rows[row] = message;
            emit dataChanged(index(row), index(row));
            return;
        }
    }
    int row = m_rows.size();
    while (row > 0 && before(message, m_rows.at(row - 1)))
        --row;
    if (row == 0 && m_older)
        return;
    beginInsertRows(QModelIndex(), row, row);
    m_rows.insert(row, message);
    endInsertRows();
}

int StoredMessageModel::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : m_rows.size();
}

QVariant StoredMessageModel::data(const QModelIndex &index, int role) const
{
    if (!checkIndex(index, CheckIndexOption::IndexIsValid | CheckIndexOption::ParentIsInvalid))
        return QVariant();
    const StoredMessage &m = m_rows.at(index.row());
    switch (role) {
    case Qt::DisplayRole:
    case BodyRole:
        return m.body;
    case IdRole:
        return m.id;
    case KeyRole:
        return m.key;
    case SenderRole:
        return m.sender;
    case TimeRole:
        return QDateTime::fromMSecsSinceEpoch(m.time);
    case StampRole:
        return m.stamp;
    case OutgoingRole:
        return m.outgoing;
    case StateRole:
        return int(m.state);
    case BodyTypeRole:
        return m.bodyType;
    case SecurityLevelRole:
        return m.securityLevel;
    default:
        return QVariant();
    }
}

QHash<int, QByteArray> StoredMessageModel::roleNames() const
{
    return { { IdRole, "id" }, { KeyRole, "key" }, { SenderRole, "sender" }, { BodyRole, "body" }, { TimeRole, "time" },
        { StampRole, "stamp" }, { OutgoingRole, "outgoing" }, { StateRole, "state" }, { BodyTypeRole, "bodyType" },
        { SecurityLevelRole, "securityLevel" }, { Qt::DisplayRole, "display" } };
}
