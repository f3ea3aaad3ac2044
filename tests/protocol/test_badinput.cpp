// Random and truncated input never crashes, hangs or reads out of bounds;
// the sanitizer builds run these too.

#include "mqttmessage.h"
#include "recordingcallback.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

namespace {

std::string randomBytes(std::mt19937 &rng, std::size_t n, bool printable)
{
    std::string s;
    for (std::size_t i = 0; i < n; ++i) {
        char c = static_cast<char>(printable ? 0x20 + rng() % 0x5f : 1 + rng() % 255);
        s += c;
    }
    return s;
}

} // namespace

TEST(BadInput, TruncatedTopicsAndPayloads)
{
    MQTTMessage out(nullptr, true);
    ASSERT_TRUE(out.setSysProtocol("user@d", 3, GroupINFO, SubInfo_CMD_RESPONSE, GroupSub_Kick));
    out.fromText("a@b", "user@d", "body", MediaInfo::MESSAGE_TYPE_CHAT, 1, BODY_TYPE_DEFAULT, "", "");
    RecordingCallback cb;
    int dispatched = 0;
    for (std::size_t t = 0; t <= out.topicText.size(); ++t) {
        for (std::size_t p = 0; p <= out.payload.size(); p += 3) {
            MQTTMessage in(nullptr, true);
            const std::string topic = out.topicText.substr(0, t);
            const std::string payload = out.payload.substr(0, p);
            if (in.fromTopic(topic.c_str(), payload.c_str()))
                dispatched += in.startMatchSys(&cb) ? 1 : 0;
        }
    }
    // Only the whole topic with the whole payload can be read: a cut payload
    // fails its base 64, its checksum or its JSON.
    EXPECT_EQ(dispatched, 1);
}

TEST(BadInput, RandomTopicsPayloadsAndLetters)
{
    std::mt19937 rng(99);
    RecordingCallback cb;
    MQTTMessage good(nullptr, true);
    ASSERT_TRUE(good.setSysProtocol("c@d", 2, MESSAGE_INFO, MESSAGE_NORMAL));
    good.fromText("a@b", "c@d", "x", MediaInfo::MESSAGE_TYPE_CHAT, 1, BODY_TYPE_DEFAULT, "", "");
    std::size_t goodSeen = 0;
    const char *prefixes[] = { "m/", "m/i/", "s/", "s/g/i/", "s/g/c/", "s/f/c/", "s/h/i/", "xx", "" };
    for (int round = 0; round < 3000; ++round) {
        std::string topic = prefixes[rng() % 9] + randomBytes(rng, rng() % 24, round % 2 == 0);
        std::string payload;
        switch (round % 4) {
        case 0: payload = randomBytes(rng, rng() % 64, false); break;
        case 1: payload = "a" + randomBytes(rng, rng() % 64, true); break;
        case 2: payload = std::string(1, char(rng() % 256)) + good.payload.substr(1); break;
        default: {
            payload = good.payload;
            payload[1 + rng() % (payload.size() - 1)] = char(rng() % 256);
            if (payload.find('\0') != std::string::npos)
                payload.resize(payload.find('\0'));
        }
        }
        {
            MQTTMessage in(nullptr, true);
            if (in.fromTopic(topic.c_str(), payload.c_str()))
                in.startMatchSys(&cb);
        }
        // Whatever came before, a good message right after is read in full.
        MQTTMessage next(nullptr, true);
        ASSERT_TRUE(next.fromTopic(good.topicText.c_str(), good.payload.c_str())) << topic;
        ASSERT_TRUE(next.startMatchSys(&cb));
        const DispatchRecord last = cb.records().back();
        ASSERT_EQ(last.slot, 11);
        ASSERT_EQ(last.body, "x");
        ++goodSeen;
    }
    EXPECT_EQ(goodSeen, 3000u);
}
