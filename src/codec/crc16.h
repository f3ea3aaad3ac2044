#ifndef PUSHCHAT_CRC16_H
#define PUSHCHAT_CRC16_H

// CRC-16/X-25 (the checksum of ISO 3309 that qChecksum computes by
// default), one table lookup per byte instead of Qt's two per byte. Used for
// the cipher's integrity field on every message. Stateless and thread-safe.

#include <cstdint>

class Crc16 {
public:
    /// The same value as qChecksum(data, size).
    static std::uint16_t x25(const char *data, int size);
};

#endif // PUSHCHAT_CRC16_H
