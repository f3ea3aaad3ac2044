#include "messagetools.h"

#include "imagecodec.h"
#include "jsonkeycheck.h"

#include <QJsonDocument>

namespace {

const QString keyType = QStringLiteral("type");
const QString keyBody = QStringLiteral("body");
const QString keyRemoteUrl = QStringLiteral("remote_url");

QString compact(const QJsonObject &object)
{
    return QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact));
}

} // namespace

QString MessageTools::formatTextMessage(QString text)
{
    return compact(QJsonObject{ { keyType, QStringLiteral("text") }, { keyBody, text } });
}

QJsonObject MessageTools::formatEncodeImageMessage(QString path)
{
    return QJsonObject{ { keyType, QStringLiteral("image_encode") },
        { keyBody, ImageCodec().getEncodeImageStr(path, 1.0f) } };
}

QJsonObject MessageTools::formatDecodeImageMessage(QString text)
{
    return QJsonObject{ { keyType, QStringLiteral("image_with_path") },
        { keyBody, ImageCodec().getDecodeImagePath(text) } };
}

QString MessageTools::parserMessage(QString body)
{
    // Bodies come from peers: the guarded parse refuses the repeated-key
    // texts on which Qt's parser leaks, and they count as plain text.
    const QJsonDocument document = JsonKeyCheck::parse(body.toUtf8());
    if (!document.isObject())
        return formatTextMessage(body);

    const QJsonObject input = document.object();
    const QString type = input.value(keyType).toString();
    if (type == QLatin1String("text"))
        return body;

    QJsonObject result;
    if (type == QLatin1String("image_with_path"))
        result = formatEncodeImageMessage(input.value(keyBody).toString());
    else if (type == QLatin1String("image_encode"))
        result = formatDecodeImageMessage(input.value(keyBody).toString());
    else
        return compact(input);
    result.insert(keyRemoteUrl, input.value(keyRemoteUrl).toString());
    return compact(result);
}
