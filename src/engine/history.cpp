// History over the push channel: the four requests to the server and the
// handlers of its three replies, whose bodies reach the application as
// they came.

#include "messageprivate.h"

#include "compactjson.h"

#include <QJsonDocument>
#include <QJsonObject>

void MessagePrivate::fetchConversations(MediaInfo::MessageType type, int page, int pageSize)
{
    const QJsonObject body{ { QStringLiteral("message_type"), int(type) }, { QStringLiteral("page"), page },
        { QStringLiteral("pagesize"), pageSize }, { QStringLiteral("my_sec_level"), securityLevel } };
    sendSystemRequest(HistoryCMD, HistorySub_Converstaion, CompactJson::text(body));
}

void MessagePrivate::getMsgByConvid(QString convId, int page, int pageSize)
{
    const QJsonObject body{ { QStringLiteral("page"), page }, { QStringLiteral("pagesize"), pageSize },
        { QStringLiteral("my_sec_level"), securityLevel }, { QStringLiteral("conv_id"), convId } };
    sendSystemRequest(HistoryCMD, HistorySub_Converstaion_Detail, CompactJson::text(body));
}

void MessagePrivate::startSyncMessage(QString msgUuid)
{
    const QJsonObject body{ { QStringLiteral("my_sec_level"), securityLevel },
        { QStringLiteral("msg_uuid"), msgUuid } };
    sendSystemRequest(HistoryCMD, HistorySub_List, CompactJson::text(body));
}

void MessagePrivate::startPullMessage(int pullType, int start, int count, QString msgUuid)
{
    const QJsonObject body{ { QStringLiteral("my_sec_level"), securityLevel }, { QStringLiteral("msg_uuid"), msgUuid },
        { QStringLiteral("pull_type"), pullType }, { QStringLiteral("start"), start },
        { QStringLiteral("count"), count } };
    sendSystemRequest(HistoryCMD, HistorySub_List, CompactJson::text(body));
}

void MessagePrivate::historyMessageResponse(MQTTMessage *msg)
{
    recordHistory(msg->body);
    if (imReciever != nullptr)
        imReciever->onHistoryMessages(msg->body.c_str());
}

void MessagePrivate::historyMessageConvResonse(MQTTMessage *msg)
{
    if (imReciever != nullptr)
        imReciever->onConversations(msg->body.c_str());
}

void MessagePrivate::historyMessageConvDetailResonse(MQTTMessage *msg)
{
    if (imReciever != nullptr)
        imReciever->onConversationDetail(msg->body.c_str());
}
