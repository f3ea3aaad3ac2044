#ifndef PUSHCHAT_CONTACTSLOG_H
#define PUSHCHAT_CONTACTSLOG_H

// Logging of the contact manager (internal header): the Qt debug log,
// category "pushchat.contacts", quiet by default (QT_LOGGING_RULES turns it
// on). Each line starts with "[operation]: ".

#include <QLoggingCategory>

Q_DECLARE_LOGGING_CATEGORY(lcContacts)

#define PUSHCHAT_CONTACTS_LOG(op) qCDebug(lcContacts).noquote().nospace() << "[" << op << "]: "

#endif // PUSHCHAT_CONTACTSLOG_H
