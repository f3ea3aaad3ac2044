// ContactManager's image text: plain base 64 of the JPEG, and its debug log.

#include "contactmanager.h"
#include "imageshrinker.h"
#include "imagetestkit.h"

#include <gtest/gtest.h>

#include <QBuffer>
#include <QImageReader>
#include <QLoggingCategory>

namespace {

QStringList logged;

void capture(QtMsgType type, const QMessageLogContext &context, const QString &text)
{
    if (type == QtDebugMsg && qstrcmp(context.category, "pushchat.contacts") == 0)
        logged << text;
}

TEST(ContactManagerImage, EncodesUncompressedJpegAndLogsEachAttempt)
{
    const QString source = imagetest::writePicture({1000, 500});
    ImageShrinker reference;
    const QSize expected = reference.shrink(source, 1.0f).size();

    QLoggingCategory::setFilterRules(QStringLiteral("pushchat.contacts.debug=true"));
    const QtMessageHandler previous = qInstallMessageHandler(capture);
    const QString text = ContactManager().getImageEncodeStr(source, 1.0f);
    qInstallMessageHandler(previous);
    QLoggingCategory::setFilterRules(QString());

    QByteArray jpeg = QByteArray::fromBase64(text.toLatin1());
    EXPECT_TRUE(jpeg.startsWith("\xFF\xD8")) << "a JPEG with no length prefix";
    QBuffer buffer(&jpeg);
    EXPECT_EQ(QImageReader(&buffer, "jpg").read().size(), expected);

    EXPECT_EQ(logged.filter(QStringLiteral("image:")).size(), reference.attempts());
    EXPECT_EQ(logged.filter(QStringLiteral(" need resize:")).size(), reference.attempts() - 1);
    EXPECT_EQ(logged.filter(QStringLiteral("image  Size:350 rate=1 scaleSize=350")).size(), 1);
    ASSERT_FALSE(logged.isEmpty());
    EXPECT_TRUE(logged.last().endsWith(QStringLiteral("imageStr len:") + QString::number(text.size())));

    EXPECT_TRUE(ContactManager().getImageEncodeStr(imagetest::sandbox(QStringLiteral("none")), 1.0f).isEmpty());
}

} // namespace
