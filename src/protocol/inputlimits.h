#ifndef PUSHCHAT_INPUTLIMITS_H
#define PUSHCHAT_INPUTLIMITS_H

// The bounds on what arrives from the network, checked before the memory is
// spent: a message over one of them is dropped with one warning and counted,
// and everything else keeps flowing. They follow from the body limit that
// the sending side enforces (Message_lib::MAX_BODY_BYTES): a legitimate
// message is always well inside them.

namespace InputLimits {

/// The longest body a sender may give, in UTF-8 bytes.
constexpr int BODY_BYTES = 2 * 1024 * 1024;
/// The longest envelope JSON text, after deciphering and inflating: a body
/// at its limit whose every character Qt escapes as "\n" (two bytes), with
/// room for the other fields. Inflation stops here, whatever the compressed
/// form claims.
constexpr int ENVELOPE_BYTES = 2 * BODY_BYTES + 512 * 1024;
/// The longest payload as it arrives: the key letter and the base 64 of a
/// cipher text whose envelope is at its limit (4 bytes of base 64 per 3).
constexpr int PAYLOAD_BYTES = (ENVELOPE_BYTES + 64) / 3 * 4 + 64;
/// The longest topic: a family prefix, a JID of at most Jid::MAX_BYTES and
/// the command letters, with room to spare.
constexpr int TOPIC_BYTES = 1024;
/// The most rooms a room list may name, and the most room topics held at
/// once; the rest are dropped.
constexpr int ROOMS = 20000;

} // namespace InputLimits

#endif // PUSHCHAT_INPUTLIMITS_H
