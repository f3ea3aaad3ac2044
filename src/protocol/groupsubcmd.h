#ifndef PUSHCHAT_GROUPSUBCMD_H
#define PUSHCHAT_GROUPSUBCMD_H

/// \file
/// GroupSubCmd, the group-room sub-commands.

/// A group-room sub-command. The values are the command codes of the group
/// command letters in topics, so a code read from a topic and the value an
/// application is handed are the same number.
enum GroupSubCmd : int {
    GroupSub_Create = 10,         ///< "c"
    GroupSub_Release = 11,        ///< "r"
    GroupSub_Invite = 12,         ///< "i"
    GroupSub_Kick = 13,           ///< "k"
    GroupSub_SetGroupName = 14,   ///< "s"
    GroupSub_Exit = 15,           ///< "e"
    GroupSub_Query = 16,          ///< "q"
    GroupSub_Join = 17,           ///< "j"
    GroupSub_SetRoomCreater = 18, ///< "g"
    GroupSub_Refresh = 19,        ///< "f"
    GroupSub_Modify_Type = 20     ///< "m"
};

#endif // PUSHCHAT_GROUPSUBCMD_H
