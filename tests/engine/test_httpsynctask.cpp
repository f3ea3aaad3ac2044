// The blocking HTTP history client against a real HTTP server on loopback,
// and the engine's two fetches through it.

#include "eventlog.h"
#include "httpsynctask.h"
#include "httptestserver.h"
#include "message_lib.h"
#include "messageprivate.h"
#include "processusage.h"
#include "qttestapp.h"

#include <QCoreApplication>
#include <QThread>
#include <QTimer>

#include <gtest/gtest.h>

#include <thread>
#include <tuple>

namespace {

QtTestApp<QCoreApplication> qt; // the client needs an application object

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
    void SetUp() override { ASSERT_TRUE(m_server.start()); }
    QString url(const char *path = "") const { return QString::fromStdString(m_server.baseAddress()) + path; }
    HttpTestServer m_server;
};

// One request's body and reason: "[1]|", "|HTTP 404 Not Found".
std::string outcome(HttpSyncTask &task, const QString &url)
{
    const QByteArray body = task.httpResult(url);
    return body.toStdString() + "|" + task.lastError().toStdString();
}

struct History : ImEventReciever {
    EventLog log;
    void onHistoryMessages(const char *json) override { log.add(json); }
};

} // namespace

TEST_F(HttpSyncTaskTest, RequestsRepliesAndRefusals)
{
    HttpSyncTask task;
    EXPECT_EQ(std::make_pair(task.transferTimeout(), task.deadline()), std::make_pair(10000, 30000));
    m_server.answer(200, "{}");
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
        EXPECT_EQ(m_server.requestLines().at(i), kApi + rows[i].second + " HTTP/1.1");
    }
    // A refused port ends at once, with its reason.
    EXPECT_EQ(outcome(task, QStringLiteral("http://127.0.0.1:%1/x").arg(closedPort())), "|connection refused");
    for (const char *bad : { "not a url", "http://:5201/x" })
        EXPECT_EQ(outcome(task, bad), "|invalid url") << bad;
    EXPECT_EQ(outcome(task, "file://localhost/etc/hostname"), "|not an http or https url");
    EXPECT_EQ(m_server.requestLines().size(), 3u);
}

// Each broken or hostile reply gives "" and its reason within the deadline
// while memory stays within a few times the body limit; the task still
// works afterwards: a body at the limit, in chunks, or up to the close.
TEST_F(HttpSyncTaskTest, HostileRepliesAreBounded)
{
    const std::string ok = "HTTP/1.1 200 OK\r\n", mib(1 << 20, 'a');
    const auto fields = [](int count) {
        std::string text;
        for (int i = 0; i < count; ++i)
            text += "X-" + std::to_string(i) + ": v\r\n";
        return text;
    };
    const std::tuple<std::string, std::string, int, int, std::string> rows[] = {
        { ok + "Content-Length: 1000\r\n", "[", 0, 100, "timed out after 1 s (deadline)" },
        { ok + "Content-Length: 1073741824\r\n", mib, 1024, 0,
            "body over 16777216 bytes (Content-Length: 1073741824)" },
        { ok + "Transfer-Encoding: chunked\r\n", "100000\r\n" + mib + "\r\n", 0, 0, "body over 16777216 bytes" },
        { ok + "Content-Encoding: gzip\r\n", "\x1f\x8b\x08", 1, 0,
            "compressed reply refused (Content-Encoding: gzip)" },
        { ok + fields(2000), "[1]", 1, 0, "2001 header fields, over 100" },
        { ok + fields(40000), "[1]", 1, 0, "head over 65536 bytes" },
        { "HTTP/1.1 302 Found\r\nLocation: http://h/x\x1b[2J\r\n", "[2]", 1, 0,
            "HTTP 302 Found: redirect to http://h/x?[2J refused" },
        { ok + "Content-Length: 7\r\n", std::string("[1]\0[2]", 7), 1, 0, "body holds a NUL byte (at byte 3)" },
        { "HTTP/1.1 404 Not Found\r\n", "{}", 1, 0, "HTTP 404 Not Found" },
        { "HTTP/1.1 500 Internal Server Error\r\n", "{}", 1, 0, "HTTP 500 Internal Server Error" },
        { "SSH-2.0-x\r\n", "", 1, 0, "not an HTTP reply: SSH-2.0-x" },
        { ok + "Transfer-Encoding: chunked\r\n", "zz\r\n", 1, 0, "malformed chunk size: zz" },
        { ok + "Content-Length: 9\r\n", "[1]", 1, 0, "connection closed by the server before the end of the reply" },
    };
    HttpSyncTask task;
    task.setDeadline(1000);
    const long before = ProcessUsage::resident();
    for (const auto &[head, piece, times, pauseMs, error] : rows) {
        m_server.answerRaw(head, piece, times, pauseMs);
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(outcome(task, url("/h")), "|" + error);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3)) << error;
        // KiB: an unbounded body takes gigabytes; this leaves room for the
        // freed memory that an allocator (a sanitizer's above all) keeps.
        EXPECT_LT(ProcessUsage::resident() - before, 8 * 16 * 1024) << error;
    }
    const std::string most(HttpSyncTask::MAX_BODY_BYTES, '.');
    m_server.answer(200, most);
    EXPECT_TRUE(outcome(task, url("/ok")) == most + "|");
    m_server.answerRaw(ok + "Transfer-Encoding: chunked\r\n", "2\r\n[1\r\n1;x=y\r\n]\r\n0\r\nX-T: 1\r\n\r\n");
    EXPECT_EQ(outcome(task, url("/chunks")), "[1]|");
    m_server.answerRaw(ok, "[2]");
    EXPECT_EQ(outcome(task, url("/close")), "[2]|");
}

// A call from inside the wait of another, or from a foreign thread, is
// refused; plain threads use tasks of their own, also against a silent server.
TEST_F(HttpSyncTaskTest, ThreadsNestingAndSilence)
{
    m_server.answer(200, "outer");
    HttpSyncTask task;
    QByteArray inner = "unset", foreign = "unset";
    QTimer::singleShot(0, &task, [&] {
        inner = task.httpResult(url("/inner"));
        std::thread([&] { foreign = task.httpResult(url("/foreign")); }).join();
    });
    EXPECT_EQ(task.httpResult(url("/outer")), "outer");
    EXPECT_EQ(inner + foreign, "");
    EXPECT_EQ(m_server.requestLines(), std::vector<std::string>{ "GET /outer HTTP/1.1" });

    std::vector<QByteArray> results(3);
    std::vector<std::thread> threads;
    for (QByteArray &r : results)
        threads.emplace_back([&] { r = HttpSyncTask().httpResult(url("/t")); });
    for (std::thread &t : threads)
        t.join();
    EXPECT_EQ(results, std::vector<QByteArray>(3, "outer"));

    // Silence ends a request, and so does the thread's exit.
    m_server.stayQuiet();
    std::thread([&] {
        HttpSyncTask quiet;
        quiet.setTransferTimeout(300);
        EXPECT_EQ(outcome(quiet, url("/stall")), "|no data for 0.3 s (transfer timeout)");
        QTimer::singleShot(100, [] { QThread::currentThread()->exit(); });
        EXPECT_EQ(outcome(quiet, url("/stall")), "|interrupted");
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
    EXPECT_TRUE(m_server.requestLines().empty());
    EXPECT_EQ(lib.lastHistoryError(), "not logged in");
    const QString host = QStringLiteral("127.0.0.1");
    lib.registerToImServer(host, closedPort(), "alice", QString(), 5, "im.test", QString());
    lib.setHistoryBaseAddress(QString());
    EXPECT_EQ(lib.engine()->historyBaseAddress(), "http://127.0.0.1:5201");
    lib.setHistoryBaseAddress(url());
    m_server.answer(200, "[1]");
    lib.engine()->startSyncMessageRun("u-1");
    EXPECT_EQ(lib.lastHistoryError(), "");
    // The deadline reaches the task; each thread reads its own reason.
    lib.setHistoryDeadline(200);
    m_server.answerRaw("HTTP/1.1 200 OK\r\nContent-Length: 9\r\n", "[", 0, 50);
    std::thread([&] {
        lib.engine()->startPullMessageRun(2, 20, "u 2");
        EXPECT_EQ(lib.lastHistoryError(), "timed out after 0.2 s (deadline)");
    }).join();
    EXPECT_EQ(app.log.lines(), (Lines{ "", "[1]", "" }));
    EXPECT_EQ(lib.lastHistoryError(), "");
    EXPECT_EQ(m_server.requestLines(),
        (std::vector<std::string>{
            kApi + "sync_history_message?user_id=alice@im.test&msg_uuid=u-1&my_sec_level=5 HTTP/1.1",
            kApi +
                "pull_history_message?user_id=alice@im.test&type=2&count=20&msg_uuid=u%202&my_sec_level=5 HTTP/1.1" }));
}
