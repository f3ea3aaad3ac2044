#ifndef PUSHCHAT_CODECLOG_H
#define PUSHCHAT_CODECLOG_H

// Logging of the image codec and body formatter (internal header): the Qt
// log, category "pushchat.codec". Failures are written as critical lines.

#include <QLoggingCategory>

Q_DECLARE_LOGGING_CATEGORY(lcImageCodec)

#endif // PUSHCHAT_CODECLOG_H
