#ifndef PUSHCHAT_CAPICONFIG_H
#define PUSHCHAT_CAPICONFIG_H

// CapiConfig: a C client's configuration, read from its JSON text (the
// fields are listed in pushchat_c.h). read() refuses a configuration that
// is not JSON, misses the user, has a field of the wrong type or an unknown
// one, or names a broker without a port in 1..65535, with a message that
// says which. Plain value.

#include <pushchat/pushclientoptions.h>

#include <QString>

#include <cstddef>

class CapiConfig {
public:
    /// The queue's bound unless "queue_size" sets another.
    static constexpr int DEFAULT_QUEUE_SIZE = 10000;

    /// Reads `text`; "" when usable, else why not.
    QString read(const char *text);

    QString user;
    QString domain;
    int level = 0;
    std::string device;
    std::string deviceName;
    QString host = QStringLiteral("127.0.0.1");
    int port = 1883;
    PushClientOptions options; // TLS, credentials, failover brokers
    int maxQos = 2;
    QString serverJid;
    QString historyBase;
    int historyDeadlineMs = 0; // 0: the library's default
    QString store;             // empty: no message store
    bool storeSync = true;
    std::size_t queueSize = DEFAULT_QUEUE_SIZE;
};

#endif // PUSHCHAT_CAPICONFIG_H
