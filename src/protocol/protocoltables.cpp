// The ten grammar tables of the push channel's command topics.
//
// Row 0 of every table is its count row: "xx" pattern, code = number of real
// rows. In the top table a family row's capture group 1 is the JID; its
// further groups are resolved by the sub-tables named in subHeads.

#include "mqttmesaageprotocol.h"

#define ANY "([\\s\\S]*)"
#define JID "([\\s\\S]*@[\\s\\S]*)"
#define NO_SUB                                                                                                         \
    {                                                                                                                  \
        nullptr, nullptr, nullptr, nullptr, nullptr                                                                    \
    }

const ProtocolHead messageSubHead[5] = {
    { 4, "MESSAGE_SUB_MAX", "xx", 0, NO_SUB, nullptr },
    { MESSAGE_NORMAL, "MESSAGE_NORMAL", "n", 0, NO_SUB, nullptr },
    { MESSAGE_PRESENCE, "MESSAGE_PRESENCE", "d", 0, NO_SUB, nullptr },
    { MESSAGE_MODYFY_STATUS, "MESSAGE_MODYFY_STATUS", "m", 0, NO_SUB, nullptr },
    { MESSAGE_MODYFY_CLIENT_STATUS, "MESSAGE_MODYFY_CLIENT_STATUS", "c", 0, NO_SUB, nullptr },
};

const ProtocolHead groupCMDProtocolHead[12] = {
    { 11, "GroupSub_MAX", "xx", 0, NO_SUB, nullptr },
    { GroupSub_Create, "GroupSub_Create", "c", 0, NO_SUB, nullptr },
    { GroupSub_Release, "GroupSub_Release", "r", 0, NO_SUB, nullptr },
    { GroupSub_Invite, "GroupSub_Invite", "i", 0, NO_SUB, nullptr },
    { GroupSub_Kick, "GroupSub_Kick", "k", 0, NO_SUB, nullptr },
    { GroupSub_SetGroupName, "GroupSub_SetGroupName", "s", 0, NO_SUB, nullptr },
    { GroupSub_Exit, "GroupSub_Exit", "e", 0, NO_SUB, nullptr },
    { GroupSub_Query, "GroupSub_Query", "q", 0, NO_SUB, nullptr },
    { GroupSub_Join, "GroupSub_Join", "j", 0, NO_SUB, nullptr },
    { GroupSub_SetRoomCreater, "GroupSub_SetRoomCreater", "g", 0, NO_SUB, nullptr },
    { GroupSub_Refresh, "GroupSub_Refresh", "f", 0, NO_SUB, nullptr },
    { GroupSub_Modify_Type, "GroupSub_Modify_Type", "m", 0, NO_SUB, nullptr },
};

const ProtocolHead groupInfoProtocolHead[3] = {
    { 2, "SubInfo_MAX", "xx", 0, NO_SUB, nullptr },
    { SubInfo_CMD_RESPONSE, "SubInfo_CMD_RESPONSE", "r", 0, NO_SUB, nullptr },
    { SubInfo_NORMAL, "SubInfo_NORMAL", "o", 0, NO_SUB, nullptr },
};

const ProtocolHead friendSubCmdProtocolHead[5] = {
    { 4, "FriendSub_MAX", "xx", 0, NO_SUB, nullptr },
    { FriendSub_Add, "FriendSub_Add", "a", 0, NO_SUB, nullptr },
    { FriendSub_Del, "FriendSub_Del", "d", 0, NO_SUB, nullptr },
    { FriendSub_List, "FriendSub_List", "l", 0, NO_SUB, nullptr },
    { FriendSub_SetPro, "FriendSub_SetPro", "s", 0, NO_SUB, nullptr },
};

const ProtocolHead friendSubInfoProtocolHead[4] = {
    { 3, "FriendSubInfo_MAX", "xx", 0, NO_SUB, nullptr },
    { FriendSubInfo_Accept, "FriendSubInfo_Accept", "a", 0, NO_SUB, nullptr },
    { FriendSubInfo_Del, "FriendSubInfo_Del", "d", 0, NO_SUB, nullptr },
    { FriendSubInfo_List, "FriendSubInfo_List", "l", 0, NO_SUB, nullptr },
};

const ProtocolHead remoteDesktopSubCmdProtocolHead[3] = {
    { 2, "RemoteDesktopSub_MAX", "xx", 0, NO_SUB, nullptr },
    { RemoteDesktopSub_ReqCtl, "RemoteDesktopSub_ReqCtl", "c", 0, NO_SUB, nullptr },
    { RemoteDesktopSub_ReqBeCtl, "RemoteDesktopSub_ReqBeCtl", "b", 0, NO_SUB, nullptr },
};

const ProtocolHead remoteDesktopSubInfoProtocolHead[3] = {
    { 2, "RemoteDesktopSubInfo_MAX", "xx", 0, NO_SUB, nullptr },
    { RemoteDesktopSubInfo_ReqCtl, "RemoteDesktopSubInfo_ReqCtl", "c", 0, NO_SUB, nullptr },
    { RemoteDesktopSubInfo_ReqBeCtl, "RemoteDesktopSubInfo_ReqBeCtl", "b", 0, NO_SUB, nullptr },
};

const ProtocolHead HistorySubCmdProtocolHead[4] = {
    { 3, "HistorySub_MAX", "xx", 0, NO_SUB, nullptr },
    { HistorySub_List, "HistorySub_List", "l", 0, NO_SUB, nullptr },
    { HistorySub_Converstaion, "HistorySub_Converstaion", "c", 0, NO_SUB, nullptr },
    { HistorySub_Converstaion_Detail, "HistorySub_Converstaion_Detail", "vd", 0, NO_SUB, nullptr },
};

const ProtocolHead HistorySubInfoHead[4] = {
    { 3, "HistorySubInfo_MAX", "xx", 0, NO_SUB, nullptr },
    { HistorySubInfo_List, "HistorySubInfo_List", "l", 0, NO_SUB, nullptr },
    { HistorySubInfo_Converstaion, "HistorySubInfo_Converstaion", "c", 0, NO_SUB, nullptr },
    { HistorySubInfo_Converstaion_Detail, "HistorySubInfo_Converstaion_Detail", "vd", 0, NO_SUB, nullptr },
};

#define SUB1(t)                                                                                                        \
    {                                                                                                                  \
        t, nullptr, nullptr, nullptr, nullptr                                                                          \
    }
#define SUB2(t, u)                                                                                                     \
    {                                                                                                                  \
        t, u, nullptr, nullptr, nullptr                                                                                \
    }

const ProtocolHead protocolHeadALL[14] = {
    { 13, "Protocol_MAX", "xx", 0, NO_SUB, nullptr },
    { MESSAGE, "MESSAGE", "m/" ANY, 0, NO_SUB, nullptr },
    { MESSAGE_INFO, "MESSAGE_INFO", "m/i/" JID "/" ANY, 2, SUB1(messageSubHead), nullptr },
    { SYSTEM, "SYSTEM", "s/" ANY, 0, NO_SUB, nullptr },
    { GroupCMD, "GroupCMD", "s/g/c/" JID "/" ANY, 2, SUB1(groupCMDProtocolHead), nullptr },
    { GroupINFO, "GroupINFO", "s/g/i/" JID "/" ANY "/" ANY, 3, SUB2(groupInfoProtocolHead, groupCMDProtocolHead),
        nullptr },
    { ConferenceCMD, "ConferenceCMD", "s/c/c/" JID "/" ANY, 2, NO_SUB, nullptr },
    { ConferenceINFO, "ConferenceINFO", "s/c/i/" JID "/" ANY, 2, NO_SUB, nullptr },
    { FriendCMD, "FriendCMD", "s/f/c/" JID "/" ANY, 2, SUB1(friendSubCmdProtocolHead), nullptr },
    { FriendInfo, "FriendInfo", "s/f/i/" JID "/" ANY, 2, SUB1(friendSubInfoProtocolHead), nullptr },
    { RemoteDesktopCMD, "RemoteDesktopCMD", "s/r/c/" JID "/" ANY, 2, SUB1(remoteDesktopSubCmdProtocolHead), nullptr },
    { RemoteDesktopINFO, "RemoteDesktopINFO", "s/r/i/" JID "/" ANY, 2, SUB1(remoteDesktopSubInfoProtocolHead),
        nullptr },
    { HistoryCMD, "HistoryCMD", "s/h/c/" JID "/" ANY, 2, SUB1(HistorySubCmdProtocolHead), nullptr },
    { HistoryINFO, "HistoryINFO", "s/h/i/" JID "/" ANY, 2, SUB1(HistorySubInfoHead), nullptr },
};
