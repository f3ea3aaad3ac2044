#include "chatwindow.h"

#include <QDateTime>
#include <QDir>
#include <QInputDialog>
#include <QJsonArray>
#include <QJsonDocument>
#include <QSplitter>
#include <QStandardPaths>
#include <QStatusBar>
#include <QStyledItemDelegate>
#include <QTabWidget>
#include <QToolBar>
#include <QVBoxLayout>

#include <utility>

namespace {

constexpr int kGroupChat = 4; // MediaInfo::MESSAGE_TYPE_GROUPCHAT
constexpr int kJidRole = Qt::UserRole;
constexpr int kKindRole = Qt::UserRole + 1;
using Conversations = StoredConversationModel;

QJsonObject objectOf(const QByteArray &json)
{
    return QJsonDocument::fromJson(json).object();
}

// A conversation in two lines: "● bob  (2)" (# for a room; a friend's
// presence, ● online or ○ offline; nothing for others, whose presence is
// not shared; the unread messages, in bold), then the newest message.
class ConversationDelegate : public QStyledItemDelegate {
public:
    ConversationDelegate(const QSet<QString> *friends, const QSet<QString> *online, QObject *parent)
        : QStyledItemDelegate(parent), m_friends(friends), m_online(online)
    { }

protected:
    void initStyleOption(QStyleOptionViewItem *option, const QModelIndex &index) const override
    {
        QStyledItemDelegate::initStyleOption(option, index);
        const QString peer = index.data(Conversations::PeerRole).toString();
        const int unread = index.data(Conversations::UnreadRole).toInt();
        const QString mark = index.data(Conversations::RoomRole).toBool() ? QStringLiteral("# ")
                             : !m_friends->contains(peer)                 ? QString()
                             : m_online->contains(peer)                   ? QStringLiteral("● ")
                                                                          : QStringLiteral("○ ");
        option->text = mark + MessageView::nameOf(peer) +
                       (unread > 0 ? QStringLiteral("  (%1)").arg(unread) : QString()) + QChar(QChar::LineSeparator) +
                       MessageView::shortTime(index.data(Conversations::LastTimeRole).toDateTime()) +
                       QStringLiteral("  ") + index.data(Conversations::LastTextRole).toString();
        option->font.setBold(unread > 0);
    }

private:
    const QSet<QString> *m_friends;
    const QSet<QString> *m_online;
};

QWidget *column(QWidget *parent, std::initializer_list<QWidget *> widgets)
{
    auto *box = new QWidget(parent);
    auto *layout = new QVBoxLayout(box);
    layout->setContentsMargins(0, 0, 0, 0);
    for (QWidget *widget : widgets)
        layout->addWidget(widget);
    return box;
}

} // namespace

ChatWindow::ChatWindow(const QString &deviceId, QWidget *parent)
    : QMainWindow(parent), m_client(deviceId, QStringLiteral("pushchat desktop chat")), m_conversationModel(&m_client),
      m_messageModel(&m_client)
{
    m_search = new QLineEdit(this);
    m_search->setObjectName(QStringLiteral("search"));
    m_search->setPlaceholderText(tr("Search messages"));
    m_search->setClearButtonEnabled(true);
    m_conversations = new QListView(this);
    m_conversations->setObjectName(QStringLiteral("conversations"));
    m_conversations->setModel(&m_conversationModel);
    m_conversations->setItemDelegate(new ConversationDelegate(&m_friends, &m_online, m_conversations));
    m_conversations->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    m_contacts = new QListWidget(this);
    m_contacts->setObjectName(QStringLiteral("contacts"));
    auto *tabs = new QTabWidget(this);
    tabs->setDocumentMode(true);
    tabs->addTab(m_conversations, tr("Chats"));
    tabs->addTab(m_contacts, tr("Contacts"));
    m_messages = new MessageView(&m_messageModel, this);
    m_messages->setObjectName(QStringLiteral("messages"));
    m_foundTitle = new QLabel(this);
    m_found = new QListWidget(this);
    m_found->setObjectName(QStringLiteral("found"));
    auto *welcome = new QLabel(tr("Pick a conversation on the left,\nor start one with “Chat with…”."), this);
    welcome->setAlignment(Qt::AlignCenter);
    welcome->setEnabled(false);
    m_pages = new QStackedWidget(this);
    m_pages->addWidget(welcome);
    m_pages->addWidget(m_messages);
    m_pages->addWidget(column(this, { m_foundTitle, m_found }));
    m_sendBox = new QLineEdit(this);
    m_sendBox->setObjectName(QStringLiteral("sendBox"));
    m_sendBox->setPlaceholderText(tr("Type a message and press Enter"));
    auto *split = new QSplitter(this);
    split->addWidget(column(this, { m_search, tabs }));
    split->addWidget(column(this, { m_pages, m_sendBox }));
    split->setSizes({ 280, 620 });
    split->setStretchFactor(1, 1);
    setCentralWidget(split);
    m_connection = new QLabel(tr("Not logged in"), this);
    m_connection->setObjectName(QStringLiteral("connection"));
    statusBar()->addWidget(m_connection, 1);

    QToolBar *tools = addToolBar(tr("Actions"));
    tools->setMovable(false);
    tools->addAction(tr("Chat with…"), this, &ChatWindow::askForChat);
    m_addFriend = tools->addAction(tr("Add friend…"), this, &ChatWindow::askForFriend);
    m_acceptRequest = tools->addAction(tr("Accept request"), this, &ChatWindow::acceptRequest);
    m_newRoom = tools->addAction(tr("New room…"), this, &ChatWindow::askForRoom);
    m_invite = tools->addAction(tr("Invite…"), this, &ChatWindow::askForInvite);
    for (auto [action, name] : { std::pair{ m_addFriend, "addFriend" }, { m_acceptRequest, "acceptRequest" },
             { m_newRoom, "newRoom" }, { m_invite, "invite" } })
        action->setObjectName(QLatin1String(name));
    updateActions();
    resize(900, 600);

    connect(m_conversations->selectionModel(), &QItemSelectionModel::currentChanged, this,
        [this](const QModelIndex &current) {
            if (current.isValid())
                openConversation(
                    current.data(Conversations::PeerRole).toString(), current.data(Conversations::RoomRole).toBool());
        });
    // The open conversation's row is selected once the store has it.
    connect(&m_conversationModel, &QAbstractItemModel::rowsInserted, this, &ChatWindow::selectOpenConversation);
    connect(m_contacts, &QListWidget::currentItemChanged, this, &ChatWindow::updateActions);
    connect(m_contacts, &QListWidget::itemClicked, this, [this](QListWidgetItem *it) {
        if (it->data(kKindRole).toInt() != Request)
            openConversation(it->data(kJidRole).toString(), it->data(kKindRole).toInt() == RoomChat);
    });
    connect(m_found, &QListWidget::itemClicked, this, [this](QListWidgetItem *it) {
        openConversation(it->data(kJidRole).toString(), it->data(kKindRole).toInt() == RoomChat);
    });
    connect(m_search, &QLineEdit::returnPressed, this, [this] { search(m_search->text()); });
    connect(m_search, &QLineEdit::textChanged, this, [this](const QString &text) {
        if (text.isEmpty())
            m_pages->setCurrentIndex(m_messageModel.peer().isEmpty() ? 0 : 1);
    });
    connect(m_sendBox, &QLineEdit::returnPressed, this, [this] { sendText(m_sendBox->text()); });

    connect(&m_client, &MessageClient::connectionStateChanged, this, [this](MessageClient::ConnectionState state) {
        if (state == MessageClient::Connected) {
            m_linkError.clear();
            m_client.listFriends(1, 200);
        }
        showStatus();
        updateActions();
    });
    connect(&m_client, &MessageClient::connectionError, this, [this](int, const QString &text) {
        m_linkError = text;
        showStatus();
    });
    connect(&m_client, &MessageClient::storeError, this,
        [this](const QString &text) { statusBar()->showMessage(tr("Message store: %1").arg(text)); });
    connect(&m_client, &MessageClient::storedMessageChanged, this, &ChatWindow::onStored);
    // The first message that arrives opens its conversation when none is.
    connect(&m_client, &MessageClient::messageReceived, this,
        [this](const QString &from, const QString &to, const QString &, int, int msgType) {
            const bool room = msgType == kGroupChat;
            if (m_messageModel.peer().isEmpty() && !(room && from == to)) // not a room's own notice
                openConversation(room || from == m_jid ? to : from, room);
        });
    connect(&m_client, &MessageClient::friendList, this, &ChatWindow::onFriendList);
    connect(&m_client, &MessageClient::roomListRefreshed, this, &ChatWindow::onRoomList);
    connect(&m_client, &MessageClient::roomChanged, this, &ChatWindow::onRoomChanged);
    connect(&m_client, &MessageClient::presence, this, &ChatWindow::onPresence);
    connect(&m_client, &MessageClient::friendAdded, this,
        [this](const QString &from, const QString &, const QString &body) {
            contact(from, Request, tr("%1 asks: %2").arg(MessageView::nameOf(from), body));
            statusBar()->showMessage(tr("Friend request from %1 (Contacts)").arg(MessageView::nameOf(from)), 10000);
        });
    connect(&m_client, &MessageClient::friendAccepted, this, [this](const QString &from, const QString &) {
        statusBar()->showMessage(tr("%1 accepted your friend request").arg(MessageView::nameOf(from)), 10000);
        m_client.listFriends(1, 200);
    });
}

void ChatWindow::login(const LoginSettings &settings)
{
    m_settings = settings;
    const QString domain = settings.domain.isEmpty() ? settings.host : settings.domain;
    m_jid = settings.user + QLatin1Char('@') + domain;
    setWindowTitle(tr("pushchat — %1").arg(m_jid));
    QString store = settings.store;
    if (store.isEmpty()) { // one store per user
        const QString folder = QStandardPaths::writableLocation(QStandardPaths::AppDataLocation);
        QDir().mkpath(folder);
        store = folder + QLatin1Char('/') + m_jid + QStringLiteral(".db");
    }
    if (m_client.openMessageStore(store)) {
        m_conversationModel.refresh();
        m_messageModel.reload();
    }
    m_client.setPushClientOptions(settings.push);
    m_client.setHistoryBaseAddress(settings.httpBase);
    m_client.login(settings.host, settings.port, settings.user, settings.level, domain);
    showStatus();
}

QString ChatWindow::completed(const QString &id) const
{
    return id.contains(QLatin1Char('@')) ? id : id + QLatin1Char('@') + m_jid.section(QLatin1Char('@'), 1);
}

QListWidgetItem *ChatWindow::contact(const QString &jid, Kind kind, const QString &label)
{
    for (int i = 0; i < m_contacts->count(); ++i) {
        QListWidgetItem *it = m_contacts->item(i);
        if (it->data(kJidRole).toString() == jid && (it->data(kKindRole).toInt() == Request) == (kind == Request)) {
            if (!label.isEmpty())
                it->setText(label);
            return it;
        }
    }
    auto *it = new QListWidgetItem(label, m_contacts);
    it->setData(kJidRole, jid);
    it->setData(kKindRole, int(kind));
    if (kind == Chat)
        setOnline(jid, m_online.contains(jid));
    return it;
}

void ChatWindow::openConversation(const QString &jid, bool room)
{
    const QString peer = completed(jid);
    m_pages->setCurrentWidget(m_messages);
    if (peer != m_messageModel.peer()) {
        m_room = room;
        m_messageModel.setPeer(peer);
        m_client.markConversationRead(peer, true);
    }
    selectOpenConversation();
    updateActions();
}

// What needs the server is enabled while connected; inviting, in a room;
// accepting, with a friend request selected.
void ChatWindow::updateActions()
{
    const bool connected = m_client.connectionState() == MessageClient::Connected;
    const QListWidgetItem *current = m_contacts->currentItem();
    m_addFriend->setEnabled(connected);
    m_newRoom->setEnabled(connected);
    m_invite->setEnabled(connected && m_room && !m_messageModel.peer().isEmpty());
    m_acceptRequest->setEnabled(connected && current != nullptr && current->data(kKindRole).toInt() == Request);
}

void ChatWindow::selectOpenConversation()
{
    const int row = m_conversationModel.rowOf(m_messageModel.peer());
    if (row >= 0 && m_conversations->currentIndex().row() != row)
        m_conversations->setCurrentIndex(m_conversationModel.index(row));
}

void ChatWindow::sendText(const QString &text)
{
    const QString to = m_messageModel.peer();
    if (to.isEmpty() || text.isEmpty())
        return;
    const QString stamp = QDateTime::currentDateTime().toString(QStringLiteral("yyyy-MM-dd hh:mm:ss"));
    if (m_client.sendMessage(to, text, m_settings.level, m_room, QString(), stamp) != 1) {
        statusBar()->showMessage(tr("Not sent: %1").arg(m_client.lastStoreError()), 5000);
        return;
    }
    m_sendBox->clear();
}

void ChatWindow::search(const QString &text)
{
    m_found->clear();
    if (text.trimmed().isEmpty()) {
        m_pages->setCurrentIndex(m_messageModel.peer().isEmpty() ? 0 : 1);
        return;
    }
    const QList<StoredMessage> hits = m_client.searchStoredMessages(text);
    for (const StoredMessage &m : hits) {
        auto *it =
            new QListWidgetItem(QStringLiteral("%1  %2 — %3: %4")
                                    .arg(MessageView::shortTime(QDateTime::fromMSecsSinceEpoch(m.time)),
                                        MessageView::nameOf(m.conversation), MessageView::nameOf(m.sender), m.body),
                m_found);
        it->setData(kJidRole, m.conversation);
        it->setData(kKindRole, m.messageType == kGroupChat ? RoomChat : Chat);
    }
    m_foundTitle->setText(
        hits.size() == 1 ? tr("1 message holds “%1”; click it to open its conversation").arg(text)
                         : tr("%1 messages hold “%2”; click one to open its conversation").arg(hits.size()).arg(text));
    m_pages->setCurrentIndex(2);
}

// A message that arrives in the open conversation is read; how many wait
// for the broker shows in the status bar.
void ChatWindow::onStored(const StoredMessage &message)
{
    if (message.state == StoredState::Received && message.conversation == m_messageModel.peer())
        m_client.markConversationRead(message.conversation, true);
    if (message.outgoing)
        showStatus();
}

void ChatWindow::showStatus()
{
    static const char *const names[] = { "Disconnected", "Connecting…", "Connected" };
    const MessageClient::ConnectionState state = m_client.connectionState();
    QString text = m_jid + QStringLiteral(" — ") + tr(names[state]);
    if (state != MessageClient::Connected && !m_linkError.isEmpty())
        text += QStringLiteral(" (%1)").arg(m_linkError.section(QStringLiteral(": "), 1)); // without the address
    m_connection->setToolTip(state == MessageClient::Connected ? QString() : m_linkError);
    if (const int waiting = m_client.storedPendingCount())
        text += tr(" · %n waiting to be sent", nullptr, waiting);
    m_connection->setText(text);
}

void ChatWindow::onFriendList(const QByteArray &json)
{
    for (const QJsonValue &f : objectOf(json).value(QLatin1String("friends")).toArray()) {
        const QJsonObject entry = f.toObject();
        const QString jid = entry.value(QLatin1String("jid")).toString();
        m_friends.insert(jid);
        contact(jid, Chat);
        setOnline(jid, entry.value(QLatin1String("online")).toBool());
    }
}

void ChatWindow::onRoomList(const QString &json)
{
    for (const QJsonValue &r : objectOf(json.toUtf8()).value(QLatin1String("rooms")).toArray()) {
        const QJsonObject entry = r.toObject();
        for (auto it = entry.begin(); it != entry.end(); ++it)
            contact(it.key(), RoomChat,
                QStringLiteral("# ") + it.value().toObject().value(QLatin1String("name")).toString());
    }
}

void ChatWindow::onRoomChanged(const QJsonObject &room, int cmd)
{
    const QString jid = room.value(QLatin1String("jid")).toString();
    if (cmd == GroupSub_Release) {
        delete contact(jid, RoomChat);
        return;
    }
    contact(jid, RoomChat, QStringLiteral("# ") + room.value(QLatin1String("name")).toString());
}

void ChatWindow::onPresence(const QString &from, const QString &body)
{
    setOnline(from, objectOf(body.toUtf8()).value(QLatin1String("type")).toInt() != 0);
}

// Friends are marked ● online or ○ offline, among the contacts and the
// conversations.
void ChatWindow::setOnline(const QString &jid, bool online)
{
    if (online)
        m_online.insert(jid);
    else
        m_online.remove(jid);
    for (int i = 0; i < m_contacts->count(); ++i) {
        QListWidgetItem *it = m_contacts->item(i);
        if (it->data(kJidRole).toString() == jid && it->data(kKindRole).toInt() == Chat)
            it->setText((online ? QStringLiteral("● ") : QStringLiteral("○ ")) + MessageView::nameOf(jid));
    }
    m_conversations->viewport()->update();
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
    if (!id.isEmpty() &&
        m_client.addFriend(id, tr("%1 would like to be your friend").arg(MessageView::nameOf(m_jid))) == 1)
        statusBar()->showMessage(tr("Friend request sent to %1").arg(id), 5000);
}

void ChatWindow::acceptRequest()
{
    QListWidgetItem *current = m_contacts->currentItem();
    if (!current || current->data(kKindRole).toInt() != Request)
        return;
    const QString jid = current->data(kJidRole).toString();
    m_client.acceptFriend(jid, tr("welcome"));
    delete current;
    updateActions();
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
    if (!m_room)
        return;
    const QString members = QInputDialog::getText(this, tr("Invite"), tr("Members (ids separated by commas):"));
    if (!members.isEmpty())
        m_client.inviteToRoom(MessageView::nameOf(m_messageModel.peer()), members);
}
