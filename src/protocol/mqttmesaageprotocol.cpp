// Topic parser: topic text -> command chain, JID and validity.

#include "mqttmesaageprotocol.h"

#include "patternmatcher.h"

#include <QRegExp>

namespace {

constexpr unsigned int kMaxMatchCodes = 5;

// The recursive matcher. Topics are byte strings: captures are views into
// the text being parsed, and a JID keeps the bytes it had in the topic.
bool parseLevel(MqttMesaageProtocol &self, const ProtocolHead *table, std::string_view text, ProtocolHead **out,
    unsigned int first, unsigned int last)
{
    PatternCaptures captures;
    for (unsigned int i = first; i <= last; ++i) {
        const ProtocolHead &row = table[i];
        if (!PatternMatcher::matchAtStart(row.pattern, text, captures))
            continue;

        if (*out == nullptr)
            *out = new ProtocolHead{};
        ProtocolHead *node = *out;
        MqttMesaageProtocol::deleteProtocol(node->next);
        *node = row;
        node->next = nullptr;

        // A deeper row of the same table that matches the same whole text
        // refines this one ("SYSTEM" -> "GroupINFO", "MESSAGE" -> "MESSAGE_INFO").
        parseLevel(self, table, text, &node->next, i + 1, unsigned(table[0].code));

        if (node->next == nullptr) {
            ProtocolHead **slot = &node->next;
            for (std::size_t k = 1; k <= captures.groups.size(); ++k) {
                const std::string_view group = captures.groups[k - 1];
                if (group.find('@') != std::string_view::npos) {
                    self.jid = std::string(group);
                    continue;
                }
                const ProtocolHead *sub = k >= 2 ? row.subHeads[k - 2] : nullptr;
                if (sub == nullptr)
                    continue;
                if (!parseLevel(self, sub, group, slot, 0, unsigned(sub->code)))
                    break;
                slot = &(*slot)->next;
            }
        }
        break; // a matching row ends the scan of this level
    }
    return *out != nullptr && (*out)->code != 0;
}

} // namespace

MqttMesaageProtocol::MqttMesaageProtocol(const char *topicText) : ProtocolHead{}, valid(false)
{
    if (topicText != nullptr)
        fromTopic(topicText);
}

MqttMesaageProtocol::~MqttMesaageProtocol()
{
    deleteProtocol(next);
}

void MqttMesaageProtocol::resetHead()
{
    deleteProtocol(next);
    static_cast<ProtocolHead &>(*this) = ProtocolHead{};
}

bool MqttMesaageProtocol::fromTopic(const char *topicText)
{
    resetHead();
    topic = topicText != nullptr ? topicText : "";
    ProtocolHead *head = this;
    valid = parseLevel(*this, protocolHeadALL, topic, &head, 0, 3);
    if (valid && code == SYSTEM && subCount() < 2) {
        valid = false; // a system topic must name more than its family
        return false;
    }
    if (valid)
        valid = validePickVlaues(this);
    return valid;
}

bool MqttMesaageProtocol::parseTopic(
    const ProtocolHead *table, const char *text, ProtocolHead **out, unsigned int first, unsigned int last)
{
    if (table == nullptr || text == nullptr || out == nullptr)
        return false;
    return parseLevel(*this, table, std::string_view(text), out, first, last);
}

void MqttMesaageProtocol::deleteProtocol(ProtocolHead *node)
{
    while (node != nullptr) {
        ProtocolHead *rest = node->next;
        delete node;
        node = rest;
    }
}

bool MqttMesaageProtocol::mactchSysProtocol(unsigned int count, ...)
{
    va_list codes;
    va_start(codes, count);
    const bool result = vmactchSysProtocol(count, codes);
    va_end(codes);
    return result;
}

bool MqttMesaageProtocol::vmactchSysProtocol(unsigned int count, va_list codes)
{
    if (count > kMaxMatchCodes)
        return false; // more codes than a chain can have: a caller error
    int list[kMaxMatchCodes] = {};
    for (unsigned int i = 0; i < count; ++i)
        list[i] = va_arg(codes, int);
    return matchCodes(list, count);
}

bool MqttMesaageProtocol::matchCodes(const int *codes, unsigned int count) const
{
    if (count > kMaxMatchCodes)
        return false;
    int list[kMaxMatchCodes] = {};
    for (unsigned int i = 0; i < count; ++i) {
        list[i] = codes[i];
        if (codes[i] == 0)
            break; // codes after a 0 count as 0
    }
    const ProtocolHead *node = this;
    for (unsigned int p = 0; p < kMaxMatchCodes; ++p) {
        if (node->code != list[p])
            return false;
        if (node->next == nullptr)
            return true;
        node = node->next;
    }
    return false; // the chain is longer than any list of codes
}

bool MqttMesaageProtocol::parseMesageTopic(const char *topicText)
{
    // A search that finds at least one match is all the answer needs:
    // the greedy expressions make any further search from the end of the
    // first match find nothing.
    const QString text = QString::fromLatin1(topicText != nullptr ? topicText : "");
    if (parseSystemTopic(topicText))
        return true;
    QRegExp shortForm(QStringLiteral("m/(([\\s\\S]*)@([\\s\\S]*))/"), Qt::CaseSensitive, QRegExp::RegExp);
    return shortForm.indexIn(text) != -1;
}

bool MqttMesaageProtocol::parseSystemTopic(const char *topicText)
{
    const QString text = QString::fromLatin1(topicText != nullptr ? topicText : "");
    QRegExp longForm(QStringLiteral("m/(([\\s\\S]*)@([\\s\\S]*))/([\\s\\S]*)/"), Qt::CaseSensitive, QRegExp::RegExp);
    return longForm.indexIn(text) != -1;
}

unsigned int MqttMesaageProtocol::subCount() const
{
    return subHeadCount(this);
}

unsigned int MqttMesaageProtocol::subHeadCount(const ProtocolHead *node)
{
    unsigned int count = 0;
    for (; node != nullptr; node = node->next)
        ++count;
    return count;
}

bool MqttMesaageProtocol::validePickVlaues(const ProtocolHead *node)
{
    for (; node != nullptr; node = node->next) {
        if (node->levels != 0 && subHeadCount(node) != unsigned(node->levels))
            return false;
    }
    return true;
}

std::string MqttMesaageProtocol::getCmdDesc(const ProtocolHead *node)
{
    std::string desc;
    for (; node != nullptr; node = node->next) {
        desc += node->name != nullptr ? node->name : "";
        desc += '/';
    }
    return desc;
}

std::string MqttMesaageProtocol::getCmdDescribe() const
{
    return getCmdDesc(this);
}
