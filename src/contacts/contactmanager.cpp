// The contact manager: subscriptions, records and contact notifications,
// all local.

#include "contactmanager.h"

#include "jsonkeycheck.h"
#include "pushchatlog.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>

ContactManager::ContactManager() = default;

void ContactManager::setContactEventReciever(ImContactEventReciever *receiver)
{
    m_contactReceiver = receiver;
}

QString ContactManager::completeJid(QString jid) const
{
    if (jid.indexOf(QLatin1Char('@')) == -1)
        jid += QLatin1Char('@') + m_domain;
    return jid;
}

bool ContactManager::subScribe(QString jid, QString extra)
{
    Q_UNUSED(extra)
    PUSHCHAT_TRACE(lcContacts, "subScribe") << "subscribe() :" << completeJid(jid);
    return true;
}

bool ContactManager::unSubScribe(QString jid, QString extra)
{
    Q_UNUSED(extra)
    PUSHCHAT_TRACE(lcContacts, "unSubScribe") << "unSubScribe() :" << completeJid(jid);
    return true;
}

bool ContactManager::acceptSubScribe(QString jid, bool accept)
{
    // Acceptance has no message of its own: nothing to send or record.
    Q_UNUSED(jid)
    Q_UNUSED(accept)
    return true;
}

void ContactManager::uploadVCardInfo(QString vcard)
{
    Q_UNUSED(vcard)
}

QStringList ContactManager::getGroupList()
{
    return QStringList();
}

QList<Contact> ContactManager::getAllContactList()
{
    return QList<Contact>();
}

QList<Contact> ContactManager::getContactList(QString group)
{
    Q_UNUSED(group)
    QList<Contact> list;
    for (auto it = m_contacts.constBegin(); it != m_contacts.constEnd(); ++it) {
        PUSHCHAT_TRACE(lcContacts, "getContactList") << it.key();
        list.append(it.value());
    }
    return list;
}

bool ContactManager::jsonToContact(Contact &contact, QString json)
{
    const QJsonDocument doc = JsonKeyCheck::parse(json.toUtf8());
    if (!doc.isObject())
        return false;
    const QJsonObject object = doc.object();
    if (object.isEmpty())
        return false;

    // Texts that are only taken when they say something.
    const auto setIfNotEmpty = [](QByteArray &field, const QJsonValue &value) {
        const QByteArray text = value.toString().toUtf8();
        if (!text.isEmpty())
            field = text;
    };
    for (const QString &key : object.keys()) {
        const QJsonValue value = object.value(key);
        if (value.isNull())
            continue;
        if (key == QLatin1String("name")) {
            contact.name = value.toString().toUtf8();
        } else if (key == QLatin1String("phone")) {
            PUSHCHAT_TRACE(lcContacts, "jsonToContact") << int(value.type());
            for (const QJsonValue element : value.toArray())
                contact.phone = element.toString().toUtf8();
        } else if (key == QLatin1String("sex")) {
            setIfNotEmpty(contact.sex, value);
        } else if (key == QLatin1String("photo_path")) {
            setIfNotEmpty(contact.photoPath, value);
        } else if (key == QLatin1String("address")) {
            setIfNotEmpty(contact.address, value);
        }
    }
    return true;
}

void ContactManager::doSubScribeIncomingRequest(QString &jid, Contact &contact)
{
    if (m_contactReceiver != nullptr)
        m_contactReceiver->onSubscribeRequest(jid, QString::fromUtf8(contact.text7), QString::fromUtf8(contact.text8));
}

void ContactManager::doNotifyContactInfoIncoming(QString jid, Contact &contact, QStringList list)
{
    if (m_contactReceiver != nullptr)
        m_contactReceiver->onContactInfo(jid, QString::fromUtf8(contact.text7), contact.flag1, contact.flag2, list);
}

void ContactManager::donotifyownerVcardinforevieved(QString vcard)
{
    if (m_contactReceiver != nullptr)
        m_contactReceiver->onOwnerVCard(vcard);
}
