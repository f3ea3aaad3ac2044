#ifndef PUSHCHAT_CAPILOG_H
#define PUSHCHAT_CAPILOG_H

// Logging of the C interface (internal header): the Qt debug log, category
// "pushchat.capi", quiet by default (QT_LOGGING_RULES turns it on).

#include <QLoggingCategory>

Q_DECLARE_LOGGING_CATEGORY(lcCapi)

#endif // PUSHCHAT_CAPILOG_H
