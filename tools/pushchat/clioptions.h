#ifndef PUSHCHAT_CLI_CLIOPTIONS_H
#define PUSHCHAT_CLI_CLIOPTIONS_H

// The command line of the pushchat client: GNU-style options, then a
// command and its arguments.
//
//   pushchat [options] listen [--save-images]
//   pushchat [options] send [--notice] [--room] TO TEXT      (TEXT "-": stdin)
//   pushchat [options] send [--notice] [--room] --text-file PATH TO
//   pushchat [options] send [--notice] [--room] --image PATH TO
//   pushchat [options] location TARGET FIRST SECOND
//   pushchat [options] status UUID STATUS
//   pushchat [options] room SUBCOMMAND ARGUMENTS...    (see roomrequest.h)
//   pushchat [options] friend SUBCOMMAND ARGUMENTS...  (see friendrequest.h)
//   pushchat [options] history SUBCOMMAND ARGUMENTS... (see historyrequest.h)
//   pushchat [options] rdp SUBCOMMAND JID TEXT         (see rdprequest.h)
//   pushchat --store PATH [options] flush | conversations | log PEER |
//            search TEXT | read PEER                     (see storecommands.h)
//
// parse() checks everything that can be checked without a network: option
// values, the command and its argument count; error() is then one line
// meant for stderr.

#include "friendrequest.h"
#include "historyrequest.h"
#include "rdprequest.h"
#include "roomrequest.h"

#include <pushchat/pushclientoptions.h>

#include <QString>
#include <QStringList>

#include <chrono>
#include <string>

class QCommandLineParser;
struct OptionSet;

class CliOptions {
public:
    enum class Command {
        None,
        Listen,
        Send,
        Location,
        Status,
        Room,
        Friend,
        History,
        Rdp,
        Flush,
        Log,
        Search,
        Conversations,
        Read
    };

    /// Parses `arguments`, the program name first. False on any error.
    bool parse(const QStringList &arguments);
    /// Why parse() failed: one line, no trailing newline.
    QString error() const { return m_error; }
    /// --help was given; nothing else was checked.
    bool helpRequested() const { return m_help; }
    /// --version was given (and not --help); nothing else was checked.
    bool versionRequested() const { return m_version; }
    /// The full help text. Needs a QCoreApplication.
    static QString helpText();

    Command command() const { return m_command; }
    /// The command's arguments, in order (TO TEXT, or TO with --image or
    /// --text-file; TARGET FIRST SECOND; UUID STATUS).
    QStringList commandArguments() const { return m_arguments; }
    /// STATUS of the status command.
    int status() const { return m_status; }
    /// The room command's subcommand and arguments.
    const RoomRequest &roomRequest() const { return m_roomRequest; }
    const FriendRequest &friendRequest() const { return m_friendRequest; }
    const HistoryRequest &historyRequest() const { return m_historyRequest; }
    const RdpRequest &rdpRequest() const { return m_rdpRequest; }

    /// The login's broker: --host and --port, or the first --broker.
    QString host() const { return m_host; }
    int port() const { return m_port; }
    /// TLS, credentials (the password from --password-file or, with
    /// --username, PUSHCHAT_PASSWORD) and the further --broker addresses.
    const PushClientOptions &pushOptions() const { return m_push; }
    int maxQos() const { return m_maxQos; }
    QString user() const { return m_user; }
    /// Empty: the library uses the host as the domain.
    QString domain() const { return m_domain; }
    /// The user's security level; send also sends its message at it.
    int level() const { return m_level; }
    /// Empty: the library's persisted device id.
    std::string deviceId() const { return m_deviceId; }
    /// Empty: the library's default server JID.
    QString serverJid() const { return m_serverJid; }
    std::chrono::milliseconds connectTimeout() const { return m_timeout; }
    bool notice() const { return m_notice; }
    bool room() const { return m_room; }
    /// send --image: the image file to send; empty for a text message.
    QString image() const { return m_image; }
    /// send --text-file: the file whose text is sent; empty otherwise.
    QString textFile() const { return m_textFile; }
    /// listen --save-images.
    bool saveImages() const { return m_saveImages; }
    /// history --http-base: the HTTP service's base address; empty for the
    /// library's default (port 5201 of --host).
    QString httpBase() const { return m_httpBase; }
    /// --store: the message store's path; empty without one.
    QString storePath() const { return m_storePath; }
    /// log --before, --limit; search --in.
    QString before() const { return m_before; }
    int limit() const { return m_limit; }
    QString in() const { return m_in; }
    /// log, search, conversations, read: the store only, no connection.
    bool readsStoreOnly() const;

private:
    bool fail(const QString &message);
    /// The user id, domain, server JID and the command's addressee checked
    /// as the library checks them (pushchat/jid.h); false with the reason.
    bool checkIdentifiers();
    bool readStoreOptions(const QCommandLineParser &parser, const OptionSet &options, const QString &name);

    QString m_error;
    bool m_help = false;
    bool m_version = false;
    Command m_command = Command::None;
    QStringList m_arguments;
    int m_status = 0;
    RoomRequest m_roomRequest;
    FriendRequest m_friendRequest;
    HistoryRequest m_historyRequest;
    RdpRequest m_rdpRequest;
    QString m_host = QStringLiteral("127.0.0.1");
    int m_port = 1883;
    PushClientOptions m_push;
    int m_maxQos = 2;
    QString m_user;
    QString m_domain;
    int m_level = 0;
    std::string m_deviceId;
    QString m_serverJid;
    std::chrono::milliseconds m_timeout{ 10000 };
    bool m_notice = false;
    bool m_room = false;
    QString m_image;
    QString m_textFile;
    bool m_saveImages = false;
    QString m_httpBase;
    QString m_storePath;
    QString m_before;
    QString m_in;
    int m_limit = 50;
};

#endif // PUSHCHAT_CLI_CLIOPTIONS_H
