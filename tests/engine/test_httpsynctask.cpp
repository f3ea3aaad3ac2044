// The blocking HTTP history client against a real HTTP server on loopback,
// and the engine's two fetches through it.

#include "eventlog.h"
#include "httpsynctask.h"
#include "httptestserver.h"
#include "message_lib.h"
#include "messageprivate.h"

#include <QCoreApplication>
#include <QTimer>

#include <gtest/gtest.h>

#include <cstring>
#include <thread>

namespace {

const std::string kApi = "GET /vantrel_api/instance_message/";

int closedPort()
{
    HttpTestServer gone;
    gone.start();
    gone.stop();
    return gone.port();
}

class HttpSyncTaskTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(server.start()); }
    QString url(const char *path = "") const { return QString::fromStdString(server.baseAddress()) + path; }
    HttpTestServer server;
};

struct History : ImEventReciever {
    EventLog log;
    void onHistoryMessages(const char *json) override { log.add(json); }
};

} // namespace

TEST_F(HttpSyncTaskTest, RequestsRepliesAndRefusals)
{
    HttpSyncTask task;
    EXPECT_EQ(task.transferTimeout(), 10000);
    server.answer(200, "{}");
    // Values arrive encoded, "@" kept, and "%2…" is never a placeholder.
    const std::vector<std::pair<QByteArray, std::string>> rows{
        { task.syncHistoryMessage(url(), "alice@im.org", "0f8f-d9cb", 5),
          "sync_history_message?user_id=alice@im.org&msg_uuid=0f8f-d9cb&my_sec_level=5" },
        { task.pullHistoryMessage(url(), "a+b&c d@h", 2, 30, "x&y=z", -3),
          "pull_history_message?user_id=a%2Bb%26c%20d@h&type=2&count=30&msg_uuid=x%26y%3Dz&my_sec_level=-3" },
        { task.modifyMessageStatus(url(), QString::fromUtf8("%2ü"), MSG_STATUS(7), 9999),
          "modify_message_status?uuid=%252%C3%BC&status=7&my_sec_level=9999" },
    };
    for (std::size_t i = 0; i < rows.size(); ++i) {
        EXPECT_EQ(rows[i].first, "{}") << rows[i].second;
        EXPECT_EQ(server.requestLines().at(i), kApi + rows[i].second + " HTTP/1.1");
    }
    // The body only without an error; a refused port ends at once.
    server.answer(404, "not here");
    EXPECT_EQ(task.httpResult(url("/404")), "");
    server.answer(200, "again");
    EXPECT_EQ(task.httpResult(url("/again")), "again");
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(task.httpResult(QStringLiteral("http://127.0.0.1:%1/x").arg(closedPort())), "");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    for (const char *bad : { "not a url", "http://:5201/x" })
        EXPECT_EQ(task.httpResult(bad), "") << bad;
    EXPECT_EQ(server.requestLines().size(), 5u);
}

// A call from inside the wait of another, or from a foreign thread, is
// refused; plain threads use tasks of their own, also against a silent server.
TEST_F(HttpSyncTaskTest, ThreadsNestingAndSilence)
{
    server.answer(200, "outer");
    HttpSyncTask task;
    QByteArray inner = "unset", foreign = "unset";
    QTimer::singleShot(0, &task, [&] {
        inner = task.httpResult(url("/inner"));
        std::thread([&] { foreign = task.httpResult(url("/foreign")); }).join();
    });
    EXPECT_EQ(task.httpResult(url("/outer")), "outer");
    EXPECT_EQ(inner + foreign, "");
    EXPECT_EQ(server.requestLines(), std::vector<std::string>{ "GET /outer HTTP/1.1" });

    std::vector<QByteArray> results(3);
    std::vector<std::thread> threads;
    for (QByteArray &r : results)
        threads.emplace_back([&] { r = HttpSyncTask().httpResult(url("/t")); });
    for (std::thread &t : threads)
        t.join();
    EXPECT_EQ(results, std::vector<QByteArray>(3, "outer"));

    server.stayQuiet();
    std::thread([&] {
        HttpSyncTask quiet;
        quiet.setTransferTimeout(300);
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(quiet.httpResult(url("/stall")), "");
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    }).join();
}

// The engine asks with the last login's JID and level, no broker needed,
// and hands the body (empty on failure) over before returning.
TEST_F(HttpSyncTaskTest, EngineFetches)
{
    History app;
    Message_lib lib(&app, nullptr, "dev-h", "Desk");
    lib.setHistoryBaseAddress(url());
    lib.engine()->startSyncMessageRun("u-0");
    EXPECT_TRUE(server.requestLines().empty());
    const QString host = QStringLiteral("127.0.0.1");
    lib.registerToImServer(host, closedPort(), "alice", QString(), 5, "im.test", QString());
    lib.setHistoryBaseAddress(QString());
    EXPECT_EQ(lib.engine()->historyBaseAddress(), "http://127.0.0.1:5201");
    lib.setHistoryBaseAddress(url());
    server.answer(200, "[1]");
    lib.engine()->startSyncMessageRun("u-1");
    server.answer(404, "gone");
    std::thread([&] { lib.engine()->startPullMessageRun(2, 20, "u 2"); }).join();
    EXPECT_EQ(app.log.lines(), (Lines{ "", "[1]", "" }));
    EXPECT_EQ(
        server.requestLines(),
        (std::vector<std::string>{
            kApi + "sync_history_message?user_id=alice@im.test&msg_uuid=u-1&my_sec_level=5 HTTP/1.1",
            kApi +
                "pull_history_message?user_id=alice@im.test&type=2&count=20&msg_uuid=u%202&my_sec_level=5 HTTP/1.1" }));
}

// Run by a second ctest entry with --no-application.
TEST(HttpSyncTaskNoApplication, EmptyWithoutRequest)
{
    if (QCoreApplication::instance() != nullptr)
        GTEST_SKIP() << "needs --no-application";
    HttpTestServer server;
    ASSERT_TRUE(server.start());
    EXPECT_EQ(HttpSyncTask().httpResult(QString::fromStdString(server.baseAddress() + "/x")), "");
    EXPECT_TRUE(server.requestLines().empty());
}

int main(int argc, char **argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    for (int i = 1; i < argc; ++i)
        if (std::strcmp(argv[i], "--no-application") == 0)
            return RUN_ALL_TESTS();
    QCoreApplication app(argc, argv);
    return RUN_ALL_TESTS();
}
