#ifndef PUSHCHAT_BASE64_H
#define PUSHCHAT_BASE64_H

// The cipher's base-64 text form, both ways, on every message.
//
// encode gives exactly what QByteArray::toBase64 gives under its default
// options (standard alphabet, "=" padding), appended to a std::string so the
// envelope's payload is written in place. decode gives exactly what
// QByteArray::fromBase64 gives under its default options: characters
// outside the standard alphabet (padding included) are skipped, and a last
// group of fewer than eight bits is dropped. Both work on whole groups of
// four characters where they can, with one table lookup per character.
// Stateless; any thread.

#include <QByteArray>

#include <string>

class Base64 {
public:
    static void encode(const char *data, int size, std::string &out);
    static QByteArray decode(const char *text, int size);
};

#endif // PUSHCHAT_BASE64_H
