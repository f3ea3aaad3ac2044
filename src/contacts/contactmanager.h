#ifndef PUSHCHAT_CONTACTMANAGER_H
#define PUSHCHAT_CONTACTMANAGER_H

/// \file
/// ContactManager, the engine's local contact bookkeeping.

#include <pushchat/contact.h>
#include <pushchat/imeventreciever.h>
#include <pushchat/pushchat_export.h>

#include <QList>
#include <QMap>
#include <QString>
#include <QStringList>

/// The engine's local contact bookkeeping.
///
/// Subscriptions to other users' presence, the user's vCard and the contact
/// records are local only: nothing here touches the push channel. The
/// subscription operations complete the JID, log it and report success; no
/// operation fills the contact map, so the lists are empty; jsonToContact
/// fills a record the caller holds; the notification operations hand records
/// to the application's ImContactEventReciever (the library itself never
/// calls them today).
///
/// Ownership: the engine (MessagePrivate) owns exactly one manager for its
/// whole life (getContactManager()). The contact receiver is borrowed, null
/// until set, and must outlive the manager.
///
/// Threads: every operation runs on the caller's thread; there is no lock,
/// so use a manager from one thread at a time.
class PUSHCHAT_EXPORT ContactManager {
public:
    /// An empty manager with no contact receiver.
    ContactManager();

    /// Where contact events go; null drops them.
    void setContactEventReciever(ImContactEventReciever *receiver);

    /// \name Subscriptions
    /// A JID without "@" gets "@" + domain (the domain is empty, so a bare
    /// name gains a trailing "@"). Always true; the second argument is not
    /// used.
    ///@{

    /// Subscribes to the presence of `jid`: the JID is logged.
    bool subScribe(QString jid, QString extra);
    /// Ends the subscription to `jid`: the JID is logged.
    bool unSubScribe(QString jid, QString extra);
    /// Accepts or declines a request of `jid`: nothing is sent or recorded.
    bool acceptSubScribe(QString jid, bool accept);
    ///@}

    /// Accepted and dropped: vCards are not stored.
    void uploadVCardInfo(QString vcard);

    /// The contact groups: always empty.
    QStringList getGroupList();
    /// Every contact: always empty.
    QList<Contact> getAllContactList();
    /// Every record of the map, in JID order (each JID logged); the argument
    /// is not used.
    QList<Contact> getContactList(QString group);

    /// Fills `contact` from a JSON object: "name" (any value, as text),
    /// "phone" (an array: the last element wins), "sex", "photo_path" and
    /// "address" (only when not empty); nulls and other keys are skipped.
    /// False, and `contact` unchanged, unless the text is a non-empty JSON
    /// object.
    static bool jsonToContact(Contact &contact, QString json);

    /// \name Notifications
    /// To the application's contact receiver, when one is set.
    ///@{

    /// onSubscribeRequest(jid, text7, text8).
    void doSubScribeIncomingRequest(QString &jid, Contact &contact);
    /// onContactInfo(jid, text7, flag1, flag2, list).
    void doNotifyContactInfoIncoming(QString jid, Contact &contact, QStringList list);
    /// onOwnerVCard(vcard).
    void donotifyownerVcardinforevieved(QString vcard);
    ///@}

    /// The image at `path`, shrunk as ImageCodec does, as the base 64 of its
    /// JPEG bytes (not compressed, so ImageCodec cannot decode it); each
    /// attempt is logged. Empty when it cannot be read.
    QString getImageEncodeStr(QString path, float rate);

private:
    QString completeJid(QString jid) const;

    ImContactEventReciever *m_contactReceiver = nullptr;
    QMap<QString, Contact> m_contacts; // by JID
    QString m_domain;                  // appended to a bare JID
    Contact m_ownContact;              // the user's own record
};

#endif // PUSHCHAT_CONTACTMANAGER_H
