// Repeated JSON keys: found as Qt would see them, and refused in envelopes
// where Qt's parser would leak the dropped value.

#include "jsonkeycheck.h"
#include "mqttmessage.h"

#include <gtest/gtest.h>

TEST(JsonKeyCheck, FindsRepeatedKeysAtAnyDepth)
{
    EXPECT_FALSE(JsonKeyCheck::hasRepeatedKey(R"({"a":1,"b":{"a":2},"c":[{"a":3},{"a":4}]})"));
    EXPECT_TRUE(JsonKeyCheck::hasRepeatedKey(R"({"a":[1],"a":2})"));
    EXPECT_TRUE(JsonKeyCheck::hasRepeatedKey(R"({"x":{"a":[1],"b":0,"a":2}})"));
    EXPECT_TRUE(JsonKeyCheck::hasRepeatedKey(R"([1,{"k":{},"k":1}])"));
    // Keys compare after escapes are decoded, values never count as keys.
    EXPECT_TRUE(JsonKeyCheck::hasRepeatedKey(R"({"a":1,"\u0061":[2]})"));
    EXPECT_TRUE(JsonKeyCheck::hasRepeatedKey("{\"\xc3\xa9\":1,\"\\u00e9\":2}"));
    EXPECT_TRUE(JsonKeyCheck::hasRepeatedKey(R"({"\"q":1,"\"q":2})"));
    EXPECT_FALSE(JsonKeyCheck::hasRepeatedKey(R"({"a":"a","b":"a"})"));
    EXPECT_FALSE(JsonKeyCheck::hasRepeatedKey(R"({"a":"x\",\"a\":1"})"));
    // Broken text is answered without reading past its end.
    for (const char *broken : { "{\"a", "{\"a\\", "{\"a\\u00", "{\"a\":1,\"a", "]]]}}}", "\"" })
        EXPECT_FALSE(JsonKeyCheck::hasRepeatedKey(broken)) << broken;
}

TEST(JsonKeyCheck, FlatTextsNeedNoScan)
{
    EXPECT_TRUE(JsonKeyCheck::isFlat(R"({"a":1,"b":"x"})"));
    EXPECT_FALSE(JsonKeyCheck::isFlat(R"({"a":[1]})"));
    EXPECT_FALSE(JsonKeyCheck::isFlat(R"({"a":{"b":1}})"));
    EXPECT_FALSE(JsonKeyCheck::isFlat(R"({"a":"{"})")); // conservative: looks inside strings too
}

TEST(JsonKeyCheck, EnvelopesThatWouldLeakAreRefused)
{
    MQTTMessage in(nullptr, true);
    EXPECT_FALSE(in.parseMessage(R"(a{"b":{"x":[1,2]},"b":{"y":[3]},"f":"a@b"})"));
    EXPECT_FALSE(in.parseMessage(R"(a{"f":"a@b","t":"c@d","x":[1],"x":2})"));
    // Flat envelopes keep Qt's reading: the last repeated key wins.
    ASSERT_TRUE(in.parseMessage(R"(a{"f":"first@b","f":"last@b"})"));
    EXPECT_EQ(in.from, "last@b");
    // Nested but without repeats: read as usual.
    ASSERT_TRUE(in.parseMessage(R"(a{"b":{"x":[1,2]},"f":"a@b"})"));
    EXPECT_EQ(in.from, "a@b");
}
