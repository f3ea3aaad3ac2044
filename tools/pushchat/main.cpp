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
