#ifndef PUSHCHAT_CAPIOPERATION_H
#define PUSHCHAT_CAPIOPERATION_H

// CapiOperation: the table of the C interface's requests, one row per
// operation of the façade: its name ("op"), the arguments it takes, how it
// runs and what it does. docs/c-api.md lists the same table for people.
//
// How a row runs: Plain during pushchat_send on the caller's thread, beside
// other Plain ones; Exclusive (login, logout) alone, with the client's
// event queue taking what the library delivers meanwhile past its bound;
// Blocking (history over HTTP) on the client's own thread. `run` returns the
// fields of the result event: at least "result".

#include "capiarguments.h"
#include "capiconfig.h"

#include <pushchat/message_lib.h>

#include <QJsonObject>

#include <vector>

class CapiOperation {
public:
    enum class Mode {
        Plain,
        Exclusive,
        Blocking
    };
    using Run = QJsonObject (*)(Message_lib &library, const CapiConfig &config, const CapiArguments &arguments);

    const char *name;
    std::vector<CapiArguments::Field> fields;
    Mode mode;
    Run run;

    /// The row named `name`, or null.
    static const CapiOperation *find(const QString &name);
};

#endif // PUSHCHAT_CAPIOPERATION_H
