#include "imagebody.h"

#include <pushchat/imagecodec.h>
#include <pushchat/messagetools.h>

#include <QDir>
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
    // The library refuses such a picture too; asking the header first tells
    // the user why.
    const QSize size = QImageReader(path).size();
    if (size.isValid() && qint64(size.width()) * size.height() > ImageCodec::MAX_ENCODE_PIXELS) {
        *error = QStringLiteral("'%1' is too large a picture: %2 x %3 pixels, over the limit of %4 pixels.")
                     .arg(path)
                     .arg(size.width())
                     .arg(size.height())
                     .arg(ImageCodec::MAX_ENCODE_PIXELS);
        return QString();
    }
    const QJsonObject body = MessageTools().formatEncodeImageMessage(path);
    if (body.value(kBody).toString().isEmpty()) {
        *error = QStringLiteral("cannot load '%1' as an image.").arg(path);
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
