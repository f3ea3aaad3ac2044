#include "chatwindow.h"

#include <QDateTime>
#include <QHBoxLayout>
#include <QInputDialog>
#include <QJsonArray>
#include <QJsonDocument>
#include <QSplitter>
#include <QStatusBar>
#include <QToolBar>
#include <QUuid>
#include <QVBoxLayout>

namespace {

constexpr int kGroupChat = 4; // MediaInfo::MESSAGE_TYPE_GROUPCHAT
constexpr int kJidRole = Qt::UserRole;
constexpr int kKindRole = Qt::UserRole + 1;

QJsonObject objectOf(const QByteArray &json) { return QJsonDocument::fromJson(json).object(); }

// "hh:mm" of a sender's stamp ("yyyy-MM-dd hh:mm:ss") or a server's time (ISO).
QString clock(const QString &time)
{
    QDateTime at = QDateTime::fromString(time, Qt::ISODateWithMs);
    if (!at.isValid())
        at = QDateTime::fromString(time, QStringLiteral("yyyy-MM-dd hh:mm:ss"));
    return at.isValid() ? at.toLocalTime().toString(QStringLiteral("hh:mm")) : time;
}

} // namespace

ChatWindow::ChatWindow(const QString &deviceId, QWidget *parent)
    : QMainWindow(parent), m_client(deviceId, QStringLiteral("pushchat desktop chat"))
{
    m_conversations = new QListWidget(this);
    m_conversations->setObjectName(QStringLiteral("conversations"));
    m_messages = new QListWidget(this);
    m_messages->setObjectName(QStringLiteral("messages"));
    m_messages->setWordWrap(true);
    m_sendBox = new QLineEdit(this);
    m_sendBox->setObjectName(QStringLiteral("sendBox"));
    m_sendBox->setPlaceholderText(tr("Type a message and press Enter"));
    auto *right = new QWidget(this);
    auto *column = new QVBoxLayout(right);
    column->setContentsMargins(0, 0, 0, 0);
    column->addWidget(m_messages);
    column->addWidget(m_sendBox);
    auto *split = new QSplitter(this);
    split->addWidget(m_conversations);
    split->addWidget(right);
    split->setSizes({180, 420});
    setCentralWidget(split);
    m_connection = new QLabel(tr("Not logged in"), this);
    m_connection->setObjectName(QStringLiteral("connection"));
    statusBar()->addWidget(m_connection, 1);

    QToolBar *tools = addToolBar(tr("Actions"));
    tools->addAction(tr("Chat with…"), this, &ChatWindow::askForChat);
    tools->addAction(tr("Add friend…"), this, &ChatWindow::askForFriend);
    tools->addAction(tr("Accept request"), this, &ChatWindow::acceptRequest);
    tools->addAction(tr("New room…"), this, &ChatWindow::askForRoom);
    tools->addAction(tr("Invite…"), this, &ChatWindow::askForInvite);
    resize(620, 420);

    connect(m_conversations, &QListWidget::currentItemChanged, this, &ChatWindow::showConversation);
    connect(m_sendBox, &QLineEdit::returnPressed, this, &ChatWindow::send);
    connect(&m_client, &MessageClient::connectionStateChanged, this, [this](MessageClient::ConnectionState state) {
        static const char *const names[] = {"Disconnected", "Connecting…", "Connected"};
        m_connection->setText(m_jid + QStringLiteral(" — ") + tr(names[state]));
        if (state == MessageClient::Connected) {
            m_client.listFriends(1, 200);
            m_client.fetchConversations(0, 0, 50);
        }
    });
    connect(&m_client, &MessageClient::connectionError, this, [this](int, const QString &text) {
        statusBar()->showMessage(text, 10000);
    });
    connect(&m_client, &MessageClient::messageReceived, this,
            [this](const QString &from, const QString &to, const QString &body, int, int msgType, const QString &key,
                   const QString &stamp, bool) { onMessage(from, to, body, msgType, key, stamp); });
    connect(&m_client, &MessageClient::conversations, this, &ChatWindow::onConversations);
    connect(&m_client, &MessageClient::conversationDetail, this, &ChatWindow::onConversationDetail);
    connect(&m_client, &MessageClient::friendList, this, &ChatWindow::onFriendList);
    connect(&m_client, &MessageClient::roomListRefreshed, this, &ChatWindow::onRoomList);
    connect(&m_client, &MessageClient::roomChanged, this, &ChatWindow::onRoomChanged);
    connect(&m_client, &MessageClient::presence, this, &ChatWindow::onPresence);
    connect(&m_client, &MessageClient::friendAdded, this,
            [this](const QString &from, const QString &, const QString &body) {
                item(from, Request, tr("%1 asks: %2").arg(bare(from), body));
            });
    connect(&m_client, &MessageClient::friendAccepted, this, [this](const QString &from, const QString &) {
        statusBar()->showMessage(tr("%1 accepted your friend request").arg(bare(from)), 10000);
        m_client.listFriends(1, 200);
    });
}

void ChatWindow::login(const LoginSettings &settings)
{
    m_settings = settings;
    const QString domain = settings.domain.isEmpty() ? settings.host : settings.domain;
    m_jid = settings.user + QLatin1Char('@') + domain;
    setWindowTitle(tr("pushchat — %1").arg(m_jid));
    m_client.setPushClientOptions(settings.push);
    m_client.setHistoryBaseAddress(settings.httpBase);
    m_client.login(settings.host, settings.port, settings.user, settings.level, domain);
}

QString ChatWindow::bare(const QString &jid) const { return jid.section(QLatin1Char('@'), 0, 0); }

QString ChatWindow::completed(const QString &id) const
{
    return id.contains(QLatin1Char('@')) ? id : id + QLatin1Char('@') + m_jid.section(QLatin1Char('@'), 1);
}

QListWidgetItem *ChatWindow::item(const QString &jid, Kind kind, const QString &label)
{
    for (int i = 0; i < m_conversations->count(); ++i) {
        QListWidgetItem *it = m_conversations->item(i);
        if (it->data(kJidRole).toString() == jid && (it->data(kKindRole).toInt() == Request) == (kind == Request)) {
            if (!label.isEmpty())
                it->setText(label);
            return it;
        }
    }
    auto *it = new QListWidgetItem(label.isEmpty() ? bare(jid) : label, m_conversations);
    it->setData(kJidRole, jid);
    it->setData(kKindRole, int(kind));
    if (kind == Chat)
        setOnline(jid, m_online.contains(jid));
    return it;
}

void ChatWindow::openConversation(const QString &jid, bool room)
{
    m_conversations->setCurrentItem(item(completed(jid), room ? RoomChat : Chat));
}

void ChatWindow::addLine(const QString &conversation, const QString &key, const QString &from, const QString &time,
                         const QString &body)
{
    if (!key.isEmpty() && m_keys[conversation].contains(key))
        return; // a room echoes our own messages; history repeats what we saw
    m_keys[conversation].insert(key);
    const QString text = QStringLiteral("%1  %2: %3").arg(clock(time), bare(from), body);
    m_lines[conversation].append({key, text});
    QListWidgetItem *current = m_conversations->currentItem();
    if (current && current->data(kJidRole).toString() == conversation)
        m_messages->addItem(text);
    else
        item(conversation, Chat)->setFont([] { QFont bold; bold.setBold(true); return bold; }());
}

void ChatWindow::showConversation()
{
    m_messages->clear();
    QListWidgetItem *current = m_conversations->currentItem();
    if (!current || current->data(kKindRole).toInt() == Request)
        return;
    current->setFont(QFont());
    const QString conversation = current->data(kJidRole).toString();
    for (const Line &line : m_lines.value(conversation))
        m_messages->addItem(line.text);
    m_client.fetchConversation(conversation, 0, 50);
}

void ChatWindow::send() { sendText(m_sendBox->text()); }

void ChatWindow::sendText(const QString &text)
{
    QListWidgetItem *current = m_conversations->currentItem();
    if (!current || current->data(kKindRole).toInt() == Request || text.isEmpty())
        return;
    const QString to = current->data(kJidRole).toString();
    const bool room = current->data(kKindRole).toInt() == RoomChat;
    const QString key = QUuid::createUuid().toString(QUuid::WithoutBraces);
    const QString stamp = QDateTime::currentDateTime().toString(QStringLiteral("yyyy-MM-dd hh:mm:ss"));
    if (m_client.sendMessage(to, text, m_settings.level, room, key, stamp) != 1) {
        statusBar()->showMessage(tr("Not sent: not connected, or too much is waiting"), 5000);
        return;
    }
    m_sendBox->clear();
    addLine(to, key, m_jid, stamp, text);
}

void ChatWindow::onMessage(const QString &from, const QString &to, const QString &body, int msgType,
                           const QString &key, const QString &stamp)
{
    const bool room = msgType == kGroupChat;
    if (room && from == to)
        return; // the library's own note that a room was entered or left
    const QString conversation = room || from == m_jid ? to : from;
    QListWidgetItem *it = item(conversation, room ? RoomChat : Chat);
    if (!m_conversations->currentItem())
        m_conversations->setCurrentItem(it);
    addLine(conversation, key, from, stamp, body);
}

void ChatWindow::onConversations(const QByteArray &json)
{
    for (const QJsonValue &c : objectOf(json).value(QLatin1String("conversations")).toArray()) {
        const QJsonObject conversation = c.toObject();
        item(conversation.value(QLatin1String("conv_id")).toString(),
             conversation.value(QLatin1String("msg_type")).toInt() == kGroupChat ? RoomChat : Chat);
    }
}

void ChatWindow::onConversationDetail(const QByteArray &json)
{
    const QJsonObject detail = objectOf(json);
    const QString conversation = detail.value(QLatin1String("conv_id")).toString();
    for (const QJsonValue &m : detail.value(QLatin1String("messages")).toArray()) {
        const QJsonObject message = m.toObject();
        const auto text = [&](const char *key) { return message.value(QLatin1String(key)).toString(); };
        addLine(conversation, text("uuid"), text("from"), text("time"),
                message.value(QLatin1String("readable")).toBool() ? text("body") : tr("[not readable at your level]"));
    }
}

void ChatWindow::onFriendList(const QByteArray &json)
{
    for (const QJsonValue &f : objectOf(json).value(QLatin1String("friends")).toArray()) {
        const QJsonObject entry = f.toObject();
        const QString jid = entry.value(QLatin1String("jid")).toString();
        item(jid, Chat);
        setOnline(jid, entry.value(QLatin1String("online")).toBool());
    }
}

void ChatWindow::onRoomList(const QString &json)
{
    for (const QJsonValue &r : objectOf(json.toUtf8()).value(QLatin1String("rooms")).toArray()) {
        const QJsonObject entry = r.toObject();
        for (auto it = entry.begin(); it != entry.end(); ++it)
            item(it.key(), RoomChat, QStringLiteral("# ") + it.value().toObject().value(QLatin1String("name")).toString());
    }
}

void ChatWindow::onRoomChanged(const QJsonObject &room, int cmd)
{
    const QString jid = room.value(QLatin1String("jid")).toString();
    if (cmd == GroupSub_Release) {
        delete item(jid, RoomChat);
        return;
    }
    item(jid, RoomChat, QStringLiteral("# ") + room.value(QLatin1String("name")).toString());
}

void ChatWindow::onPresence(const QString &from, const QString &body)
{
    setOnline(from, objectOf(body.toUtf8()).value(QLatin1String("type")).toInt() != 0);
}

void ChatWindow::setOnline(const QString &jid, bool online)
{
    if (online)
        m_online.insert(jid);
    else
        m_online.remove(jid);
    for (int i = 0; i < m_conversations->count(); ++i) {
        QListWidgetItem *it = m_conversations->item(i);
        if (it->data(kJidRole).toString() == jid && it->data(kKindRole).toInt() == Chat)
            it->setText((online ? QStringLiteral("● ") : QStringLiteral("○ ")) + bare(jid));
    }
}

void ChatWindow::askForChat()
{
    const QString id = QInputDialog::getText(this, tr("Chat with"), tr("User id or JID:"));
    if (!id.isEmpty())
        openConversation(id, false);
}

void ChatWindow::askForFriend()
{
    const QString id = QInputDialog::getText(this, tr("Add friend"), tr("User id or JID:"));
    if (!id.isEmpty() && m_client.addFriend(id, tr("%1 would like to be your friend").arg(bare(m_jid))) == 1)
        statusBar()->showMessage(tr("Friend request sent to %1").arg(id), 5000);
}

void ChatWindow::acceptRequest()
{
    QListWidgetItem *current = m_conversations->currentItem();
    if (!current || current->data(kKindRole).toInt() != Request)
        return;
    const QString jid = current->data(kJidRole).toString();
    m_client.acceptFriend(jid, tr("welcome"));
    delete current;
    openConversation(jid, false);
    m_client.listFriends(1, 200);
}

void ChatWindow::askForRoom()
{
    const QString id = QInputDialog::getText(this, tr("New room"), tr("Room id:"));
    if (id.isEmpty())
        return;
    const QString members = QInputDialog::getText(this, tr("New room"), tr("Members (ids separated by commas):"));
    m_client.createRoom(id, id, members);
}

void ChatWindow::askForInvite()
{
    QListWidgetItem *current = m_conversations->currentItem();
    if (!current || current->data(kKindRole).toInt() != RoomChat)
        return;
    const QString members = QInputDialog::getText(this, tr("Invite"), tr("Members (ids separated by commas):"));
    if (!members.isEmpty())
        m_client.inviteToRoom(bare(current->data(kJidRole).toString()), members);
}
