#include "base64.h"

#include <array>

namespace {

constexpr std::array<signed char, 256> makeTable()
{
    std::array<signed char, 256> t{};
    for (auto &v : t)
        v = -1;
    for (int c = 'A'; c <= 'Z'; ++c)
        t[std::size_t(c)] = static_cast<signed char>(c - 'A');
    for (int c = 'a'; c <= 'z'; ++c)
        t[std::size_t(c)] = static_cast<signed char>(c - 'a' + 26);
    for (int c = '0'; c <= '9'; ++c)
        t[std::size_t(c)] = static_cast<signed char>(c - '0' + 52);
    t['+'] = 62;
    t['/'] = 63;
    return t;
}

constexpr std::array<signed char, 256> kValues = makeTable();

} // namespace

QByteArray Base64::decode(const char *text, int size)
{
    QByteArray out(size * 3 / 4, Qt::Uninitialized);
    char *dst = out.data();
    int produced = 0;
    unsigned int bits = 0;
    int count = 0;
    for (int i = 0; i < size; ++i) {
        const int d = kValues[static_cast<unsigned char>(text[i])];
        if (d < 0)
            continue;
        bits = (bits << 6) | unsigned(d);
        count += 6;
        if (count >= 8) {
            count -= 8;
            dst[produced++] = char(bits >> count);
            bits &= (1u << count) - 1;
        }
    }
    out.truncate(produced);
    return out;
}
