#ifndef PUSHCHAT_CLI_STORECOMMANDS_H
#define PUSHCHAT_CLI_STORECOMMANDS_H

// The commands that read or mark the message store (--store) without a
// connection: log, search, conversations and read. Each prints one JSON
// line per stored message or conversation on the writer:
//   message       {"conversation","key","sender","time","stamp","body",
//                  "body_type","msg_type","outgoing","state"}, time in UTC
//                  ISO 8601 with milliseconds, state "pending", "sent",
//                  "received" or "read";
//   conversation  {"peer","last": message,"unread"}.

#include "exitcode.h"

class CliOptions;
class JsonLineWriter;
class Message_lib;

namespace StoreCommands {

/// Runs log, search, conversations or read on the library's open store.
ExitCode run(const CliOptions &options, Message_lib &library, JsonLineWriter &writer);

} // namespace StoreCommands

#endif // PUSHCHAT_CLI_STORECOMMANDS_H
