// Image text round trips, and texts or places that cannot give a picture.

#include "imagecodec.h"
#include "imageshrinker.h"
#include "imagetestkit.h"

#include <gtest/gtest.h>

#include <QBuffer>
#include <QFile>
#include <QFileInfo>
#include <QImageReader>
#include <QRegularExpression>
#include <QtEndian>

namespace {

QString decode(QString text) { return ImageCodec().getDecodeImagePath(text); }

QString asImageText(const QByteArray &payload) { return QString::fromLatin1(qCompress(payload, 9).toBase64()); }

QByteArray smallJpeg()
{
    QImage image(16, 16, QImage::Format_RGB32);
    image.fill(Qt::darkCyan);
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, "jpg");
    return bytes;
}

TEST(ImageCodec, EncodedPictureDecodesToANewJpegInTheDocumentsDirectory)
{
    const QString source = imagetest::writePicture({1000, 500});
    QString text = ImageCodec().getEncodeImageStr(source, 1.0f);
    const QString copy = text;
    const QByteArray compressed = QByteArray::fromBase64(text.toLatin1());
    ASSERT_GE(compressed.size(), 4);
    EXPECT_EQ(qFromBigEndian<quint32>(compressed.constData()), quint32(qUncompress(compressed).size()));

    const QFileInfo saved(ImageCodec().getDecodeImagePath(text));
    EXPECT_EQ(text, copy);
    EXPECT_EQ(saved.absolutePath(), QDir(imagetest::sandbox(QStringLiteral("home/Documents"))).absolutePath());
    EXPECT_TRUE(QRegularExpression(QStringLiteral("^[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}\\.jpg$"))
                        .match(saved.fileName()).hasMatch()) << saved.fileName().toStdString();
    QImageReader reader(saved.filePath());
    EXPECT_EQ(reader.format(), "jpeg");
    EXPECT_EQ(reader.read().size(), ImageShrinker().shrink(source, 1.0f).size());
    EXPECT_NE(decode(copy), saved.filePath()) << "every decode writes a file of its own";
}

TEST(ImageCodec, BadInputGivesEmptyText)
{
    EXPECT_TRUE(ImageCodec().getEncodeImageStr(imagetest::sandbox(QStringLiteral("none.png")), 1.0f).isEmpty());
    EXPECT_TRUE(ImageCodec().getEncodeImageStr(imagetest::writePicture({50, 50}), 0.0f).isEmpty());

    QByteArray bomb = qCompress(QByteArray(100, 'a'));
    qToBigEndian<quint32>(0x7FFFFFF0u, bomb.data());
    // A 16 x 16 JPEG whose frame header claims 60000 x 60000 pixels: read
    // as it stands, it costs 15 GB and a minute.
    QByteArray giant = smallJpeg();
    const int sof = giant.indexOf("\xFF\xC0");
    ASSERT_GT(sof, 0);
    qToBigEndian<quint16>(60000, giant.data() + sof + 5);
    qToBigEndian<quint16>(60000, giant.data() + sof + 7);

    const QStringList before = imagetest::savedPictures();
    for (const QString &text : {QString(), QStringLiteral("not base 64!"),
                                QString::fromLatin1(smallJpeg().toBase64()),  // no qCompress layer
                                asImageText("no picture"), QString::fromLatin1(bomb.toBase64()),
                                asImageText(smallJpeg().left(40)), asImageText(giant)})
        EXPECT_TRUE(decode(text).isEmpty()) << text.left(40).toStdString();
    EXPECT_EQ(imagetest::savedPictures(), before);
}

TEST(ImageCodec, DecodingFailsWithoutAWritableDocumentsDirectory)
{
    const QString text = asImageText(smallJpeg());
    ASSERT_FALSE(decode(text).isEmpty());
    // No Documents folder; a regular file in its place (stops even root).
    const QString missing = imagetest::sandbox(QStringLiteral("home-missing"));
    const QString blocked = imagetest::sandbox(QStringLiteral("home-blocked"));
    QDir().mkpath(missing);
    QDir().mkpath(blocked);
    QFile file(blocked + QStringLiteral("/Documents"));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.close();

    const QByteArray home = qgetenv("HOME");
    for (const QString &dir : {missing, blocked}) {
        qputenv("HOME", QFile::encodeName(dir));
        EXPECT_TRUE(decode(text).isEmpty()) << dir.toStdString();
    }
    qputenv("HOME", home);
    EXPECT_FALSE(QDir(missing + QStringLiteral("/Documents")).exists());
}

} // namespace
