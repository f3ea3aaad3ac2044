#ifndef PUSHCHAT_DROPPEDINPUTS_H
#define PUSHCHAT_DROPPEDINPUTS_H

/// \file
/// DroppedInputs, the counts of what the library refused from the network.

#include <QtGlobal>

/// What the library has dropped from the network since the façade was
/// made, each drop logged once as a warning (category "pushchat.engine").
/// Everything else kept flowing. A value type, read with
/// Message_lib::droppedInputs() from any thread.
struct DroppedInputs {
    /// Deliveries whose topic, payload or inflated envelope passed its
    /// limit (1 KiB of topic, about 6 MiB of payload, 4.5 MiB of envelope);
    /// nothing past the limit was inflated.
    quint64 oversized = 0;
    /// Room JIDs in room events and room lists that failed the JID check
    /// (see jid.h): never subscribed.
    quint64 invalidRoomJids = 0;
    /// Rooms not subscribed because the client already held the most room
    /// topics it may (20 000), or a room list named more than that.
    quint64 roomsOverLimit = 0;
};

#endif // PUSHCHAT_DROPPEDINPUTS_H
