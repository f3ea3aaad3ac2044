#ifndef PUSHCHAT_DEVSERVER_DEVSERVERLOG_H
#define PUSHCHAT_DEVSERVER_DEVSERVERLOG_H

#include <QLoggingCategory>

// The development server's diagnostics ("pushchat.devserver").
Q_DECLARE_LOGGING_CATEGORY(lcDevServer)

#endif // PUSHCHAT_DEVSERVER_DEVSERVERLOG_H
