#ifndef PUSHCHAT_ENVELOPEREADER_H
#define PUSHCHAT_ENVELOPEREADER_H

// Reads the JSON text of a message envelope into its nine fields (internal
// header).
//
// Every received message goes through here. Building a QJsonDocument, then a
// QString per field and a UTF-8 copy of each, costs more than the rest of the
// envelope; so the exact compact shape that our writer and Qt's compact
// writer give (no white space, known keys in sorted order, each at most
// once, strings and small integers only) is read directly, and anything else
// goes to Qt's JSON parser (guarded by JsonKeyCheck) as before. Both give the
// same fields for every text the direct reader accepts, which a differential
// test checks on random and edge-case texts.
//
// Stateless; any thread.

#include <QByteArray>

#include <cstddef>
#include <string>

class EnvelopeReader {
public:
    /// The envelope's fields as read; a key that is missing or has another
    /// type reads as the default shown.
    struct Fields {
        std::string messageKey;         // "k"
        std::string p;                  // "p"
        std::string from;               // "f"
        std::string to;                 // "t"
        std::string body;               // "b": string, or an object as indented JSON
        std::string stamp;              // "st"
        int secLevel = defaultSecLevel; // "s"
        int bodyType = defaultBodyType; // "bt"
        int msgType = defaultMsgType;   // "v"

        static constexpr int defaultSecLevel = 9999;
        static constexpr int defaultBodyType = 0;
        static constexpr int defaultMsgType = 1;
    };

    /// Reads `size` bytes of JSON (the caller stops at the first NUL). False
    /// when the text is not a JSON object; `out` is then unspecified.
    static bool read(const char *json, std::size_t size, Fields &out);

    /// The direct reader alone: false for any text that is not exactly the
    /// compact shape (the text may still be a valid envelope). Starts from
    /// the defaults.
    static bool readCompact(const char *json, std::size_t size, Fields &out);

    /// Qt's JSON parser alone. Malformed UTF-8 is decoded as QString::fromUtf8
    /// does (U+FFFD) instead of failing the parse.
    static bool readDocument(const QByteArray &json, Fields &out);
};

#endif // PUSHCHAT_ENVELOPEREADER_H
