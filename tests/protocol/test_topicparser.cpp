// Topic parsing: chains, JIDs and validity of incoming topics.

#include "mqttmesaageprotocol.h"

#include <QRegExp>
#include <QStringList>

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace {

std::vector<int> codesOf(const MqttMesaageProtocol &p)
{
    std::vector<int> codes;
    if (p.code == 0)
        return codes;
    for (const ProtocolHead *n = &p; n != nullptr; n = n->next)
        codes.push_back(n->code);
    return codes;
}

struct Case {
    const char *topic;
    std::vector<int> chain;
    bool valid;
    const char *jid;
};

} // namespace

TEST(TopicParser, GrammarCases)
{
    const Case cases[] = {
        { "s/g/i/a@b/r/c", { 3, 5, 20, 10 }, true, "a@b" },
        { "s/g/c/a@b/res/c", { 3, 4, 10 }, true, "a@b/res" },
        { "m/i/a@b/n", { 1, 2, 22 }, true, "a@b" },
        { "m/i/a@b/c", { 1, 2, 25 }, true, "a@b" },
        { "m/a@b/deviceId/x", { 1 }, true, "a@b/deviceId/x" },
        { "m/i/a@b/z", { 1, 2 }, false, "a@b" },
        { "s/h/i/a@b/vd", { 3, 13, 42 }, true, "a@b" },
        { "s/h/i/a@b/v", { 3, 13 }, false, "a@b" },
        { "s/g/i/a@b/r/xx", { 3, 5, 20, 11 }, true, "a@b" },
        { "s/g/c/a@b/cx", { 3, 4, 10 }, true, "a@b" },
        { "s/f/c/a@b/a", { 3, 8, 26 }, true, "a@b" },
        { "s/f/i/a@b/l", { 3, 9, 32 }, true, "a@b" },
        { "s/r/c/a@b/b", { 3, 10, 34 }, true, "a@b" },
        { "s/r/i/a@b/c", { 3, 11, 35 }, true, "a@b" },
        { "s/h/c/a@b/l", { 3, 12, 37 }, true, "a@b" },
        { "s/c/c/a@b/x", { 3, 6 }, false, "a@b" },
        { "s/c/i/a@b/c", { 3, 7 }, false, "a@b" },
        { "s/abc", { 3 }, false, "" },
        { "s/x/a@b", { 3 }, false, "x/a@b" },
        { "s/g/c/nojid/c", { 3 }, false, "" },
        { "m/i/noat/n", { 1 }, true, "" },
        { "x/y", {}, false, "" },
        { "", {}, false, "" },
        { "xxsomething", { 13 }, true, "" },
        { "s/g/i/a@b/o/f", { 3, 5, 21, 19 }, true, "a@b" },
        { "s/g/i/a@b/q/f", { 3, 5 }, false, "a@b" },
        { "m/i/a@b/", { 1, 2 }, false, "a@b" },
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.topic);
        MqttMesaageProtocol p;
        EXPECT_EQ(p.fromTopic(c.topic), c.valid);
        EXPECT_EQ(p.valid, c.valid);
        EXPECT_EQ(codesOf(p), c.chain);
        EXPECT_EQ(p.jid, c.jid);
        EXPECT_EQ(p.topic, c.topic);
    }
}

TEST(TopicParser, JidKeepsSlashesAndUtf8Bytes)
{
    MqttMesaageProtocol p("s/f/c/用户@例子.中国/dev/1/a");
    EXPECT_TRUE(p.valid);
    EXPECT_EQ(p.jid, "用户@例子.中国/dev/1");
    EXPECT_EQ(codesOf(p), (std::vector<int>{ 3, 8, 26 }));
}

TEST(TopicParser, ReparseReplacesChainButKeepsJidWithoutNewOne)
{
    MqttMesaageProtocol p("s/g/i/a@b/r/c");
    ASSERT_EQ(p.subCount(), 4u);
    EXPECT_FALSE(p.fromTopic("s/abc"));
    EXPECT_EQ(p.jid, "a@b");
    EXPECT_EQ(codesOf(p), (std::vector<int>{ 3 }));
    EXPECT_TRUE(p.fromTopic("m/i/c@d/m"));
    EXPECT_EQ(p.jid, "c@d");
    EXPECT_EQ(codesOf(p), (std::vector<int>{ 1, 2, 24 }));
    EXPECT_FALSE(p.fromTopic("nothing"));
    EXPECT_EQ(p.code, 0);
    EXPECT_EQ(p.next, nullptr);
}

TEST(TopicParser, MatchingCodeLists)
{
    MqttMesaageProtocol message("m/a@b/x");
    EXPECT_TRUE(message.mactchSysProtocol(3, 1, 2, 22));
    EXPECT_FALSE(message.mactchSysProtocol(3, 3, 2, 22));

    MqttMesaageProtocol add("s/f/c/a@b/a");
    EXPECT_TRUE(add.mactchSysProtocol(3, 3, 8, 26));
    EXPECT_FALSE(add.mactchSysProtocol(3, 3, 8, 27));
    EXPECT_FALSE(add.mactchSysProtocol(2, 3, 8)); // the chain is longer than the list
    EXPECT_FALSE(add.mactchSysProtocol(4, 3, 8, 0, 26)); // codes after a 0 count as 0

    MqttMesaageProtocol info("s/g/i/a@b/r/c");
    EXPECT_TRUE(info.mactchSysProtocol(5, 3, 5, 20, 10, 99));
    // More codes than a chain can hold is refused, not read past the array.
    EXPECT_FALSE(info.mactchSysProtocol(6, 3, 5, 20, 10, 0, 0));
}

TEST(TopicParser, MessageShapeTests)
{
    EXPECT_TRUE(MqttMesaageProtocol::parseMesageTopic("m/a@b/x/"));
    EXPECT_TRUE(MqttMesaageProtocol::parseMesageTopic("m/a@b/"));
    EXPECT_FALSE(MqttMesaageProtocol::parseMesageTopic("m/ab/"));
    EXPECT_FALSE(MqttMesaageProtocol::parseSystemTopic("m/a@b/"));
    EXPECT_TRUE(MqttMesaageProtocol::parseSystemTopic("m/a@b/x/"));
}

// The parser keeps compiled patterns and screens them by literal prefix. A
// straightforward parser compiling a fresh unanchored QRegExp for every row
// must agree with it on every topic.
namespace {

class ReferenceParser {
public:
    std::vector<int> codes;
    std::string jid;

    bool parse(const std::string &topic)
    {
        nodes_.clear();
        if (!level(protocolHeadALL, QString::fromLatin1(topic.c_str()), 0, 0, 3))
            return false;
        for (const Node &n : nodes_)
            codes.push_back(n.row->code);
        return true;
    }

private:
    struct Node {
        const ProtocolHead *row;
    };

    // Appends the chain for `text` at depth `depth` of nodes_; true when a
    // node of non-zero code now stands there.
    bool level(const ProtocolHead *table, const QString &text, std::size_t depth, unsigned first,
               unsigned last)
    {
        for (unsigned i = first; i <= last; ++i) {
            QRegExp rx(QString::fromLatin1(table[i].pattern), Qt::CaseSensitive, QRegExp::RegExp);
            if (rx.indexIn(text) != 0)
                continue;
            nodes_.resize(depth);
            nodes_.push_back({ &table[i] });
            const QStringList caps = rx.capturedTexts();
            level(table, text, depth + 1, i + 1, unsigned(table[0].code));
            if (nodes_.size() == depth + 1) {
                std::size_t at = depth + 1;
                for (int k = 1; k < caps.size(); ++k) {
                    if (caps[k].contains('@')) {
                        jid = caps[k].toLatin1().toStdString();
                        continue;
                    }
                    const ProtocolHead *sub = k >= 2 ? table[i].subHeads[k - 2] : nullptr;
                    if (sub == nullptr)
                        continue;
                    if (!level(sub, caps[k], at, 0, unsigned(sub->code)))
                        break;
                    at = nodes_.size();
                }
            }
            break;
        }
        return nodes_.size() > depth && nodes_[depth].row->code != 0;
    }

    std::vector<Node> nodes_;
};

} // namespace

TEST(TopicParser, AgreesWithFreshExpressionsOnRandomTopics)
{
    const std::vector<std::string> pieces = { "m/", "s/", "i/", "g/", "c/", "f/", "r/", "h/", "a@b",
                                              "@", "/", "xx", "vd", "n", "x", "o", "\xc3\xa9", "d",
                                              "m", "l", "b", "q" };
    std::mt19937 rng(1234);
    for (int round = 0; round < 4000; ++round) {
        std::string topic;
        const int n = int(rng() % 9);
        for (int i = 0; i < n; ++i)
            topic += pieces[rng() % pieces.size()];
        SCOPED_TRACE(topic);
        ReferenceParser ref;
        const bool refMatched = ref.parse(topic);
        MqttMesaageProtocol p;
        p.fromTopic(topic.c_str());
        EXPECT_EQ(codesOf(p), refMatched ? ref.codes : std::vector<int>{});
        EXPECT_EQ(p.jid, ref.jid);
    }
}
