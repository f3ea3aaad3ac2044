// Fuzzes topic parsing: any bytes as a topic must parse without fault, and
// a valid chain must describe and match itself.

#include "mqttmesaageprotocol.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string topic(reinterpret_cast<const char *>(data), size);
    MqttMesaageProtocol p;
    const bool valid = p.fromTopic(topic.c_str()); // stops at the first NUL, as a C string does
    (void)p.getCmdDescribe();
    if (valid && p.code != 0) {
        std::vector<int> codes;
        for (const ProtocolHead *n = &p; n != nullptr; n = n->next)
            codes.push_back(n->code);
        if (codes.size() <= 5 && !p.matchCodes(codes.data(), unsigned(codes.size())))
            __builtin_trap(); // a chain always matches its own codes
    }
    return 0;
}
