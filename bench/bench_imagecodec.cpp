// Cost of turning a camera-sized photo into image text: ImageCodec at rate
// 1.0 on a 4000 x 3000 JPEG (smooth gradients plus sensor-like noise, a few
// MB, made once in a temporary folder). Every shrinking attempt decodes the
// file again, so the attempt count is reported beside the time.
//
// PUSHCHAT_BENCH_SMOKE=1 uses a 1000 x 750 photo and one iteration.

#include "imagecodec.h"
#include "imageshrinker.h"

#include <benchmark/benchmark.h>

#include <QFileInfo>
#include <QImage>
#include <QTemporaryDir>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <random>

namespace {

bool smokeRun()
{
    const char *smoke = std::getenv("PUSHCHAT_BENCH_SMOKE");
    return smoke && std::strcmp(smoke, "1") == 0;
}

QSize photoSize()
{
    return smokeRun() ? QSize(1000, 750) : QSize(4000, 3000);
}

// Writes the photo on first use; the folder lives until the process ends.
const QString &photoPath()
{
    static QTemporaryDir dir;
    static const QString path = [] {
        const QSize size = photoSize();
        QImage image(size, QImage::Format_RGB32);
        std::mt19937 random(42);
        std::normal_distribution<double> noise(0.0, 16.0);
        auto channel = [](double v) { return std::clamp(int(std::lround(v)), 0, 255); };
        for (int y = 0; y < size.height(); ++y) {
            auto *line = reinterpret_cast<QRgb *>(image.scanLine(y));
            const double fy = double(y) / size.height();
            for (int x = 0; x < size.width(); ++x) {
                const double fx = double(x) / size.width();
                const double shade = 0.5 + 0.35 * std::sin(6.0 * fx + 2.0 * fy) * std::cos(4.0 * fy - fx);
                line[x] = qRgb(channel(255 * shade * (0.6 + 0.4 * fx) + noise(random)),
                    channel(255 * (0.3 + 0.5 * fy * shade) + noise(random)),
                    channel(255 * (0.8 - 0.5 * shade * fx) + noise(random)));
            }
        }
        const QString file = dir.filePath(QStringLiteral("photo.jpg"));
        image.save(file, "jpg");
        return file;
    }();
    return path;
}

void BM_EncodePhoto(benchmark::State &state)
{
    const QString path = photoPath();
    ImageShrinker shrinker;
    if (shrinker.shrink(path, 1.0f).isNull()) {
        state.SkipWithError("photo not readable");
        return;
    }
    qsizetype textSize = 0;
    for (auto _ : state) {
        const QString text = ImageCodec().getEncodeImageStr(path, 1.0f);
        textSize = text.size();
        benchmark::DoNotOptimize(text.constData());
    }
    state.counters["attempts"] = shrinker.attempts();
    state.counters["photo_bytes"] = double(QFileInfo(path).size());
    state.counters["text_chars"] = double(textSize);
}
// About a second per encode: several iterations for a steady figure.
BENCHMARK(BM_EncodePhoto)->Unit(benchmark::kMillisecond)->MinTime(smokeRun() ? 0.01 : 5.0);

} // namespace

BENCHMARK_MAIN();
