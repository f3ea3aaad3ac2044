// MessageClient over one broker: its signals arrive on the thread the
// object lives in, in the order the library delivered them; connection
// state and errors follow the link; destroying it while deliveries
// stream in is safe; and its store's models follow a real store.

#include "enginetestkit.h"
#include "messageclient.h"
#include "qttestapp.h"
#include "storedconversationmodel.h"
#include "storedmessagemodel.h"

#include <QCoreApplication>
#include <QSet>
#include <QTemporaryDir>
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
    QObject::connect(client.get(), &MessageClient::connectionStateChanged,
        [&](MessageClient::ConnectionState s) { record(fields("state", int(s), int(client->connectionState()))); });
    QObject::connect(client.get(), &MessageClient::connectionError,
        [&](int error, const QString &) { record(fields("error", error)); });
    QObject::connect(client.get(), &MessageClient::messageReceived,
        [&](const QString &from, const QString &, const QString &body, int, int, const QString &, const QString &,
            bool readable) { record(fields(from, body, readable)); });

    client->login(broker.host(), broker.port(), "carol", 5, "im.test");
    ASSERT_TRUE(pump([&] { return client->connectionState() == MessageClient::Connected; }));
    ASSERT_TRUE(wire.log.waitFor([](const Lines &l) { return countWith(l, "APP_STARTUP") == 1; }));
    Lines expected = { "main|state|1|1", "main|state|2|2" };
    for (int i = 0; i < 100; ++i) {
        wire.publish("m/i/carol@im.test/n", seal("dave@im.test", "carol@im.test", QString::number(i), 5 - i % 2 * 2));
        expected.push_back(fields("main", "dave@im.test", i % 2 ? kUnreadable : std::to_string(i), i % 2 == 0));
    }
    ASSERT_TRUE(pump([&] { return seen.size() == expected.size(); }));
    broker.stop();
    ASSERT_TRUE(pump([&] { return client->connectionState() == MessageClient::Connecting; }));
    ASSERT_TRUE(broker.start());
    ASSERT_TRUE(pump([&] { return client->connectionState() == MessageClient::Connected; }));
    for (const char *line : { "main|state|1|1", "main|error|2", "main|state|2|2" })
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

TEST(MessageClient, StoreModelsPageAppendAndFollowStatesAndUnreadCounts)
{
    using C = StoredConversationModel;
    using M = StoredMessageModel;
    const auto rows = [](const QAbstractItemModel &model, int role1, int role2) { // "value1:value2 ..."
        QStringList out;
        for (int row = 0; row < model.rowCount(); ++row)
            out << model.index(row, 0).data(role1).toString() + ':' + model.index(row, 0).data(role2).toString();
        return out.join(' ');
    };
    QtTestApp<QCoreApplication> qt;
    MosquittoBroker broker;
    Wire wire;
    ASSERT_TRUE(broker.start() && wire.start(broker)) << broker.log();
    QTemporaryDir dir;
    MessageClient client("dev-s", "S");
    ASSERT_TRUE(client.openMessageStore(dir.filePath("erin.db"), false)) << client.lastStoreError().toStdString();
    C conversations(&client);
    const auto peers = [&] { return rows(conversations, C::PeerRole, C::UnreadRole); };
    client.login(broker.host(), broker.port(), "erin", 5, "im.test");
    ASSERT_TRUE(pump([&] { return client.connectionState() == MessageClient::Connected; }));
    wire.publish("m/i/erin@im.test/n", seal("dave@im.test", "erin@im.test", "hi", 5));
    ASSERT_TRUE(pump([&] { return peers() == "dave@im.test:1"; }));
    broker.stop(); // what is sent now stays pending
    for (const char *body : { "b0", "b1", "b2", "b3", "b4" })
        ASSERT_EQ(client.sendMessage("bob@im.test", body, 5), 1);
    M bob(&client, "bob@im.test", 2);
    const auto messages = [&] { return rows(bob, M::BodyRole, M::StateRole); };
    QSet<int> toldSent; // rows whose change to Sent was signalled
    QObject::connect(&bob, &M::dataChanged, [&](const QModelIndex &row) {
        if (row.data(M::StateRole).toInt() == int(StoredState::Sent))
            toldSent << row.row();
    });
    QStringList pages{ messages() };
    for (; bob.canFetchMore() && pages.size() < 5; pages << messages())
        bob.fetchMore();
    EXPECT_EQ(pages, QStringList({ "b3:0 b4:0", "b1:0 b2:0 b3:0 b4:0", "b0:0 b1:0 b2:0 b3:0 b4:0" }));
    ASSERT_EQ(client.sendMessage("bob@im.test", "b5", 5), 1);
    EXPECT_TRUE(pump([&] { return messages() == "b0:0 b1:0 b2:0 b3:0 b4:0 b5:0"; }));
    ASSERT_TRUE(broker.start());
    EXPECT_TRUE(pump([&] { return messages() == "b0:1 b1:1 b2:1 b3:1 b4:1 b5:1"; }));
    EXPECT_EQ(toldSent.size(), 6);
    EXPECT_EQ(bob.message(5).body + bob.message(6).body + bob.message(-1).body, "b5"); // rows only
    const QPersistentModelIndex dave = conversations.index(1); // below bob's; moves up (not reset), then is read
    ASSERT_EQ(client.sendMessage("dave@im.test", "d", 5), 1);
    EXPECT_TRUE(pump([&] { return rows(conversations, C::UnreadRole, C::LastStateRole) == "1:1 0:1"; }));
    EXPECT_EQ(dave.row(), 0);
    client.markConversationRead("dave@im.test");
    EXPECT_TRUE(pump([&] { return peers() == "dave@im.test:0 bob@im.test:0"; }));
}

} // namespace
