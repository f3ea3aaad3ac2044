#ifndef PUSHCHAT_UTF8VIEW_H
#define PUSHCHAT_UTF8VIEW_H

// Utf8View: a QString's UTF-8 for the store's hashes and SQLite's
// bindings, without an allocation for the texts they mostly see (JIDs,
// message keys, short ASCII bodies). Internal header.
//
// The bytes are always those of QString::toUtf8: ASCII is copied as it
// is, anything else is handed to toUtf8.

#include <QByteArray>
#include <QString>

#include <string>
#include <string_view>

class Utf8View {
public:
    explicit Utf8View(const QString &text);
    Utf8View(const Utf8View &) = delete;
    Utf8View &operator=(const Utf8View &) = delete;

    /// Valid while this object lives.
    std::string_view view() const { return m_view; }

    /// Replaces `out` with the UTF-8 of `text`, reusing its room.
    static void assign(const QString &text, std::string *out);

private:
    static constexpr int kInline = 128;
    char m_inline[kInline];
    QByteArray m_converted; // when the text is not short ASCII
    std::string_view m_view;
};

#endif // PUSHCHAT_UTF8VIEW_H
