#include "base64.h"

#include <array>

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<signed char, 256> makeTable()
{
    std::array<signed char, 256> t{};
    for (auto &v : t)
        v = -1;
    for (int i = 0; i < 64; ++i)
        t[static_cast<unsigned char>(kAlphabet[i])] = static_cast<signed char>(i);
    return t;
}

constexpr std::array<signed char, 256> kValues = makeTable();

} // namespace

void Base64::encode(const char *data, int size, std::string &out)
{
    const auto *in = reinterpret_cast<const unsigned char *>(data);
    const std::size_t start = out.size();
    out.resize(start + std::size_t((size + 2) / 3) * 4);
    char *dst = &out[start];
    int i = 0;
    for (; i + 3 <= size; i += 3) {
        const unsigned int v = (unsigned(in[i]) << 16) | (unsigned(in[i + 1]) << 8) | in[i + 2];
        dst[0] = kAlphabet[v >> 18];
        dst[1] = kAlphabet[(v >> 12) & 0x3F];
        dst[2] = kAlphabet[(v >> 6) & 0x3F];
        dst[3] = kAlphabet[v & 0x3F];
        dst += 4;
    }
    if (i < size) {
        const bool two = i + 1 < size;
        const unsigned int v = (unsigned(in[i]) << 16) | (two ? unsigned(in[i + 1]) << 8 : 0u);
        dst[0] = kAlphabet[v >> 18];
        dst[1] = kAlphabet[(v >> 12) & 0x3F];
        dst[2] = two ? kAlphabet[(v >> 6) & 0x3F] : '=';
        dst[3] = '=';
    }
}

QByteArray Base64::decode(const char *text, int size)
{
    const auto *src = reinterpret_cast<const unsigned char *>(text);
    QByteArray out(size * 3 / 4, Qt::Uninitialized);
    char *dst = out.data();
    int produced = 0;
    unsigned int bits = 0;
    int count = 0;
    int i = 0;
    while (i < size) {
        // Four alphabet characters with no bits pending are three bytes.
        if (count == 0 && i + 4 <= size) {
            const int a = kValues[src[i]], b = kValues[src[i + 1]], c = kValues[src[i + 2]], d = kValues[src[i + 3]];
            if ((a | b | c | d) >= 0) {
                const unsigned int v = (unsigned(a) << 18) | (unsigned(b) << 12) | (unsigned(c) << 6) | unsigned(d);
                dst[produced] = char(v >> 16);
                dst[produced + 1] = char(v >> 8);
                dst[produced + 2] = char(v);
                produced += 3;
                i += 4;
                continue;
            }
        }
        // One character at a time around anything outside the alphabet.
        const int d = kValues[src[i++]];
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
