// The wire protocol in process: topic grammar, parser, matcher and builders;
// the envelope's writer and reader against Qt's JSON; payloads read back.

#include "compactjson.h"
#include "envelopereader.h"
#include "eventlog.h"
#include "jid.h"
#include "mqttmessage.h"
#include "patternmatcher.h"
#include "vantrelcrypt.h"

#include <gtest/gtest.h>

#include <QJsonDocument>
#include <QJsonObject>

#include <climits>
#include <cstring>
#include <random>

namespace {

auto tie(const EnvelopeReader::Fields &f)
{
    return std::tie(f.messageKey, f.p, f.from, f.to, f.body, f.stamp, f.secLevel, f.bodyType, f.msgType);
}

// Whether the direct reader takes `text`; when it does, Qt's parser must
// read the same fields from it.
bool readsDirectly(const QByteArray &text)
{
    EnvelopeReader::Fields direct, viaQt;
    if (!EnvelopeReader::readCompact(text.constData(), std::size_t(text.size()), direct))
        return false;
    EXPECT_TRUE(EnvelopeReader::readDocument(text, viaQt) && tie(direct) == tie(viaQt)) << text.toStdString();
    return true;
}

std::string randomText(std::mt19937 &rng)
{
    static const std::string pieces[] = { "a", " ", "\"", "\\", "/", "\b", "\f", "\n", "\r", "\t", "\x1a", "\x1f",
        "\x7f", "é", "你好", "😀", "\u2028", "\xef\xbb\xbf", "\xef\xbf\xbf", "\xf4\x8f\xbf\xbf", "0123456789abcdef", "{",
        "}", ",", ":", "[", "\xff", "\xc3", "\xe4\xbd", "\xed\xa0\x80", "\xc0\xaf", "\xf4\x90\x80\x80", "\xf0\x9f\x98",
        std::string("\0z", 2) };
    std::string s;
    for (int n = int(rng() % 10); n > 0; --n)
        s += pieces[rng() % std::size(pieces)];
    return s;
}

} // namespace

// Chain (as names), JID and validity of incoming topics.
TEST(TopicParser, Grammar)
{
    const struct {
        const char *topic, *expected;
    } rows[] = { { "s/g/i/a@b/r/xx", "1|a@b|SYSTEM/GroupINFO/SubInfo_CMD_RESPONSE/GroupSub_MAX/" },
        { "s/g/i/a@b/q/f", "0|a@b|SYSTEM/GroupINFO/" },
        { "s/g/c/a@b/res/c", "1|a@b/res|SYSTEM/GroupCMD/GroupSub_Create/" },
        { "s/g/c/a@b/cx", "1|a@b|SYSTEM/GroupCMD/GroupSub_Create/" }, { "m/i/a@b/z", "0|a@b|MESSAGE/MESSAGE_INFO/" },
        { "m/a@b/deviceId/x", "1|a@b/deviceId/x|MESSAGE/" }, { "m/i/noat/n", "1||MESSAGE/" },
        { "s/f/c/用户@例子.中国/dev/1/a", "1|用户@例子.中国/dev/1|SYSTEM/FriendCMD/FriendSub_Add/" },
        { "s/h/i/a@b/vd", "1|a@b|SYSTEM/HistoryINFO/HistorySubInfo_Converstaion_Detail/" },

        { "s/c/c/a@b/x", "0|a@b|SYSTEM/ConferenceCMD/" },

        { "s/x/a@b", "0|x/a@b|SYSTEM/" }, { "s/g/c/nojid/c", "0||SYSTEM/" }, { "xxsomething", "1||Protocol_MAX/" },

        { "", "0||/" } };
    for (const auto &row : rows) {
        MqttMesaageProtocol p;
        const bool valid = p.fromTopic(row.topic);
        EXPECT_EQ(fields(valid, p.jid, p.getCmdDescribe()), row.expected) << row.topic;
    }

    ProtocolHead *out = nullptr;
    EXPECT_FALSE(MqttMesaageProtocol().parseTopic(nullptr, "d", &out, 0, 4));

    const auto shape = [](const char *t) {
        return fields(MqttMesaageProtocol::parseMesageTopic(t), MqttMesaageProtocol::parseSystemTopic(t));
    };
    EXPECT_EQ(fields(shape("m/a@b/x/"), shape("m/a@b/"), shape("m/ab/")), "1|1|1|0|0|0");
}

// The matcher gives what a QRegExp match from the first character gives, on
// every grammar pattern and on patterns that it hands on to QRegExp.
TEST(PatternMatcher, AgreesWithQRegExp)
{
    std::vector<const char *> patterns{ "([\\s\\S]*)x([\\s\\S]*@[\\s\\S]*)", "a+(b|c)", "([\\s\\S]*)([\\s\\S]*)",
        "x([\\s\\S]*)y" };
    for (const ProtocolHead *table : { protocolHeadALL, messageSubHead, groupCMDProtocolHead, groupInfoProtocolHead,
             friendSubCmdProtocolHead, friendSubInfoProtocolHead, remoteDesktopSubCmdProtocolHead,
             remoteDesktopSubInfoProtocolHead, HistorySubCmdProtocolHead, HistorySubInfoHead }) {
        for (int i = 0; i <= table[0].code; ++i)
            patterns.push_back(table[i].pattern);
    }
    const char *const pieces[] = { "m/", "s/", "i/", "g/", "c/", "f/", "r/", "h/", "a@b", "@", "/", "xx", "vd", "n",
        "x", "y", "o", "\xc3\xa9", "d", "m", "l", "b", "q", "a" };
    std::mt19937 rng(1234);
    for (int round = 0; round < 3000; ++round) {
        std::string subject;
        for (int n = int(rng() % 9); n > 0; --n)
            subject += pieces[rng() % std::size(pieces)];
        for (std::size_t k = 0; k < patterns.size(); ++k) {
            PatternCaptures captures;
            std::string ours = "none", qt = "none";
            if (PatternMatcher::matchAtStart(patterns[k], subject, captures)) {
                ours = "match";
                for (std::string_view group : captures.groups)
                    ours += "|" + std::string(group);
            }
            QRegExp rx(QString::fromLatin1(patterns[k]));
            if (rx.indexIn(QString::fromLatin1(subject.c_str())) == 0) {
                qt = "match";
                for (const QString &group : rx.capturedTexts().mid(1))
                    qt += "|" + group.toLatin1().toStdString();
            }
            ASSERT_EQ(ours, qt) << patterns[k] << " on " << subject;
        }
    }
}

TEST(TopicBuilders, CommandAndSubscriptionTopics)
{
    const struct {
        unsigned count;
        int codes[3];
        const char *expected;
    } rows[] = { { 2, { HistoryCMD, HistorySub_Converstaion_Detail }, "1|s/h/c/a@b/vd" },
        { 3, { FriendCMD, FriendSub_Add, 0 }, "1|s/f/c/a@b/a" },
        { 3, { FriendCMD, FriendSub_Add, FriendSub_Del }, "0|" }, { 2, { GroupINFO, SubInfo_CMD_RESPONSE }, "0|" },
        { 2, { FriendCMD, FriendSubInfo_Accept }, "0|" }, { 2, { MESSAGE, MESSAGE_NORMAL }, "0|" },
        { 2, { SYSTEM, GroupSub_Create }, "0|" }, { 2, { ConferenceCMD, 1 }, "0|" }, { 2, { 0, MESSAGE_NORMAL }, "0|" },
        { 2, { 99, MESSAGE_NORMAL }, "0|" }, { 1, { FriendCMD }, "0|" }, { 0, { FriendCMD, FriendSub_Add }, "0|" } };
    for (const auto &r : rows) {
        MqttMesaageProtocol p;
        EXPECT_EQ(fields(p.fromSysProtocol("a@b", r.count, r.codes[0], r.codes[1], r.codes[2]), p.topic), r.expected)
            << r.codes[0] << " " << r.codes[1];
    }
    MqttMesaageProtocol p;
    EXPECT_EQ(fields(p.fromSysProtocol("no-at", 2, FriendCMD, FriendSub_Add), p.topic, p.valid), "0|s/f/c/no-at/a|0");
    EXPECT_EQ(fields(p.fromMessageProtocol("a@b", "sync"), p.topic, p.jid), "1|m/a@b/sync|a@b/sync");
    EXPECT_EQ(fields(p.fromMessageProtocol("a@b", nullptr), p.topic), "1|m/a@b/");
    MqttMesaageProtocol refused;
    EXPECT_EQ(fields(refused.fromSysProtocol("+", 2, FriendCMD, FriendSub_Add), refused.fromMessageProtocol("a/b", ""),
                  refused.topic),
        "0|0|");

    EXPECT_EQ(fields(MqttMesaageProtocol::getSendToTopic("<jid>#@d"), MqttMesaageProtocol::getDeviceTopic("u@d"),
                  MqttMesaageProtocol::getSyncMessageTopic("u@d"), MqttMesaageProtocol::getFreshGroupTopic("u@d")),
        "m/i/<jid>@d/|m/u@d/deviceId/|m/u@d/sync/|s/g/c/u@d/f");
}

// The byte rules (the engine's and command-line tests cover the rest).
TEST(Jid, BytesOfAJid)
{
    using P = Jid::Problem;
    const std::pair<std::string, P> rows[] = { { "日本@例え", P::None }, { "a\xc2\xa0@d", P::None },
        { std::string(256, 'a'), P::None }, { std::string(257, 'a'), P::TooLong }, { "a\xc0\xaf", P::NotUtf8 },
        { "a\xed\xa0\x80", P::NotUtf8 }, { "a\xf4\x90\x80\x80", P::NotUtf8 }, { "a\xe6\x97", P::NotUtf8 },
        { std::string("a\0b", 3), P::ControlCharacter }, { "a\xc2\x9f", P::ControlCharacter }, { "a#", P::Wildcard } };
    for (const auto &[jid, problem] : rows)
        EXPECT_EQ(int(Jid::check(jid)), int(problem)) << jid;
    EXPECT_EQ(int(Jid::checkPart("a@b")), int(P::At));
}

// The envelope as Qt's compact writer writes it, for any text (cut at a
// NUL; malformed UTF-8 decoded as QString does) and any int.
TEST(CompactJson, MatchesQtWriter)
{
    std::mt19937 rng(2026);
    const int ints[] = { 0, 1, -1, 9999, INT_MAX, INT_MIN, 16, 123456789 };
    for (int round = 0; round < 3000; ++round) {
        std::string s[5];
        for (std::string &t : s)
            t = randomText(rng);
        const auto whole = [&](int i) { return QString::fromUtf8(s[i].data(), int(s[i].size())); };
        const auto cut = [&](int i) { return QString::fromUtf8(s[i].c_str()); };
        const int v = ints[rng() % 8], bt = ints[rng() % 8], level = ints[rng() % 8];
        MQTTMessage m(nullptr, false);
        m.encText(
            whole(0), whole(1), whole(2), MediaInfo::MessageType(v), MESSAGE_BODY_TYPE(bt), whole(3), whole(4), level);
        const QJsonObject qt{ { "f", cut(0) }, { "t", cut(1) }, { "b", cut(2) }, { "k", cut(3) }, { "st", cut(4) },
            { "v", v }, { "bt", bt }, { "s", level }, { "p", "" } };
        ASSERT_EQ(m.payload, "a" + QJsonDocument(qt).toJson(QJsonDocument::Compact).toStdString()) << round;
        QByteArray raw("{\"x\":");
        const std::string bytes = "." + s[2]; // QString::fromUtf8 would drop a leading byte-order mark
        CompactJson::appendString(raw, bytes.c_str());
        ASSERT_EQ(raw + "}",
            QJsonDocument(QJsonObject{ { "x", QString::fromUtf8(bytes.c_str()) } }).toJson(QJsonDocument::Compact))
            << round;
    }
}

// The direct reader takes exactly the compact shape (known keys in order,
// strings of well-formed UTF-8, plain ints) and then agrees with Qt's parser.
TEST(EnvelopeReader, DirectReaderAgreesWithQt)
{
    for (const char *text : { R"({})", R"({"b":""})", R"({"b":"\u0000x"})",
             R"({"b":"\ud83d\ude00\u00e9\u20AC\ufeff\udbff\udfff"})", R"({"b":"\/\"\\\b\f\n\r\t"})",
             R"({"b":"x","bt":-1,"f":"a","k":"","p":"p","s":1234567890,"st":"s","t":"t","v":0})",
             R"({"s":-2147483648,"v":2147483647})",
             "{\"b\":\"a\x7f\xc2\xa9\xdf\xbf\xe0\xa0\x80\xed\x9f\xbf\xee\x80\x80\"}",
             "{\"b\":\"\xef\xbf\xbf\xf0\x90\x80\x80\xf4\x8f\xbf\xbf\"}", "{\"b\":\"x\xef\xbb\xbf\"}" })
        EXPECT_TRUE(readsDirectly(text)) << text;
    for (const char *text :
        { R"({"b":"\ud800"})", R"({"b":"\udc00x"})", R"({"b":"\ud800\u0041"})", R"({"b":"\x"})", R"({"s":-0})",
            R"({"s":01})", R"({"s":2147483648})", R"({"s":-2147483649})", R"({"b":"x"} )", R"({"b":"x",})",
            R"({"b" :"x"})", R"({"f":"a","b":"x"})", R"({"b":"x","b":"y"})", R"({"bt":"1"})", R"({"k":true})",
            R"({"b":"x")", R"({"bb":1})", R"([])", "", "{\"b\":\"\xc0\xaf\"}", "{\"b\":\"\xe0\x9f\xbf\"}",
            "{\"b\":\"\xed\xa0\x80\"}", "{\"b\":\"\xf0\x8f\xbf\xbf\"}", "{\"b\":\"\xf4\x90\x80\x80\"}",
            "{\"b\":\"\xe4\xbd\"}", "{\"b\":\"a\x1f\"}", "\xef\xbb\xbf{}", "{\"b\":\"\xef\xbb\xbfx\"}" })
        EXPECT_FALSE(readsDirectly(text)) << text;
}

// What parseMessage reads from a payload, as
// "from|to|body|k|p|st|s|bt|v|encrypted", or "refused" with fields kept.
TEST(Envelope, ReadingPayloads)
{
    MQTTMessage out(nullptr, true);
    out.fromText("a@b", "c@d", "hi", MediaInfo::MESSAGE_TYPE_CHAT, 1, BODY_TYPE_DEFAULT, "", "");
    std::vector<std::pair<std::string, std::string>> rows{
        { (out.payload[0] == 'A' ? "B" : "A") + out.payload.substr(1), "refused" }, // another key
        { "L" + out.payload.substr(1), "refused" }
    }; // no key
    for (const char *payload : { "", "a[1,2]", "anot json", "BAAAA", R"(a{"b":{"x":[1,2]},"b":{"y":[3]},"f":"a@b"})" })
        rows.push_back({ payload, "refused" });
    rows.push_back({ R"(a{"f":"x@y","s":"high","v":2.5})", "x@y||||||9999|0|1|0" });
    rows.push_back({ R"(a{"f":"first@b","f":"last@b"})", "last@b||||||9999|0|1|0" });
    rows.push_back({ R"(a{"b":{"x":[1,2]},"f":"a@b"})",
        fields("a@b", "", "{\n    \"x\": [\n        1,\n        2\n    ]\n}\n", "", "", "", 9999, 0, 1, 0) });
    rows.push_back({ "a{\"b\":\"x\xff\xfey\"}", "||x\xEF\xBF\xBD\xEF\xBF\xBDy||||9999|0|1|0" });
    for (const auto &[payload, expected] : rows) {
        MQTTMessage in(nullptr, true);
        in.from = "kept";
        const bool read = in.parseMessage(payload.c_str());
        EXPECT_EQ(read ? fields(in.from, in.to, in.body, in.messageKey, in.p, in.stamp, in.secLevel, in.bodyType,
                             in.msgType, in.encrypted)
                       : fields("refused", in.from),
            read ? expected : "refused|kept")
            << payload;
    }
    EXPECT_FALSE(MQTTMessage(nullptr, true).parseMessage(nullptr));
    EXPECT_FALSE(MQTTMessage(nullptr, true).fromTopic("xxcount row", "a{}"));
}

// fromText: a command topic or the addressee's message topic, and a payload
// of a key letter and the base-64 cipher text made with that letter's key.
TEST(Envelope, WritingPayloadsAndKeyLetters)
{
    const char *compact = R"({"b":"hi","bt":0,"f":"a@b","k":"key","p":"","s":5,"st":"stamp","t":"c@d","v":1})";
    MQTTMessage m(nullptr, true), command(nullptr, false);
    ASSERT_TRUE(m.fromText("a@b", "c@d", "hi", MediaInfo::MESSAGE_TYPE_CHAT, 5, BODY_TYPE_DEFAULT, "key", "stamp"));
    EXPECT_EQ(fields(m.topicText, m.protocol.topic, m.send(2), m.startMatchSys(nullptr)), "m/c@d/|m/c@d/|0|0");
    ASSERT_TRUE(command.setSysProtocol("c@d", 2, FriendCMD, FriendSub_Add));
    command.fromText("a@b", "c@d", "hi", MediaInfo::MESSAGE_TYPE_CHAT, 5, BODY_TYPE_DEFAULT, "", "");
    EXPECT_EQ(command.topicText, "s/f/c/c@d/a");
    const unsigned letter = uchar(m.payload[0]) - 'A'; // drawn at random
    ASSERT_LT(letter, 11u);
    EXPECT_EQ(VantrelCrypt(keyList[letter]).decryptToByteArray(QString::fromStdString(m.payload.substr(1))), compact);

    std::string keys; // "a" stands for no cipher; letters without a key give 0
    for (char l : { 'A', 'K', '@', 'a', 'L', 'b', char(0x80) })
        keys += fields(MQTTMessage::getKey(l), MQTTMessage::isKeyLetter(l), "");
    EXPECT_EQ(keys, fields(keyList[0], 1, keyList[10], 1, keyList[0], 1, ~0ULL, 1, 0, 0, 0, 0, 0, 0, ""));
}
