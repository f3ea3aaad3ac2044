// ContactManager's image encoder: the shrinking of ImageCodec, but the text
// is the base 64 of the JPEG bytes themselves (no qCompress), and every
// attempt is written to the contacts debug log.

#include "contactmanager.h"

#include "imageshrinker.h"
#include "pushchatlog.h"

#include <QBuffer>
#include <QImage>

QString ContactManager::getImageEncodeStr(QString path, float rate)
{
    ImageShrinker shrinker([](const ImageShrinker::Attempt &attempt) {
        if (!attempt.loaded)
            return;
        PUSHCHAT_TRACE(lcContacts, "getImageEncodeStr") << "image:" << attempt.loadedByteCount;
        PUSHCHAT_TRACE(lcContacts, "getImageEncodeStr")
            << "image  Size:" << ImageShrinker::edgePerRate << " rate=" << attempt.rate
            << " scaleSize=" << attempt.edgeLimit;
        if (attempt.tooBig)
            PUSHCHAT_TRACE(lcContacts, "getImageEncodeStr")
                << "image_small size:" << attempt.candidateByteCount << " > " << ImageShrinker::pixelBudget
                << " need resize:" << attempt.nextRate;
    });
    const QImage image = shrinker.shrink(path, rate);
    if (image.isNull())
        return QString();

    QByteArray jpeg;
    QBuffer buffer(&jpeg);
    buffer.open(QIODevice::WriteOnly);
    if (!image.save(&buffer, "jpg", -1))
        return QString();
    const QString text = QString::fromLatin1(jpeg.toBase64());
    PUSHCHAT_TRACE(lcContacts, "getImageEncodeStr") << "imageStr len:" << text.size();
    return text;
}
