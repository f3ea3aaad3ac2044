#include "pushtopicrestorer.h"

#include <algorithm>

namespace {

// A dotted filter as a broker that rewrites dots delivers it: '/' for '.'.
std::string slashed(std::string literal)
{
    std::replace(literal.begin(), literal.end(), '.', '/');
    return literal;
}

} // namespace

bool PushTopicRestorer::split(const std::string &filter, Known &known)
{
    known.tail = filter == "#" || (filter.size() >= 2 && filter.compare(filter.size() - 2, 2, "/#") == 0);
    known.literal =
        filter.substr(0, known.tail ? filter.size() - std::min<std::size_t>(filter.size(), 2) : filter.size());
    return !known.literal.empty() && known.literal.find_first_of("+#") == std::string::npos;
}

void PushTopicRestorer::hold(const std::vector<std::string> &filters)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const std::string &filter : filters) {
        Known known;
        if (!split(filter, known))
            continue;
        m_held[known.literal] = known.tail;
        if (known.literal.find('.') != std::string::npos)
            m_dotted[slashed(known.literal)] = known;
    }
}

void PushTopicRestorer::release(const std::vector<std::string> &filters)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const std::string &filter : filters) {
        Known known;
        if (!split(filter, known))
            continue;
        m_held.erase(known.literal);
        m_dotted.erase(slashed(known.literal));
    }
}

// Whether a held filter matches `topic` literally: the topic itself, or one
// of its level prefixes under a filter ending in "#".
bool PushTopicRestorer::holdsAsIs(const std::string &topic) const
{
    for (std::size_t end = topic.find('/'); end != std::string::npos; end = topic.find('/', end + 1)) {
        const auto it = m_held.find(topic.substr(0, end));
        if (it != m_held.end() && it->second)
            return true;
    }
    return m_held.count(topic) != 0;
}

bool PushTopicRestorer::restore(std::string &topic) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_dotted.empty())
        return false;
    // The longest level prefix that is a dotted filter read with separators.
    for (std::size_t end = topic.size(); end != std::string::npos && end > 0; end = topic.rfind('/', end - 1)) {
        const auto it = m_dotted.find(topic.substr(0, end));
        if (it == m_dotted.end() || (end < topic.size() && !it->second.tail))
            continue;
        if (holdsAsIs(topic))
            return false;
        topic.replace(0, end, it->second.literal);
        return true;
    }
    return false;
}
