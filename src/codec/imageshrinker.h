#ifndef PUSHCHAT_IMAGESHRINKER_H
#define PUSHCHAT_IMAGESHRINKER_H

// Shrinks a picture read from a file until its pixel data fits a budget
// (internal header, shared by the image encoders).
//
// The file is decoded once: a picture whose header declares more than
// maxPixels pixels is refused before its pixels are decoded (one attempt,
// not loaded, tooLarge). Each attempt then takes the decoded original and,
// unless it already fits at a rate of at least 1, scales it so that no edge
// exceeds rate x 350 pixels; a candidate still over budget starts a new
// attempt at rate x 0.95. The edge limit drops by 5 % per attempt, so the
// loop ends at the latest when the limit reaches zero (Qt then yields a null
// image); an infinite rate is taken as the largest finite one. An observer,
// when given, sees every attempt, so callers can log without repeating the
// loop.
// Stateless apart from the attempt count of the last run; one instance per
// call site and thread.

#include "imagecodec.h"

#include <QImage>
#include <QSize>
#include <QString>

#include <functional>

class ImageShrinker {
public:
    /// Largest accepted pixel data size (QImage::sizeInBytes) in bytes.
    static constexpr qsizetype pixelBudget = 150000;
    /// Longest edge allowed per unit of rate.
    static constexpr double edgePerRate = 350.0;
    /// Factor applied to the rate at each further attempt.
    static constexpr double rateStep = 0.95;
    /// Largest picture decoded, in pixels (see ImageCodec::MAX_ENCODE_PIXELS).
    static constexpr qint64 maxPixels = ImageCodec::MAX_ENCODE_PIXELS;

    /// What one attempt saw and decided.
    struct Attempt {
        int number = 0;        ///< 1 for the first attempt
        bool loaded = false;   ///< false: the file did not load, the run ends
        bool tooLarge = false; ///< not loaded: over maxPixels (loadedSize as declared)
        QSize loadedSize;
        qsizetype loadedByteCount = 0;
        float rate = 0;
        int edgeLimit = 0;   ///< trunc(rate x 350), clamped to [0, INT_MAX]
        bool scaled = false; ///< the candidate is a scaled copy
        QSize candidateSize;
        qsizetype candidateByteCount = 0;
        bool tooBig = false; ///< another attempt follows, at nextRate
        float nextRate = 0;
    };
    using Observer = std::function<void(const Attempt &)>;

    explicit ImageShrinker(Observer observer = {});

    /// The first candidate within the budget; a null image when the file
    /// does not load or is over maxPixels (a critical line names the path)
    /// or when the edge limit has dropped to nothing.
    QImage shrink(const QString &path, float rate);

    /// Attempts made by the last shrink().
    int attempts() const { return m_attempts; }

    /// trunc(rate x 350.0), 0 for rates that give less than one pixel (or
    /// NaN), INT_MAX for rates too large for an int.
    static int edgeLimit(float rate);
    /// rate x 0.95 computed in double, stored as float.
    static float nextRate(float rate);

private:
    Observer m_observer;
    int m_attempts = 0;
};

#endif // PUSHCHAT_IMAGESHRINKER_H
