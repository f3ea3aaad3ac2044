#ifndef PUSHCHAT_QUEUEDKEYS_H
#define PUSHCHAT_QUEUEDKEYS_H

// QueuedKeys: the identities of the messages being written (conversation,
// sender, key), found by their digest (KeyFilter::digest) and compared in
// full, so that two identities with one digest stay apart. Internal
// header; not thread-safe.

#include "storedmessage.h"

#include <QString>

#include <cstdint>
#include <unordered_map>

class QueuedKeys {
public:
    bool contains(std::uint64_t digest, const StoredMessage &message) const;
    /// Adds the message's identity; false, and nothing added, when it is
    /// there already.
    bool add(std::uint64_t digest, const StoredMessage &message);
    void remove(std::uint64_t digest, const StoredMessage &message);

private:
    struct Identity {
        QString conversation, sender, key;
        bool operator==(const StoredMessage &m) const
        {
            return key == m.key && conversation == m.conversation && sender == m.sender;
        }
    };
    std::unordered_multimap<std::uint64_t, Identity> m_identities;
};

#endif // PUSHCHAT_QUEUEDKEYS_H
