// Body formatting and conversion between the sending and receiving forms.

#include "imagetestkit.h"
#include "messagetools.h"

#include <gtest/gtest.h>

#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>

namespace {

QJsonObject parsed(const QString &text)
{
    const QJsonDocument document = QJsonDocument::fromJson(text.toUtf8());
    EXPECT_TRUE(document.isObject()) << text.toStdString();
    return document.object();
}

TEST(MessageTools, TextAndUnknownBodies)
{
    MessageTools tools;
    EXPECT_EQ(tools.parserMessage(QStringLiteral("hello")), QStringLiteral(R"({"body":"hello","type":"text"})"));
    const QString spaced = QStringLiteral(R"({ "type" : "text",  "body" : "hi \u00e9" , "x": [1, 2] })");
    EXPECT_EQ(tools.parserMessage(spaced), spaced);
    EXPECT_EQ(tools.parserMessage(QStringLiteral(R"({ "z": {"b": [true, null]}, "type": "Text", "body": "b" })")),
              QStringLiteral(R"({"body":"b","type":"Text","z":{"b":[true,null]}})"));

    // Whatever is not a JSON object becomes the text of a text body.
    for (const QString &input : {QString(), QStringLiteral("[1,2]"), QStringLiteral(R"({"type":"text")"),
                                 QStringLiteral("42"), QStringLiteral("ünï \"ç\""),
                                 QStringLiteral(R"({"type":"video","a":{"x":[1]},"a":{"y":[4]}})")})
        EXPECT_EQ(parsed(tools.parserMessage(input)), (QJsonObject{{"type", "text"}, {"body", input}}));
}

TEST(MessageTools, ImageBodiesConvertBothWays)
{
    MessageTools tools;
    const QString source = imagetest::writePicture({400, 200});

    // Sender: a path becomes image text; remote_url absent becomes "".
    const QString sent = tools.parserMessage(QStringLiteral(R"({"type":"image_with_path","body":"%1"})").arg(source));
    const QJsonObject encoded = parsed(sent);
    EXPECT_TRUE(sent.startsWith(QStringLiteral(R"({"body":")")));
    EXPECT_EQ(encoded.value("type"), QStringLiteral("image_encode"));
    EXPECT_EQ(encoded.value("remote_url"), QString());
    ASSERT_FALSE(encoded.value("body").toString().isEmpty());

    // Receiver: the image text becomes a new file; remote_url is kept.
    QJsonObject incoming = encoded;
    incoming.insert("remote_url", "https://files.example/p/1");
    const QStringList before = imagetest::savedPictures();
    const QJsonObject received = parsed(tools.parserMessage(QString::fromUtf8(QJsonDocument(incoming).toJson())));
    EXPECT_EQ(received.value("type"), QStringLiteral("image_with_path"));
    EXPECT_EQ(received.value("remote_url"), QStringLiteral("https://files.example/p/1"));
    // The picture itself is checked by the image codec's tests.
    const QFileInfo saved(received.value("body").toString());
    EXPECT_FALSE(before.contains(saved.fileName()));
    EXPECT_TRUE(imagetest::savedPictures().contains(saved.fileName()));

    // Failed conversions carry an empty body; values of another JSON type
    // read as empty text.
    EXPECT_EQ(parsed(tools.parserMessage(QStringLiteral(R"({"type":"image_with_path","body":"/none/x.png","remote_url":"u"})"))),
              (QJsonObject{{"type", "image_encode"}, {"body", ""}, {"remote_url", "u"}}));
    EXPECT_EQ(parsed(tools.parserMessage(QStringLiteral(R"({"type":"image_encode","body":["x"],"remote_url":7})"))),
              (QJsonObject{{"type", "image_with_path"}, {"body", ""}, {"remote_url", ""}}));
}

} // namespace
