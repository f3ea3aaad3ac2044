// pushchat on a three-node RabbitMQ cluster (scripts/cluster), delivery
// level 1: no user reads another's topics on any node; a burst from alice
// on node 1 to bob on node 2 outlives node 2's death, as does the
// development server that was on it. Prints sent / delivered / lost /
// duplicated.

#include "devserverprocess.h"
#include "faultkit.h"
#include "rabbitcluster.h"

#include <mosquitto.h>

using namespace kit;

namespace {

const RabbitCluster &cluster()
{
    static const RabbitCluster shared;
    EXPECT_TRUE(shared.known()) << "no cluster in $PUSHCHAT_CLUSTER_DIR: run scripts/cluster start DIR";
    return shared;
}

/// `user`'s options on `node`, the other nodes in turn to fail over to.
PushClientOptions on(int node, const char *user)
{
    PushClientOptions options = fast();
    options.username = options.password = user;
    for (int i = 1; i < RabbitCluster::kNodes; ++i)
        options.failover.push_back({ cluster().host(), cluster().port((node - 1 + i) % RabbitCluster::kNodes + 1) });
    return options;
}

/// `name` on `node`, at delivery level 1.
User on(int node, const char *name, int size)
{
    return User(name, size, cluster().port(node), on(node, name), 1);
}

} // namespace

// alice, with her own password, asks on every node for bob's topics and for
// wildcards: each is refused (the broker closes the link) and nothing of a
// chat to bob reaches her. A subscription at level 2 is granted level 1:
// told once.
TEST(Cluster, NoUserReadsAnotherUsersTopics)
{
    ASSERT_TRUE(cluster().known());
    std::vector<std::pair<mosquitto *, int>> spies(RabbitCluster::kNodes * 3); // and the messages it heard
    const char *filters[] = { "m/i/bob@im.test/#", "m/i/+/#", "#" };
    for (std::size_t i = 0; i < spies.size(); ++i) {
        auto &[m, spy] = spies[i];
        m = mosquitto_new(("alice@im.test@spy" + std::to_string(i)).c_str(), false, &spy);
        mosquitto_username_pw_set(m, "alice", "alice");
        mosquitto_message_callback_set(
            m, [](mosquitto *, void *heard, const mosquitto_message *) { ++*static_cast<int *>(heard); });
        ASSERT_EQ(mosquitto_connect(m, cluster().host(), cluster().port(int(i / 3) + 1), 30), MOSQ_ERR_SUCCESS);
        mosquitto_subscribe(m, nullptr, filters[i % 3], 1);
    }
    User alice = on(1, "alice", 0);
    EXPECT_EQ(send(alice.lib, "bob", 0), 1);
    EXPECT_TRUE(eventually([&] { return alice.lib.engine()->pendingCount() == 0; }));
    for (auto &[m, spy] : spies) {
        int rc = MOSQ_ERR_SUCCESS;
        for (int i = 0; i < 20 && rc == MOSQ_ERR_SUCCESS; ++i)
            rc = mosquitto_loop(m, 50, 1);
        EXPECT_EQ(fields(spy, rc), fields(0, MOSQ_ERR_CONN_LOST)); // refused: the broker closed the link
        mosquitto_destroy(m);
    }
    struct Grants : Counter {
        std::vector<std::pair<int, int>> told;
        void subscriptionGranted(int requested, int granted) override { told.emplace_back(requested, granted); }
    } carol;
    std::string id = "carol@im.test@dev-c";
    PushClient client(id.data(), on(3, "carol"));
    client.setEventRecv(&carol);
    client.start_connect(cluster().host(), cluster().port(3), 30);
    ASSERT_TRUE(eventually([&] { return carol.connects == 1; }));
    client.subscribe({ "m/i/carol@im.test/#" }, 2);
    client.subscribe({ "s/f/i/carol@im.test/#" }, 2);
    EXPECT_TRUE(eventually([&] { return client.pendingCount() == 0; }));
    EXPECT_EQ(carol.told, (std::vector<std::pair<int, int>>{ { 2, 1 } }));
}

// Node 2, bob's and the development server's, is killed in the middle of
// 5 000 messages from alice on node 1: bob resumes his session on another
// node and gets every message once; the server, back on another node,
// answers rooms and history.
TEST(Cluster, ABurstOutlivesTheReceiversNode)
{
    constexpr int kBurst = 5000;
    QProcess server;
    qputenv("PUSHCHAT_PASSWORD", "server");
    QStringList args{ "--server-jid", "server@im.test", "--max-qos", "1", "--username", "server", "--http-port", "0" };
    for (int i = 0; i < RabbitCluster::kNodes; ++i)
        args << "--broker" << QString("127.0.0.1:%1").arg(cluster().port((i + 1) % RabbitCluster::kNodes + 1));
    ASSERT_NE(
        startDevServer(server, PUSHCHAT_DEVSERVER, args, QString::fromStdString(cluster().dir() + "/server.jsonl")), 0);
    User alice = on(1, "alice", 0), bob = on(2, "bob", kBurst + 1);
    std::atomic<int> accepted{ 0 };
    std::thread sender([&] { sendAll(alice.lib, "bob", kBurst, &accepted); });
    EXPECT_TRUE(eventually([&] { return accepted >= kBurst / 3; }));
    cluster().kill(2);
    sender.join();
    bob.side.waitFor(kBurst, 60s); // a new leader for bob's queue is elected meanwhile
    EXPECT_EQ(bob.side.tally("burst, receiver's node killed", kBurst), kNoneLost);
    ASSERT_EQ(alice.lib.createMucRoom("team", "Team", "bob", ROOM_TYPE_DEFAULT), 1);
    EXPECT_TRUE(eventually([&] { // bob is in the room once the server made it
        alice.lib.sendTextMessageTo("", "team", 5, QString("n %1").arg(kBurst), BODY_TYPE_DEFAULT, true, "r", "st");
        return eventually([&] { return bob.side.distinct() == kBurst + 1; }, 1s);
    }));
    bob.lib.fetchConversations(MediaInfo::MessageType(0), 0, 20);
    EXPECT_TRUE(eventually([&] { return bob.side.other().find("\"conv_id\":\"team@im.test\"") != std::string::npos; }));
    server.terminate();
    server.waitForFinished();
}
