// Remote-desktop signalling: the two requests and two replies sent to a
// peer, and the handlers that hand the incoming ones to the application.
// The bodies are the applications' free text.

#include "messageprivate.h"

#include "pushchatlog.h"

bool MessagePrivate::remoteDesktopControl(QString ignored, QString peer, QString body)
{
    Q_UNUSED(ignored)
    return sendToPeer(RemoteDesktopCMD, RemoteDesktopSub_ReqCtl, peer, body);
}

bool MessagePrivate::remoteDesktopBeControl(QString ignored, QString peer, QString body)
{
    Q_UNUSED(ignored)
    return sendToPeer(RemoteDesktopCMD, RemoteDesktopSub_ReqBeCtl, peer, body);
}

bool MessagePrivate::remoteDesktopControlReply(QString ignored, QString peer, QString body)
{
    Q_UNUSED(ignored)
    return sendToPeer(RemoteDesktopINFO, RemoteDesktopSubInfo_ReqCtl, peer, body);
}

bool MessagePrivate::remoteDesktopBeControlReply(QString ignored, QString peer, QString body)
{
    Q_UNUSED(ignored)
    return sendToPeer(RemoteDesktopINFO, RemoteDesktopSubInfo_ReqBeCtl, peer, body);
}

void MessagePrivate::RemoteDesktopControlRequest(MQTTMessage *msg)
{
    PUSHCHAT_TRACE(lcEngine, "RemoteDesktopControlRequest") << "topic:" << msg->topicText.c_str();
    if (imReciever != nullptr)
        imReciever->onRemoteDesktopControlRequest(msg->from.c_str(), msg->to.c_str(), msg->body.c_str());
}

void MessagePrivate::RemoteDesktopControlResponse(MQTTMessage *msg)
{
    PUSHCHAT_TRACE(lcEngine, "RemoteDesktopControlResponse") << "topic:" << msg->topicText.c_str();
    if (imReciever != nullptr)
        imReciever->onRemoteDesktopControlResponse(msg->from.c_str(), msg->to.c_str(), msg->body.c_str());
}

void MessagePrivate::RemoteDesktopBeControlRequest(MQTTMessage *msg)
{
    PUSHCHAT_TRACE(lcEngine, "RemoteDesktopBeControlRequest") << "topic:" << msg->topicText.c_str();
    if (imReciever != nullptr)
        imReciever->onRemoteDesktopBeControlRequest(msg->from.c_str(), msg->to.c_str(), msg->body.c_str());
}

void MessagePrivate::RemoteDesktopBeControlResponse(MQTTMessage *msg)
{
    PUSHCHAT_TRACE(lcEngine, "RemoteDesktopBeControlResponse") << "topic:" << msg->topicText.c_str();
    if (imReciever != nullptr)
        imReciever->onRemoteDesktopBeControlResponse(msg->from.c_str(), msg->to.c_str(), msg->body.c_str());
}
