#include "clioptions.h"

#include <QCoreApplication>

#include <gtest/gtest.h>

namespace {

CliOptions parsed(QStringList arguments)
{
    arguments.prepend(QStringLiteral("pushchat"));
    CliOptions options;
    EXPECT_TRUE(options.parse(arguments)) << options.error().toStdString();
    return options;
}

TEST(CliOptions, DefaultsForListen)
{
    const CliOptions options = parsed({"--user", "bob", "listen"});
    EXPECT_EQ(options.command(), CliOptions::Command::Listen);
    EXPECT_EQ(options.host(), "127.0.0.1");
    EXPECT_EQ(options.port(), 1883);
    EXPECT_EQ(options.user(), "bob");
    EXPECT_TRUE(options.domain().isEmpty());
    EXPECT_EQ(options.level(), 0);
    EXPECT_TRUE(options.deviceId().empty());
    EXPECT_TRUE(options.serverJid().isEmpty());
    EXPECT_EQ(options.connectTimeout(), std::chrono::seconds(10));
    EXPECT_FALSE(options.notice());
    EXPECT_FALSE(options.room());
    EXPECT_FALSE(options.saveImages());
}

// A repeated option: the last one counts.
TEST(CliOptions, EveryOptionAndSendArguments)
{
    const CliOptions options =
        parsed({"--timeout", "3", "--host", "10.0.0.7", "--port=1999", "--user", "alice", "--domain",
                "im.example.org", "--level", "-3", "--device", "desk-1", "--server-jid", "srv@im.example.org",
                "--timeout", "0.25", "send", "--notice", "--room", "team", "--", "-text with a dash"});
    EXPECT_EQ(options.command(), CliOptions::Command::Send);
    EXPECT_EQ(options.commandArguments(), QStringList({"team", "-text with a dash"}));
    EXPECT_EQ(options.host(), "10.0.0.7");
    EXPECT_EQ(options.port(), 1999);
    EXPECT_EQ(options.domain(), "im.example.org");
    EXPECT_EQ(options.level(), -3);
    EXPECT_EQ(options.deviceId(), "desk-1");
    EXPECT_EQ(options.serverJid(), "srv@im.example.org");
    EXPECT_EQ(options.connectTimeout(), std::chrono::milliseconds(250));
    EXPECT_TRUE(options.notice());
    EXPECT_TRUE(options.room());
}

// Subcommands run end to end in the broker tests; here the defaults, the
// empty and negative values they do not use.
TEST(CliOptions, SubcommandDefaultsEmptyAndNegativeValues)
{
    EXPECT_EQ(parsed({"--user", "a", "status", "0f8e-uuid", "--", "-2"}).status(), -2);
    EXPECT_EQ(parsed({"--user", "a", "room", "type", "team", "--", "-2"}).roomRequest().type(), -2);
    EXPECT_EQ(parsed({"--user", "a", "room", "create", "team", "T", ""}).roomRequest().type(), 0);

    const FriendRequest add = parsed({"--user", "a", "friend", "add", "bob"}).friendRequest();
    EXPECT_EQ(add.arguments(), QStringList({"bob", ""})); // TEXT sent empty
    const FriendRequest list = parsed({"--user", "a", "friend", "list"}).friendRequest();
    EXPECT_EQ(list.listType(), 1);
    EXPECT_EQ(list.listCount(), 20);
    EXPECT_TRUE(list.listCursor().isEmpty());

    EXPECT_EQ(parsed({"--user", "a", "history", "detail", "", "2", "10"}).historyRequest().id(), "");
    EXPECT_EQ(parsed({"--user", "a", "rdp", "becontrol-reply", "bob", ""}).rdpRequest().text(), "");
}

TEST(CliOptions, HelpNeedsNothingElse)
{
    EXPECT_TRUE(parsed({"--help", "send"}).helpRequested());

    int argc = 1;
    char program[] = "/some/where/bin/pushchat";
    char *argv[] = {program, nullptr};
    const QCoreApplication app(argc, argv);
    const QString help = CliOptions::helpText();
    EXPECT_TRUE(help.startsWith("Usage: pushchat [options] command")) << help.toStdString();
    for (const char *word : {"listen", "send TO TEXT", "location TARGET FIRST SECOND", "status UUID STATUS",
                             "room create ROOM NAME MEMBERS", "friend list [--type N] [--count N] [--cursor ID]",
                             "history --http pull TYPE COUNT UUID", "rdp control JID TEXT", "send --image PATH TO",
                             "--save-images", "4 no answer", "66 image"})
        EXPECT_TRUE(help.contains(QLatin1String(word))) << word;
}

struct BadLine {
    QStringList arguments;
    const char *errorMentions;
};

TEST(CliOptions, BadCommandLinesGiveOneLine)
{
    const BadLine cases[] = {
        {{"--user", "a", "--bogus", "listen"}, "bogus"},
        {{"--user", "a", "--port"}, "port"},
        {{"--user", "a", "--port", "0", "listen"}, "--port"},
        {{"--user", "a", "--port", "65536", "listen"}, "--port"},
        {{"--user", "a", "--port", "18x", "listen"}, "18x"},
        {{"--user", "a", "--level", "high", "listen"}, "--level"},
        {{"--user", "a", "--timeout", "0", "listen"}, "--timeout"},
        {{"--user", "a", "--timeout", "nan", "listen"}, "--timeout"},
        {{"--user", "a", "--timeout", "1e9", "listen"}, "--timeout"},
        {{"--host", "", "--user", "a", "listen"}, "--host"},
        {{"listen"}, "--user"},
        {{"--user", "", "listen"}, "--user"},
        {{"--user", "a"}, "Missing command"},
        {{"--user", "a", "shout"}, "shout"},
        {{"--user", "a", "listen", "extra"}, "listen"},
        {{"--user", "a", "send", "bob"}, "send TO TEXT"},
        {{"--user", "a", "send", "bob", "hi", "there"}, "send TO TEXT"},
        {{"--user", "a", "location", "bob", "1"}, "location TARGET FIRST SECOND"},
        {{"--user", "a", "status", "uuid", "read"}, "STATUS"},
        {{"--user", "a", "--notice", "listen"}, "send only"},
        {{"--user", "a", "--room", "status", "u", "1"}, "send only"},
        {{"--user", "a", "room"},
         "'room' needs a subcommand: create, invite, kick, rename, owner, type or destroy."},
        {{"--user", "a", "room", "paint", "team"}, "paint"},
        {{"--user", "a", "room", "create", "team", "T"}, "room create ROOM NAME MEMBERS"},
        {{"--user", "a", "room", "destroy", "team", "now"}, "room destroy ROOM"},
        {{"--user", "a", "room", "kick", "", "bob"}, "ROOM"},
        {{"--user", "a", "room", "type", "team", "big"}, "big"},
        {{"--user", "a", "room", "create", "team", "T", "bob", "--type", "x"}, "'x'"},
        {{"--user", "a", "--type", "2", "room", "rename", "team", "T"}, "--type"},
        {{"--user", "a", "friend"}, "subcommand"},
        {{"--user", "a", "friend", "hug", "bob"}, "hug"},
        {{"--user", "a", "friend", "add"},
         "'friend add' takes 1 or 2 argument(s), 0 given: pushchat [options] friend add JID [TEXT]."},
        {{"--user", "a", "friend", "add", "bob", "hi", "more"}, "friend add JID [TEXT]"},
        {{"--user", "a", "friend", "accept", ""}, "JID"},
        {{"--user", "a", "friend", "list", "extra"}, "friend list"},
        {{"--user", "a", "friend", "list", "--count", "0"}, "'0'"},
        {{"--user", "a", "friend", "list", "--type", "x"}, "'x'"},
        {{"--user", "a", "friend", "add", "bob", "--count", "3"}, "--count"},
        {{"--user", "a", "friend", "del", "bob", "--type", "3"}, "--type"},
        {{"--user", "a", "--cursor", "c", "listen"}, "--cursor"},
        {{"--user", "a", "history"}, "subcommand"},
        {{"--user", "a", "history", "erase", "u"}, "erase"},
        {{"--user", "a", "history", "sync"}, "history sync UUID"},
        {{"--user", "a", "history", "conversations", "1", "0"}, "history conversations TYPE PAGE SIZE"},
        {{"--user", "a", "history", "conversations", "chat", "0", "20"}, "TYPE"},
        {{"--user", "a", "history", "conversations", "--", "1", "-1", "20"},
         "PAGE must be a whole number of 0 or more, not '-1'."},
        {{"--user", "a", "history", "pull", "1", "0", "5"}, "history pull TYPE START COUNT UUID"},
        {{"--user", "a", "history", "pull", "1", "0", "0", "u"}, "COUNT"},
        {{"--user", "a", "history", "--http", "pull", "1", "0", "5", "u"}, "history --http pull TYPE COUNT UUID"},
        {{"--user", "a", "history", "--http", "conversations", "1", "0", "20"}, "--http"},
        {{"--user", "a", "history", "--http-base", "http://h:1", "sync", "u"}, "--http"},
        {{"--user", "a", "history", "--http", "--http-base", "ftp://h", "sync", "u"}, "ftp://h"},
        {{"--user", "a", "history", "--http", "--http-base", "", "sync", "u"}, "--http-base"},
        {{"--user", "a", "--http", "listen"}, "--http"},
        {{"--user", "a", "rdp"}, "subcommand"},
        {{"--user", "a", "rdp", "steal", "bob", "x"},
         "Unknown rdp subcommand 'steal': use control, becontrol, control-reply or becontrol-reply."},
        {{"--user", "a", "rdp", "control", "bob"},
         "'rdp control' takes 2 argument(s), 1 given: pushchat [options] rdp control JID TEXT."},
        {{"--user", "a", "rdp", "control", "", "x"}, "JID"},
        {{"--user", "a", "send", "--image", "p.png", "bob", "hi"}, "send --image PATH TO"},
        {{"--user", "a", "send", "--image", "", "bob"}, "--image"},
        {{"--user", "a", "--image", "p.png", "listen"}, "send only"},
        {{"--user", "a", "--save-images", "send", "bob", "hi"}, "listen only"},
    };
    for (const BadLine &bad : cases) {
        QStringList arguments = bad.arguments;
        arguments.prepend(QStringLiteral("pushchat"));
        CliOptions options;
        EXPECT_FALSE(options.parse(arguments)) << arguments.join(' ').toStdString();
        EXPECT_TRUE(options.error().contains(QLatin1String(bad.errorMentions)))
            << arguments.join(' ').toStdString() << " -> " << options.error().toStdString();
        EXPECT_FALSE(options.error().contains('\n')) << options.error().toStdString();
    }
}

} // namespace
