// Friend commands: a request, its acceptance and the end of a friendship go
// to the peer; a friend's properties and a page of the friend list are
// asked of the server. Each is one enciphered system message at QoS 2.

#include "messageprivate.h"

#include "compactjson.h"

#include <QJsonObject>

bool MessagePrivate::addFriend(const QString &ignored, QString peer, const QString &text)
{
    Q_UNUSED(ignored)
    return sendToPeer(FriendCMD, FriendSub_Add, peer, text);
}

bool MessagePrivate::acceptFriend(const QString &ignored, QString peer, const QString &text)
{
    Q_UNUSED(ignored)
    return sendToPeer(FriendInfo, FriendSubInfo_Accept, peer, text);
}

bool MessagePrivate::delFriend(const QString &ignored, QString peer, const QString &text)
{
    Q_UNUSED(ignored)
    return sendToPeer(FriendCMD, FriendSub_Del, peer, text);
}

bool MessagePrivate::setFriendPropoties(const QString &ignored, QString peer, const QString &text)
{
    Q_UNUSED(ignored)
    // The server stores the properties: its topic, the friend as receiver.
    return sendCommand(serverJid(), completeJid(peer), FriendCMD, FriendSub_SetPro, text);
}

bool MessagePrivate::listFriends(int type, int count, const QString &lastFriendId)
{
    const QJsonObject page{ { QStringLiteral("type"), type }, { QStringLiteral("count"), count },
        { QStringLiteral("last_friend_id"), lastFriendId } };
    return sendSystemRequest(FriendCMD, FriendSub_List, CompactJson::text(page));
}
