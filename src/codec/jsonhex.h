#ifndef PUSHCHAT_JSONHEX_H
#define PUSHCHAT_JSONHEX_H

// The four hexadecimal digits of a JSON "\uXXXX" escape (internal header),
// shared by the readers that decode JSON strings without Qt's parser.

#include <cstddef>

namespace JsonHex {

/// The value of one hexadecimal digit, or -1.
inline int digit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

/// The UTF-16 unit written as four hex digits at s[pos] (of n bytes); false
/// when fewer than four bytes remain or one is not a hex digit.
inline bool readUnit(const char *s, std::size_t n, std::size_t pos, unsigned int &unit)
{
    if (pos > n || n - pos < 4)
        return false;
    unit = 0;
    for (std::size_t k = 0; k < 4; ++k) {
        const int h = digit(s[pos + k]);
        if (h < 0)
            return false;
        unit = unit * 16 + unsigned(h);
    }
    return true;
}

} // namespace JsonHex

#endif // PUSHCHAT_JSONHEX_H
