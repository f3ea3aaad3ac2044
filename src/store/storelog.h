#ifndef PUSHCHAT_STORELOG_H
#define PUSHCHAT_STORELOG_H

// Logging of the message store (internal header): category "pushchat.store".

#include <QLoggingCategory>

Q_DECLARE_LOGGING_CATEGORY(lcStore)

#endif // PUSHCHAT_STORELOG_H
