// pushchat on a three-node RabbitMQ cluster (scripts/cluster), delivery
// level 1: no user reads another's topics on any node; a burst from alice
// on node 1 to bob on node 2 outlives node 2's death, as does the
// development server that was on it. Prints sent / delivered / lost /
// duplicated.

#include "faultkit.h"
#include "rabbitcluster.h"

#include <QProcess>
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

/// A façade of `name` on `node` whose subscriptions are in force.
struct Participant : Counter {
    EventLog answers; // the history answers
    Message_lib lib;
    Participant(const char *name, int node, int size) : Counter(size), lib(this, nullptr, std::string("dev-") + name, name)
    {
        lib.setPushClientOptions(on(node, name));
        lib.setMaxQos(1);
        EXPECT_TRUE(lib.registerToImServer(cluster().host(), cluster().port(node), name, {}, 5, "im.test", {}) == 1 &&
                    eventually([&] { return connects > 0 && lib.engine()->pendingCount() == 0; }));
    }
    void onConversations(S json) override { answers.add(json); }
};

struct Spy {
    int messages = 0, granted = -1;
};

} // namespace

// alice, with her own password, asks on every node for bob's topics and for
// wildcards: each is refused (the broker closes the link) and nothing of a
// chat to bob reaches her. A subscription at level 2 is granted level 1:
// told once.
TEST(Cluster, NoUserReadsAnotherUsersTopics)
{
    ASSERT_TRUE(cluster().known());
    std::vector<std::pair<mosquitto *, Spy>> spies(RabbitCluster::kNodes * 3);
    const char *filters[] = { "m/i/bob@im.test/#", "m/i/+/#", "#" };
    for (std::size_t i = 0; i < spies.size(); ++i) {
        auto &[m, spy] = spies[i];
        m = mosquitto_new(("alice@im.test@spy" + std::to_string(i)).c_str(), false, &spy);
        mosquitto_username_pw_set(m, "alice", "alice");
        mosquitto_message_callback_set(m, [](mosquitto *, void *s, const mosquitto_message *) { ++static_cast<Spy *>(s)->messages; });
        mosquitto_subscribe_callback_set(m, [](mosquitto *, void *s, int, int, const int *g) { static_cast<Spy *>(s)->granted = *g; });
        ASSERT_EQ(mosquitto_connect(m, cluster().host(), cluster().port(int(i / 3) + 1), 30), MOSQ_ERR_SUCCESS);
        mosquitto_subscribe(m, nullptr, filters[i % 3], 1);
    }
    Participant alice("alice", 1, 0);
    EXPECT_EQ(send(alice.lib, "bob", 0), 1);
    EXPECT_TRUE(eventually([&] { return alice.lib.engine()->pendingCount() == 0; }));
    for (auto &[m, spy] : spies) {
        int rc = MOSQ_ERR_SUCCESS;
        for (int i = 0; i < 20 && rc == MOSQ_ERR_SUCCESS; ++i)
            rc = mosquitto_loop(m, 50, 1);
        EXPECT_EQ(fields(spy.messages, spy.granted == 1, rc), fields(0, 0, MOSQ_ERR_CONN_LOST));
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
    server.setProcessEnvironment([] {
        auto env = QProcessEnvironment::systemEnvironment();
        env.insert("PUSHCHAT_PASSWORD", "server");
        return env;
    }());
    QStringList args{ "--server-jid", "server@im.test", "--max-qos", "1", "--username", "server", "--http-port", "0" };
    for (int i = 0; i < RabbitCluster::kNodes; ++i)
        args << "--broker" << QString("127.0.0.1:%1").arg(cluster().port((i + 1) % RabbitCluster::kNodes + 1));
    const std::string lines = cluster().dir() + "/server.jsonl";
    server.setStandardOutputFile(QString::fromStdString(lines));
    server.start(PUSHCHAT_DEVSERVER, args);
    ASSERT_TRUE(eventually([&] { return fileText(lines).find("\"ready\"") != std::string::npos; }));
    Participant alice("alice", 1, 0), bob("bob", 2, kBurst + 1);
    std::atomic<int> accepted{ 0 };
    std::thread sender([&] { sendAll(alice.lib, "bob", kBurst, &accepted); });
    EXPECT_TRUE(eventually([&] { return accepted >= kBurst / 3; }));
    cluster().kill(2);
    sender.join();
    bob.waitFor(kBurst);
    EXPECT_EQ(bob.tally("burst, receiver's node killed", kBurst), kNoneLost);
    ASSERT_EQ(alice.lib.createMucRoom("team", "Team", "bob", ROOM_TYPE_DEFAULT), 1);
    EXPECT_TRUE(eventually([&] { // bob is in the room once the server made it
        alice.lib.sendTextMessageTo("", "team", 5, QString("n %1").arg(kBurst), BODY_TYPE_DEFAULT, true, "r", "st");
        return eventually([&] { return bob.distinct() == kBurst + 1; }, 1s);
    }));
    bob.lib.fetchConversations(MediaInfo::MessageType(0), 0, 20);
    EXPECT_TRUE(bob.answers.waitFor([](const Lines &l) {
        return !l.empty() && l.back().find("\"conv_id\":\"team@im.test\"") != std::string::npos;
    }));
    server.terminate();
    server.waitForFinished();
}
