// The envelope's JSON writer gives exactly the bytes of Qt's compact writer.

#include "compactjson.h"
#include "mqttmessage.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

#include <climits>
#include <random>
#include <string>

namespace {

std::string randomText(std::mt19937 &rng)
{
    static const std::string pieces[] = {
        "a", "Z", " ", "\"", "\\", "/", "\b", "\f", "\n", "\r", "\t", "\x01", "\x1f", "\x7f",
        "é", "你好", "😀", "\xef\xbb\xbf", "\xff", "\xc3", "\xe4\xbd", "\xed\xa0\x80", "\xc0\xaf",
        "\xf4\x90\x80\x80", "\xf0\x9f\x98", "<", "&", "\u2028",
    };
    std::string s;
    const int n = int(rng() % 12);
    for (int i = 0; i < n; ++i)
        s += pieces[rng() % (sizeof(pieces) / sizeof(pieces[0]))];
    return s;
}

} // namespace

TEST(CompactJson, EnvelopeMatchesQtWriter)
{
    std::mt19937 rng(2026);
    const int ints[] = { 0, 1, -1, 9999, INT_MAX, INT_MIN, 16, 123456789 };
    for (int round = 0; round < 3000; ++round) {
        const std::string from = randomText(rng), to = randomText(rng), body = randomText(rng),
                          key = randomText(rng), stamp = randomText(rng);
        const int level = ints[rng() % 8], type = ints[rng() % 8], kind = ints[rng() % 8];

        MQTTMessage m(nullptr, false);
        m.encText(QString::fromUtf8(from.c_str()), QString::fromUtf8(to.c_str()),
                  QString::fromUtf8(body.c_str()), MediaInfo::MessageType(type), MESSAGE_BODY_TYPE(kind),
                  QString::fromUtf8(key.c_str()), QString::fromUtf8(stamp.c_str()), level);

        QJsonObject obj;
        obj.insert("k", QString::fromUtf8(key.c_str()));
        obj.insert("p", QString());
        obj.insert("s", level);
        obj.insert("f", QString::fromUtf8(from.c_str()));
        obj.insert("t", QString::fromUtf8(to.c_str()));
        obj.insert("v", type);
        obj.insert("b", QString::fromUtf8(body.c_str()));
        obj.insert("bt", kind);
        obj.insert("st", QString::fromUtf8(stamp.c_str()));
        const std::string expected = "a" + QJsonDocument(obj).toJson(QJsonDocument::Compact).toStdString();
        ASSERT_EQ(m.payload, expected) << "round " << round;
    }
}

TEST(CompactJson, StringsFromRawBytesAreDecodedLikeQt)
{
    std::mt19937 rng(5);
    for (int round = 0; round < 2000; ++round) {
        std::string raw;
        const int n = int(rng() % 10);
        for (int i = 0; i < n; ++i)
            raw += char(1 + rng() % 255);
        QByteArray ours;
        CompactJson::appendString(ours, raw.c_str());
        const QJsonObject obj{ { "x", QString::fromUtf8(raw.c_str()) } };
        const QByteArray qt = QJsonDocument(obj).toJson(QJsonDocument::Compact);
        ASSERT_EQ(QByteArray("{\"x\":") + ours + "}", qt) << QByteArray(raw.c_str()).toHex().constData();
    }
}

TEST(CompactJson, PlainPrefixStopsAtTheFirstByteToLookAt)
{
    std::mt19937 rng(7);
    const char special[] = { '"', '\\', '\x1f', '\0', '\x80', '\xff', '\x20', '\x7f', '!', '[', ']' };
    for (int round = 0; round < 2000; ++round) {
        std::string s(rng() % 40, 'a');
        for (char &c : s)
            c = rng() % 6 == 0 ? special[rng() % sizeof(special)] : char('#' + rng() % 50);
        int expected = 0;
        while (expected < int(s.size())) {
            const auto c = static_cast<unsigned char>(s[std::size_t(expected)]);
            if (c < 0x20 || c >= 0x80 || c == '"' || c == '\\')
                break;
            ++expected;
        }
        ASSERT_EQ(CompactJson::plainPrefix(s.data(), int(s.size())), expected) << s;
    }
}
