// The message envelope: payload layout, enciphering, reading back.

#include "mqttmessage.h"
#include "vantrelcrypt.h"

#include <QByteArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

#include <string>

namespace {

QByteArray decipherPayload(const std::string &payload)
{
    const unsigned char letter = static_cast<unsigned char>(payload.at(0));
    VantrelCrypt crypt(keyList[letter - 'A']);
    return crypt.decryptToByteArray(QString::fromLatin1(payload.c_str() + 1));
}

MQTTMessage *outgoing(bool encrypt, MQTTMessage &m)
{
    m.encrypted = encrypt;
    m.fromText(QStringLiteral("a@b"), QStringLiteral("c@d"), QStringLiteral("hi"),
               MediaInfo::MESSAGE_TYPE_CHAT, 5, BODY_TYPE_DEFAULT, QStringLiteral("key"),
               QStringLiteral("stamp"));
    return &m;
}

const char *kCompact = R"({"b":"hi","bt":0,"f":"a@b","k":"key","p":"","s":5,"st":"stamp","t":"c@d","v":1})";

} // namespace

TEST(Envelope, EncipheredPayloadLayout)
{
    for (int i = 0; i < 50; ++i) {
        MQTTMessage m(nullptr, true);
        outgoing(true, m);
        const char letter = m.payload.at(0);
        ASSERT_GE(letter, 'A');
        ASSERT_LE(letter, 'K');
        const QByteArray base64 = QByteArray::fromStdString(m.payload.substr(1));
        EXPECT_EQ(QByteArray::fromBase64(base64).toBase64(), base64) << "not canonical base 64";
        EXPECT_EQ(decipherPayload(m.payload), QByteArray(kCompact));
    }
}

TEST(Envelope, PlainPayloadLayout)
{
    MQTTMessage m(nullptr, false);
    outgoing(false, m);
    EXPECT_EQ(m.payload, std::string("a") + kCompact);
    EXPECT_EQ(m.topicText, "m/c@d/"); // no command topic: the addressee's message topic
    EXPECT_EQ(m.protocol.topic, "m/c@d/");
    EXPECT_FALSE(m.send(2)); // no connection to send on
}

TEST(Envelope, FieldsAndTruncationAtNul)
{
    MQTTMessage m(nullptr, false);
    m.encText(QStringLiteral("f"), QStringLiteral("t"), QString::fromUtf8("正文\0tail", 9),
              MediaInfo::MESSAGE_TYPE_GROUPCHAT, BODY_TYPE_NOTICE, QString(), QString(), 9999);
    const QJsonObject obj = QJsonDocument::fromJson(QByteArray::fromStdString(m.payload.substr(1))).object();
    EXPECT_EQ(obj.value("b").toString(), QString::fromUtf8("正文"));
    EXPECT_EQ(obj.value("v").toInt(), 4);
    EXPECT_EQ(obj.value("bt").toInt(), 7);
    EXPECT_EQ(obj.value("s").toInt(), 9999);
    EXPECT_EQ(obj.keys().size(), 9);
}

TEST(Envelope, RoundTripThroughParse)
{
    for (bool encrypt : { true, false }) {
        MQTTMessage out(nullptr, encrypt);
        out.fromText(QStringLiteral("甲@b"), QStringLiteral("c@d"), QString::fromUtf8("你好, \"world\"\n"),
                     MediaInfo::MESSAGE_TYPE_SYSTEM, -3, static_cast<MESSAGE_BODY_TYPE>(42),
                     QStringLiteral("k1"), QStringLiteral("2026-11-23"));
        MQTTMessage in(nullptr, true);
        ASSERT_TRUE(in.parseMessage(out.payload.c_str()));
        EXPECT_EQ(in.encrypted, encrypt);
        EXPECT_EQ(in.from, "甲@b");
        EXPECT_EQ(in.to, "c@d");
        EXPECT_EQ(in.body, "你好, \"world\"\n");
        EXPECT_EQ(in.msgType, 16);
        EXPECT_EQ(in.secLevel, -3);
        EXPECT_EQ(in.bodyType, 42);
        EXPECT_EQ(in.messageKey, "k1");
        EXPECT_EQ(in.stamp, "2026-11-23");
        EXPECT_EQ(in.p, "");
    }
}

TEST(Envelope, ReadingIsLenient)
{
    // Missing or mistyped keys take their defaults.
    MQTTMessage in(nullptr, true);
    ASSERT_TRUE(in.parseMessage(R"(a{"f":"x@y","s":"high","v":2.5})"));
    EXPECT_EQ(in.secLevel, 9999);
    EXPECT_EQ(in.msgType, 1);
    EXPECT_EQ(in.bodyType, 0);
    EXPECT_EQ(in.from, "x@y");
    EXPECT_EQ(in.to, "");
    EXPECT_FALSE(in.encrypted);
    // An object body becomes indented text; invalid UTF-8 is replaced.
    ASSERT_TRUE(in.parseMessage(R"(a{"b":{"room":"r@d","n":1}})"));
    EXPECT_EQ(in.body, QJsonDocument(QJsonObject{ { "room", "r@d" }, { "n", 1 } }).toJson().toStdString());
    ASSERT_TRUE(in.parseMessage("a{\"b\":\"x\xff\xfey\"}"));
    EXPECT_EQ(in.body, "x\xEF\xBF\xBD\xEF\xBF\xBDy");
}

TEST(Envelope, UnreadablePayloads)
{
    MQTTMessage in(nullptr, true);
    in.from = "kept";
    EXPECT_FALSE(in.parseMessage(nullptr));
    EXPECT_FALSE(in.parseMessage(""));
    EXPECT_FALSE(in.parseMessage("a[1,2]"));
    EXPECT_FALSE(in.parseMessage("anot json"));
    EXPECT_FALSE(in.encrypted);
    EXPECT_FALSE(in.parseMessage("BAAAA"));   // not a cipher text
    EXPECT_TRUE(in.encrypted);
    EXPECT_EQ(in.from, "kept");

    // A valid cipher text under the wrong key fails its checksum.
    MQTTMessage out(nullptr, true);
    outgoing(true, out);
    std::string wrong = out.payload;
    wrong[0] = wrong[0] == 'A' ? 'B' : 'A';
    EXPECT_FALSE(in.parseMessage(wrong.c_str()));

    // Letters that name no key are never deciphered.
    for (const char *letter : { "L", "Z", "b", "z", "\x80", "\xff" }) {
        std::string p = out.payload;
        p[0] = letter[0];
        EXPECT_FALSE(in.parseMessage(p.c_str())) << int(static_cast<unsigned char>(letter[0]));
    }
    EXPECT_EQ(in.from, "kept");
}

TEST(Envelope, LettersBelowASelectFirstKey)
{
    VantrelCrypt crypt(keyList[0]);
    const QByteArray text = crypt.encryptToByteArray(QByteArray(kCompact)).toBase64();
    for (const char *letter : { "A", "@", "0", "\x01" }) {
        MQTTMessage in(nullptr, true);
        EXPECT_TRUE(in.parseMessage((QByteArray(letter) + text).constData())) << letter;
        EXPECT_EQ(in.body, "hi");
    }
    MQTTMessage in(nullptr, true);
    EXPECT_FALSE(in.parseMessage((QByteArray("B") + text).constData()));
}

TEST(KeySelection, Letters)
{
    const struct {
        char letter;
        unsigned long long key;
    } cases[] = { { 'A', keyList[0] }, { 'K', keyList[10] }, { '@', keyList[0] }, { '!', keyList[0] },
                  { 'a', ~0ULL },      { 'L', 0 },           { 'b', 0 },          { char(0x80), 0 } };
    for (const auto &c : cases) {
        char l = c.letter;
        EXPECT_EQ(MQTTMessage::getKey(l), c.key) << int(c.letter);
        if (c.key == 0) {
            EXPECT_FALSE(MQTTMessage::isKeyLetter(c.letter));
        }
    }
    // No letter: a random one of the table is chosen.
    for (int i = 0; i < 200; ++i) {
        char r = '\0';
        const unsigned long long key = MQTTMessage::getKey(r);
        ASSERT_GE(r, 'A');
        ASSERT_LE(r, 'K');
        EXPECT_EQ(key, keyList[r - 'A']);
    }
}
