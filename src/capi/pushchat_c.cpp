// The C interface's functions: each hands its call to the CapiClient behind
// the handle (see pushchat_c.h for the contract, capiclient.h for the work).

#include "pushchat_c.h"

#include "capiclient.h"

#include <pushchat/version.h>

#include <cstring>
#include <new>

struct pushchat_client {
    std::unique_ptr<CapiClient> client;
};

namespace {

void copyError(const QString &text, char *error, size_t size)
{
    if (error == nullptr || size == 0)
        return;
    const QByteArray bytes = text.toUtf8();
    const size_t length = std::min(size - 1, static_cast<size_t>(bytes.size()));
    std::memcpy(error, bytes.constData(), length);
    error[length] = '\0';
}

} // namespace

extern "C" {

const char *pushchat_version(void)
{
    return PUSHCHAT_VERSION_STRING;
}

pushchat_client *pushchat_client_new(const char *config, char *error, size_t error_size)
{
    // Nothing may leave a C function: a failed allocation is a null client.
    try {
        QString reason;
        std::unique_ptr<CapiClient> client = CapiClient::create(config, reason);
        if (client == nullptr) {
            copyError(reason, error, error_size);
            return nullptr;
        }
        return new pushchat_client{ std::move(client) };
    } catch (const std::bad_alloc &) {
        copyError(QStringLiteral("out of memory"), error, error_size);
        return nullptr;
    }
}

int pushchat_send(pushchat_client *client, const char *request)
{
    if (client == nullptr || request == nullptr)
        return PUSHCHAT_ERROR_ARGUMENT;
    return client->client->send(request);
}

const char *pushchat_receive(pushchat_client *client, int timeout_ms)
{
    return client != nullptr ? client->client->receive(timeout_ms) : nullptr;
}

int pushchat_event_fd(const pushchat_client *client)
{
    return client != nullptr ? client->client->eventFd() : -1;
}

void pushchat_client_close(pushchat_client *client)
{
    if (client != nullptr)
        client->client->close();
}

void pushchat_client_free(pushchat_client *client)
{
    delete client;
}

} // extern "C"
