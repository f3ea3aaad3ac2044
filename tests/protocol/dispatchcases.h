#ifndef PUSHCHAT_TESTS_DISPATCHCASES_H
#define PUSHCHAT_TESTS_DISPATCHCASES_H

// Every dispatchable command with the handler slot it must reach, and the
// complete chains that no handler takes. Shared by the in-process and the
// through-the-broker dispatch tests.

#include "mqttmesaageprotocol.h"

#include <vector>

struct DispatchCase {
    int family;
    std::vector<int> subs; // one letter per level below the family
    int slot;              // expected handler slot, -1 for none
};

inline const std::vector<DispatchCase> &dispatchCases()
{
    static const std::vector<DispatchCase> cases = {
        { GroupINFO, { SubInfo_CMD_RESPONSE, GroupSub_Create }, 0 },
        { GroupINFO, { SubInfo_CMD_RESPONSE, GroupSub_Release }, 1 },
        { GroupINFO, { SubInfo_CMD_RESPONSE, GroupSub_Invite }, 2 },
        { GroupINFO, { SubInfo_CMD_RESPONSE, GroupSub_Kick }, 3 },
        { GroupINFO, { SubInfo_CMD_RESPONSE, GroupSub_SetGroupName }, 4 },
        { GroupINFO, { SubInfo_CMD_RESPONSE, GroupSub_Exit }, 5 },
        { GroupINFO, { SubInfo_CMD_RESPONSE, GroupSub_Query }, 6 },
        { GroupINFO, { SubInfo_CMD_RESPONSE, GroupSub_Join }, 7 },
        { GroupINFO, { SubInfo_CMD_RESPONSE, GroupSub_Refresh }, 8 },
        { GroupINFO, { SubInfo_CMD_RESPONSE, GroupSub_SetRoomCreater }, 9 },
        { GroupINFO, { SubInfo_CMD_RESPONSE, GroupSub_Modify_Type }, 10 },
        { MESSAGE_INFO, { MESSAGE_NORMAL }, 11 },
        { MESSAGE_INFO, { MESSAGE_PRESENCE }, 12 },
        { MESSAGE_INFO, { MESSAGE_MODYFY_STATUS }, 13 },
        { MESSAGE_INFO, { MESSAGE_MODYFY_CLIENT_STATUS }, 14 },
        { FriendCMD, { FriendSub_Add }, 15 },
        { FriendInfo, { FriendSubInfo_Accept }, 16 },
        { FriendCMD, { FriendSub_Del }, 17 },
        { FriendCMD, { FriendSub_List }, 18 },
        { FriendInfo, { FriendSubInfo_List }, 19 },
        { FriendCMD, { FriendSub_SetPro }, 20 },
        { RemoteDesktopCMD, { RemoteDesktopSub_ReqCtl }, 21 },
        { RemoteDesktopINFO, { RemoteDesktopSubInfo_ReqCtl }, 22 },
        { RemoteDesktopCMD, { RemoteDesktopSub_ReqBeCtl }, 23 },
        { RemoteDesktopINFO, { RemoteDesktopSubInfo_ReqBeCtl }, 24 },
        { HistoryINFO, { HistorySubInfo_List }, 25 },
        { HistoryINFO, { HistorySubInfo_Converstaion }, 26 },
        { HistoryINFO, { HistorySubInfo_Converstaion_Detail }, 27 },
        // Complete chains that no handler takes.
        { GroupCMD, { GroupSub_Create }, -1 },
        { GroupCMD, { GroupSub_Refresh }, -1 },
        { GroupINFO, { SubInfo_NORMAL, GroupSub_Refresh }, -1 },
        { FriendInfo, { FriendSubInfo_Del }, -1 },
        { HistoryCMD, { HistorySub_List }, -1 },
        { HistoryCMD, { HistorySub_Converstaion_Detail }, -1 },
    };
    return cases;
}

#endif // PUSHCHAT_TESTS_DISPATCHCASES_H
