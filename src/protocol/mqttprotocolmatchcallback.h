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
// this interface. Each operation does nothing by default: a handler set
// that leaves one alone ignores that command.

class MQTTMessage;

class MQTTProtocolMatchCallback {
public:
    // Group rooms.
    virtual void SysGroupCreated(MQTTMessage *msg) { (void)msg; }
    virtual void SysGroupReleased(MQTTMessage *msg) { (void)msg; }
    virtual void SysGroupInvited(MQTTMessage *msg) { (void)msg; }
    virtual void SysGroupKicked(MQTTMessage *msg) { (void)msg; }
    virtual void SysGroupNameChanged(MQTTMessage *msg) { (void)msg; }
    virtual void SysGroupExited(MQTTMessage *msg) { (void)msg; }
    virtual void SysGroupQueryed(MQTTMessage *msg) { (void)msg; }
    virtual void SysGroupJoined(MQTTMessage *msg) { (void)msg; }
    virtual void SysGroupRefreshed(MQTTMessage *msg) { (void)msg; }
    virtual void SysGroupSetCreater(MQTTMessage *msg) { (void)msg; }
    virtual void SysGroupModifyType(MQTTMessage *msg) { (void)msg; }
    // Chat messages.
    virtual void messageReceive(MQTTMessage *msg) { (void)msg; }
    virtual void messagePresenceIn(MQTTMessage *msg) { (void)msg; }
    virtual void messageModifyStatus(MQTTMessage *msg) { (void)msg; }
    virtual void messageModifyClientStatus(MQTTMessage *msg) { (void)msg; }
    // Friends.
    virtual void FriendAdded(MQTTMessage *msg) { (void)msg; }
    virtual void FriendAccepted(MQTTMessage *msg) { (void)msg; }
    virtual void FriendDeleted(MQTTMessage *msg) { (void)msg; }
    virtual void FriendListRequest(MQTTMessage *msg) { (void)msg; }
    virtual void FriendListIncoming(MQTTMessage *msg) { (void)msg; }
    virtual void setFriendPropoties(MQTTMessage *msg) { (void)msg; }
    // Remote desktop.
    virtual void RemoteDesktopControlRequest(MQTTMessage *msg) { (void)msg; }
    virtual void RemoteDesktopControlResponse(MQTTMessage *msg) { (void)msg; }
    virtual void RemoteDesktopBeControlRequest(MQTTMessage *msg) { (void)msg; }
    virtual void RemoteDesktopBeControlResponse(MQTTMessage *msg) { (void)msg; }
    // History.
    virtual void historyMessageResponse(MQTTMessage *msg) { (void)msg; }
    virtual void historyMessageConvResonse(MQTTMessage *msg) { (void)msg; }
    virtual void historyMessageConvDetailResonse(MQTTMessage *msg) { (void)msg; }

protected:
    ~MQTTProtocolMatchCallback() = default;
};

#endif // PUSHCHAT_MQTTPROTOCOLMATCHCALLBACK_H
