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

TEST(CliOptions, LocationAndStatusArguments)
{
    const CliOptions location = parsed({"--user", "a", "location", "bob", "12.5", "44.1"});
    EXPECT_EQ(location.command(), CliOptions::Command::Location);
    EXPECT_EQ(location.commandArguments(), QStringList({"bob", "12.5", "44.1"}));

    const CliOptions status = parsed({"--user", "a", "status", "0f8e-uuid", "--", "-2"});
    EXPECT_EQ(status.command(), CliOptions::Command::Status);
    EXPECT_EQ(status.commandArguments().at(0), "0f8e-uuid");
    EXPECT_EQ(status.status(), -2);
}

TEST(CliOptions, RoomSubcommandsAndTheirType)
{
    const RoomRequest create =
        parsed({"--user", "a", "room", "create", "team", "The team", "bob,carol", "--type", "3"}).roomRequest();
    EXPECT_EQ(create.action(), RoomRequest::Action::Create);
    EXPECT_EQ(create.arguments(), QStringList({"team", "The team", "bob,carol"}));
    EXPECT_EQ(create.type(), 3);
    EXPECT_EQ(parsed({"--user", "a", "room", "create", "team", "T", ""}).roomRequest().type(), 0);

    const CliOptions type = parsed({"--user", "a", "room", "type", "team", "--", "-2"});
    EXPECT_EQ(type.command(), CliOptions::Command::Room);
    EXPECT_EQ(type.roomRequest().action(), RoomRequest::Action::Type);
    EXPECT_EQ(type.roomRequest().type(), -2);
    EXPECT_EQ(parsed({"--user", "a", "room", "owner", "team", "bob"}).roomRequest().action(),
              RoomRequest::Action::Owner);
    EXPECT_EQ(parsed({"--user", "a", "room", "destroy", "team"}).roomRequest().arguments(), QStringList({"team"}));
}

TEST(CliOptions, HelpNeedsNothingElse)
{
    const CliOptions options = parsed({"--help", "send"});
    EXPECT_TRUE(options.helpRequested());

    int argc = 1;
    char program[] = "/some/where/bin/pushchat";
    char *argv[] = {program, nullptr};
    const QCoreApplication app(argc, argv);
    const QString help = CliOptions::helpText();
    EXPECT_TRUE(help.startsWith("Usage: pushchat [options] command")) << help.toStdString();
    for (const char *word : {"listen", "send TO TEXT", "location TARGET FIRST SECOND", "status UUID STATUS",
                             "--host", "--port", "--user", "--domain", "--level", "--device", "--server-jid",
                             "--timeout", "--notice", "--room", "room create ROOM NAME MEMBERS", "room invite",
                             "room kick", "room rename", "room owner", "room type ROOM N", "room destroy", "--type"})
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
        {{"--user", "a", "--timeout", "-1", "listen"}, "--timeout"},
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
        {{"--user", "a", "room"}, "subcommand"},
        {{"--user", "a", "room", "paint", "team"}, "paint"},
        {{"--user", "a", "room", "create", "team", "T"}, "room create ROOM NAME MEMBERS"},
        {{"--user", "a", "room", "destroy", "team", "now"}, "room destroy ROOM"},
        {{"--user", "a", "room", "kick", "", "bob"}, "ROOM"},
        {{"--user", "a", "room", "type", "team", "big"}, "big"},
        {{"--user", "a", "room", "create", "team", "T", "bob", "--type", "x"}, "'x'"},
        {{"--user", "a", "--type", "2", "room", "rename", "team", "T"}, "--type"},
        {{"--user", "a", "--type", "2", "listen"}, "--type"},
        {{"room", "destroy", "team"}, "--user"},
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
