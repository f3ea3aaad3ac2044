// Friend events: requests, acceptances and deletions from other users and
// the server's friend-list reply, handed to the application as they came.
// The flag of an acceptance or deletion is always 1.

#include "messageprivate.h"

#include "pushchatlog.h"

namespace {

QString text(const std::string &utf8)
{
    return QString::fromStdString(utf8);
}

constexpr int kFriendFlag = 1;

} // namespace

void MessagePrivate::FriendAdded(MQTTMessage *msg)
{
    PUSHCHAT_TRACE(lcEngine, "FriendAdded") << "topic:" << msg->topicText.c_str();
    if (imReciever != nullptr)
        imReciever->onFriendAdded(text(msg->from), text(msg->to), text(msg->body));
}

void MessagePrivate::FriendAccepted(MQTTMessage *msg)
{
    PUSHCHAT_TRACE(lcEngine, "FriendAccepted") << "topic:" << msg->topicText.c_str();
    if (imReciever != nullptr)
        imReciever->onFriendAccepted(text(msg->from), text(msg->to), kFriendFlag);
}

void MessagePrivate::FriendDeleted(MQTTMessage *msg)
{
    PUSHCHAT_TRACE(lcEngine, "FriendDeleted") << "topic:" << msg->topicText.c_str();
    if (imReciever != nullptr)
        imReciever->onFriendDeleted(text(msg->from), text(msg->to), kFriendFlag);
}

void MessagePrivate::FriendListRequest(MQTTMessage *msg)
{
    // Lists are the server's business: a request reaching a user is noted only.
    PUSHCHAT_TRACE(lcEngine, "FriendListRequest") << "body:" << msg->body.c_str();
}

void MessagePrivate::FriendListIncoming(MQTTMessage *msg)
{
    PUSHCHAT_TRACE(lcEngine, "FriendListIncoming") << "body:" << msg->body.c_str();
    if (imReciever != nullptr)
        imReciever->onFriendList(msg->body.c_str());
}

void MessagePrivate::setFriendPropoties(MQTTMessage *msg)
{
    // Properties are stored by the server; a property command reaching a
    // user has no effect.
    Q_UNUSED(msg)
}
