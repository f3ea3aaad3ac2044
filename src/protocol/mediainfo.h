#ifndef PUSHCHAT_MEDIAINFO_H
#define PUSHCHAT_MEDIAINFO_H

/// \file
/// Enumerations carried inside every message envelope.
///
/// They are plain integers on the wire: the library compares only the values
/// named here and passes every other value through unchanged, which is why
/// each enumeration has a fixed `int` underlying type (any int is a valid
/// value of it).

/// Enumerations of the message envelope.
namespace MediaInfo {

/// Kind of conversation, envelope field "v".
enum MessageType : int {
    MESSAGE_TYPE_CHAT = 1,      ///< one-to-one chat message
    MESSAGE_TYPE_GROUPCHAT = 4, ///< message addressed to a room
    MESSAGE_TYPE_SYSTEM = 16    ///< request built by the library itself
};

} // namespace MediaInfo

/// Kind of body, envelope field "bt".
enum MESSAGE_BODY_TYPE : int {
    BODY_TYPE_DEFAULT = 0, ///< system requests and plain bodies
    BODY_TYPE_NOTICE = 7,  ///< notice, sent on the notice topic
    BODY_TYPE_KICKED = 9   ///< synthetic room message: the user was removed
};

/// Security level that anyone may read; carried by every system request.
constexpr int SECURITY_LEVEL_UNRESTRICTED = 9999;

#endif // PUSHCHAT_MEDIAINFO_H
