#include "pushclient.h"

#include "pushconnection.h"

namespace {
int toInt(PushResult result)
{
    return static_cast<int>(result);
}
} // namespace

void PushEventReciever::messgeRecieved(char *, char *)
{ }

void PushEventReciever::subscriptionGranted(int, int)
{ }
void PushEventReciever::published(std::uint64_t)
{ }

PushEventReciever::~PushEventReciever() = default;

PushClient::PushClient(char *clientId) : PushClient(clientId, PushClientOptions())
{ }

PushClient::PushClient(char *clientId, const PushClientOptions &options)
    : m_connection(std::make_shared<PushConnection>(clientId, options))
{ }

PushClient::~PushClient()
{
    m_connection->close();
}

void PushClient::setEventRecv(PushEventReciever *receiver)
{
    m_connection->setReceiver(receiver);
}

int PushClient::will_set(const char *topic, char *payload, int qos, bool /*retain*/)
{
    return m_connection->setWill(topic, payload, qos);
}

int PushClient::start_connect(const char *host, int port, int keepalive)
{
    return m_connection->start(host, port, keepalive);
}

int PushClient::subscribe(char *topic)
{
    return topic ? subscribe(std::vector<std::string>{ topic }) : toInt(PushResult::InvalidArgument);
}

int PushClient::subscribe(const std::vector<std::string> &filters, int qos)
{
    return m_connection->subscribe(filters, qos);
}

int PushClient::unsubscribe(const char *topic)
{
    return topic ? unsubscribe(std::vector<std::string>{ topic }) : toInt(PushResult::InvalidArgument);
}

int PushClient::unsubscribe(const std::vector<std::string> &filters)
{
    return m_connection->unsubscribe(filters);
}

int PushClient::publish(const char *topic, const char *payload, int qos, bool /*retain*/, std::uint64_t ticket)
{
    return m_connection->publish(topic, payload, qos, ticket);
}

PushClient::State PushClient::state() const
{
    return m_connection->state();
}

PushConnectionError PushClient::lastError() const
{
    return m_connection->lastError().first;
}

std::string PushClient::lastErrorText() const
{
    return m_connection->lastError().second;
}

std::size_t PushClient::pendingCount() const
{
    return m_connection->pendingCount();
}

std::size_t PushClient::repeatsDropped() const
{
    return m_connection->repeatsDropped();
}

void PushClient::setIncomingLimit(std::size_t bytes)
{
    m_connection->setIncomingLimit(bytes);
}

void PushClient::setMaxQos(int qos)
{
    m_connection->setMaxQos(qos);
}
