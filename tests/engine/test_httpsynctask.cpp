// The blocking HTTP history client against a real HTTP server on loopback,
// and the engine's two fetches for a user logged in to a real broker.

#include "enginetestkit.h"
#include "httpsynctask.h"
#include "httptestserver.h"

#include <QCoreApplication>
#include <QLoggingCategory>
#include <QTimer>

#include <arpa/inet.h>
#include <chrono>
#include <cstring>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using namespace kit;

namespace {

const std::string kSync = "GET /vantrel_api/instance_message/sync_history_message?";
const std::string kPull = "GET /vantrel_api/instance_message/pull_history_message?";
const std::string kStatus = "GET /vantrel_api/instance_message/modify_message_status?";

// The engine's debug log, captured (from any thread).
std::mutex logMutex;
std::vector<std::string> logLines;
void captureLog(QtMsgType, const QMessageLogContext &, const QString &text)
{
    std::lock_guard<std::mutex> lock(logMutex);
    logLines.push_back(text.toStdString());
}
bool logged(const std::string &text)
{
    std::lock_guard<std::mutex> lock(logMutex);
    return std::any_of(logLines.begin(), logLines.end(), [&](const std::string &l) { return l == text; });
}

/// A loopback port nobody listens on.
int closedPort()
{
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    ::bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr);
    ::getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &len);
    ::close(fd);
    return ntohs(addr.sin_port);
}

double secondsSince(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

class HttpSyncTaskTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(server.start());
        QLoggingCategory::setFilterRules(QStringLiteral("pushchat.engine.debug=true"));
        previousHandler = qInstallMessageHandler(captureLog);
    }
    void TearDown() override
    {
        qInstallMessageHandler(previousHandler);
        QLoggingCategory::setFilterRules(QString());
    }

    QString base() const { return QString::fromStdString(server.baseAddress()); }
    QString url(const char *path) const { return base() + QLatin1String(path); }

    HttpTestServer server;
    QtMessageHandler previousHandler = nullptr;
};

} // namespace

TEST_F(HttpSyncTaskTest, RequestLinesOfTheThreeOperations)
{
    server.answer(200, "{}");
    HttpSyncTask task;
    // Plain values appear exactly as written, "@" included.
    task.syncHistoryMessage(base(), "alice@im.example.org", "0f8fad5b-d9cb-469f-a165-70867728950e", 5);
    task.pullHistoryMessage(base(), "alice@im.example.org", 2, 30, "u-1", -3);
    task.modifyMessageStatus(base(), "u-9", MSG_STATUS(7), 9999);
    // Delimiters, space, "%" and non-ASCII text in values arrive encoded,
    // and an encoded "%2…" is never taken for a placeholder.
    task.syncHistoryMessage(base(), "a+b&c d@im.example.org", "x&y=z", 1);
    task.pullHistoryMessage(base(), QString::fromUtf8("j%2ü@h"), 1, 2, "%3", 4);

    const std::vector<std::string> expected{
        kSync + "user_id=alice@im.example.org&msg_uuid=0f8fad5b-d9cb-469f-a165-70867728950e&my_sec_level=5 HTTP/1.1",
        kPull + "user_id=alice@im.example.org&type=2&count=30&msg_uuid=u-1&my_sec_level=-3 HTTP/1.1",
        kStatus + "uuid=u-9&status=7&my_sec_level=9999 HTTP/1.1",
        kSync + "user_id=a%2Bb%26c%20d@im.example.org&msg_uuid=x%26y%3Dz&my_sec_level=1 HTTP/1.1",
        kPull + "user_id=j%252%C3%BC@h&type=1&count=2&msg_uuid=%253&my_sec_level=4 HTTP/1.1",
    };
    EXPECT_EQ(server.requestLines(), expected);
}

TEST_F(HttpSyncTaskTest, BodyOnlyWhenTheReplyHasNoError)
{
    HttpSyncTask task;
    server.answer(200, R"([{"msg_uuid":"u-1"}])");
    EXPECT_EQ(task.httpResult(url("/a")), QByteArray(R"([{"msg_uuid":"u-1"}])"));
    EXPECT_TRUE(logged("[HttpSyncTask] htpp ok, url: " + server.baseAddress() + "/a"));
    server.answer(200, "");
    EXPECT_TRUE(task.httpResult(url("/b")).isEmpty());
    server.answer(404, "not here");
    EXPECT_TRUE(task.httpResult(url("/c")).isEmpty());
    EXPECT_TRUE(logged("[HttpSyncTask] request url " + server.baseAddress() + "/c error: ContentNotFoundError"));
    // The task serves one request after another.
    server.answer(200, "again");
    EXPECT_EQ(task.httpResult(url("/e")), QByteArray("again"));
    EXPECT_EQ(server.requestLines().size(), 4u);
}

TEST_F(HttpSyncTaskTest, ImpossibleRequestsGiveEmptyAtOnce)
{
    HttpSyncTask task;
    const QString refused = QStringLiteral("http://127.0.0.1:%1/x").arg(closedPort());
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(task.httpResult(refused).isEmpty());
    EXPECT_LT(secondsSince(start), HttpSyncTask::TRANSFER_TIMEOUT_MS / 1000.0); // refused, not timed out
    EXPECT_TRUE(logged("[HttpSyncTask] request url " + refused.toStdString() + " error: ConnectionRefusedError"));

    for (const char *bad : { "", "not a url", "http://", "http://:5201/x", "http://[::1/x" })
        EXPECT_TRUE(task.httpResult(QString::fromLatin1(bad)).isEmpty()) << bad;
    // The engine's address before any login.
    EXPECT_TRUE(task.syncHistoryMessage("http://:5201", "", "u", 0).isEmpty());
    EXPECT_TRUE(server.requestLines().empty());
}

TEST_F(HttpSyncTaskTest, SilentServerEndsAtTheDefaultTimeout)
{
    server.stayQuiet();
    HttpSyncTask task;
    ASSERT_EQ(task.transferTimeout(), 10000);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(task.httpResult(url("/silent")).isEmpty());
    const double took = secondsSince(start);
    EXPECT_GE(took, 9.5);
    EXPECT_LT(took, 20.0);
    EXPECT_EQ(server.requestLines().size(), 1u);
}

TEST_F(HttpSyncTaskTest, MisuseIsRefusedWithoutRequest)
{
    server.answer(200, "outer");
    HttpSyncTask task;
    // A second call from inside the wait of the first (a slot run by the
    // nested loop), and a call from a thread the task does not belong to.
    QByteArray inner = "unset", foreign = "unset";
    QTimer::singleShot(0, &task, [&] {
        inner = task.httpResult(url("/inner"));
        std::thread([&] { foreign = task.httpResult(url("/foreign")); }).join();
    });
    EXPECT_EQ(task.httpResult(url("/outer")), QByteArray("outer"));
    EXPECT_TRUE(inner.isEmpty());
    EXPECT_TRUE(foreign.isEmpty());
    EXPECT_EQ(server.requestLines(), std::vector<std::string>{ "GET /outer HTTP/1.1" });
}

TEST_F(HttpSyncTaskTest, PlainThreadsWithoutEventLoops)
{
    server.answer(200, "from-thread");
    constexpr int kThreads = 4, kEach = 3;
    std::vector<std::vector<QByteArray>> results(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            HttpSyncTask task;
            for (int i = 0; i < kEach; ++i)
                results[t].push_back(task.syncHistoryMessage(base(), QStringLiteral("t%1@h").arg(t), "u", i));
        });
    }
    for (std::thread &t : threads)
        t.join();
    for (const auto &r : results)
        EXPECT_EQ(r, std::vector<QByteArray>(kEach, QByteArray("from-thread")));
    EXPECT_EQ(server.requestLines().size(), std::size_t(kThreads * kEach));

    // A stalled request in a thread ends at the (shortened) timeout too.
    server.stayQuiet();
    QByteArray stalled = "unset";
    std::thread([&] {
        HttpSyncTask task;
        task.setTransferTimeout(300);
        stalled = task.httpResult(url("/stall"));
    }).join();
    EXPECT_TRUE(stalled.isEmpty());
}

// Run by a separate ctest entry with --no-application.
TEST(HttpSyncTaskNoApplication, EmptyWithoutRequest)
{
    if (QCoreApplication::instance() != nullptr)
        GTEST_SKIP() << "needs --no-application";
    HttpTestServer server;
    ASSERT_TRUE(server.start());
    server.answer(200, "body");
    HttpSyncTask task;
    EXPECT_TRUE(task.httpResult(QString::fromStdString(server.baseAddress() + "/x")).isEmpty());
    std::thread([&] {
        HttpSyncTask inThread;
        EXPECT_TRUE(inThread.httpResult(QString::fromStdString(server.baseAddress() + "/y")).isEmpty());
    }).join();
    EXPECT_TRUE(server.requestLines().empty());
}

// --- the engine ------------------------------------------------------------

class EngineHttpHistory : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(server.start());
        ASSERT_TRUE(broker.start()) << broker.log();
    }

    HttpTestServer server;
    MosquittoBroker broker;
    RecordingApp app;
    Message_lib lib{ &app, nullptr, "dev-h", "Desk" };
};

using Calls = std::vector<std::vector<std::string>>;

// Each fetch returns after its callback: no waiting needed here.
TEST_F(EngineHttpHistory, FetchesDeliverTheBodyBeforeReturning)
{
    ASSERT_EQ(login(lib, broker, "alice", 5), 1);
    ASSERT_TRUE(app.waitFor([](const AppState &s) { return s.connected >= 1; }));
    EXPECT_EQ(lib.engine()->historyBaseAddress(), QStringLiteral("http://127.0.0.1:5201"));
    lib.setHistoryBaseAddress(QString::fromStdString(server.baseAddress()));

    server.answer(200, R"({"list":[1]})");
    lib.engine()->startSyncMessageRun("u-1");
    server.answer(200, R"({"list":[2]})");
    lib.engine()->startPullMessageRun(2, 20, "u 2");
    server.answer(404, "gone");
    lib.engine()->startSyncMessageRun("u-3");
    server.answer(200, "");
    std::thread([&] { lib.engine()->startPullMessageRun(1, 5, "u-4"); }).join();

    EXPECT_EQ(app.state().calls, (Calls{ { "onHistoryMessages", R"({"list":[1]})" },
                                         { "onHistoryMessages", R"({"list":[2]})" },
                                         { "onHistoryMessages", "" },
                                         { "onHistoryMessages", "" } }));
    EXPECT_EQ(server.requestLines(),
              (std::vector<std::string>{
                  kSync + "user_id=alice@im.test&msg_uuid=u-1&my_sec_level=5 HTTP/1.1",
                  kPull + "user_id=alice@im.test&type=2&count=20&msg_uuid=u%202&my_sec_level=5 HTTP/1.1",
                  kSync + "user_id=alice@im.test&msg_uuid=u-3&my_sec_level=5 HTTP/1.1",
                  kPull + "user_id=alice@im.test&type=1&count=5&msg_uuid=u-4&my_sec_level=5 HTTP/1.1" }));
}

TEST_F(EngineHttpHistory, WithoutLoginNothingIsRequested)
{
    lib.setHistoryBaseAddress(QString::fromStdString(server.baseAddress()));
    server.answer(200, "body");
    lib.engine()->startSyncMessageRun("u-1");
    lib.engine()->startPullMessageRun(1, 1, "u-1");
    EXPECT_EQ(app.state().calls, (Calls{ { "onHistoryMessages", "" }, { "onHistoryMessages", "" } }));
    EXPECT_TRUE(server.requestLines().empty());
}

int main(int argc, char **argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    bool withApplication = true;
    for (int i = 1; i < argc; ++i)
        withApplication = withApplication && std::strcmp(argv[i], "--no-application") != 0;
    if (!withApplication)
        return RUN_ALL_TESTS();
    QCoreApplication app(argc, argv);
    return RUN_ALL_TESTS();
}
