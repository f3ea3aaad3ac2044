#include "imagebody.h"

#include <pushchat/imagecodec.h>
#include <pushchat/messagetools.h>

#include <QDir>
#include <QFile>
#include <QImage>
#include <QImageReader>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStandardPaths>

namespace {

const QLatin1String kType("type");
const QLatin1String kBody("body");

QJsonObject objectOf(const QString &json)
{
    return QJsonDocument::fromJson(json.toUtf8()).object(); // empty unless an object
}

} // namespace

QString ImageBody::encodeFile(const QString &path, QString *error)
{
    // The library refuses what follows too, but only its log would say why.
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("cannot read --image '%1': %2.").arg(path, file.errorString());
        return QString();
    }
    QImageReader reader(&file);
    const QSize size = reader.size(); // from the header: no pixel decoded yet
    if (size.isValid() && qint64(size.width()) * size.height() > ImageCodec::MAX_ENCODE_PIXELS) {
        *error = QStringLiteral("--image '%1' is too large a picture: %2 x %3 pixels, over the limit of %4 pixels.")
                     .arg(path)
                     .arg(size.width())
                     .arg(size.height())
                     .arg(ImageCodec::MAX_ENCODE_PIXELS);
        return QString();
    }
    if (reader.read().isNull()) {
        *error = QStringLiteral("--image '%1' is not a picture this client can read (%2).")
                     .arg(path, reader.errorString().toLower());
        return QString();
    }
    const QJsonObject body = MessageTools().formatEncodeImageMessage(path);
    if (body.value(kBody).toString().isEmpty()) {
        *error = QStringLiteral("--image '%1' could not be encoded.").arg(path);
        return QString();
    }
    return QString::fromUtf8(QJsonDocument(body).toJson(QJsonDocument::Compact));
}

std::optional<QString> ImageBody::saveIfEncoded(const QString &body)
{
    if (objectOf(body).value(kType).toString() != QLatin1String("image_encode"))
        return std::nullopt;
    return objectOf(MessageTools().parserMessage(body)).value(kBody).toString();
}

QString ImageBody::prepareDocumentsDirectory()
{
    const QString documents = QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation);
    if (documents.isEmpty() || !QDir().mkpath(documents))
        return QString();
    return documents;
}
