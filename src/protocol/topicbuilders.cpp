// Topic builders: command topics from the grammar rows, plain message
// topics, and the subscription list of a user.
//
// JIDs are byte strings here as everywhere in the protocol layer: they are
// put into topics as the bytes they are, so a UTF-8 JID gives a UTF-8 topic.
// The command and message builders refuse a JID that fails the JID check
// (jid.h): no wildcard, '/' or control character reaches a published topic.

#include "mqttmesaageprotocol.h"

#include "jid.h"

#include <algorithm>
#include <cstring>

namespace {

// Stands for the JID in the templates. '<' and '>' cannot occur in a JID.
constexpr const char *kPlaceholder = "<jid>";

constexpr const char *kReceiveTemplates[] = {
    "m/i/<jid>/#",
    "s/g/i/<jid>/#",
    "s/g/c/<jid>/#",
    "s/c/c/<jid>/#",
    "s/c/i/<jid>/#",
    "s/f/c/<jid>/#",
    "s/f/i/<jid>/#",
    "s/r/c/<jid>/#",
    "s/r/i/<jid>/#",
    "s/h/i/<jid>/#",
};
constexpr const char *kNoticeSubscription = "m/ntc/#";
constexpr const char *kSendToTemplate = "m/i/<jid>/#";
constexpr const char *kDeviceTemplate = "m/<jid>/deviceId/#";
constexpr const char *kSyncTemplate = "m/<jid>/sync/#";
constexpr const char *kFreshGroupTemplate = "s/g/c/<jid>/#f";

// The pattern fragments that command topics are built from.
constexpr const char *kJidGroup = "([\\s\\S]*@[\\s\\S]*)";
constexpr const char *kAnyGroup = "([\\s\\S]*)";

constexpr unsigned int kMaxSubCodes = 5;

// Every occurrence of the placeholder replaced by `jid`, in one pass: text
// inserted from the JID is never searched again.
std::string fillTemplate(const char *tmpl, const std::string &jid)
{
    std::string out;
    const std::size_t tokenLength = std::strlen(kPlaceholder);
    for (const char *p = tmpl; *p != '\0';) {
        if (std::strncmp(p, kPlaceholder, tokenLength) == 0) {
            out += jid;
            p += tokenLength;
        } else {
            out += *p++;
        }
    }
    return out;
}

std::string singleTopic(const char *tmpl, const std::string &jid)
{
    std::string out = fillTemplate(tmpl, jid);
    out.erase(std::remove(out.begin(), out.end(), '#'), out.end());
    return out;
}

bool replaceFirst(std::string &text, const char *fragment, const std::string &by)
{
    const std::size_t at = text.find(fragment);
    if (at == std::string::npos)
        return false;
    text.replace(at, std::strlen(fragment), by);
    return true;
}

const ProtocolHead *findRow(const ProtocolHead *table, int code)
{
    for (int i = 1; i <= table[0].code; ++i) {
        if (table[i].code == code)
            return &table[i];
    }
    return nullptr;
}

} // namespace

bool MqttMesaageProtocol::fromSysProtocol(const char *jidText, unsigned int count, ...)
{
    va_list codes;
    va_start(codes, count);
    const bool result = vfromSysProtocol(jidText, count, codes);
    va_end(codes);
    return result;
}

bool MqttMesaageProtocol::vfromSysProtocol(const char *jidText, unsigned int count, va_list codes)
{
    if (count == 0)
        return false;
    const int family = va_arg(codes, int);
    if (family == 0)
        return false;
    int subCodes[kMaxSubCodes] = {};
    unsigned int m = 0;
    for (unsigned int i = 1; i < count && m < kMaxSubCodes; ++i) {
        const int c = va_arg(codes, int);
        if (c == 0)
            break;
        subCodes[m++] = c;
    }

    const std::string target = jidText != nullptr ? jidText : "";
    jid = target;
    if (Jid::check(target) != Jid::Problem::None)
        return false;

    const ProtocolHead *row = findRow(protocolHeadALL, family);
    if (row == nullptr)
        return false;
    if (row->levels != 0 && m != unsigned(row->levels - 1))
        return false; // one sub-command per level below the family

    std::string text = row->pattern;
    if (!replaceFirst(text, kJidGroup, target))
        return false; // "MESSAGE" and "SYSTEM" address no JID

    bool lettered = false;
    for (unsigned int k = 0; k < m; ++k) {
        const ProtocolHead *sub = row->subHeads[k];
        const ProtocolHead *subRow = sub != nullptr ? findRow(sub, subCodes[k]) : nullptr;
        if (subRow != nullptr && replaceFirst(text, kAnyGroup, subRow->pattern))
            lettered = true;
    }
    if (!lettered)
        return false;
    return fromTopic(text.c_str());
}

bool MqttMesaageProtocol::fromMessageProtocol(const char *jidText, const char *tail)
{
    if (Jid::check(jidText != nullptr ? jidText : "") != Jid::Problem::None)
        return false;
    std::string text = "m/";
    text += jidText != nullptr ? jidText : "";
    text += '/';
    if (tail != nullptr)
        text += tail;
    return fromTopic(text.c_str());
}

std::list<std::string> MqttMesaageProtocol::getRecieveTopic(std::string jidText)
{
    std::list<std::string> topics;
    for (const char *tmpl : kReceiveTemplates)
        topics.push_back(fillTemplate(tmpl, jidText));
    topics.push_back(kNoticeSubscription);
    return topics;
}

std::string MqttMesaageProtocol::getSendToTopic(std::string jidText)
{
    return singleTopic(kSendToTemplate, jidText);
}

std::string MqttMesaageProtocol::getDeviceTopic(QString jidText)
{
    return singleTopic(kDeviceTemplate, jidText.toStdString());
}

std::string MqttMesaageProtocol::getSyncMessageTopic(QString jidText)
{
    return singleTopic(kSyncTemplate, jidText.toStdString());
}

std::string MqttMesaageProtocol::getFreshGroupTopic(QString jidText)
{
    return singleTopic(kFreshGroupTemplate, jidText.toStdString());
}
