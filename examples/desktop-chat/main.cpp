// desktop-chat: a chat window over pushchat. Without --user it asks for the
// login in a form; with it, it logs in at once:
//
//   desktop-chat [--host H] [--port P] [--user U] [--domain D] [--level N]
//                [--http-base URL] [--device ID] [--tls] [--cafile F]
//                [--cert F --key F] [--insecure] [--store FILE]
//                [--chat JID [--say TEXT]] [--reply TEXT]
//                [--screenshot FILE [--quit]]
//
// --store names the message store's file (default: one per user in the
// data folder); --chat opens a conversation and --say sends TEXT into it
// (kept in the store until the broker takes it);
// --reply answers the first message that arrives with TEXT;
// --screenshot saves the window as PNG 4 s after the login (--quit then
// ends the program), for demos without a person watching.

#include "chatwindow.h"
#include "logindialog.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QTimer>

#include <utility>

int main(int argc, char *argv[])
{
    QApplication app(argc, argv);
    QApplication::setOrganizationName(QStringLiteral("pushchat"));
    QApplication::setApplicationName(QStringLiteral("desktop-chat"));
    QCommandLineParser parser;
    parser.addHelpOption();
    const auto option = [&](const char *name, const char *help, const char *value = nullptr) {
        const QCommandLineOption o(QLatin1String(name), QLatin1String(help), value ? QLatin1String(value) : QString());
        parser.addOption(o);
        return o;
    };
    const auto host = option("host", "Broker host.", "host"), port = option("port", "Broker port.", "port"),
               user = option("user", "User id: log in at once.", "id"),
               domain = option("domain", "JID domain (default: the host).", "domain"),
               level = option("level", "Security level.", "n"),
               httpBase = option("http-base", "HTTP history service.", "url"),
               device = option("device", "Device id.", "id"), tls = option("tls", "Connect with TLS."),
               cafile = option("cafile", "CA file (PEM).", "path"),
               cert = option("cert", "Client certificate.", "path"), key = option("key", "Client key.", "path"),
               insecure = option("insecure", "Do not verify the broker."),
               store = option("store", "Message store file (default: one per user in the data folder).", "path"),
               chat = option("chat", "Open a conversation with JID.", "jid"),
               say = option("say", "Send TEXT into it.", "text"),
               reply = option("reply", "Answer the first message with TEXT.", "text"),
               screenshot = option("screenshot", "Save the window as PNG after 4 s.", "file"),
               quit = option("quit", "Quit after the screenshot.");
    parser.process(app);

    LoginSettings settings;
    settings.host = parser.isSet(host) ? parser.value(host) : settings.host;
    settings.port = parser.isSet(port) ? parser.value(port).toInt() : settings.port;
    settings.user = parser.value(user);
    settings.domain = parser.value(domain);
    settings.level = parser.value(level).toInt();
    settings.httpBase = parser.value(httpBase);
    settings.push.tls.caFile = parser.value(cafile).toStdString();
    settings.push.tls.certFile = parser.value(cert).toStdString();
    settings.push.tls.keyFile = parser.value(key).toStdString();
    settings.push.tls.insecure = parser.isSet(insecure);
    settings.push.tls.enabled =
        parser.isSet(tls) || parser.isSet(cafile) || parser.isSet(cert) || parser.isSet(insecure);
    if (settings.user.isEmpty()) {
        LoginDialog dialog(settings);
        if (dialog.exec() != QDialog::Accepted)
            return 0;
        settings = dialog.settings();
    }
    settings.store = parser.value(store);

    ChatWindow window(parser.value(device));
    window.show();
    window.login(settings);
    if (parser.isSet(chat)) {
        window.openConversation(parser.value(chat), false);
        if (parser.isSet(say))
            window.sendText(parser.value(say));
    }
    if (parser.isSet(reply)) {
        QObject::connect(&window.client(), &MessageClient::messageReceived, &window, [&] {
            static bool done = false;
            if (!std::exchange(done, true))
                window.sendText(parser.value(reply));
        });
    }
    if (parser.isSet(screenshot)) {
        QTimer::singleShot(4000, &window, [&] {
            window.grab().save(parser.value(screenshot), "PNG");
            if (parser.isSet(quit))
                app.quit();
        });
    }
    return app.exec();
}
