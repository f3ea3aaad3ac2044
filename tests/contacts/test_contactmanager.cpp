// The contact manager on its own and behind the façade: subscription log
// lines, the JSON reader's rules, notifications to the contact receiver, and
// its image text (plain base 64 of the JPEG, and its log).

#include "contactmanager.h"
#include "imageshrinker.h"
#include "imagetestkit.h"
#include "message_lib.h"
#include "messageprivate.h"

#include <QBuffer>
#include <QImageReader>
#include <QLoggingCategory>

#include <gtest/gtest.h>

#include <tuple>
#include <vector>

namespace {

// Collects the contact manager's log lines while alive.
class LogCapture {
public:
    LogCapture() : previous_(qInstallMessageHandler(&LogCapture::handle))
    {
        QLoggingCategory::setFilterRules(QStringLiteral("pushchat.contacts.debug=true"));
        lines.clear();
    }
    ~LogCapture()
    {
        qInstallMessageHandler(previous_);
        QLoggingCategory::setFilterRules(QString());
    }
    static inline QStringList lines;

private:
    static void handle(QtMsgType, const QMessageLogContext &context, const QString &text)
    {
        if (context.category != nullptr && qstrcmp(context.category, "pushchat.contacts") == 0)
            lines << text;
    }
    const QtMessageHandler previous_;
};

struct ContactCalls : ImContactEventReciever {
    std::vector<QStringList> calls; // callback name, then its arguments as text
    void onSubscribeRequest(QString jid, QString text7, QString text8) override
    {
        calls.push_back({ "onSubscribeRequest", jid, text7, text8 });
    }
    void onContactInfo(QString jid, QString text7, bool flag1, bool flag2, QStringList list) override
    {
        calls.push_back(QStringList{ "onContactInfo", jid, text7, flag1 ? "1" : "0", flag2 ? "1" : "0" } + list);
    }
    void onOwnerVCard(QString text) override { calls.push_back({ "onOwnerVCard", text }); }
};

bool sameRecord(const Contact &a, const Contact &b)
{
    const auto all = [](const Contact &c) {
        return std::tie(c.text1, c.text2, c.name, c.phone, c.sex, c.photoPath, c.text7, c.text8, c.address, c.flag1,
                        c.flag2, c.textList);
    };
    return all(a) == all(b);
}

Contact filledContact()
{
    Contact c;
    c.name = "old name";
    c.phone = "000";
    c.sex = "f";
    c.photoPath = "/old.jpg";
    c.address = "old street";
    c.text7 = "说明";
    c.text8 = "second";
    c.flag2 = true;
    return c;
}

} // namespace

// Directly and through the façade: only the two subscription calls log,
// with the JID completed.
TEST(ContactManager, SubscriptionsLogTheCompletedJid)
{
    LogCapture log;
    ContactManager manager;
    EXPECT_TRUE(manager.subScribe("bob", "ignored"));
    EXPECT_TRUE(manager.subScribe("bob@im.test", ""));
    EXPECT_TRUE(manager.unSubScribe("carol", ""));
    EXPECT_TRUE(manager.unSubScribe("@", ""));
    EXPECT_TRUE(manager.acceptSubScribe("dave", true));
    EXPECT_TRUE(manager.acceptSubScribe("", false));
    manager.uploadVCardInfo("BEGIN:VCARD");

    Message_lib lib(nullptr, nullptr, "dev-x", "Desk");
    EXPECT_EQ(lib.subScribe("bob", ""), 1);
    EXPECT_EQ(lib.unSubScribe("bob@else.where", ""), 1);
    EXPECT_EQ(lib.acceptSubScribe("bob", false), 1);
    lib.uploadVCardInfo("card");
    EXPECT_EQ(LogCapture::lines, (QStringList{ "[subScribe]: subscribe() :bob@",
                                                          "[subScribe]: subscribe() :bob@im.test",
                                                          "[unSubScribe]: unSubScribe() :carol@",
                                                          "[unSubScribe]: unSubScribe() :@",
                                                          "[subScribe]: subscribe() :bob@",
                                                          "[unSubScribe]: unSubScribe() :bob@else.where" }));

    ContactCalls app;
    lib.setContactEventReciever(&app);
    lib.engine()->getContactManager()->donotifyownerVcardinforevieved("card");
    EXPECT_EQ(app.calls, (std::vector<QStringList>{ { "onOwnerVCard", "card" } }));
}

TEST(ContactManager, JsonToContactRules)
{
    LogCapture log;
    Contact c = filledContact();
    EXPECT_TRUE(ContactManager::jsonToContact(c, R"({"name":"A","phone":["1","2"],"sex":""})"));
    Contact expected = filledContact();
    expected.name = "A";
    expected.phone = "2";
    EXPECT_TRUE(sameRecord(c, expected));
    // The phone line shows the value's JSON type (4: array).
    EXPECT_EQ(LogCapture::lines, QStringList{ "[jsonToContact]: 4" });

    // Not a non-empty object: false, the record untouched.
    for (const char *bad : { "[1,2]", "{}", "not json", "", R"({"name":"x")", "\"text\"" }) {
        Contact d = filledContact();
        EXPECT_FALSE(ContactManager::jsonToContact(d, bad)) << bad;
        EXPECT_TRUE(sameRecord(d, filledContact())) << bad;
    }

    // A non-string name empties the name; nulls are skipped; non-empty texts
    // are taken, in UTF-8; unknown keys are ignored; an empty phone array
    // and a non-array phone leave the phone alone.
    Contact e = filledContact();
    EXPECT_TRUE(ContactManager::jsonToContact(
        e, QString::fromUtf8(R"({"name":7,"sex":null,"address":"长街 1","photo_path":"/p.jpg","phone":[],"x":1})")));
    expected = filledContact();
    expected.name = "";
    expected.address = "长街 1";
    expected.photoPath = "/p.jpg";
    EXPECT_TRUE(sameRecord(e, expected));
    Contact f = filledContact();
    EXPECT_TRUE(ContactManager::jsonToContact(f, R"({"phone":"12345","name":null,"address":5})"));
    EXPECT_TRUE(sameRecord(f, filledContact()));
    EXPECT_EQ(LogCapture::lines.back(), "[jsonToContact]: 3");
}

TEST(ContactManager, NotificationsReachTheReceiverOnlyWhenSet)
{
    ContactManager manager;
    Contact c = filledContact();
    QString jid = "bob@im.test";
    // No receiver: nothing happens (and nothing crashes).
    manager.doSubScribeIncomingRequest(jid, c);
    manager.doNotifyContactInfoIncoming(jid, c, { "x" });
    manager.donotifyownerVcardinforevieved("card");

    ContactCalls app;
    manager.setContactEventReciever(&app);
    manager.doSubScribeIncomingRequest(jid, c);
    manager.doNotifyContactInfoIncoming("carol@im.test", c, { "l1", "l2" });
    manager.donotifyownerVcardinforevieved(QString::fromUtf8("名片"));
    EXPECT_EQ(app.calls, (std::vector<QStringList>{
                             { "onSubscribeRequest", "bob@im.test", QString::fromUtf8("说明"), "second" },
                             { "onContactInfo", "carol@im.test", QString::fromUtf8("说明"), "0", "1", "l1", "l2" },
                             { "onOwnerVCard", QString::fromUtf8("名片") } }));
    EXPECT_TRUE(sameRecord(c, filledContact()));

    manager.setContactEventReciever(nullptr);
    manager.donotifyownerVcardinforevieved("again");
    EXPECT_EQ(app.calls.size(), 3u);
}

TEST(ContactManager, EncodesUncompressedJpegAndLogsEachAttempt)
{
    const QString source = imagetest::writePicture({ 1000, 500 });
    ImageShrinker reference;
    const QSize expected = reference.shrink(source, 1.0f).size();
    LogCapture log;
    const QString text = ContactManager().getImageEncodeStr(source, 1.0f);

    QByteArray jpeg = QByteArray::fromBase64(text.toLatin1());
    EXPECT_TRUE(jpeg.startsWith("\xFF\xD8")) << "a JPEG with no length prefix";
    QBuffer buffer(&jpeg);
    EXPECT_EQ(QImageReader(&buffer, "jpg").read().size(), expected);

    const QStringList &logged = LogCapture::lines;
    EXPECT_EQ(logged.filter(QStringLiteral("image:")).size(), reference.attempts());
    EXPECT_EQ(logged.filter(QStringLiteral(" need resize:")).size(), reference.attempts() - 1);
    EXPECT_EQ(logged.filter(QStringLiteral("image  Size:350 rate=1 scaleSize=350")).size(), 1);
    ASSERT_FALSE(logged.isEmpty());
    EXPECT_TRUE(logged.last().endsWith(QStringLiteral("imageStr len:") + QString::number(text.size())));

    EXPECT_TRUE(ContactManager().getImageEncodeStr(imagetest::sandbox(QStringLiteral("none")), 1.0f).isEmpty());
}
