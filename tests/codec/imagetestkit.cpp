#include "imagetestkit.h"

#include <gtest/gtest.h>

#include <QStandardPaths>
#include <QTemporaryDir>
#include <QUuid>

namespace imagetest {
namespace {

class Sandbox : public ::testing::Environment {
public:
    void SetUp() override
    {
        const QString home = dir.filePath(QStringLiteral("home"));
        if (!dir.isValid() || !QDir().mkpath(home + QStringLiteral("/Documents")))
            qFatal("imagetest: no temporary directory");
        qputenv("HOME", QFile::encodeName(home));
        qputenv("XDG_CONFIG_HOME", QFile::encodeName(dir.filePath(QStringLiteral("config"))));
        // Refuse to run rather than write into a real documents folder.
        const QString documents = QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation);
        if (QDir(documents).canonicalPath() != QDir(home + QStringLiteral("/Documents")).canonicalPath())
            qFatal("imagetest: documents directory %s is outside the sandbox", qPrintable(documents));
    }
    QTemporaryDir dir;
};

Sandbox *const environment = static_cast<Sandbox *>(::testing::AddGlobalTestEnvironment(new Sandbox));

} // namespace

QString sandbox(const QString &name)
{
    return environment->dir.filePath(name);
}

QString writePicture(QSize size)
{
    QImage image(size, QImage::Format_ARGB32);
    for (int y = 0; y < size.height(); ++y)
        for (int x = 0; x < size.width(); ++x)
            image.setPixel(x, y, qRgb(x * 255 / size.width(), y * 255 / size.height(), (x + y) % 256));
    const QString path = sandbox(QUuid::createUuid().toString(QUuid::Id128) + QStringLiteral(".png"));
    EXPECT_TRUE(image.save(path)) << path.toStdString();
    return path;
}

} // namespace imagetest
