#ifndef PUSHMOSQUITTO_H
#define PUSHMOSQUITTO_H

#include "pushclient.h"

#include <cstddef>
#include <string>

// What PushConnection's parts share about libmosquitto: its one-time
// initialisation, its result codes in our terms, the checks of what is
// handed to it, and the reading of its failures.
namespace pushmosquitto {

constexpr std::size_t kMaxTopicBytes = 65535;
constexpr std::size_t kMaxPayloadBytes = 268435455;

void initialise();
int toResult(PushResult result);
// A libmosquitto result as a PushResult, in int.
int fromLibrary(int rc);
bool validUtf8(const char *text, std::size_t length);
bool validPublishTopic(const char *topic);
bool validSubscribeTopic(const char *topic);
// What a refused CONNACK means; 3 (server unavailable) is worth retrying,
// the others cannot be fixed by another attempt with the same settings.
PushConnectionError connackError(int code);
// A TLS failure, told apart by the error lines libmosquitto logged during
// the handshake (it returns the same code for every TLS failure).
PushConnectionError tlsError(const std::string &logged);
inline const char *orNull(const std::string &text)
{
    return text.empty() ? nullptr : text.c_str();
}

} // namespace pushmosquitto

#endif // PUSHMOSQUITTO_H
