// The C interface in a process that has its own Qt application object.

#include "capieventloop.h"
#include "httptestserver.h"
#include "qttestapp.h"

#include <pushchat/pushchat_c.h>

#include <gtest/gtest.h>

#include <chrono>
#include <poll.h>
#include <string>

namespace {

// The next event's text, past the failing connection's own events.
std::string next(pushchat_client *client)
{
    for (const char *text; (text = pushchat_receive(client, 10000)) != nullptr;)
        if (std::string(text).find("\"event\":\"onDisconnected\"") == std::string::npos)
            return text;
    return "(none)";
}

bool readable(pushchat_client *client)
{
    pollfd fd{ pushchat_event_fd(client), POLLIN, 0 };
    return poll(&fd, 1, 0) == 1;
}

// A client whose login goes nowhere (no broker listens on port 1): the
// history over HTTP needs only the login's JID and level.
pushchat_client *loggedIn(const std::string &extra)
{
    const std::string config = R"({"user":"alice","domain":"im","level":3,"device":"capi-test",)"
                               R"("brokers":["127.0.0.1:1"],)" +
                               extra + "}";
    pushchat_client *client = pushchat_client_new(config.c_str(), nullptr, 0);
    if (client != nullptr)
        pushchat_send(client, R"({"op":"login","id":"in"})");
    return client;
}

} // namespace

TEST(CApi, runsInTheHostsQtApplication)
{
    QtTestApp<QCoreApplication> app;
    HttpTestServer server;
    ASSERT_TRUE(server.start());
    server.answer(200, R"({"messages":[]})");
    pushchat_client *client = loggedIn(R"("queue_size":3,"history_base":")" + server.baseAddress() + "\"");
    ASSERT_NE(client, nullptr);
    EXPECT_FALSE(CapiEventLoop::running());
    EXPECT_EQ(next(client), R"({"event":"result","id":"in","op":"login","result":1})");

    // History over HTTP on the client's own thread: the body, then the result.
    EXPECT_EQ(pushchat_send(client, R"({"op":"http_history_sync","id":2,"uuid":"a+b"})"), PUSHCHAT_OK);
    EXPECT_EQ(next(client), R"({"event":"onHistoryMessages","json":"{\"messages\":[]}"})");
    EXPECT_EQ(next(client), R"({"event":"result","id":2,"op":"http_history_sync","reason":"","result":1})");
    EXPECT_EQ(server.requestLines().back(),
        "GET /vantrel_api/instance_message/sync_history_message?user_id=alice@im&msg_uuid=a%2Bb&my_sec_level=3 "
        "HTTP/1.1");

    // The descriptor follows the queue; a full queue refuses requests.
    // Logged out, the connection attempts stop and the queue holds only
    // what the requests give.
    EXPECT_EQ(pushchat_send(client, R"({"op":"logout","id":"out"})"), PUSHCHAT_OK);
    EXPECT_EQ(next(client), R"({"event":"result","id":"out","op":"logout","result":1})");
    EXPECT_FALSE(readable(client));
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(pushchat_send(client, R"({"op":"vcard","text":"v"})"), PUSHCHAT_OK) << i;
    EXPECT_TRUE(readable(client));
    EXPECT_EQ(pushchat_send(client, R"({"op":"vcard","text":"v"})"), PUSHCHAT_ERROR_FULL);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(next(client), R"({"event":"result","id":null,"op":"vcard","result":1})") << i;
    EXPECT_FALSE(readable(client));
    EXPECT_EQ(pushchat_receive(client, 0), nullptr);

    // A free ends a request the server never answers at once.
    server.stayQuiet();
    EXPECT_EQ(pushchat_send(client, R"({"op":"http_history_sync"})"), PUSHCHAT_OK);
    const auto start = std::chrono::steady_clock::now();
    pushchat_client_free(client);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
}
