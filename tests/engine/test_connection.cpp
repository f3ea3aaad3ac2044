// Connections as a deployment runs them, over real brokers: TLS with a
// password file and an access-control file (certificates by openssl,
// passwords by mosquitto_passwd); and two brokers joined by mosquitto's
// bridge, the client failing over from one to the other.

#include "enginetestkit.h"

#include <QTemporaryDir>

using namespace kit;
using namespace std::chrono_literals;

namespace {

// TLS with the CA `ca` in folder `d` ("": the system's trust store), logged in as `user`.
PushClientOptions secured(const std::string &d, const char *user, const char *pw = "secret", const char *ca = "ca.crt")
{
    PushClientOptions o;
    std::tie(o.tls.enabled, o.tls.caFile, o.username, o.password) = std::tuple(true, *ca ? d + ca : "", user, pw);
    return o;
}

struct Spy : PushEventReciever {
    EventLog log;
    void messgeRecievedMore(int, char *topic, void *, int, int, bool) override { log.add(topic); }
    void connectStatus(bool) override { }
};

bool chat(Message_lib &from, const char *to, App &toApp, const QString &text, std::chrono::milliseconds limit = 15s)
{
    return from.sendTextMessageTo("", to, 5, text, BODY_TYPE_DEFAULT, false, "k", "st") == 1 &&
           toApp.log.waitFor([&](const Lines &l) { return countWith(l, "|" + text.toStdString() + "|") == 1; }, limit);
}

// Logs in `lib` to port `port` with `options`; with `wait`, true once connected.
bool connect(Message_lib &lib, App &app, const PushClientOptions &options, const char *user, int port, bool wait = true)
{
    lib.setPushClientOptions(options);
    lib.registerToImServer("127.0.0.1", port, user, "", 5, "im.test", "");
    return !wait || app.log.waitForPrefix("connected");
}

TEST(Connection, TlsPasswordsAndAccessRules)
{
    QTemporaryDir tmp;
    const std::string dir = tmp.path().toStdString() + "/";
    ASSERT_TRUE(MosquittoBroker::makeTlsFiles(dir)) << dir;
    const auto tls = [&](const char *name) {
        return "cafile " + dir + "ca.crt\ncertfile " + dir + name + ".crt\nkeyfile " + dir + name + ".key\n";
    };
    // A second listener shows a certificate for another host name.
    const int elsewhere = MosquittoBroker::freePort();
    MosquittoBroker broker({ false, false,
        tls("server") + "password_file " + dir + "passwd\nacl_file " BROKER_ACL "\nlistener " +
            std::to_string(elsewhere) + " 127.0.0.1\n" + tls("elsewhere") });
    ASSERT_TRUE(broker.start()) << broker.log();

    // alice and bob chat over TLS with their passwords; a client logged in
    // as alice that subscribed to bob's topics (and to everything) reads none
    // of it, only alice's own.
    App aliceApp, bobApp;
    Message_lib alice{ &aliceApp, &aliceApp, "a", "" }, bob{ &bobApp, &bobApp, "b", "" };
    ASSERT_TRUE(connect(alice, aliceApp, secured(dir, "alice"), "alice", broker.port()) &&
                connect(bob, bobApp, secured(dir, "bob"), "bob", broker.port()));
    Spy spy;
    std::string id = "alice@im.test@spy";
    PushClient spyClient(id.data(), secured(dir, "alice"));
    spyClient.setEventRecv(&spy);
    spyClient.start_connect(broker.host(), broker.port(), 60);
    for (std::string topic : { "m/i/bob@im.test/#", "#" })
        spyClient.subscribe(topic.data());
    ASSERT_TRUE(spyClient.publish("m/i/alice@im.test/x", "", 2, false) == 0 && spy.log.waitForPrefix("m/i/alice"));
    EXPECT_TRUE(chat(alice, "bob", bobApp, "over TLS") && chat(bob, "alice", aliceApp, "back"));
    ASSERT_TRUE(spy.log.waitForPrefix("m/i/alice", 2)); // "back": everything routed before it has arrived
    EXPECT_EQ(spy.log.lines(), (Lines{ "m/i/alice@im.test/x", "m/i/alice@im.test/n" }));

    // Each refusal (wrong password, anonymous, a CA unknown to the system's
    // trust store, another host name) is reported once, with its reason, and never retried: four
    // attempts in ten seconds, as the broker logs them (an attempt whose TLS
    // handshake it fails as "failed", the others as "New connection").
    const int port = broker.port();
    const std::tuple<PushClientOptions, int, PushConnectionError, QString> refusals[] = {
        { secured(dir, "alice", "guess"), port, PushConnectionError::NotAuthorised, "not authorised" },
        { secured(dir, ""), port, PushConnectionError::NotAuthorised, "not authorised" },
        { secured(dir, "alice", "secret", ""), port, PushConnectionError::CertificateRejected,
            "certificate verify failed" },
        { secured(dir, "alice"), elsewhere, PushConnectionError::HostNameMismatch, "host name verification failed" },
    };
    const std::size_t logged = broker.log().size();
    App apps[4];
    std::vector<std::unique_ptr<Message_lib>> refused;
    for (const auto &[options, to, error, reason] : refusals) {
        App &app = apps[refused.size()];
        refused.push_back(std::make_unique<Message_lib>(&app, &app, "r" + std::to_string(refused.size()), ""));
        connect(*refused.back(), app, options, "alice", to, false);
    }
    std::this_thread::sleep_for(10s);
    const QString log = QString::fromStdString(broker.log().substr(logged));
    EXPECT_EQ(log.count("New connection from") + log.count("Client connection from 127.0.0.1 failed"), 4)
        << log.toStdString();
    for (std::size_t i = 0; i < refused.size(); ++i) {
        const auto &[options, to, error, reason] = refusals[i];
        EXPECT_EQ(fields(apps[i].log.lines().size(), refused[i]->lastConnectionError(),
                      refused[i]->lastConnectionErrorText().contains(reason)),
            fields(1, error, true)) // one "disconnected"
            << refused[i]->lastConnectionErrorText().toStdString();
    }
    // The other host name's certificate, by an unknown CA, taken unverified by explicit choice.
    PushClientOptions unverified = secured(dir, "alice", "secret", "");
    unverified.tls.insecure = true;
    EXPECT_TRUE(connect(*refused[3], apps[3], unverified, "alice", elsewhere));

    // The system's trust store (here the file SSL_CERT_FILE names, as
    // OpenSSL reads it) serves the connections after a loss as well.
    ::setenv("SSL_CERT_FILE", (dir + "ca.crt").c_str(), 1);
    App systemApp;
    Message_lib system{ &systemApp, &systemApp, "s", "" };
    ASSERT_TRUE(connect(system, systemApp, secured(dir, "alice", "secret", ""), "alice", port));
    broker.stop();
    ASSERT_TRUE(broker.start()) << broker.log();
    EXPECT_TRUE(systemApp.log.waitForPrefix("connected", 2)) << system.lastConnectionErrorText().toStdString();
    ::unsetenv("SSL_CERT_FILE");
}

TEST(Connection, FailoverThroughABridge)
{
    MosquittoBroker first;
    ASSERT_TRUE(first.start()) << first.log();
    MosquittoBroker second(
        { true, false, "connection first\naddress 127.0.0.1:" + std::to_string(first.port()) + "\ntopic # both 2\n" });
    ASSERT_TRUE(second.start()) << second.log();

    // alice on the first broker, bob on the second; when the first goes
    // away, alice moves on to the second: her message sent meanwhile
    // arrives, and so does bob's answer (she subscribed there anew).
    App aliceApp, bobApp;
    Message_lib alice{ &aliceApp, &aliceApp, "a", "" }, bob{ &bobApp, &bobApp, "b", "" };
    PushClientOptions failover;
    failover.failover = { { second.host(), second.port() } };
    ASSERT_TRUE(
        connect(alice, aliceApp, failover, "alice", first.port()) && connect(bob, bobApp, {}, "bob", second.port()));
    // Again and again, until the bridge carries one.
    ASSERT_TRUE(eventually([&, n = 0]() mutable { return chat(alice, "bob", bobApp, QString("b%1").arg(++n), 1s); }));

    first.stop();
    EXPECT_TRUE(chat(alice, "bob", bobApp, "after the failover"));
    ASSERT_TRUE(aliceApp.log.waitForPrefix("connected", 2));
    EXPECT_TRUE(chat(bob, "alice", aliceApp, "ok") && alice.lastConnectionError() == PushConnectionError::None);
}

} // namespace
