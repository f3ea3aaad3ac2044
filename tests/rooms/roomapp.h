#ifndef ROOMAPP_H
#define ROOMAPP_H

// The application in room tests: records every callback it receives, from
// whatever thread, and lets the test wait for a condition on the records.

#include "imeventreciever.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

class RoomApp : public ImEventReciever, public ImMUCEventReciever {
public:
    struct Message {
        QString from;
        QString to;
        QString body;
        int bodyType;
        int msgType;
        QString key;
        QString stamp;
        bool readable;
    };
    struct RoomChange {
        int cmd;
        std::string room; // Room::toString of the room handed over
    };
    /// The records so far.
    struct Records {
        bool connected = false;
        std::vector<Message> messages;
        std::vector<RoomChange> roomChanges;
        std::vector<QString> roomLists;
    };

    /// Runs inside onRoomChanged before it is recorded (set before login).
    std::function<void(Room &, GroupSubCmd)> roomChangedHook;

    void onConnected() override
    {
        update([](Records &r) { r.connected = true; });
    }
    void onMessageReceive(QString from, QString to, QString body, int bodyType, int msgType, QString key,
                          QString stamp, bool readable) override
    {
        update([&](Records &r) { r.messages.push_back({ from, to, body, bodyType, msgType, key, stamp, readable }); });
    }
    void onRoomListRefreshed(QString json) override
    {
        update([&](Records &r) { r.roomLists.push_back(json); });
    }
    void onRoomChanged(Room &room, GroupSubCmd cmd) override
    {
        if (roomChangedHook)
            roomChangedHook(room, cmd);
        const std::string text = room.toString();
        update([&](Records &r) { r.roomChanges.push_back({ cmd, text }); });
    }

    Records records() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return records_;
    }

    /// Waits (10 s at most) until `condition` holds for the records.
    bool waitFor(const std::function<bool(const Records &)> &condition)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(10), [&] { return condition(records_); });
    }

private:
    void update(const std::function<void(Records &)> &change)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        change(records_);
        changed_.notify_all();
    }

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    Records records_;
};

#endif // ROOMAPP_H
