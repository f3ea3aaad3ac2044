#ifndef DESKTOPCHAT_CHATWINDOW_H
#define DESKTOPCHAT_CHATWINDOW_H

// The chat window: conversations and rooms on the left (friends with their
// presence, rooms, friend requests), the open conversation's messages with
// sender and time on the right, a send box below (Enter sends). Everything
// the library reports arrives as MessageClient signals on this thread.

#include "logindialog.h"

#include <pushchat/messageclient.h>

#include <QHash>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMainWindow>
#include <QSet>

class ChatWindow : public QMainWindow {
    Q_OBJECT
public:
    /// `deviceId` empty: the id the library keeps for this installation.
    explicit ChatWindow(const QString &deviceId = QString(), QWidget *parent = nullptr);

    /// Logs in with `settings`; progress shows in the status bar.
    void login(const LoginSettings &settings);
    /// Opens (and lists, if new) the conversation with a user or a room.
    void openConversation(const QString &jid, bool room);
    /// Sends `text` into the open conversation, as the send box does.
    void sendText(const QString &text);
    MessageClient &client() { return m_client; }

private:
    enum Kind { Chat, RoomChat, Request };
    struct Line {
        QString key;
        QString text;
    };

    QListWidgetItem *item(const QString &jid, Kind kind, const QString &label = QString());
    void addLine(const QString &conversation, const QString &key, const QString &from, const QString &time,
                 const QString &body);
    void showConversation();
    void send();
    void onMessage(const QString &from, const QString &to, const QString &body, int msgType, const QString &key,
                   const QString &stamp);
    void onConversations(const QByteArray &json);
    void onConversationDetail(const QByteArray &json);
    void onFriendList(const QByteArray &json);
    void onRoomList(const QString &json);
    void onRoomChanged(const QJsonObject &room, int cmd);
    void onPresence(const QString &from, const QString &body);
    void setOnline(const QString &jid, bool online);
    void askForChat();
    void askForFriend();
    void acceptRequest();
    void askForRoom();
    void askForInvite();
    QString bare(const QString &jid) const;
    QString completed(const QString &id) const;

    MessageClient m_client;
    LoginSettings m_settings;
    QString m_jid;
    QListWidget *m_conversations;
    QListWidget *m_messages;
    QLineEdit *m_sendBox;
    QLabel *m_connection;
    QHash<QString, QVector<Line>> m_lines; // by conversation
    QHash<QString, QSet<QString>> m_keys;  // the message keys shown, by conversation
    QSet<QString> m_online;
};

#endif // DESKTOPCHAT_CHATWINDOW_H
