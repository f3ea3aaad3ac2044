#ifndef PUSHDUPLICATEFILTER_H
#define PUSHDUPLICATEFILTER_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <unordered_map>

// Recognises a transport redelivery: a message whose topic and payload bytes
// equal those of one delivered shortly before on an earlier connection of
// the session. A broker repeats a QoS 1/2 delivery only when a session
// resumes on a new connection (after it restarted, or a link lost between
// PUBLISH and its acknowledgement), never within one connection; so a
// delivery is compared only with those of earlier connections, and a live
// connection's deliveries always pass, also when two real messages are
// byte-identical (same text, key and stamp, and the cipher's one random
// byte alike).
//
// The window: the last kMaxEntries deliveries that are at most kMaxAge old.
// Messages are remembered by a 128-bit digest, not by their bytes, so the
// filter stays small (about 64 bytes per entry) whatever the payload sizes.
// Not thread-safe: the owner's delivery thread uses it.
class PushDuplicateFilter {
public:
    using Clock = std::chrono::steady_clock;
    static constexpr std::size_t kMaxEntries = 4096;
    static constexpr std::chrono::minutes kMaxAge{ 5 };

    // True when this message, delivered on connection number `connection`
    // (counted up by the owner at every new connection), repeats one
    // delivered within the window on an earlier connection; otherwise
    // remembers it and returns false.
    bool repeated(const std::string &topic, const std::string &payload, std::uint64_t connection,
        Clock::time_point now = Clock::now());
    std::size_t size() const { return m_order.size(); }

private:
    struct Digest {
        std::uint64_t first;
        std::uint64_t second;
        bool operator==(const Digest &other) const { return first == other.first && second == other.second; }
    };
    struct DigestHash {
        std::size_t operator()(const Digest &d) const { return static_cast<std::size_t>(d.first); }
    };
    struct Entry {
        Digest digest;
        Clock::time_point at;
    };
    struct Seen {
        std::uint64_t firstConnection; // where it was first delivered
        std::size_t count;             // its entries in m_order
    };

    static Digest digestOf(const std::string &topic, const std::string &payload);
    void expire(Clock::time_point now);

    std::deque<Entry> m_order;
    std::unordered_map<Digest, Seen, DigestHash> m_seen;
};

#endif // PUSHDUPLICATEFILTER_H
