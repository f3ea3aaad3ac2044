#include "imageshrinker.h"

#include "codeclog.h"

#include <climits>
#include <cmath>
#include <limits>
#include <utility>

ImageShrinker::ImageShrinker(Observer observer)
    : m_observer(std::move(observer))
{
}

int ImageShrinker::edgeLimit(float rate)
{
    const double limit = double(rate) * edgePerRate;
    if (!(limit >= 1.0))  // also NaN
        return 0;
    if (limit >= double(INT_MAX))
        return INT_MAX;
    return int(limit);
}

float ImageShrinker::nextRate(float rate)
{
    return float(double(rate) * rateStep);
}

QImage ImageShrinker::shrink(const QString &path, float rate)
{
    m_attempts = 0;
    // An infinite rate would never shrink; the largest finite one does, in
    // under 2000 attempts.
    if (std::isinf(rate) && rate > 0)
        rate = std::numeric_limits<float>::max();
    for (;;) {
        Attempt attempt;
        attempt.number = ++m_attempts;
        attempt.rate = rate;

        // The file is read again at every attempt: each one scales the
        // original, never the previous attempt's result.
        QImage image;
        attempt.loaded = image.load(path);
        if (!attempt.loaded) {
            qCCritical(lcImageCodec).noquote().nospace() << "ERROR:image not loaded:" << path;
            if (m_observer)
                m_observer(attempt);
            return QImage();
        }
        attempt.loadedSize = image.size();
        attempt.loadedByteCount = image.sizeInBytes();
        attempt.edgeLimit = edgeLimit(rate);

        QImage candidate;
        if (rate >= 1.0f && attempt.loadedByteCount <= pixelBudget) {
            candidate = std::move(image);
        } else {
            const int limit = attempt.edgeLimit;
            if (image.width() > limit || image.height() > limit) {
                attempt.scaled = true;
                candidate = image.width() > image.height()
                        ? image.scaledToWidth(limit, Qt::FastTransformation)
                        : image.scaledToHeight(limit, Qt::FastTransformation);
            } else {
                candidate = std::move(image);
            }
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
