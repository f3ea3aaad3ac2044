#ifndef DESKTOPCHAT_CHATWINDOW_H
#define DESKTOPCHAT_CHATWINDOW_H

// The chat window over the user's message store. On the left a search box
// and two tabs: the conversations the store keeps (the most recent first,
// unread counts, friends' presence) and the contacts (friends, rooms,
// friend requests). On the right the open conversation, its older messages
// loaded as it scrolls up, or the messages a search found; a send box below
// (Enter sends). Actions that need the server are enabled while it is
// there. The store works without the broker: the history shows, and
// what is typed waits, pending, until the broker is back. Everything the
// library reports arrives as MessageClient signals on this thread.

#include "logindialog.h"
#include "messageview.h"

#include <pushchat/messageclient.h>
#include <pushchat/storedconversationmodel.h>
#include <pushchat/storedmessagemodel.h>

#include <QLabel>
#include <QLineEdit>
#include <QListView>
#include <QListWidget>
#include <QMainWindow>
#include <QSet>
#include <QStackedWidget>

class ChatWindow : public QMainWindow {
    Q_OBJECT
public:
    /// `deviceId` empty: the id the library keeps for this installation.
    explicit ChatWindow(const QString &deviceId = QString(), QWidget *parent = nullptr);

    /// Opens the message store (settings.store, or the user's file in the
    /// data folder) and logs in with `settings`; progress shows in the
    /// status bar.
    void login(const LoginSettings &settings);
    /// Opens the conversation with a user or a room.
    void openConversation(const QString &jid, bool room);
    /// Sends `text` into the open conversation, as the send box does.
    void sendText(const QString &text);
    /// Shows the stored messages that hold every word of `text`, in all
    /// conversations, where the conversation was (the search box's Enter).
    void search(const QString &text);
    MessageClient &client() { return m_client; }

private:
    enum Kind {
        Chat,
        RoomChat,
        Request
    };

    QListWidgetItem *contact(const QString &jid, Kind kind, const QString &label = QString());
    void selectOpenConversation();
    void onStored(const StoredMessage &message);
    void showStatus();
    void onFriendList(const QByteArray &json);
    void onRoomList(const QString &json);
    void onRoomChanged(const QJsonObject &room, int cmd);
    void onPresence(const QString &from, const QString &body);
    void setOnline(const QString &jid, bool online);
    void updateActions();
    void askForChat();
    void askForFriend();
    void acceptRequest();
    void askForRoom();
    void askForInvite();
    QString completed(const QString &id) const;

    MessageClient m_client;
    StoredConversationModel m_conversationModel;
    StoredMessageModel m_messageModel;
    LoginSettings m_settings;
    QString m_jid;
    bool m_room = false;     // the open conversation is a room's
    QString m_linkError;     // why the link is down, until it is up again
    QSet<QString> m_friends; // whose presence is shared with this user
    QSet<QString> m_online;
    QLineEdit *m_search;
    QListView *m_conversations;
    QListWidget *m_contacts;
    QStackedWidget *m_pages; // the conversation, or what a search found
    MessageView *m_messages;
    QLabel *m_foundTitle;
    QListWidget *m_found;
    QLineEdit *m_sendBox;
    QLabel *m_connection;
    QAction *m_addFriend, *m_acceptRequest, *m_newRoom, *m_invite;
};

#endif // DESKTOPCHAT_CHATWINDOW_H
