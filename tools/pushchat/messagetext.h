#ifndef PUSHCHAT_CLI_MESSAGETEXT_H
#define PUSHCHAT_CLI_MESSAGETEXT_H

// The text of `send` when it does not fit a command-line argument (the
// system takes at most 128 KiB per argument): read from a file (--text-file
// PATH) or from standard input (TEXT given as "-"), before any connection.
//
// The bytes must be UTF-8 and at most Message_lib::MAX_BODY_BYTES (2 MiB)
// once one line end at the very end is taken away; reading stops just past
// the limit, so that a larger input costs no more memory than that.

#include <QString>

#include <cstdio>
#include <optional>

class MessageText {
public:
    /// The text of the file at `path`; nullopt, with one line in `error`
    /// naming the file and the reason, when it cannot be read, is not UTF-8
    /// or is over the limit.
    static std::optional<QString> fromFile(const QString &path, QString *error);
    /// The same for everything `stream` (standard input) holds.
    static std::optional<QString> fromStream(std::FILE *stream, QString *error);
};

#endif // PUSHCHAT_CLI_MESSAGETEXT_H
