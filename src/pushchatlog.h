#ifndef PUSHCHAT_PUSHCHATLOG_H
#define PUSHCHAT_PUSHCHATLOG_H

// The library's logging (internal header): the Qt log, one category per
// subsystem. Warnings and errors are shown by default; the trace, at debug
// level, is quiet until QT_LOGGING_RULES turns it on, for instance
// QT_LOGGING_RULES="pushchat.*.debug=true".

#include <QLoggingCategory>

Q_DECLARE_LOGGING_CATEGORY(lcCodec)    // "pushchat.codec": cipher, image codec
Q_DECLARE_LOGGING_CATEGORY(lcProtocol) // "pushchat.protocol": envelopes, dispatch
Q_DECLARE_LOGGING_CATEGORY(lcEngine)   // "pushchat.engine": the façade's operations and events
Q_DECLARE_LOGGING_CATEGORY(lcContacts) // "pushchat.contacts": the contact manager
Q_DECLARE_LOGGING_CATEGORY(lcStore)    // "pushchat.store": the message store
Q_DECLARE_LOGGING_CATEGORY(lcCapi)     // "pushchat.capi": the C interface

// A trace line of `category` about operation `op`, starting "[op]: ".
#define PUSHCHAT_TRACE(category, op) qCDebug(category).noquote().nospace() << "[" << op << "]: "

#endif // PUSHCHAT_PUSHCHATLOG_H
