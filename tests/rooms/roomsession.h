#ifndef ROOMSESSION_H
#define ROOMSESSION_H

// Fixture of the room tests over a real broker: user alice (domain d)
// logged in through Message_lib, and a peer playing the server server@d.
// SetUp returns once alice is online and her room-list request has reached
// the peer (request 0).

#include "enginetestkit.h"
#include "roomserverpeer.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

class RoomSession : public ::testing::Test {
protected:
    static constexpr const char *kUserJid = "alice@d";
    static constexpr const char *kServerJid = "server@d";

    void SetUp() override;
    void TearDown() override;

    /// Every event sent so far has been handled by the engine (a chat
    /// message sent after them has arrived).
    void fence();
    /// And every subscription change those handlers made has reached the
    /// broker (a request the engine sends after them has arrived).
    void sync();
    /// Whether a message published now on the room's topic reaches alice.
    bool roomMessageArrives(const std::string &roomJid);
    /// Sends an event to alice.
    void sendEvent(GroupSubCmd cmd, const QString &body) { peer.sendEvent(kUserJid, cmd, body); }
    QList<std::string> subscribedRooms() const { return lib->engine()->subscribedRoomJids(); }

    MosquittoBroker broker;
    RoomServerPeer peer{ kServerJid };
    kit::RecordingApp app;
    std::unique_ptr<Message_lib> lib;

private:
    QString nextMark();
    int marks_ = 0;
};

#endif // ROOMSESSION_H
