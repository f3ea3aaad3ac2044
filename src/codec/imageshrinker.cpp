#include "imageshrinker.h"

#include "pushchatlog.h"

#include <QImageReader>

#include <climits>
#include <cmath>
#include <limits>
#include <utility>

ImageShrinker::ImageShrinker(Observer observer) : m_observer(std::move(observer))
{ }

int ImageShrinker::edgeLimit(float rate)
{
    const double limit = double(rate) * edgePerRate;
    if (!(limit >= 1.0)) // also NaN
        return 0;
    if (limit >= double(INT_MAX))
        return INT_MAX;
    return int(limit);
}

float ImageShrinker::nextRate(float rate)
{
    return float(double(rate) * rateStep);
}

namespace {

qint64 pixelsOf(QSize size)
{
    return size.isValid() ? qint64(size.width()) * size.height() : 0;
}

} // namespace

QImage ImageShrinker::shrink(const QString &path, float rate)
{
    m_attempts = 0;
    // An infinite rate would never shrink; the largest finite one does, in
    // under 2000 attempts.
    if (std::isinf(rate) && rate > 0)
        rate = std::numeric_limits<float>::max();

    // Decoded once, and only when the header's size is within the limit (a
    // format that declares no size is checked once decoded): every attempt
    // scales this original, never the previous attempt's result.
    QImageReader reader(path);
    QSize size = reader.size();
    QImage original;
    bool tooLarge = pixelsOf(size) > maxPixels;
    const bool read = !tooLarge && reader.read(&original);
    if (read && pixelsOf(original.size()) > maxPixels) {
        tooLarge = true;
        size = original.size();
        original = QImage();
    }
    if (!read || tooLarge) {
        Attempt attempt;
        attempt.number = ++m_attempts;
        attempt.rate = rate;
        attempt.tooLarge = tooLarge;
        if (tooLarge) {
            attempt.loadedSize = size;
            qCCritical(lcCodec).noquote().nospace() << "ERROR:image too large:" << path << ": " << size.width() << " x "
                                                    << size.height() << " pixels, over " << maxPixels;
        } else {
            qCCritical(lcCodec).noquote().nospace() << "ERROR:image not loaded:" << path;
        }
        if (m_observer)
            m_observer(attempt);
        return QImage();
    }

    for (;;) {
        Attempt attempt;
        attempt.number = ++m_attempts;
        attempt.rate = rate;
        attempt.loaded = true;
        attempt.loadedSize = original.size();
        attempt.loadedByteCount = original.sizeInBytes();
        attempt.edgeLimit = edgeLimit(rate);

        QImage candidate;
        const int limit = attempt.edgeLimit;
        const bool keep = rate >= 1.0f && attempt.loadedByteCount <= pixelBudget;
        if (!keep && (original.width() > limit || original.height() > limit)) {
            attempt.scaled = true;
            candidate = original.width() > original.height() ? original.scaledToWidth(limit, Qt::FastTransformation)
                                                             : original.scaledToHeight(limit, Qt::FastTransformation);
        } else {
            candidate = original; // shared, not copied
        }
        attempt.candidateSize = candidate.size();
        attempt.candidateByteCount = candidate.sizeInBytes();
        attempt.tooBig = attempt.candidateByteCount > pixelBudget;
        if (attempt.tooBig)
            attempt.nextRate = nextRate(rate);
        if (m_observer)
            m_observer(attempt);
        if (!attempt.tooBig)
            return candidate;
        rate = attempt.nextRate;
    }
}
