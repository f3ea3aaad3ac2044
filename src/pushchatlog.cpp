#include "pushchatlog.h"

Q_LOGGING_CATEGORY(lcCodec, "pushchat.codec", QtInfoMsg)
Q_LOGGING_CATEGORY(lcProtocol, "pushchat.protocol", QtInfoMsg)
Q_LOGGING_CATEGORY(lcEngine, "pushchat.engine", QtInfoMsg)
Q_LOGGING_CATEGORY(lcContacts, "pushchat.contacts", QtInfoMsg)
Q_LOGGING_CATEGORY(lcStore, "pushchat.store", QtInfoMsg)
Q_LOGGING_CATEGORY(lcCapi, "pushchat.capi", QtInfoMsg)
