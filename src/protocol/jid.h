#ifndef PUSHCHAT_JID_H
#define PUSHCHAT_JID_H

/// \file
/// Jid, the check of the JIDs, user ids and domains that become topics.

// The one check that every JID, user id and domain passes before it becomes
// part of a topic: the application's identity at login, every addressee of
// an outgoing command, and every room JID that a room event or room list
// from the network asks the client to subscribe. A value that fails never
// reaches the broker, so no MQTT wildcard is ever subscribed or published.
//
// Rules: not empty; at most MAX_BYTES bytes of valid UTF-8 (no overlong
// forms, no surrogates); no control character (U+0000 to U+001F, U+007F to
// U+009F); none of the topic's own characters '+', '#' and '/'. A part (a
// user id or a domain) may not hold '@' either.
//
// Stateless; any thread. Applications may use it to check a value before
// they pass it to the library (the command-line client does).

#include <QString>
#include <pushchat/pushchat_export.h>

#include <string_view>

/// Validates JIDs, user ids and domains before they reach a topic.
class PUSHCHAT_EXPORT Jid {
public:
    /// Longest JID, user id or domain, in UTF-8 bytes.
    static constexpr int MAX_BYTES = 256;

    /// What is wrong with a value; None when nothing is.
    enum class Problem {
        None,             ///< valid
        Empty,            ///< no text at all
        TooLong,          ///< more than MAX_BYTES bytes of UTF-8
        NotUtf8,          ///< not valid UTF-8 (or, as a QString, a lone surrogate)
        ControlCharacter, ///< a character from U+0000 to U+001F or U+007F to U+009F
        Wildcard,         ///< '+' or '#'
        LevelSeparator,   ///< '/'
        At                ///< '@' in a user id or domain
    };

    /// What is wrong with `jid` (UTF-8 bytes) as a whole JID (an "@" allowed).
    static Problem check(std::string_view jid);
    /// What is wrong with `jid` as a whole JID (an "@" allowed).
    static Problem check(const QString &jid);
    /// What is wrong with `part` (UTF-8 bytes) as a user id or domain (no "@").
    static Problem checkPart(std::string_view part);
    /// What is wrong with `part` as a user id or domain (no "@").
    static Problem checkPart(const QString &part);
    /// The same for NUL-terminated UTF-8.
    static Problem check(const char *jid) { return check(std::string_view(jid)); }
    /// The same for NUL-terminated UTF-8.
    static Problem checkPart(const char *part) { return checkPart(std::string_view(part)); }

    /// The reason in words, e.g. "holds an MQTT wildcard ('+' or '#')";
    /// empty for Problem::None.
    static const char *describe(Problem problem);
};

#endif // PUSHCHAT_JID_H
