#ifndef DESKTOPCHAT_MESSAGEVIEW_H
#define DESKTOPCHAT_MESSAGEVIEW_H

// The open conversation's messages, the newest at the bottom, as bubbles:
// the user's own on the right, the peer's on the left with the sender's
// name, each with its time; the user's own are grey and marked "pending"
// until the broker has them, then ✓ (sent) and ✓✓ (read). The view stays
// at the bottom as messages come in and loads older pages from the store
// when scrolled to the top.

#include <pushchat/storedmessagemodel.h>

#include <QDateTime>
#include <QListView>
#include <QPointer>

class MessageView : public QListView {
    Q_OBJECT
public:
    /// Shows `messages`, which the caller owns.
    explicit MessageView(StoredMessageModel *messages, QWidget *parent = nullptr);

    /// "hh:mm" today, the day before that.
    static QString shortTime(const QDateTime &at);
    /// The user part of a JID.
    static QString nameOf(const QString &jid);

protected:
    void reset() override;
    void rowsInserted(const QModelIndex &parent, int start, int end) override;
    void verticalScrollbarValueChanged(int value) override;

private:
    QPointer<StoredMessageModel> m_messages; // the window's, which may go first
};

#endif // DESKTOPCHAT_MESSAGEVIEW_H
