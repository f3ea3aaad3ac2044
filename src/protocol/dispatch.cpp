// Command dispatch: the topic of an outgoing command, and the handler of an
// incoming one.

#include "mqttmessage.h"

#include "pushchatlog.h"

#include <iterator>

namespace {

using Handler = void (MQTTProtocolMatchCallback::*)(MQTTMessage *);

struct Route {
    unsigned int count;
    int codes[4];
    Handler handler;
    const char *label; // written to the trace before the call; may be null
};

// Tried in order; the first route whose codes the chain is a prefix of wins.
// Group routes differ only in their last code.
const Route kRoutes[] = {
    { 4, { SYSTEM, GroupINFO, SubInfo_CMD_RESPONSE, GroupSub_Refresh }, &MQTTProtocolMatchCallback::SysGroupRefreshed,
        nullptr },
    { 4, { SYSTEM, GroupINFO, SubInfo_CMD_RESPONSE, GroupSub_Join }, &MQTTProtocolMatchCallback::SysGroupJoined,
        nullptr },
    { 4, { SYSTEM, GroupINFO, SubInfo_CMD_RESPONSE, GroupSub_Query }, &MQTTProtocolMatchCallback::SysGroupQueryed,
        nullptr },
    { 4, { SYSTEM, GroupINFO, SubInfo_CMD_RESPONSE, GroupSub_Exit }, &MQTTProtocolMatchCallback::SysGroupExited,
        nullptr },
    { 4, { SYSTEM, GroupINFO, SubInfo_CMD_RESPONSE, GroupSub_SetGroupName },
        &MQTTProtocolMatchCallback::SysGroupNameChanged, nullptr },
    { 4, { SYSTEM, GroupINFO, SubInfo_CMD_RESPONSE, GroupSub_Kick }, &MQTTProtocolMatchCallback::SysGroupKicked,
        nullptr },
    { 4, { SYSTEM, GroupINFO, SubInfo_CMD_RESPONSE, GroupSub_Invite }, &MQTTProtocolMatchCallback::SysGroupInvited,
        nullptr },
    { 4, { SYSTEM, GroupINFO, SubInfo_CMD_RESPONSE, GroupSub_Create }, &MQTTProtocolMatchCallback::SysGroupCreated,
        nullptr },
    { 4, { SYSTEM, GroupINFO, SubInfo_CMD_RESPONSE, GroupSub_Release }, &MQTTProtocolMatchCallback::SysGroupReleased,
        nullptr },
    { 4, { SYSTEM, GroupINFO, SubInfo_CMD_RESPONSE, GroupSub_SetRoomCreater },
        &MQTTProtocolMatchCallback::SysGroupSetCreater, nullptr },
    { 4, { SYSTEM, GroupINFO, SubInfo_CMD_RESPONSE, GroupSub_Modify_Type },
        &MQTTProtocolMatchCallback::SysGroupModifyType, nullptr },
    { 3, { MESSAGE, MESSAGE_INFO, MESSAGE_NORMAL }, &MQTTProtocolMatchCallback::messageReceive, nullptr },
    { 3, { MESSAGE, MESSAGE_INFO, MESSAGE_PRESENCE }, &MQTTProtocolMatchCallback::messagePresenceIn, nullptr },
    { 3, { MESSAGE, MESSAGE_INFO, MESSAGE_MODYFY_STATUS }, &MQTTProtocolMatchCallback::messageModifyStatus, nullptr },
    { 3, { MESSAGE, MESSAGE_INFO, MESSAGE_MODYFY_CLIENT_STATUS }, &MQTTProtocolMatchCallback::messageModifyClientStatus,
        nullptr },
    { 3, { SYSTEM, FriendCMD, FriendSub_Add }, &MQTTProtocolMatchCallback::FriendAdded, "FriendCMD" },
    { 3, { SYSTEM, FriendInfo, FriendSubInfo_Accept }, &MQTTProtocolMatchCallback::FriendAccepted,
        "FriendSubInfo_Accept" },
    { 3, { SYSTEM, FriendCMD, FriendSub_Del }, &MQTTProtocolMatchCallback::FriendDeleted, "FriendDel" },
    { 3, { SYSTEM, FriendCMD, FriendSub_List }, &MQTTProtocolMatchCallback::FriendListRequest,
        "FriendCMD FriendSub_List" },
    { 3, { SYSTEM, FriendInfo, FriendSubInfo_List }, &MQTTProtocolMatchCallback::FriendListIncoming,
        "FriendCMD FriendSubInfo_List" },
    { 3, { SYSTEM, FriendCMD, FriendSub_SetPro }, &MQTTProtocolMatchCallback::setFriendPropoties,
        "FriendCMD FriendSub_SetPro" },
    { 3, { SYSTEM, RemoteDesktopCMD, RemoteDesktopSub_ReqCtl }, &MQTTProtocolMatchCallback::RemoteDesktopControlRequest,
        "RemoteDesktopCMD RemoteDesktopSub_ReqCtl" },
    { 3, { SYSTEM, RemoteDesktopCMD, RemoteDesktopSub_ReqBeCtl },
        &MQTTProtocolMatchCallback::RemoteDesktopBeControlRequest, "RemoteDesktopCMD RemoteDesktopSub_ReqBeCtl" },
    { 3, { SYSTEM, RemoteDesktopINFO, RemoteDesktopSubInfo_ReqCtl },
        &MQTTProtocolMatchCallback::RemoteDesktopControlResponse, "RemoteDesktopINFO RemoteDesktopSubInfo_ReqCtl" },
    { 3, { SYSTEM, RemoteDesktopINFO, RemoteDesktopSubInfo_ReqBeCtl },
        &MQTTProtocolMatchCallback::RemoteDesktopBeControlResponse, nullptr },
    { 3, { SYSTEM, HistoryINFO, HistorySubInfo_List }, &MQTTProtocolMatchCallback::historyMessageResponse,
        "HistoryINFO HistorySubInfo_HistorySubInfo_List" },
    { 3, { SYSTEM, HistoryINFO, HistorySubInfo_Converstaion }, &MQTTProtocolMatchCallback::historyMessageConvResonse,
        "HistoryINFO HistorySubInfo_Converstaion" },
    { 3, { SYSTEM, HistoryINFO, HistorySubInfo_Converstaion_Detail },
        &MQTTProtocolMatchCallback::historyMessageConvDetailResonse, "HistoryINFO HistorySubInfo_Converstaion_Detail" },
};
static_assert(std::size(kRoutes) == 28, "one route per handler");

} // namespace

bool MQTTMessage::setSysProtocol(const char *jid, unsigned int count, ...)
{
    PUSHCHAT_TRACE(lcProtocol, "setSysProtocol") << (jid != nullptr ? jid : "");
    va_list codes;
    va_start(codes, count);
    const bool result = protocol.vfromSysProtocol(jid, count, codes);
    va_end(codes);
    return result;
}

bool MQTTMessage::matchSysProtocol(unsigned int count, ...)
{
    va_list codes;
    va_start(codes, count);
    const bool result = protocol.vmactchSysProtocol(count, codes);
    va_end(codes);
    return result;
}

bool MQTTMessage::fromTopic(const char *topic, const char *data)
{
    topicText = topic != nullptr ? topic : "";
    if (!protocol.fromTopic(topicText.c_str())) {
        PUSHCHAT_TRACE(lcProtocol, "fromTopic") << "return  false";
        return false;
    }
    parsedOk = protocol.valid;
    if (protocol.code == MESSAGE) {
        PUSHCHAT_TRACE(lcProtocol, "fromTopic") << "MESSAGE";
        if (!protocol.valid)
            return false;
        parsedOk = parseMessage(data);
        return parsedOk;
    }
    if (protocol.code == SYSTEM) {
        PUSHCHAT_TRACE(lcProtocol, "fromTopic") << "SYSTEM";
        parsedOk = parseMessage(data);
        return parsedOk;
    }
    return false; // the count row: nothing to read
}

bool MQTTMessage::startMatchSys(MQTTProtocolMatchCallback *callback)
{
    if (callback == nullptr)
        return false;
    for (const Route &route : kRoutes) {
        if (!protocol.matchCodes(route.codes, route.count))
            continue;
        if (route.label != nullptr)
            PUSHCHAT_TRACE(lcProtocol, "startMatchSys") << route.label;
        (callback->*route.handler)(this);
        return true;
    }
    qCDebug(lcProtocol).noquote().nospace() << "ERROR: ["
                                            << "startMatchSys"
                                            << "]"
                                            << ": "
                                            << "UnMactched:" << QString::fromStdString(topicText);
    return false;
}
