#include "pushduplicatefilter.h"

#include <functional>
#include <string_view>

namespace {

// FNV-1a, 64 bits, continued over several pieces.
std::uint64_t fnv1a(std::uint64_t hash, std::string_view bytes)
{
    for (const char c : bytes) {
        hash ^= static_cast<unsigned char>(c);
        hash *= 0x100000001b3ULL;
    }
    return hash;
}

} // namespace

PushDuplicateFilter::Digest PushDuplicateFilter::digestOf(const std::string &topic, const std::string &payload)
{
    // Two unrelated 64-bit hashes: an accidental match of both between two
    // different messages is out of reach for any realistic window.
    const std::uint64_t fnv = fnv1a(fnv1a(0xcbf29ce484222325ULL, topic), std::string_view("\0", 1));
    const std::size_t t = std::hash<std::string_view>()(topic);
    const std::size_t p = std::hash<std::string_view>()(payload);
    return { fnv1a(fnv, payload), (t * 0x9e3779b97f4a7c15ULL) ^ p ^ payload.size() };
}

void PushDuplicateFilter::expire(Clock::time_point now)
{
    while (!m_order.empty() && (m_order.size() > kMaxEntries || now - m_order.front().at > kMaxAge)) {
        const auto it = m_seen.find(m_order.front().digest);
        if (--it->second.count == 0)
            m_seen.erase(it);
        m_order.pop_front();
    }
}

bool PushDuplicateFilter::repeated(
    const std::string &topic, const std::string &payload, std::uint64_t connection, Clock::time_point now)
{
    expire(now);
    const Digest digest = digestOf(topic, payload);
    const auto [it, fresh] = m_seen.try_emplace(digest, Seen{ connection, 0 });
    if (!fresh && it->second.firstConnection < connection)
        return true;
    ++it->second.count;
    m_order.push_back({ digest, now });
    expire(now);
    return false;
}
