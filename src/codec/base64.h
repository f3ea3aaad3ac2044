#ifndef PUSHCHAT_BASE64_H
#define PUSHCHAT_BASE64_H

// Decoding of the cipher's base-64 text form, with exactly the result of
// QByteArray::fromBase64 under its default options: characters outside the
// standard alphabet (padding included) are skipped, and a last group of
// fewer than eight bits is dropped. One table lookup per character instead
// of Qt's chain of range tests; this runs on every received payload.

#include <QByteArray>

class Base64 {
public:
    static QByteArray decode(const char *text, int size);
};

#endif // PUSHCHAT_BASE64_H
