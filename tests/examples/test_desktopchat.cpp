// The desktop chat under a private X server, against a real broker and the
// development server, each window on a store of its own: alice types a
// message and presses Enter, bob's window shows it and he answers; a second
// window of bob's, on another device, shows the conversation from the
// server's history. Alice's window, started again with the broker down,
// shows her stored history; what she types is pending until the broker is
// back; a search finds her messages in all conversations. Screenshots are
// saved as PNG, their paths printed.

#include "chatwindow.h"
#include "devserverprocess.h"
#include "eventlog.h"
#include "mosquittobroker.h"
#include "qttestapp.h"

#include <QAction>
#include <QApplication>
#include <QDir>
#include <QScreen>
#include <QSet>
#include <QTemporaryDir>
#include <QTest>

#include <gtest/gtest.h>

namespace {

using Messages = StoredMessageModel;

// "sender: body" of each message shown.
QStringList texts(const QAbstractItemView *view)
{
    QStringList out;
    for (int row = 0; row < view->model()->rowCount(); ++row)
        out << view->model()->index(row, 0).data(Messages::SenderRole).toString().section('@', 0, 0) + ": " +
                   view->model()->index(row, 0).data(Messages::BodyRole).toString();
    return out;
}

// Saves what the screen shows of `window` (0: all of it) beside SCREENSHOT.
QImage shoot(WId window, const QString &name)
{
    QTest::qWait(300); // painted
    const QString path = QFileInfo(SCREENSHOT).dir().filePath(name);
    QDir().mkpath(QFileInfo(path).path());
    const QImage image = QGuiApplication::primaryScreen()->grabWindow(window).toImage();
    EXPECT_TRUE(image.save(path, "PNG"));
    qInfo("screenshot: %s", qPrintable(path));
    return image;
}

TEST(DesktopChat, AliceTypesBobSeesItAndTheHistoryShowsIt)
{
    QProcess xvfb, server;
    xvfb.start("Xvfb", { "-displayfd", "1", "-screen", "0", "1820x620x24", "-nolisten", "tcp" });
    ASSERT_TRUE(xvfb.waitForReadyRead(10000)) << "Xvfb did not start";
    qputenv("DISPLAY", ":" + xvfb.readLine().trimmed());
    qputenv("QT_QPA_PLATFORM", "xcb");
    QtTestApp<QApplication> qt;
    MosquittoBroker broker;
    ASSERT_TRUE(broker.start()) << broker.log();
    QTemporaryDir dir;
    const int httpPort = startDevServer(server, PUSHCHAT_DEVSERVER,
        { "--port", QString::number(broker.port()), "--http-port", "0" }, dir.filePath("server.jsonl"));
    ASSERT_NE(httpPort, 0);

    LoginSettings login;
    login.port = broker.port();
    login.level = 5;
    login.httpBase = QStringLiteral("http://127.0.0.1:%1").arg(httpPort);
    login.push.reconnectDelayMax = std::chrono::milliseconds(300);
    auto alice = std::make_unique<ChatWindow>("dev-alice");
    ChatWindow bob("dev-bob"), bob2("dev-bob2");
    QSet<ChatWindow *> online;
    for (ChatWindow *window : { alice.get(), &bob }) {
        QObject::connect(&window->client(), &MessageClient::roomListRefreshed, [&, window] { online << window; });
        login.user = window == &bob ? "bob" : "alice";
        login.store = dir.filePath(login.user + ".db");
        window->move(window == &bob ? 910 : 0, 0);
        window->show();
        window->login(login);
    }
    ASSERT_TRUE(pump([&] { return online.size() == 2; })); // the server answered: subscriptions in place

    const auto enabled = [](ChatWindow *window, const char *action) {
        return window->findChild<QAction *>(action)->isEnabled();
    };
    alice->openConversation("bob", false);
    EXPECT_TRUE(enabled(alice.get(), "addFriend") && enabled(alice.get(), "newRoom"));
    EXPECT_FALSE(enabled(alice.get(), "invite") || enabled(alice.get(), "acceptRequest")); // not a room, no request
    QTest::keyClicks(alice->findChild<QLineEdit *>("sendBox"), "Hello Bob!");
    QTest::keyClick(alice->findChild<QLineEdit *>("sendBox"), Qt::Key_Return);
    const auto *bobMessages = bob.findChild<QListView *>("messages");
    EXPECT_TRUE(pump([&] { return texts(bobMessages) == QStringList{ "alice: Hello Bob!" }; }))
        << texts(bobMessages).join('\n').toStdString();
    const auto *bobConversations = bob.findChild<QListView *>("conversations");
    EXPECT_TRUE(pump([&] { return bobConversations->currentIndex().data().toString() == "alice@127.0.0.1"; }));
    QTest::keyClicks(bob.findChild<QLineEdit *>("sendBox"), "Hi Alice.");
    QTest::keyClick(bob.findChild<QLineEdit *>("sendBox"), Qt::Key_Return);
    const auto *aliceMessages = alice->findChild<QListView *>("messages");
    const QStringList both{ "alice: Hello Bob!", "bob: Hi Alice." };
    EXPECT_TRUE(pump([&] { return texts(aliceMessages) == both; })) << texts(aliceMessages).join('\n').toStdString();
    // Both windows as a person would see them.
    const QImage screen = shoot(0, QFileInfo(SCREENSHOT).fileName());
    EXPECT_NE(screen.pixel(100, 200), screen.pixel(1815, 615)); // windows on a black screen

    login.user = "bob";
    login.store = dir.filePath("bob2.db");
    bob2.login(login);
    ASSERT_TRUE(pump([&] { return bob2.client().connectionState() == MessageClient::Connected; }));
    bob2.openConversation("alice", false);
    const auto *history = bob2.findChild<QListView *>("messages");
    EXPECT_TRUE(pump([&] { return texts(history) == both; })) << texts(history).join('\n').toStdString();

    // Offline: alice's window again, on her store, the broker down.
    alice->openConversation("carol", false);
    alice->sendText("Hello Carol!");
    ASSERT_TRUE(pump([&] { return alice->client().storedPendingCount() == 0; }));
    broker.stop();
    alice.reset();
    ChatWindow again("dev-alice");
    login.user = "alice";
    login.store = dir.filePath("alice.db");
    again.show();
    again.login(login);
    again.openConversation("bob", false);
    const auto *messages = again.findChild<QListView *>("messages");
    EXPECT_EQ(texts(messages), both);
    QTest::keyClicks(again.findChild<QLineEdit *>("sendBox"), "Still there, Bob?");
    QTest::keyClick(again.findChild<QLineEdit *>("sendBox"), Qt::Key_Return);
    const auto lastState = [&] { return messages->model()->index(2, 0).data(Messages::StateRole).toInt(); };
    ASSERT_TRUE(pump([&] { return texts(messages).size() == 3; })) << texts(messages).join('\n').toStdString();
    EXPECT_EQ(lastState(), int(StoredState::Pending));
    EXPECT_FALSE(enabled(&again, "addFriend")); // nobody to ask without the broker
    shoot(again.winId(), "desktop-chat-offline.png");
    ASSERT_TRUE(broker.start());
    EXPECT_TRUE(pump([&] { return lastState() == int(StoredState::Sent); }));

    QTest::keyClicks(again.findChild<QLineEdit *>("search"), "hello");
    QTest::keyClick(again.findChild<QLineEdit *>("search"), Qt::Key_Return);
    const auto *found = again.findChild<QListWidget *>("found");
    ASSERT_EQ(found->count(), 2);
    EXPECT_TRUE(found->item(0)->text().endsWith("carol — alice: Hello Carol!") && found->isVisible());
    EXPECT_TRUE(found->item(1)->text().endsWith("bob — alice: Hello Bob!"));
    shoot(again.winId(), "desktop-chat-search.png");
    server.terminate();
    xvfb.terminate();
    EXPECT_TRUE(server.waitForFinished() && xvfb.waitForFinished());
}

} // namespace
