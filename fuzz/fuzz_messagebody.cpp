// Fuzzes the conversion of received message bodies: JSON of any shape, and
// image texts (base 64, compressed length prefix, picture data) that are
// decoded and written as pictures. Anything must be converted or refused
// without fault. Pictures go to a documents directory in a temporary
// folder and are removed after each run. Bodies naming a local file
// ("image_with_path") are skipped: converting one reads that file, which is
// the sender's side of the conversion, not received input.

#include "messagetools.h"

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStandardPaths>
#include <QString>
#include <QTemporaryDir>

#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace {

// Points HOME (and so the documents directory) into a temporary folder for
// the whole run.
struct Sandbox {
    QTemporaryDir dir;
    Sandbox()
    {
        setenv("HOME", QFile::encodeName(dir.path()).constData(), 1);
        setenv("XDG_CONFIG_HOME", QFile::encodeName(dir.path() + QStringLiteral("/config")).constData(), 1);
        QDir(dir.path()).mkpath(QStringLiteral("Documents"));
        if (!QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation).startsWith(dir.path()))
            std::abort();
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static Sandbox sandbox;
    const QByteArray bytes(reinterpret_cast<const char *>(data), int(size));
    if (bytes.contains("image_with_path"))
        return 0;
    const QString converted = MessageTools().parserMessage(QString::fromUtf8(bytes));
    const QJsonObject result = QJsonDocument::fromJson(converted.toUtf8()).object();
    if (result.value(QStringLiteral("type")).toString() == QLatin1String("image_with_path")) {
        const QString saved = result.value(QStringLiteral("body")).toString();
        if (!saved.isEmpty() && !saved.startsWith(sandbox.dir.path()))
            std::abort(); // a picture written outside the documents directory
        QFile::remove(saved);
    }
    return 0;
}
