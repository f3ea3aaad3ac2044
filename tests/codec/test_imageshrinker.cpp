// The shrinking rule: which attempts are made, at which edge limits, and
// what comes out of them.

#include "imageshrinker.h"
#include "imagetestkit.h"

#include <gtest/gtest.h>

#include <QFile>

#include <cmath>
#include <limits>
#include <vector>

namespace {

struct ShrinkRun {
    QImage image;
    int attempts = 0;
    std::vector<ImageShrinker::Attempt> seen;
};

ShrinkRun shrink(const QString &path, float rate)
{
    ShrinkRun run;
    ImageShrinker shrinker([&run](const ImageShrinker::Attempt &a) { run.seen.push_back(a); });
    run.image = shrinker.shrink(path, rate);
    run.attempts = shrinker.attempts();
    EXPECT_EQ(run.attempts, int(run.seen.size()));
    return run;
}

// Replays the rule for an ARGB32 picture over budget, independently of the
// shrinker: each attempt reloads the file and scales its longer edge (the
// height when square) to trunc(rate x 350); over 150000 bytes, the rate
// becomes float(rate x 0.95) and the next attempt follows.
void expectScaledAttempts(QSize size, float rate)
{
    const ShrinkRun run = shrink(imagetest::writePicture(size), rate);
    ASSERT_FALSE(run.seen.empty());
    const bool byWidth = size.width() > size.height();
    for (std::size_t i = 0; i < run.seen.size(); ++i, rate = float(double(rate) * 0.95)) {
        SCOPED_TRACE(testing::Message() << size.width() << "x" << size.height() << " attempt " << i + 1);
        const auto &a = run.seen[i];
        const int limit = int(double(rate) * 350.0);
        const QSize c = a.candidateSize;
        EXPECT_EQ(a.rate, rate);
        EXPECT_EQ(a.loadedSize, size);
        EXPECT_EQ(byWidth ? c.width() : c.height(), limit);
        const double ratio = byWidth ? double(size.height()) / size.width() : double(size.width()) / size.height();
        EXPECT_NEAR(byWidth ? c.height() : c.width(), limit * ratio, 1.0);
        const bool over = qsizetype(c.width()) * c.height() * 4 > 150000;
        EXPECT_EQ(over, i + 1 < run.seen.size());
        if (over) {
            EXPECT_EQ(a.nextRate, float(double(rate) * 0.95));
        }
    }
    EXPECT_EQ(run.image.size(), run.seen.back().candidateSize);
}

TEST(ImageShrinker, ScalesTheLongerEdgeUntilWithinBudget)
{
    const ShrinkRun wide = shrink(imagetest::writePicture({1000, 500}), 1.0f);
    ASSERT_GE(wide.seen.size(), 3u);
    EXPECT_EQ(wide.seen[0].candidateByteCount, 350 * 175 * 4);
    EXPECT_EQ(wide.seen[1].candidateSize.width(), 332);

    expectScaledAttempts({1000, 500}, 1.0f);
    expectScaledAttempts({400, 1000}, 1.0f);
    expectScaledAttempts({600, 600}, 1.0f);
    expectScaledAttempts({3000, 200}, 2.0f);  // over budget: scaled even at rate 2
}

TEST(ImageShrinker, ScalesOnlyWhenAnEdgeExceedsTheLimit)
{
    const ShrinkRun full = shrink(imagetest::writePicture({200, 100}), 1.0f);  // 80000 bytes
    EXPECT_EQ(full.attempts, 1);
    EXPECT_EQ(full.image.size(), QSize(200, 100));

    const ShrinkRun half = shrink(imagetest::writePicture({200, 100}), 0.5f);  // limit 175
    EXPECT_EQ(half.attempts, 1);
    EXPECT_EQ(half.image.width(), 175);

    const ShrinkRun within = shrink(imagetest::writePicture({200, 100}), 0.9f);  // limit 315
    EXPECT_EQ(within.attempts, 1);
    EXPECT_FALSE(within.seen[0].scaled);
    EXPECT_EQ(within.image.size(), QSize(200, 100));
}

TEST(ImageShrinker, UnreadableFilesAndDegenerateRatesEnd)
{
    const QString junk = imagetest::sandbox(QStringLiteral("junk.png"));
    QFile file(junk);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly) && file.write(QByteArray(64, 'x')) == 64);
    file.close();
    for (const QString &path : {imagetest::sandbox(QStringLiteral("missing.png")), junk}) {
        const ShrinkRun run = shrink(path, 1.0f);
        EXPECT_TRUE(run.image.isNull());
        ASSERT_EQ(run.attempts, 1);
        EXPECT_FALSE(run.seen[0].loaded);
    }

    const QString path = imagetest::writePicture({200, 200});  // 160000 bytes
    // No pixel left to keep: a null image at once.
    for (float rate : {0.0f, -1.0f, 0.002f, std::numeric_limits<float>::quiet_NaN(),
                       -std::numeric_limits<float>::infinity()}) {
        const ShrinkRun run = shrink(path, rate);
        EXPECT_TRUE(run.image.isNull()) << rate;
        EXPECT_EQ(run.attempts, 1) << rate;
    }
    // An infinite rate keeps the picture (too big) at every attempt until
    // the rate has come down far enough to scale it: many attempts, not
    // endless ones.
    const ShrinkRun huge = shrink(path, std::numeric_limits<float>::infinity());
    EXPECT_GT(huge.attempts, 1000);
    EXPECT_FALSE(huge.seen.front().scaled);
    EXPECT_EQ(huge.image.size(), QSize(huge.seen.back().edgeLimit, huge.seen.back().edgeLimit));
    EXPECT_LE(huge.image.sizeInBytes(), 150000);
}

} // namespace
