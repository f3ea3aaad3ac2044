#include "messagetext.h"

#include <pushchat/message_lib.h>

#include <QFile>
#include <QTextCodec>

namespace {

// The text of `file`, read up to just past the limit: a text of the
// limit's length may be followed by "\r\n", and one more byte tells a
// longer one.
std::optional<QString> textOf(QFile &file, const QString &name, QString *error)
{
    QByteArray bytes = file.read(qint64(Message_lib::MAX_BODY_BYTES) + 3);
    if (file.error() != QFileDevice::NoError) {
        *error = QStringLiteral("cannot read %1: %2.").arg(name, file.errorString());
        return std::nullopt;
    }
    if (bytes.endsWith('\n'))
        bytes.chop(bytes.endsWith("\r\n") ? 2 : 1);
    if (bytes.size() > Message_lib::MAX_BODY_BYTES) {
        *error = QStringLiteral("the text of %1 is longer than a message may be (%2 bytes, 2 MiB): nothing was sent.")
                     .arg(name)
                     .arg(Message_lib::MAX_BODY_BYTES);
        return std::nullopt;
    }
    QTextCodec::ConverterState state;
    const QString text = QTextCodec::codecForName("UTF-8")->toUnicode(bytes.constData(), bytes.size(), &state);
    if (state.invalidChars > 0) {
        *error = QStringLiteral("the text of %1 is not UTF-8: nothing was sent.").arg(name);
        return std::nullopt;
    }
    return text;
}

} // namespace

std::optional<QString> MessageText::fromFile(const QString &path, QString *error)
{
    QFile file(path);
    const QString name = QStringLiteral("--text-file '%1'").arg(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("cannot read %1: %2.").arg(name, file.errorString());
        return std::nullopt;
    }
    return textOf(file, name, error);
}

std::optional<QString> MessageText::fromStream(std::FILE *stream, QString *error)
{
    QFile file;
    if (!file.open(stream, QIODevice::ReadOnly)) {
        *error = QStringLiteral("cannot read standard input: %1.").arg(file.errorString());
        return std::nullopt;
    }
    return textOf(file, QStringLiteral("standard input"), error);
}
