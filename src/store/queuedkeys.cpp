#include "queuedkeys.h"

bool QueuedKeys::contains(std::uint64_t digest, const StoredMessage &message) const
{
    const auto [first, last] = m_identities.equal_range(digest);
    for (auto at = first; at != last; ++at)
        if (at->second == message)
            return true;
    return false;
}

bool QueuedKeys::add(std::uint64_t digest, const StoredMessage &message)
{
    if (contains(digest, message))
        return false;
    m_identities.emplace(digest, Identity{ message.conversation, message.sender, message.key });
    return true;
}

void QueuedKeys::remove(std::uint64_t digest, const StoredMessage &message)
{
    const auto [first, last] = m_identities.equal_range(digest);
    for (auto at = first; at != last; ++at) {
        if (at->second == message) {
            m_identities.erase(at);
            return;
        }
    }
}
