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
    : connection_(std::make_shared<PushConnection>(clientId, options))
{ }

PushClient::~PushClient()
{
    connection_->close();
}

void PushClient::setEventRecv(PushEventReciever *receiver)
{
    connection_->setReceiver(receiver);
}

int PushClient::will_set(const char *topic, char *payload, int qos, bool /*retain*/)
{
    return connection_->setWill(topic, payload, qos);
}

int PushClient::start_connect(const char *host, int port, int keepalive)
{
    return connection_->start(host, port, keepalive);
}

int PushClient::subscribe(char *topic)
{
    return topic ? subscribe(std::vector<std::string>{ topic }) : toInt(PushResult::InvalidArgument);
}

int PushClient::subscribe(const std::vector<std::string> &filters, int qos)
{
    return connection_->subscribe(filters, qos);
}

int PushClient::unsubscribe(const char *topic)
{
    return topic ? unsubscribe(std::vector<std::string>{ topic }) : toInt(PushResult::InvalidArgument);
}

int PushClient::unsubscribe(const std::vector<std::string> &filters)
{
    return connection_->unsubscribe(filters);
}

int PushClient::publish(const char *topic, const char *payload, int qos, bool /*retain*/, std::uint64_t ticket)
{
    return connection_->publish(topic, payload, qos, ticket);
}

PushClient::State PushClient::state() const
{
    return connection_->state();
}

PushConnectionError PushClient::lastError() const
{
    return connection_->lastError().first;
}

std::string PushClient::lastErrorText() const
{
    return connection_->lastError().second;
}

std::size_t PushClient::pendingCount() const
{
    return connection_->pendingCount();
}

std::size_t PushClient::repeatsDropped() const
{
    return connection_->repeatsDropped();
}

void PushClient::setIncomingLimit(std::size_t bytes)
{
    connection_->setIncomingLimit(bytes);
}

void PushClient::setMaxQos(int qos)
{
    connection_->setMaxQos(qos);
}
