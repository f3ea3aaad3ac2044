// The client's parts in-process: command lines and the JSON event lines.

#include "awaitedevent.h"
#include "clioptions.h"
#include "eventflag.h"
#include "eventlog.h"
#include "jsonevents.h"
#include "jsonlinewriter.h"

#include <QDir>
#include <QJsonDocument>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <vector>

namespace {

// A command line (words split at spaces, '' an empty word) as parsed: the
// general options for the plain commands, the request for the others.
std::string parsed(const QString &line)
{
    QStringList arguments = (QStringLiteral("pushchat ") + line).split(' ');
    arguments.replaceInStrings(QStringLiteral("''"), QString());
    CliOptions o;
    if (!o.parse(arguments))
        return "error: " + o.error().toStdString();
    const RoomRequest &r = o.roomRequest();
    const FriendRequest &f = o.friendRequest();
    const HistoryRequest &h = o.historyRequest();
    switch (o.command()) {
    case CliOptions::Command::Room:
        return fields(r.what(), r.arguments().join(','), r.type());
    case CliOptions::Command::Friend:
        return fields(f.what(), f.arguments().join(','), f.listType(), f.listCount(), f.listCursor());
    case CliOptions::Command::History:
        return fields(h.what(), h.answerEvent(), h.overHttp(), o.httpBase(), h.type(), h.page(), h.pageSize(),
            h.start(), h.count(), h.id());
    case CliOptions::Command::Rdp:
        return fields(o.rdpRequest().what(), o.rdpRequest().jid(), o.rdpRequest().text());
    default:
        break;
    }
    const PushClientOptions &p = o.pushOptions();
    std::string failover;
    for (const PushBrokerAddress &b : p.failover)
        failover += b.host + ":" + std::to_string(b.port) + ",";
    return fields(int(o.command()), o.commandArguments().join(','), o.host(), o.port(), o.user(), o.domain(), o.level(),
        o.deviceId(), o.serverJid(), o.connectTimeout().count(), o.notice(), o.room(), o.image(), o.saveImages(),
        o.status(), failover, p.tls.enabled, p.tls.caFile, p.tls.certFile, p.tls.keyFile, p.tls.insecure, p.username,
        p.password);
}

TEST(CliOptions, CommandLines)
{
    qputenv("PUSHCHAT_PASSWORD", "from env"); // the password with --username, unless from a file
    const std::string file = QDir::temp().filePath("cli-parts-password").toStdString();
    std::ofstream(file) << "from file\nnot this\n";
    const std::pair<std::string, std::string> rows[] = {
        { "--user a listen --save-images", "1||127.0.0.1|1883|a||0|||10000|0|0||1|0||0||||0||" },
        { "--timeout 3 --port=65535 --user u --domain d --level -3 --device v --server-jid s@d --timeout "
          "0.0001 send --notice --room -- team -x",
            "2|team,-x|127.0.0.1|65535|u|d|-3|v|s@d|1|1|1||0|0||0||||0||" },
        { "--port 1 --timeout 86400 --user a location t 1 2",
            "3|t,1,2|127.0.0.1|1|a||0|||86400000|0|0||0|0||0||||0||" },
        { "--user a --host h status u -- -2", "4|u,-2|h|1883|a||0|||10000|0|0||0|-2||0||||0||" },
        { "--user a --broker h1:1 --broker [::1]:2 --cafile " + file + " --username u listen",
            "1||h1|1|a||0|||10000|0|0||0|0|::1:2,|1|" + file + "|||0|u|from env" },
        { "--user a --insecure --cert " + file + " --key " + file + " --username u --password-file " + file + " listen",
            "1||127.0.0.1|1883|a||0|||10000|0|0||0|0||1||" + file + "|" + file + "|1|u|from file" },
        { "--user a --host h --broker h:1 listen", "error: --broker replaces --host and --port" },
        { "--user a --broker h listen", "error: --broker must be HOST:PORT" },
        { "--user a --cert c listen", "error: --cert and --key go together." },
        { "--user a --password-file " + file + " listen", "error: --password-file needs --username." },
        { "--user a room type team -- -2", "type change|team,-2|-2" },
        { "--user a friend add bob", "friend request|bob,|1|20|" },
        { "--user a friend list --type -1 --count 1 --cursor c", "friend-list request||-1|1|c" },
        { "--user a history conversations -- -1 0 1", "conversation list|onConversations|0||-1|0|1|0|0|" },
        { "--user a history pull 2 0 1 u", "message history|onHistoryMessages|0||2|0|0|0|1|u" },
        { "--user a history --http --http-base https://h:1 pull 2 7 u",
            "message history|onHistoryMessages|1|https://h:1|2|0|0|0|7|u" },
        { "--user a rdp control bob ''", "remote-desktop control request|bob|" },
        // Errors, as far as the row spells them out.
        { "--user a --port 0 listen", "error: --port must be a number from 1 to 65535, not '0'." },
        { "--user a --timeout 0 listen", "error: --timeout must be a number of seconds above 0 and at most 86400" },
        { "--user a",
            "error: Missing command: listen, send, location, status, room, friend, history, rdp, flush, log, "
            "search, conversations or read." },
        { "--user a send --image p b t",
            "error: 'send' takes 1 argument(s), 2 given: pushchat [options] send --image" },
        { "--user a send --image '' bob", "error: --image must name an image file." },
        { "--user a --room status u 1", "error: --notice, --room, --image and --text-file apply to send only." },
        { "--user a send --text-file p b t",
            "error: 'send' takes 1 argument(s), 2 given: pushchat [options] send --text-file" },
        { "--user a --http-base http://h listen", "error: --http and --http-base apply to history only." },
        { "--user a history --http --http-base ftp://h sync u", "error: --http-base must be an http:// or https://" },
        { "--user a status u x", "error: STATUS must be an integer, not 'x'." },
        { "--user a --type 2 listen", "error: --type applies to room create and friend list only." },
        { "listen", "error: Missing --user: the user id to log in as." },
        { "--user a room", "error: 'room' needs a subcommand: create, invite, kick, rename, owner, type or destroy." },
        { "--user a room kick '' b", "error: ROOM must not be empty." },
        { "--user a friend add",
            "error: 'friend add' takes 1 or 2 argument(s), 0 given: pushchat [options] friend add" },
        { "--user a friend list --count 0", "error: --count must be a whole number of 1 or more, not '0'." },
        { "--user a history --http detail c 0 1", "error: --http applies to history pull and history sync only." },
        { "--user a history conversations -- 1 -1 1", "error: PAGE must be a whole number of 0 or more, not '-1'." },
        { "--user a rdp steal b t", "error: Unknown rdp subcommand 'steal': use control, becontrol, control-reply or" },
        { "--user a send '' hi", "error: TO '' is empty: it cannot be part of a topic." },
        { "--user a send # hi", "error: TO '#' holds an MQTT wildcard ('+' or '#'): it cannot be part of a topic." },
        { "--user a/b listen", "error: --user 'a/b' holds '/'" },
        { "--user a --domain d@e listen", "error: --domain 'd@e' holds '@'" },
        { "--user a room create + n b", "error: ROOM '+' holds an MQTT wildcard" },
        { "--user a --max-qos 0 listen", "error: --max-qos must be 1 or 2, not '0'." },
        { "log bob", "error: 'log' needs --store PATH: the message store to use." },
        { "--store s --before k search x", "error: --before applies to log only." },
        { "--store s --limit 0 log bob", "error: --limit must be a whole number of 1 or more, not '0'." },
        { "--store '' --user a flush", "error: --store must name a file." },
    };
    for (const auto &[line, expected] : rows) {
        const std::string got = parsed(QString::fromStdString(line));
        EXPECT_EQ(got.substr(0, got.rfind("error", 0) == 0 ? expected.size() : got.size()), expected) << line;
    }
}

// Each callback is one JSON line with every argument under its name; the
// awaited event keeps the first one of its name.
TEST(JsonEvents, OneLinePerCallback)
{
    char *printed = nullptr;
    std::size_t size = 0;
    std::FILE *file = open_memstream(&printed, &size);
    JsonLineWriter writer(file);
    EventFlag connected;
    AwaitedEvent answer(QStringLiteral("onConversations"));
    JsonEvents events(&writer, &connected, &answer, true);
    Room room;
    const std::pair<std::function<void()>, std::string> rows[] = {
        { [&] { events.onConnected(); }, R"({"event":"onConnected"})" },
        { [&] { events.onMessageReceive("a", "b", "h\"\n", 7, 4, "k", "t", true); },
            R"({"body":"h\"\n","bodyType":7,"event":"onMessageReceive","from":"a","messageKey":"k","msgType":4,)"
            R"("readable":true,"stamp":"t","to":"b"})" },
        // An image body that does not decode is saved nowhere.
        { [&] { events.onMessageReceive("", "", R"({"type":"image_encode"})", 0, 1, "", "", true); },
            R"({"body":"{\"type\":\"image_encode\"}","bodyType":0,"event":"onMessageReceive","from":"","messageKey":"",)"
            R"("msgType":1,"readable":true,"saved":"","stamp":"","to":""})" },
        { [&] { events.onConversations("c1"); }, R"({"event":"onConversations","json":"c1"})" },
        { [&] { events.onConversations("c2"); }, R"({"event":"onConversations","json":"c2"})" },
        { [&] { events.onConversationDetail("d"); }, R"({"event":"onConversationDetail","json":"d"})" },
        { [&] { events.onFriendList(nullptr); }, R"({"event":"onFriendList","json":""})" },
        { [&] { events.onRoomChanged(room, GroupSub_Invite); },
            R"({"cmd":12,"event":"onRoomChanged","room":)" + room.toString() + "}" },
    };
    std::size_t seen = 0;
    for (const auto &[call, line] : rows) {
        call();
        EXPECT_EQ(std::string(printed + seen, size - seen), line + "\n");
        seen = size;
    }
    EXPECT_TRUE(connected.clear());
    EXPECT_TRUE(answer.arrived().clear());
    EXPECT_FALSE(answer.arrived().clear());
    EXPECT_EQ(answer.event().value_or(QJsonObject()).value("json").toString().toStdString(), "c1");

    std::fclose(file);
    std::free(printed);
}

} // namespace
