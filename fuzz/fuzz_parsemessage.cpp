// Fuzzes payload reading: key letter, base 64, cipher text and JSON
// envelope. Anything must be read or refused without fault.

#include "mqttmessage.h"

#include <cstddef>
#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string payload(reinterpret_cast<const char *>(data), size);
    MQTTMessage in(nullptr, true);
    if (in.parseMessage(payload.c_str())) {
        // What was read can be written again.
        MQTTMessage out(nullptr, in.encrypted);
        out.encText(QString::fromStdString(in.from), QString::fromStdString(in.to), QString::fromStdString(in.body),
            MediaInfo::MessageType(in.msgType), MESSAGE_BODY_TYPE(in.bodyType), QString::fromStdString(in.messageKey),
            QString::fromStdString(in.stamp), in.secLevel);
    }
    return 0;
}
