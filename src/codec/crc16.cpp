#include "crc16.h"

#include <array>

namespace {

using Table = std::array<std::uint16_t, 256>;

// Slicing by eight: table k advances the register over k + 1 bytes at once,
// so eight input bytes cost eight independent lookups instead of a chain of
// eight dependent ones. Built at compile time from the reflected polynomial
// 0x1021 (0x8408).
constexpr std::array<Table, 8> makeTables()
{
    std::array<Table, 8> t{};
    for (unsigned int i = 0; i < 256; ++i) {
        std::uint16_t crc = std::uint16_t(i);
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 1u) ? std::uint16_t((crc >> 1) ^ 0x8408u) : std::uint16_t(crc >> 1);
        t[0][i] = crc;
    }
    for (std::size_t k = 1; k < 8; ++k) {
        for (unsigned int i = 0; i < 256; ++i)
            t[k][i] = std::uint16_t((t[k - 1][i] >> 8) ^ t[0][t[k - 1][i] & 0xFFu]);
    }
    return t;
}

constexpr std::array<Table, 8> kTables = makeTables();

} // namespace

std::uint16_t Crc16::x25(const char *data, int size)
{
    const auto *p = reinterpret_cast<const unsigned char *>(data);
    std::uint16_t crc = 0xFFFF;
    int i = 0;
    for (; i + 8 <= size; i += 8) {
        crc = std::uint16_t(kTables[7][(crc ^ p[i]) & 0xFFu] ^ kTables[6][((crc >> 8) ^ p[i + 1]) & 0xFFu] ^
                            kTables[5][p[i + 2]] ^ kTables[4][p[i + 3]] ^ kTables[3][p[i + 4]] ^ kTables[2][p[i + 5]] ^
                            kTables[1][p[i + 6]] ^ kTables[0][p[i + 7]]);
    }
    for (; i < size; ++i)
        crc = std::uint16_t((crc >> 8) ^ kTables[0][(crc ^ p[i]) & 0xFFu]);
    return std::uint16_t(~crc);
}
