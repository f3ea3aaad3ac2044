// The desktop chat under a private X server, against a real broker and the
// development server: alice types a message and presses Enter, bob's
// window shows it and he answers; a second window of bob's, on another
// device, shows the conversation from the server's history. A screenshot
// of the screen is saved as PNG.

#include "chatwindow.h"
#include "devserverprocess.h"
#include "eventlog.h"
#include "mosquittobroker.h"
#include "qttestapp.h"

#include <QApplication>
#include <QDir>
#include <QScreen>
#include <QSet>
#include <QTemporaryDir>
#include <QTest>

#include <gtest/gtest.h>

namespace {

QStringList texts(const QListWidget *list)
{
    QStringList out;
    for (int i = 0; i < list->count(); ++i)
        out << list->item(i)->text().section(QLatin1Char(' '), 2); // without the time
    return out;
}

TEST(DesktopChat, AliceTypesBobSeesItAndTheHistoryShowsIt)
{
    QProcess xvfb, server;
    xvfb.start("Xvfb", {"-displayfd", "1", "-screen", "0", "1300x440x24", "-nolisten", "tcp"});
    ASSERT_TRUE(xvfb.waitForReadyRead(10000)) << "Xvfb did not start";
    qputenv("DISPLAY", ":" + xvfb.readLine().trimmed());
    qputenv("QT_QPA_PLATFORM", "xcb");
    QtTestApp<QApplication> qt;
    MosquittoBroker broker;
    ASSERT_TRUE(broker.start()) << broker.log();
    QTemporaryDir dir;
    const int httpPort = startDevServer(server, PUSHCHAT_DEVSERVER, {"--port", QString::number(broker.port()), "--http-port", "0"},
                                        dir.filePath("server.jsonl"));
    ASSERT_NE(httpPort, 0);

    LoginSettings login;
    login.port = broker.port();
    login.level = 5;
    login.httpBase = QStringLiteral("http://127.0.0.1:%1").arg(httpPort);
    ChatWindow alice("dev-alice"), bob("dev-bob"), bob2("dev-bob2");
    QSet<ChatWindow *> online;
    for (ChatWindow *window : {&alice, &bob}) {
        QObject::connect(&window->client(), &MessageClient::roomListRefreshed, [&, window] { online << window; });
        login.user = window == &alice ? "alice" : "bob";
        window->move(window == &alice ? 0 : 650, 0);
        window->show();
        window->login(login);
    }
    ASSERT_TRUE(pump([&] { return online.size() == 2; })); // the server answered: subscriptions in place

    alice.openConversation("bob", false);
    QTest::keyClicks(alice.findChild<QLineEdit *>("sendBox"), "Hello Bob!");
    QTest::keyClick(alice.findChild<QLineEdit *>("sendBox"), Qt::Key_Return);
    const auto *bobMessages = bob.findChild<QListWidget *>("messages");
    EXPECT_TRUE(pump([&] { return texts(bobMessages) == QStringList{"alice: Hello Bob!"}; }))
        << texts(bobMessages).join('\n').toStdString();
    EXPECT_EQ(bob.findChild<QListWidget *>("conversations")->currentItem()->text(), "○ alice");
    QTest::keyClicks(bob.findChild<QLineEdit *>("sendBox"), "Hi Alice.");
    QTest::keyClick(bob.findChild<QLineEdit *>("sendBox"), Qt::Key_Return);
    const auto *aliceMessages = alice.findChild<QListWidget *>("messages");
    const QStringList both{"alice: Hello Bob!", "bob: Hi Alice."};
    EXPECT_TRUE(pump([&] { return texts(aliceMessages) == both; })) << texts(aliceMessages).join('\n').toStdString();
    // The screenshot: both windows as a person would see them.
    QTest::qWait(300); // painted
    QDir().mkpath(QFileInfo(SCREENSHOT).path());
    const QImage screen = qt.app.primaryScreen()->grabWindow(0).toImage();
    EXPECT_TRUE(screen.save(SCREENSHOT, "PNG"));
    EXPECT_NE(screen.pixel(100, 200), screen.pixel(1290, 430)); // windows on a black screen

    login.user = "bob";
    bob2.login(login);
    ASSERT_TRUE(pump([&] { return bob2.client().connectionState() == MessageClient::Connected; }));
    bob2.openConversation("alice", false);
    const auto *history = bob2.findChild<QListWidget *>("messages");
    EXPECT_TRUE(pump([&] { return texts(history) == both; })) << texts(history).join('\n').toStdString();
    server.terminate();
    xvfb.terminate();
    EXPECT_TRUE(server.waitForFinished() && xvfb.waitForFinished());
}

} // namespace
