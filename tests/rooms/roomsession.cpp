#include "roomsession.h"

using namespace kit;

namespace {

// Sends `text` to alice and waits until she has it.
bool delivered(RoomServerPeer &peer, RecordingApp &app, const QString &text)
{
    peer.sendMessage(QStringLiteral("bob@d"), "alice@d", text);
    return app.waitFor([&](const AppState &r) {
        for (const Delivery &m : r.messages)
            if (m.body == text)
                return true;
        return false;
    });
}

} // namespace

void RoomSession::SetUp()
{
    ASSERT_TRUE(broker.start()) << broker.log();
    ASSERT_TRUE(peer.connect(broker.host(), broker.port())) << broker.log();
    lib = std::make_unique<Message_lib>(&app, &app, "device-1", "test device");
    ASSERT_EQ(login(*lib, broker, "alice", 5, "d"), 1);
    ASSERT_TRUE(app.waitFor([](const AppState &r) { return r.connected >= 1; })) << broker.log();
    ASSERT_TRUE(peer.waitForRequests(1));
}

void RoomSession::TearDown()
{
    lib.reset(); // before the broker and the callbacks go
}

QString RoomSession::nextMark()
{
    return QStringLiteral("mark-%1").arg(++marks_);
}

void RoomSession::fence()
{
    ASSERT_TRUE(delivered(peer, app, nextMark()));
}

void RoomSession::sync()
{
    fence();
    const std::size_t before = peer.requests().size();
    ASSERT_EQ(lib->engine()->refreshGroupList(), 1);
    ASSERT_TRUE(peer.waitForRequests(before + 1));
}

bool RoomSession::roomMessageArrives(const std::string &roomJid)
{
    sync();
    const QString text = nextMark();
    peer.sendMessage(QStringLiteral("bob@d"), roomJid, text);
    // Published after it by the same client: once this has arrived, the
    // room message has arrived too, or never will.
    EXPECT_TRUE(delivered(peer, app, nextMark()));
    for (const Delivery &m : app.state().messages)
        if (m.body == text)
            return m.to == QString::fromStdString(roomJid);
    return false;
}
