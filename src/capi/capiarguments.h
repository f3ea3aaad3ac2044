#ifndef PUSHCHAT_CAPIARGUMENTS_H
#define PUSHCHAT_CAPIARGUMENTS_H

// CapiArguments: a JSON object of named arguments (a C client's request or
// configuration) checked against what an operation takes, so that a
// malformed one is refused with a message naming the field and the fault
// ("chat: \"to\" must be a string") before anything is done.
//
// Values after check(): Text is a JSON string; Integer a JSON number that
// is a whole number within int; Flag a JSON boolean; Names a string or an
// array of strings (read joined with ","); Any is not checked. The
// accessors give the fallback for a field that is absent. Plain value; no
// threads of its own.

#include <QJsonObject>
#include <QString>

#include <cstddef>
#include <vector>

class CapiArguments {
public:
    enum class Type {
        Text,
        Integer,
        Flag,
        Names,
        Any
    };
    struct Field {
        const char *name;
        Type type;
        bool required;
    };

    /// The largest request or configuration text taken: a chat body at the
    /// library's limit (2 MiB of UTF-8) escaped at the worst.
    static constexpr std::size_t MAX_TEXT_BYTES = 16 * 1024 * 1024;

    CapiArguments() = default;
    explicit CapiArguments(QJsonObject object) : m_object(std::move(object)) { }

    /// Parses `text` (NUL-terminated UTF-8, at most MAX_TEXT_BYTES) as a JSON
    /// object; false with `error` set when it is none.
    static bool parse(const char *text, CapiArguments &arguments, QString &error);

    /// Checks the fields against `fields` and the names in `also` (taken
    /// as they are): "" when they fit, else what is wrong, starting with
    /// `context` and ": ".
    QString check(
        const QString &context, const std::vector<Field> &fields, const std::vector<const char *> &also = {}) const;

    bool has(const char *name) const { return m_object.contains(QLatin1String(name)); }
    QJsonValue value(const char *name) const { return m_object.value(QLatin1String(name)); }
    QString text(const char *name, const QString &fallback = QString()) const;
    int integer(const char *name, int fallback = 0) const;
    bool flag(const char *name, bool fallback = false) const;
    QString names(const char *name) const;
    const QJsonObject &object() const { return m_object; }

private:
    QJsonObject m_object;
};

#endif // PUSHCHAT_CAPIARGUMENTS_H
