// The virtual slot of every operation of the callback and handler
// interfaces. Applications and the push library are built against these
// positions, so moving, adding or removing a virtual operation breaks them
// even though everything still compiles.
//
// Under the Itanium C++ ABI (gcc and clang on Linux) a pointer to a virtual
// member function holds 1 + slot * sizeof(void *) in its first word. Each
// pointer is taken with its exact type, so a changed argument list fails
// to compile.

#include "imeventreciever.h"
#include "mqttprotocolmatchcallback.h"
#include "pushclient.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

namespace {

/// The vtable slot of `pmf`, or -1 when it names a non-virtual function.
template <typename Pmf>
long slotOf(Pmf pmf)
{
    static_assert(sizeof(Pmf) == 2 * sizeof(void *), "Itanium member function pointer");
    std::uintptr_t word;
    std::memcpy(&word, &pmf, sizeof word);
    if ((word & 1) == 0)
        return -1;
    return long((word - 1) / sizeof(void *));
}

using CStr = const char *;

} // namespace

TEST(CallbackSlots, ImEventReciever)
{
    using R = ImEventReciever;
    EXPECT_EQ(slotOf<void (R::*)()>(&R::onConnected), 2);
    EXPECT_EQ(slotOf<void (R::*)()>(&R::onDisconnected), 3);
    EXPECT_EQ((slotOf<void (R::*)(QString, QString, QString, int, int, QString, QString, bool)>(
                      &R::onMessageReceive)),
              4);
    EXPECT_EQ(slotOf<void (R::*)(CStr)>(&R::onHistoryMessages), 5);
    EXPECT_EQ(slotOf<void (R::*)(CStr)>(&R::onConversations), 6);
    EXPECT_EQ(slotOf<void (R::*)(CStr)>(&R::onConversationDetail), 7);
    EXPECT_EQ((slotOf<void (R::*)(QString, QString)>(&R::onPresence)), 8);
    EXPECT_EQ((slotOf<void (R::*)(QString, QString, int)>(&R::onMessageStatusModified)), 9);
    EXPECT_EQ((slotOf<void (R::*)(QString, QString, QString)>(&R::onFriendAdded)), 10);
    EXPECT_EQ((slotOf<void (R::*)(QString, QString, int)>(&R::onFriendAccepted)), 11);
    EXPECT_EQ((slotOf<void (R::*)(QString, QString, int)>(&R::onFriendDeleted)), 12);
    EXPECT_EQ(slotOf<void (R::*)(CStr)>(&R::onFriendList), 13);
    EXPECT_EQ((slotOf<void (R::*)(CStr, CStr, CStr)>(&R::onRemoteDesktopControlRequest)), 14);
    EXPECT_EQ((slotOf<void (R::*)(CStr, CStr, CStr)>(&R::onRemoteDesktopControlResponse)), 15);
    EXPECT_EQ((slotOf<void (R::*)(CStr, CStr, CStr)>(&R::onRemoteDesktopBeControlRequest)), 16);
    EXPECT_EQ((slotOf<void (R::*)(CStr, CStr, CStr)>(&R::onRemoteDesktopBeControlResponse)), 17);
}

TEST(CallbackSlots, ImMUCEventReciever)
{
    using R = ImMUCEventReciever;
    EXPECT_EQ(slotOf<void (R::*)(QString)>(&R::onRoomListRefreshed), 2);
    EXPECT_EQ((slotOf<void (R::*)(Room &, GroupSubCmd)>(&R::onRoomChanged)), 3);
}

TEST(CallbackSlots, ImContactEventReciever)
{
    using R = ImContactEventReciever;
    EXPECT_EQ((slotOf<void (R::*)(QString, QString, QString)>(&R::onSubscribeRequest)), 7);
    EXPECT_EQ((slotOf<void (R::*)(QString, QString, bool, bool, QStringList)>(&R::onContactInfo)), 8);
    EXPECT_EQ(slotOf<void (R::*)(QString)>(&R::onOwnerVCard), 9);
}

TEST(CallbackSlots, MQTTProtocolMatchCallbackInDeclarationOrder)
{
    using C = MQTTProtocolMatchCallback;
    using Handler = void (C::*)(MQTTMessage *);
    const Handler handlers[] = {
        &C::SysGroupCreated,
        &C::SysGroupReleased,
        &C::SysGroupInvited,
        &C::SysGroupKicked,
        &C::SysGroupNameChanged,
        &C::SysGroupExited,
        &C::SysGroupQueryed,
        &C::SysGroupJoined,
        &C::SysGroupRefreshed,
        &C::SysGroupSetCreater,
        &C::SysGroupModifyType,
        &C::messageReceive,
        &C::messagePresenceIn,
        &C::messageModifyStatus,
        &C::messageModifyClientStatus,
        &C::FriendAdded,
        &C::FriendAccepted,
        &C::FriendDeleted,
        &C::FriendListRequest,
        &C::FriendListIncoming,
        &C::setFriendPropoties,
        &C::RemoteDesktopControlRequest,
        &C::RemoteDesktopControlResponse,
        &C::RemoteDesktopBeControlRequest,
        &C::RemoteDesktopBeControlResponse,
        &C::historyMessageResponse,
        &C::historyMessageConvResonse,
        &C::historyMessageConvDetailResonse,
    };
    static_assert(sizeof(handlers) / sizeof(handlers[0]) == 28);
    for (long i = 0; i < 28; ++i)
        EXPECT_EQ(slotOf(handlers[i]), i) << "handler " << i;
}

TEST(CallbackSlots, PushEventReciever)
{
    using R = PushEventReciever;
    EXPECT_EQ((slotOf<void (R::*)(char *, char *)>(&R::messgeRecieved)), 0);
    EXPECT_EQ((slotOf<void (R::*)(int, char *, void *, int, int, bool)>(&R::messgeRecievedMore)), 1);
    EXPECT_EQ(slotOf<void (R::*)(bool)>(&R::connectStatus), 2);
}
