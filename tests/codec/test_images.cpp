// Pictures: the shrinking rule's exact sizes, image texts both ways with the
// caps on what a peer's text may make us allocate, and body conversion.

#include "eventlog.h"
#include "imagecodec.h"
#include "imageshrinker.h"
#include "imagetestkit.h"
#include "messagetools.h"
#include "processusage.h"

#include <gtest/gtest.h>

#include <QBuffer>
#include <QtEndian>

namespace {

std::string sizeText(QSize size)
{
    return std::to_string(size.width()) + "x" + std::to_string(size.height());
}

// "attempts: candidate ..." with "=" before a candidate kept unscaled, then
// "|" and the size returned.
std::string shrinkLine(const QString &path, float rate)
{
    Lines seen;
    ImageShrinker shrinker([&seen](const ImageShrinker::Attempt &a) {
        seen.push_back(a.loaded     ? (a.scaled ? "" : "=") + sizeText(a.candidateSize)
                       : a.tooLarge ? sizeText(a.loadedSize) + " too large"
                                    : "unloaded");
    });
    const QImage image = shrinker.shrink(path, rate);
    std::string line = std::to_string(shrinker.attempts()) + ":";
    for (const std::string &attempt : seen)
        line += " " + attempt;
    return line + "|" + sizeText(image.size());
}

QString decode(QString text)
{
    return ImageCodec().getDecodeImagePath(text);
}

// A 16 x 16 JPEG; its frame header may claim another size.
QByteArray jpeg(QSize claimed = {})
{
    QImage image(16, 16, QImage::Format_RGB32);
    image.fill(Qt::darkCyan);
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, "jpg");
    const int frame = bytes.indexOf("\xFF\xC0");
    if (claimed.isValid() && frame > 0) {
        qToBigEndian<quint16>(quint16(claimed.height()), bytes.data() + frame + 5);
        qToBigEndian<quint16>(quint16(claimed.width()), bytes.data() + frame + 7);
    }
    return bytes;
}

// The image text of `payload`, its length prefix replaced when `declared`.
QString imageText(const QByteArray &payload, quint32 declared = 0)
{
    QByteArray packed = qCompress(payload, 9);
    if (declared != 0)
        qToBigEndian(declared, packed.data());
    return QString::fromLatin1(packed.toBase64());
}

} // namespace

// Over 150000 bytes of pixels, each attempt scales the original's longer
// edge to trunc(rate x 350) and the rate drops by 5 %; within the budget at a
// rate of 1 or more, the picture is kept as it is.
TEST(ImageShrinker, SizeSequences)
{
    const struct {
        QSize size;
        float rate;
        const char *expected;
    } rows[] = {
        { { 1000, 500 }, 1.0f, "6: 350x175 332x166 315x158 300x150 285x143 270x135|270x135" },
        { { 3000, 200 }, 2.0f, "1: 700x47|700x47" }, // over the budget at a rate of 2
        { { 200, 100 }, 0.5f, "1: 175x88|175x88" },
        { { 200, 100 }, 0.9f, "1: =200x100|200x100" },
        { { 500, 75 }, 1.0f, "1: =500x75|500x75" }, // exactly the budget
        { { 200, 200 }, 0.0f, "1: 0x0|0x0" },
        { { 0, 0 }, 1.0f, "1: unloaded|0x0" },
    };
    for (const auto &row : rows) {
        const QString path = row.size.isEmpty() ? imagetest::sandbox("none.png") : imagetest::writePicture(row.size);
        EXPECT_EQ(shrinkLine(path, row.rate), row.expected) << sizeText(row.size) << " at " << row.rate;
    }
    // Decoded once: the file may go after the first of the attempts.
    const QString path = imagetest::writePicture({ 1000, 500 });
    ImageShrinker shrinker([&path](const ImageShrinker::Attempt &) { QFile::remove(path); });
    EXPECT_EQ(shrinker.shrink(path, 1.0f).size(), QSize(270, 135));
}

// A picture over 64 Mi pixels is refused from its header: a 16 x 16 JPEG
// that declares 20000 x 20000 pixels, which a decoder would fill in full
// (1.6 GB), leaves the peak resident size far below that.
TEST(ImageShrinker, RefusesPicturesOverThePixelLimitBeforeDecoding)
{
    const QString path = imagetest::sandbox(QStringLiteral("huge.jpg"));
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly) && file.write(jpeg({ 20000, 20000 })) > 0);
    file.close();
    ProcessUsage::resetPeak();
    const long before = ProcessUsage::resident();
    EXPECT_EQ(shrinkLine(path, 1.0f), "1: 20000x20000 too large|0x0");
    EXPECT_TRUE(MessageTools().formatEncodeImageMessage(path).value(QStringLiteral("body")).toString().isEmpty());
    EXPECT_LT(ProcessUsage::peakResident() - before, 20000L * 20000 * 4 / 1024 / 4);
}

TEST(ImageCodec, EncodedPictureDecodesIntoTheDocumentsDirectory)
{
    const QString source = imagetest::writePicture({ 1000, 500 });
    QString text = ImageCodec().getEncodeImageStr(source, 1.0f);
    const QFileInfo saved(ImageCodec().getDecodeImagePath(text));
    EXPECT_EQ(saved.absolutePath(), QDir(imagetest::sandbox(QStringLiteral("home/Documents"))).absolutePath());
    EXPECT_EQ(QImage(saved.filePath()).size(), QSize(270, 135));
    EXPECT_TRUE(ImageCodec().getEncodeImageStr(imagetest::sandbox(QStringLiteral("none.png")), 1.0f).isEmpty());

    // No Documents folder to write into.
    const QByteArray home = qgetenv("HOME");
    qputenv("HOME", QFile::encodeName(imagetest::sandbox(QStringLiteral("home-without-documents"))));
    EXPECT_TRUE(decode(text).isEmpty());
    qputenv("HOME", home);
}

// Texts that hold no picture, a declared length over 32 MiB and a picture
// over 16 M pixels give nothing.
TEST(ImageCodec, DecodeCaps)
{
    const struct {
        const char *name;
        QString text;
        bool decodes;
    } rows[] = { { "empty", QString(), false }, { "no picture", imageText("no picture"), false },
        { "declares 32 MiB", imageText(jpeg(), 32u << 20), true },
        { "declares 32 MiB + 1", imageText(jpeg(), (32u << 20) + 1), false },
        { "4096 x 4096 pixels", imageText(jpeg({ 4096, 4096 })), true },
        { "4097 x 4096 pixels", imageText(jpeg({ 4097, 4096 })), false } };
    for (const auto &row : rows)
        EXPECT_EQ(!decode(row.text).isEmpty(), row.decodes) << row.name;
}

TEST(MessageTools, BodiesConvertBetweenSendingAndReceivingForms)
{
    MessageTools tools;
    const struct {
        const char *in, *out;
    } rows[] = { { "hello", R"({"body":"hello","type":"text"})" }, { R"({ "type": "text" })", R"({ "type": "text" })" },
        { R"({ "z": [true, null], "type": "Text" })", R"({"type":"Text","z":[true,null]})" },
        { R"({"type":"v","a":{"x":[1]},"a":{"y":[4]}})",
            R"({"body":"{\"type\":\"v\",\"a\":{\"x\":[1]},\"a\":{\"y\":[4]}}","type":"text"})" },
        { R"({"type":"image_with_path","body":"/none/x.png","remote_url":"u"})",
            R"({"body":"","remote_url":"u","type":"image_encode"})" },
        { R"({"type":"image_encode","body":["x"],"remote_url":7})",
            R"({"body":"","remote_url":"","type":"image_with_path"})" } };
    for (const auto &row : rows)
        EXPECT_EQ(tools.parserMessage(QString::fromUtf8(row.in)), QString::fromUtf8(row.out)) << row.in;
}
