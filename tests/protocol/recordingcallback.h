#ifndef PUSHCHAT_TESTS_RECORDINGCALLBACK_H
#define PUSHCHAT_TESTS_RECORDINGCALLBACK_H

// A handler set that records which slot each dispatched message reached,
// with a copy of its envelope. Thread-safe, so a push client's delivery
// thread can feed it while the test thread waits.

#include "mqttmessage.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

struct DispatchRecord {
    int slot;
    std::string topic;
    std::string from, to, body, messageKey, stamp;
    int secLevel, bodyType, msgType;
    bool encrypted;
};

class RecordingCallback : public MQTTProtocolMatchCallback {
public:
    virtual ~RecordingCallback() = default;

    std::vector<DispatchRecord> records() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return records_;
    }

    /// Waits until at least `n` records arrived or `timeout` passed.
    bool waitFor(std::size_t n, std::chrono::milliseconds timeout) const
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] { return records_.size() >= n; });
    }

#define PUSHCHAT_RECORD_SLOT(name, index) \
    void name(MQTTMessage *msg) override { record(index, msg); }
    PUSHCHAT_RECORD_SLOT(SysGroupCreated, 0)
    PUSHCHAT_RECORD_SLOT(SysGroupReleased, 1)
    PUSHCHAT_RECORD_SLOT(SysGroupInvited, 2)
    PUSHCHAT_RECORD_SLOT(SysGroupKicked, 3)
    PUSHCHAT_RECORD_SLOT(SysGroupNameChanged, 4)
    PUSHCHAT_RECORD_SLOT(SysGroupExited, 5)
    PUSHCHAT_RECORD_SLOT(SysGroupQueryed, 6)
    PUSHCHAT_RECORD_SLOT(SysGroupJoined, 7)
    PUSHCHAT_RECORD_SLOT(SysGroupRefreshed, 8)
    PUSHCHAT_RECORD_SLOT(SysGroupSetCreater, 9)
    PUSHCHAT_RECORD_SLOT(SysGroupModifyType, 10)
    PUSHCHAT_RECORD_SLOT(messageReceive, 11)
    PUSHCHAT_RECORD_SLOT(messagePresenceIn, 12)
    PUSHCHAT_RECORD_SLOT(messageModifyStatus, 13)
    PUSHCHAT_RECORD_SLOT(messageModifyClientStatus, 14)
    PUSHCHAT_RECORD_SLOT(FriendAdded, 15)
    PUSHCHAT_RECORD_SLOT(FriendAccepted, 16)
    PUSHCHAT_RECORD_SLOT(FriendDeleted, 17)
    PUSHCHAT_RECORD_SLOT(FriendListRequest, 18)
    PUSHCHAT_RECORD_SLOT(FriendListIncoming, 19)
    PUSHCHAT_RECORD_SLOT(setFriendPropoties, 20)
    PUSHCHAT_RECORD_SLOT(RemoteDesktopControlRequest, 21)
    PUSHCHAT_RECORD_SLOT(RemoteDesktopControlResponse, 22)
    PUSHCHAT_RECORD_SLOT(RemoteDesktopBeControlRequest, 23)
    PUSHCHAT_RECORD_SLOT(RemoteDesktopBeControlResponse, 24)
    PUSHCHAT_RECORD_SLOT(historyMessageResponse, 25)
    PUSHCHAT_RECORD_SLOT(historyMessageConvResonse, 26)
    PUSHCHAT_RECORD_SLOT(historyMessageConvDetailResonse, 27)
#undef PUSHCHAT_RECORD_SLOT

private:
    void record(int slot, MQTTMessage *m)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        records_.push_back({ slot, m->topicText, m->from, m->to, m->body, m->messageKey, m->stamp,
                             m->secLevel, m->bodyType, m->msgType, m->encrypted });
        changed_.notify_all();
    }

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<DispatchRecord> records_;
};

#endif // PUSHCHAT_TESTS_RECORDINGCALLBACK_H
