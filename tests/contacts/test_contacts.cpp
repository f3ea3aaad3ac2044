// Friend commands and events over a broker (the engine tests' kit), and
// the contact manager: the JSON reader's rules and its image text.

#include "contactmanager.h"
#include "enginetestkit.h"
#include "imageshrinker.h"
#include "imagetestkit.h"

#include <QBuffer>
#include <QImageReader>

using namespace kit;

namespace {

std::string record(const Contact &c)
{
    return fields(c.name, c.phone, c.sex, c.photoPath, c.address, c.text7);
}

} // namespace

TEST(Friends, CommandsOnTheWire)
{
    const std::string bob = "|2|alice@im.test|bob@im.test|9999|0|16|||", server = "s/f/c/server@im.test/";
    checkRows({
        { "add", KIT_CALL(addFriend("x@y", "bob", "我是 alice")), 1, 0, "s/f/c/bob@im.test/a" + bob + "我是 alice" },
        { "accept", KIT_CALL(acceptFriend("", "bob@im.test", "welcome")), 1, 0,
            "s/f/i/bob@im.test/a" + bob + "welcome" },
        { "delete", KIT_CALL(delFriend("", "bob")), 1, 0, "s/f/c/bob@im.test/d" + bob + "nothing" },
        { "properties", KIT_CALL(setFriendPropoties("", "bob", "{}")), 1, 0, server + "s" + bob + "{}" },
        { "properties, full id", KIT_CALL(setFriendPropoties("", "x@", "p")), 1, 0,
            server + "s|2|alice@im.test|x@|9999|0|16|||p" },
        { "list", KIT_CALL(listFriends(-2, 20, "游标\"9")), 1, 0,
            server +
                R"(l|2|alice@im.test|server@im.test|9999|0|16|||{"count":20,"last_friend_id":"游标\"9","type":-2})" },
    });
    EXPECT_TRUE(net().bobApp.log.waitFor([](const Lines &l) {
        return countWith(l, "friendAdded|alice@im.test|bob@im.test|我是 alice") +
                   countWith(l, "friendDeleted|alice@im.test|bob@im.test|1") ==
               2;
    }));
}

// Each incoming chain its own callback, at any level; the rest none.
TEST(Friends, IncomingCommands)
{
    ASSERT_TRUE(net().up);
    const std::string carol = "carol@im.test|alice@im.test|";
    checkIncoming(net().aliceApp, "alice@im.test",
        { { "s/f/c/%/a", "加我", 1, { "friendAdded|" + carol + "加我" } },
            { "s/f/i/%/a", "ok", 1, { "friendAccepted|" + carol + "1" } },
            { "s/f/c/%/d", "nothing", 1, { "friendDeleted|" + carol + "1" } },
            { "s/f/i/%/l", "[{\"jid\": x", 1, { "friendList|[{\"jid\": x" } }, { "s/f/c/%/s", "{}", 1, {} },
            { "s/f/c/%/l", "{}", 1, {} }, { "s/f/i/%/d", "gone", 1, {} } });
}

TEST(ContactManager, JsonToContactRules)
{
    const Contact base{ "", "", "old", "000", "f", "/old.jpg", "t7", "", "street", false, false, {} };
    const struct {
        const char *json;
        bool ok;
        std::string read;
    } rows[] = {
        { R"({"name":"A","phone":["1","2"],"sex":""})", true, "A|2|f|/old.jpg|street|t7" },
        { R"({"name":7,"sex":null,"address":"长街","photo_path":"/p.jpg","phone":[],"x":1})", true,
            "|000|f|/p.jpg|长街|t7" },
        { R"({"phone":"12","name":null,"address":5,"sex":"m"})", true, "old|000|m|/old.jpg|street|t7" },
        { "{}", false, record(base) },
        { "[1]", false, record(base) },
        { R"({"name":"x")", false, record(base) },
    };
    for (const auto &r : rows) {
        Contact c = base;
        EXPECT_EQ(ContactManager::jsonToContact(c, QString::fromUtf8(r.json)), r.ok) << r.json;
        EXPECT_EQ(record(c), r.read) << r.json;
    }
}

// The base 64 of the shrunk picture's JPEG bytes, nothing else.
TEST(ContactManager, EncodesAPlainJpeg)
{
    const QString source = imagetest::writePicture({ 1000, 500 });
    QByteArray jpeg = QByteArray::fromBase64(ContactManager().getImageEncodeStr(source, 1.0f).toLatin1());
    EXPECT_TRUE(jpeg.startsWith("\xFF\xD8"));
    QBuffer buffer(&jpeg);
    EXPECT_EQ(QImageReader(&buffer, "jpg").read().size(), ImageShrinker().shrink(source, 1.0f).size());
    EXPECT_TRUE(ContactManager().getImageEncodeStr(imagetest::sandbox("none"), 1.0f).isEmpty());
}
