#include "patternmatcher.h"

#include "mqttmesaageprotocol.h"

#include <cstring>

namespace {

constexpr std::string_view kAnyGroup = "([\\s\\S]*)";
constexpr std::string_view kAtGroup = "([\\s\\S]*@[\\s\\S]*)";

bool isMeta(char c)
{
    return std::strchr("\\^$.[]|()*+?{}", c) != nullptr;
}

bool hasAt(std::string_view text)
{
    return text.find('@') != std::string_view::npos;
}

} // namespace

const PatternMatcher::Compiled *PatternMatcher::grammarPattern(const char *pattern)
{
    static const std::unordered_map<const char *, Compiled> grammar = [] {
        std::unordered_map<const char *, Compiled> table;
        for (const ProtocolHead *rows : { protocolHeadALL, messageSubHead, groupCMDProtocolHead, groupInfoProtocolHead,
                 friendSubCmdProtocolHead, friendSubInfoProtocolHead, remoteDesktopSubCmdProtocolHead,
                 remoteDesktopSubInfoProtocolHead, HistorySubCmdProtocolHead, HistorySubInfoHead }) {
            for (int i = 0; i <= rows[0].code; ++i) {
                Compiled c = compile(rows[i].pattern);
                if (c.shaped) // only stateless matchers may be shared between threads
                    table.emplace(rows[i].pattern, std::move(c));
            }
        }
        return table;
    }();
    const auto it = grammar.find(pattern);
    return it == grammar.end() ? nullptr : &it->second;
}

PatternMatcher &PatternMatcher::forThisThread()
{
    thread_local PatternMatcher matcher;
    return matcher;
}

PatternMatcher::Compiled PatternMatcher::compile(const char *pattern)
{
    Compiled c;
    c.text = pattern;
    const std::string_view rest(pattern);
    std::size_t pos = 0;
    while (pos < rest.size() && !isMeta(rest[pos]))
        ++pos;
    c.prefix = std::string(rest.substr(0, pos));

    // prefix (group separator)* group, every separator non-empty literal text
    c.shaped = true;
    while (pos < rest.size()) {
        Group g{};
        if (rest.compare(pos, kAtGroup.size(), kAtGroup) == 0) {
            g.needsAt = true;
            pos += kAtGroup.size();
        } else if (rest.compare(pos, kAnyGroup.size(), kAnyGroup) == 0) {
            pos += kAnyGroup.size();
        } else {
            c.shaped = false;
            break;
        }
        const std::size_t literal = pos;
        while (pos < rest.size() && !isMeta(rest[pos]))
            ++pos;
        g.separator = std::string(rest.substr(literal, pos - literal));
        const bool last = pos == rest.size();
        if (last != g.separator.empty()) {
            c.shaped = false; // two groups in a row, or literal text at the end
            break;
        }
        c.groups.push_back(std::move(g));
    }
    if (!c.shaped) {
        c.groups.clear();
        c.fallback = QRegExp(QStringLiteral("^(?:") + QString::fromLatin1(pattern) + QLatin1Char(')'),
            Qt::CaseSensitive, QRegExp::RegExp);
    }
    return c;
}

PatternMatcher::Compiled &PatternMatcher::compiled(const char *pattern)
{
    auto it = m_cache.find(pattern);
    if (it == m_cache.end() || it->second.text != pattern)
        it = m_cache.insert_or_assign(pattern, compile(pattern)).first;
    return it->second;
}

// Greedy backtracking over the groups: each group first takes the longest
// span after which the rest can still match. A group that must hold "@"
// and has none in its longest span cannot hold one in a shorter span, so
// the search stops there; every other failure leaves at most a few spans to
// try, so the cost stays linear in the subject.
bool PatternMatcher::matchGroups(const std::vector<Group> &groups, std::string_view text, std::size_t pos,
    std::size_t index, std::vector<std::string_view> &out)
{
    const Group &g = groups[index];
    if (index + 1 == groups.size()) {
        const std::string_view span = text.substr(pos);
        if (g.needsAt && !hasAt(span))
            return false;
        out[index] = span;
        return true;
    }
    std::size_t end = text.rfind(g.separator);
    while (end != std::string_view::npos && end >= pos) {
        const std::string_view span = text.substr(pos, end - pos);
        if (g.needsAt && !hasAt(span))
            return false;
        if (matchGroups(groups, text, end + g.separator.size(), index + 1, out)) {
            out[index] = span;
            return true;
        }
        if (end == 0)
            break;
        end = text.rfind(g.separator, end - 1);
    }
    return false;
}

bool PatternMatcher::matchShaped(const Compiled &c, std::string_view subject, PatternCaptures &captures)
{
    if (subject.compare(0, c.prefix.size(), c.prefix) != 0)
        return false;
    if (c.groups.empty())
        return true;
    captures.groups.resize(c.groups.size());
    return matchGroups(c.groups, subject, c.prefix.size(), 0, captures.groups);
}

bool PatternMatcher::matchAtStart(const char *pattern, std::string_view subject, PatternCaptures &captures)
{
    captures.groups.clear();
    captures.storage.clear();
    if (const Compiled *grammar = grammarPattern(pattern))
        return matchShaped(*grammar, subject, captures);

    Compiled &c = forThisThread().compiled(pattern);
    if (c.shaped)
        return matchShaped(c, subject, captures);
    if (subject.compare(0, c.prefix.size(), c.prefix) != 0)
        return false;
    const QString text = QString::fromLatin1(subject.data(), int(subject.size()));
    if (c.fallback.indexIn(text, 0, QRegExp::CaretAtZero) != 0)
        return false;
    const int n = c.fallback.captureCount();
    captures.storage.reserve(std::size_t(n));
    for (int k = 1; k <= n; ++k)
        captures.storage.push_back(c.fallback.cap(k).toLatin1().toStdString());
    for (const std::string &s : captures.storage)
        captures.groups.emplace_back(s);
    return true;
}
