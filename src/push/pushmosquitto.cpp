#include "pushmosquitto.h"

#include <mosquitto.h>

#include <cstring>
#include <mutex>

namespace pushmosquitto {

void initialise()
{
    static std::once_flag once;
    std::call_once(once, [] { mosquitto_lib_init(); });
}

int toResult(PushResult result)
{
    return static_cast<int>(result);
}

int fromLibrary(int rc)
{
    switch (rc) {
    case MOSQ_ERR_SUCCESS:
        return toResult(PushResult::Ok);
    case MOSQ_ERR_NO_CONN:
        return toResult(PushResult::NotConnected);
    case MOSQ_ERR_INVAL:
    case MOSQ_ERR_PAYLOAD_SIZE:
    case MOSQ_ERR_MALFORMED_UTF8:
    case MOSQ_ERR_OVERSIZE_PACKET:
    case MOSQ_ERR_QOS_NOT_SUPPORTED:
        return toResult(PushResult::InvalidArgument);
    default:
        return toResult(PushResult::Failed);
    }
}

bool validUtf8(const char *text, std::size_t length)
{
    return length <= kMaxTopicBytes && mosquitto_validate_utf8(text, static_cast<int>(length)) == MOSQ_ERR_SUCCESS;
}

bool validPublishTopic(const char *topic)
{
    return topic && *topic && validUtf8(topic, std::strlen(topic)) &&
           mosquitto_pub_topic_check(topic) == MOSQ_ERR_SUCCESS;
}

bool validSubscribeTopic(const char *topic)
{
    return topic && *topic && validUtf8(topic, std::strlen(topic)) &&
           mosquitto_sub_topic_check(topic) == MOSQ_ERR_SUCCESS;
}

PushConnectionError connackError(int code)
{
    switch (code) {
    case 3:
        return PushConnectionError::ServerUnavailable;
    case 4:
        return PushConnectionError::BadCredentials;
    case 5:
        return PushConnectionError::NotAuthorised;
    default:
        return PushConnectionError::Refused;
    }
}

PushConnectionError tlsError(const std::string &logged)
{
    if (logged.find("host name verification failed") != std::string::npos)
        return PushConnectionError::HostNameMismatch;
    if (logged.find("certificate verify failed") != std::string::npos)
        return PushConnectionError::CertificateRejected;
    return PushConnectionError::TlsFailed;
}

} // namespace pushmosquitto
