#ifndef PUSHCHAT_COMPACTJSON_H
#define PUSHCHAT_COMPACTJSON_H

// Writes JSON text exactly as Qt's compact JSON writer does, without
// building a QJsonObject first (internal header).
//
// Every message envelope is written on the send path; going through
// QJsonObject and QJsonDocument costs more than the rest of the envelope.
// The output is byte for byte what QJsonDocument::toJson(Compact) gives for
// the same values, which a test checks on random text: strings are taken
// up to their first NUL and decoded as UTF-8 (malformed sequences become
// U+FFFD, as QString::fromUtf8 makes them), '"' and '\' and control
// characters are escaped the way Qt escapes them, everything else is copied
// as UTF-8. The caller writes the keys in sorted order, as Qt does.

#include <QByteArray>
#include <QJsonObject>
#include <QString>

class CompactJson {
public:
    /// Appends a JSON string for the UTF-8 text up to its first NUL.
    static void appendString(QByteArray &out, const char *utf8);
    static void appendInt(QByteArray &out, int value);

    /// Qt's compact text of `object` (a command body).
    static QString text(const QJsonObject &object);

    /// Whether `data` is well-formed UTF-8 (no overlongs, no surrogates).
    static bool isUtf8(const char *data, int size);

    /// How many leading bytes of `data` stand in a JSON string as they are:
    /// ASCII from 0x20 up, other than '"' and '\\'. Eight bytes per step.
    static int plainPrefix(const char *data, int size);
};

#endif // PUSHCHAT_COMPACTJSON_H
