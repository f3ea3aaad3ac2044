#include "imagebody.h"

#include <pushchat/messagetools.h>

#include <QDir>
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

QString ImageBody::encodeFile(const QString &path)
{
    const QJsonObject body = MessageTools().formatEncodeImageMessage(path);
    if (body.value(kBody).toString().isEmpty())
        return QString();
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
