// pushchat: the command-line client of the pushchat library. See
// `pushchat --help` and clioptions.h.

#include "clioptions.h"
#include "commandrunner.h"
#include "exitcode.h"
#include "terminationsignals.h"

#include <pushchat/version.h>

#include <QCoreApplication>

#include <cstdio>

int main(int argc, char *argv[])
{
    // Before anything can start a thread: every thread inherits the mask.
    TerminationSignals termination;

    QCoreApplication app(argc, argv);
    // The library keeps its generated device id in this settings store.
    QCoreApplication::setOrganizationName(QStringLiteral("pushchat"));
    QCoreApplication::setApplicationName(QStringLiteral("pushchat-cli"));

    // Qt turns bytes that are not UTF-8 into U+FFFD, so that different
    // arguments would read the same: refuse them while the bytes are known.
    for (int i = 1; i < argc; ++i) {
        if (QString::fromUtf8(argv[i]).toUtf8() != QByteArray(argv[i])) {
            std::fprintf(stderr, "pushchat: argument %d is not valid UTF-8.\n", i);
            return toInt(ExitCode::Usage);
        }
    }

    CliOptions options;
    if (!options.parse(QCoreApplication::arguments())) {
        std::fprintf(stderr, "pushchat: %s\n", options.error().toLocal8Bit().constData());
        return toInt(ExitCode::Usage);
    }
    if (options.helpRequested()) {
        std::fputs(CliOptions::helpText().toLocal8Bit().constData(), stdout);
        return toInt(ExitCode::Ok);
    }
    if (options.versionRequested()) {
        std::puts("pushchat " PUSHCHAT_VERSION_STRING);
        return toInt(ExitCode::Ok);
    }
    if (!termination.valid()) {
        std::fprintf(stderr, "pushchat: cannot set up signal handling.\n");
        return toInt(ExitCode::Failure);
    }
    return toInt(CommandRunner(options, termination, stdout).run());
}
