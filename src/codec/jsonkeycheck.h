#ifndef PUSHCHAT_JSONKEYCHECK_H
#define PUSHCHAT_JSONKEYCHECK_H

// Finds JSON objects that repeat a key (internal header).
//
// Qt 5.15's JSON parser keeps the last of repeated keys but leaks the value
// it drops when that value is a non-empty array or object, so a peer could
// make a receiver leak memory with every message. No writer we talk to
// repeats a key (Qt's writer cannot), so texts that hold arrays or nested
// objects and repeat a key are refused before they reach the parser; a flat
// text (no array, no nested object) cannot leak and is parsed as it is. Keys are compared as Qt compares them,
// after escapes are decoded ("\u0061" and "a" are the same key).

#include <QJsonDocument>

#include <string_view>

class JsonKeyCheck {
public:
    /// Whether some object in the JSON text repeats a key. Text that is not
    /// well-formed is answered as far as it can be read; the JSON parser
    /// rejects it anyway.
    static bool hasRepeatedKey(std::string_view json);

    /// QJsonDocument::fromJson, except that a text that is not flat and
    /// repeats a key gives an empty document (and no error code).
    static QJsonDocument parse(const QByteArray &json, QJsonParseError *error = nullptr);

    /// A cheap test that rules out the problem: no array, and no object
    /// other than the outermost, anywhere in the text (not even in strings).
    static bool isFlat(std::string_view json);
};

#endif // PUSHCHAT_JSONKEYCHECK_H
