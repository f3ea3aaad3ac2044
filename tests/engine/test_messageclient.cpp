// MessageClient over one broker: its signals arrive on the thread the
// object lives in, in the order the library delivered them; connection
// state and errors follow the link; and destroying it while deliveries
// stream in is safe.

#include "enginetestkit.h"
#include "qttestapp.h"
#include "messageclient.h"

#include <QCoreApplication>
#include <QThread>

namespace {

using namespace kit;

TEST(MessageClient, SignalsArriveOnItsThreadInOrderAndItMayGoWhileTheyStreamIn)
{
    QtTestApp<QCoreApplication> qt;
    MosquittoBroker broker;
    Wire wire;
    ASSERT_TRUE(broker.start() && wire.start(broker)) << broker.log();
    PushClientOptions quick;
    quick.reconnectDelayMin = std::chrono::milliseconds(20);
    auto client = std::make_unique<MessageClient>("dev-c", "C");
    client->setPushClientOptions(quick);
    Lines seen;
    const auto record = [&](const std::string &line) {
        seen.push_back(fields(QThread::currentThread() == qt.app.thread() ? "main" : "other", line));
    };
    QObject::connect(client.get(), &MessageClient::connectionStateChanged, [&](MessageClient::ConnectionState s) {
        record(fields("state", int(s), int(client->connectionState())));
    });
    QObject::connect(client.get(), &MessageClient::connectionError,
                     [&](int error, const QString &) { record(fields("error", error)); });
    QObject::connect(client.get(), &MessageClient::messageReceived,
                     [&](const QString &from, const QString &, const QString &body, int, int, const QString &,
                         const QString &, bool readable) { record(fields(from, body, readable)); });

    client->login(broker.host(), broker.port(), "carol", 5, "im.test");
    ASSERT_TRUE(pump([&] { return client->connectionState() == MessageClient::Connected; }));
    ASSERT_TRUE(wire.log.waitFor([](const Lines &l) { return countWith(l, "APP_STARTUP") == 1; }));
    Lines expected = {"main|state|1|1", "main|state|2|2"};
    for (int i = 0; i < 100; ++i) {
        wire.publish("m/i/carol@im.test/n", seal("dave@im.test", "carol@im.test", QString::number(i), 5 - i % 2 * 2));
        expected.push_back(fields("main", "dave@im.test", i % 2 ? kUnreadable : std::to_string(i), i % 2 == 0));
    }
    ASSERT_TRUE(pump([&] { return seen.size() == expected.size(); }));
    broker.stop();
    ASSERT_TRUE(pump([&] { return client->connectionState() == MessageClient::Connecting; }));
    ASSERT_TRUE(broker.start());
    ASSERT_TRUE(pump([&] { return client->connectionState() == MessageClient::Connected; }));
    for (const char *line : {"main|state|1|1", "main|error|2", "main|state|2|2"})
        expected.push_back(line);
    EXPECT_EQ(seen, expected);

    // Gone in the middle of a stream: what was queued for it is dropped.
    ASSERT_TRUE(pump([&] { // the wire and carol are subscribed again
        return wire.publish("m/i/carol@im.test/n", seal("dave@im.test", "carol@im.test", "probe", 5)) &&
               seen.size() > expected.size();
    }));
    const std::size_t before = seen.size();
    for (int i = 0; i < 2000; ++i)
        wire.publish("m/i/carol@im.test/n", seal("dave@im.test", "carol@im.test", QString::number(1000 + i), 5));
    ASSERT_TRUE(pump([&] { return seen.size() > before; }));
    client.reset();
    const std::size_t atEnd = seen.size();
    QCoreApplication::processEvents();
    EXPECT_EQ(seen.size(), atEnd);
}

} // namespace
