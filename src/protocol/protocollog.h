#ifndef PUSHCHAT_PROTOCOLLOG_H
#define PUSHCHAT_PROTOCOLLOG_H

// Logging of the wire-protocol layer (internal header).
//
// Lines go to the Qt debug log under the category "pushchat.protocol",
// which is quiet by default; QT_LOGGING_RULES="pushchat.*.debug=true"
// turns the trace on. Each line starts with "[operation: line]".

#include <QLoggingCategory>

Q_DECLARE_LOGGING_CATEGORY(lcProtocol)

#define PUSHCHAT_PROTOCOL_TRACE(op) qCDebug(lcProtocol).noquote().nospace() << "[" << op << ": " << __LINE__ << "] "

#endif // PUSHCHAT_PROTOCOLLOG_H
