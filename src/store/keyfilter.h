#ifndef PUSHCHAT_KEYFILTER_H
#define PUSHCHAT_KEYFILTER_H

// KeyFilter: which message keys the store may hold, in a few bits each
// (internal header).
//
// A Bloom filter: mayContain() is false only for a key never added, so a
// key it clears needs no lookup in the file; one it passes may still be
// new. Sized for `expected` keys at about one false pass in a hundred;
// beyond that it passes more keys, and stays right. Not thread-safe.

#include <QString>

#include <cstdint>
#include <string_view>
#include <vector>

class KeyFilter {
public:
    explicit KeyFilter(std::size_t expected = 0);

    /// The digest of a message's identity: its conversation, sender and
    /// key, in UTF-8 (as the store holds them) or as strings.
    static std::uint64_t digest(std::string_view conversation, std::string_view sender, std::string_view key);
    static std::uint64_t digest(const QString &conversation, const QString &sender, const QString &key);
    /// The digest of a key alone. Stores keep it (see storeschema.h): it
    /// must never change.
    static std::uint64_t digest(std::string_view key);

    void add(std::uint64_t digest);
    bool mayContain(std::uint64_t digest) const;

private:
    std::vector<std::uint64_t> m_bits;
};

#endif // PUSHCHAT_KEYFILTER_H
