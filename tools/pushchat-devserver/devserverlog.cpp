#include "devserverlog.h"

Q_LOGGING_CATEGORY(lcDevServer, "pushchat.devserver")
