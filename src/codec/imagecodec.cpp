#include "imagecodec.h"

#include "imageshrinker.h"
#include "pushchatlog.h"

#include <QBuffer>
#include <QImage>
#include <QImageReader>
#include <QStandardPaths>
#include <QUuid>
#include <QtEndian>

namespace {

// Image texts come from peers. Ours hold a JPEG of at most 150000 bytes of
// pixel data; these caps, generous for any camera picture, refuse the
// decompression bombs and forged picture sizes that would otherwise make the
// receiver allocate and fill gigabytes (a 700-byte JPEG can declare
// 60000 x 60000 pixels).
constexpr quint32 maxJpegBytes = 32u * 1024 * 1024;
constexpr qint64 maxDecodedPixels = 16ll * 1024 * 1024;

// qUncompress, except that a declared size above the cap gives nothing.
QByteArray uncompressBounded(const QByteArray &compressed)
{
    if (compressed.size() < 4)
        return QByteArray();
    const quint32 declared = qFromBigEndian<quint32>(compressed.constData());
    if (declared > maxJpegBytes)
        return QByteArray();
    return qUncompress(compressed);
}

QImage readBounded(const QByteArray &bytes)
{
    QBuffer buffer;
    buffer.setData(bytes);
    buffer.open(QIODevice::ReadOnly);
    QImageReader reader(&buffer);
    const QSize size = reader.size();
    if (size.isValid() && qint64(size.width()) * size.height() > maxDecodedPixels)
        return QImage();
    return reader.read();
}

} // namespace

QString ImageCodec::getEncodeImageStr(QString path, float rate)
{
    bool loaded = false;
    ImageShrinker shrinker([&loaded](const ImageShrinker::Attempt &attempt) { loaded = attempt.loaded; });
    const QImage image = shrinker.shrink(path, rate);
    if (image.isNull()) {
        // Not loaded: the shrinker has said so. Loaded: the rate left no
        // pixel to keep.
        if (loaded)
            qCCritical(lcCodec).noquote().nospace() << "ERROR:image not encoded:" << path;
        return QString();
    }

    QByteArray jpeg;
    QBuffer buffer(&jpeg);
    buffer.open(QIODevice::WriteOnly);
    if (!image.save(&buffer, "jpg", -1)) {
        qCCritical(lcCodec).noquote().nospace() << "ERROR:image not encoded:" << path;
        return QString();
    }
    return QString::fromLatin1(qCompress(jpeg, 9).toBase64());
}

QString ImageCodec::getDecodeImagePath(QString &text)
{
    const QByteArray jpeg = uncompressBounded(QByteArray::fromBase64(text.toLocal8Bit()));
    const QImage image = jpeg.isEmpty() ? QImage() : readBounded(jpeg);

    // No documents directory (an empty location) fails like an unwritable
    // one rather than writing next to the root.
    const QString documents = QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation);
    const QString path =
        documents + QLatin1Char('/') + QUuid::createUuid().toString(QUuid::WithoutBraces) + QStringLiteral(".jpg");
    if (image.isNull() || documents.isEmpty() || !image.save(path)) {
        qCCritical(lcCodec).noquote().nospace() << "ERROR !:Image save failed:" << path;
        return QString();
    }
    return path;
}
