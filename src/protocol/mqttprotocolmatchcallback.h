#ifndef PUSHCHAT_MQTTPROTOCOLMATCHCALLBACK_H
#define PUSHCHAT_MQTTPROTOCOLMATCHCALLBACK_H

// The handlers that command dispatch calls, one per recognised command.
//
// MQTTMessage::startMatchSys calls exactly one of these for a message whose
// command chain it recognises. The message pointer is valid only during the
// call: a handler that needs the data later copies it. Handlers run on the
// thread that dispatches (the push client's delivery thread in the engine).
//
// The 28 operations occupy virtual slots 0 to 27 in declaration order, so
// the destructor is not virtual: implementations are never deleted through
// this interface.

class MQTTMessage;

class MQTTProtocolMatchCallback {
public:
    // Group rooms.
    virtual void SysGroupCreated(MQTTMessage *msg) = 0;
    virtual void SysGroupReleased(MQTTMessage *msg) = 0;
    virtual void SysGroupInvited(MQTTMessage *msg) = 0;
    virtual void SysGroupKicked(MQTTMessage *msg) = 0;
    virtual void SysGroupNameChanged(MQTTMessage *msg) = 0;
    virtual void SysGroupExited(MQTTMessage *msg) = 0;
    virtual void SysGroupQueryed(MQTTMessage *msg) = 0;
    virtual void SysGroupJoined(MQTTMessage *msg) = 0;
    virtual void SysGroupRefreshed(MQTTMessage *msg) = 0;
    virtual void SysGroupSetCreater(MQTTMessage *msg) = 0;
    virtual void SysGroupModifyType(MQTTMessage *msg) = 0;
    // Chat messages.
    virtual void messageReceive(MQTTMessage *msg) = 0;
    virtual void messagePresenceIn(MQTTMessage *msg) = 0;
    virtual void messageModifyStatus(MQTTMessage *msg) = 0;
    virtual void messageModifyClientStatus(MQTTMessage *msg) = 0;
    // Friends.
    virtual void FriendAdded(MQTTMessage *msg) = 0;
    virtual void FriendAccepted(MQTTMessage *msg) = 0;
    virtual void FriendDeleted(MQTTMessage *msg) = 0;
    virtual void FriendListRequest(MQTTMessage *msg) = 0;
    virtual void FriendListIncoming(MQTTMessage *msg) = 0;
    virtual void setFriendPropoties(MQTTMessage *msg) = 0;
    // Remote desktop.
    virtual void RemoteDesktopControlRequest(MQTTMessage *msg) = 0;
    virtual void RemoteDesktopControlResponse(MQTTMessage *msg) = 0;
    virtual void RemoteDesktopBeControlRequest(MQTTMessage *msg) = 0;
    virtual void RemoteDesktopBeControlResponse(MQTTMessage *msg) = 0;
    // History.
    virtual void historyMessageResponse(MQTTMessage *msg) = 0;
    virtual void historyMessageConvResonse(MQTTMessage *msg) = 0;
    virtual void historyMessageConvDetailResonse(MQTTMessage *msg) = 0;

protected:
    ~MQTTProtocolMatchCallback() = default;
};

#endif // PUSHCHAT_MQTTPROTOCOLMATCHCALLBACK_H
