#ifndef PUSHCHAT_ENGINELOG_H
#define PUSHCHAT_ENGINELOG_H

// Logging of the engine (internal header): the Qt debug log, category
// "pushchat.engine", quiet by default (QT_LOGGING_RULES turns it on). Each
// line starts with "[operation]: ".

#include <QLoggingCategory>

Q_DECLARE_LOGGING_CATEGORY(lcEngine)

#define PUSHCHAT_ENGINE_LOG(op) qCDebug(lcEngine).noquote().nospace() << "[" << op << "]: "

#endif // PUSHCHAT_ENGINELOG_H
