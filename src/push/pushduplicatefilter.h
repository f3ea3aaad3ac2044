#ifndef PUSHDUPLICATEFILTER_H
#define PUSHDUPLICATEFILTER_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <unordered_set>

// Recognises a transport redelivery: a message whose topic and payload bytes
// equal those of one delivered shortly before. A broker that restarts, or a
// link lost between PUBREC and PUBCOMP, can hand over the same QoS 1/2
// message again; payloads of real messages differ (each carries fresh
// random bytes), so a byte-identical repeat is the transport's artefact.
//
// The window: the last kMaxEntries deliveries that are at most kMaxAge old.
// Messages are remembered by a 128-bit digest, not by their bytes, so the
// filter stays small (about 64 bytes per entry) whatever the payload sizes.
// Not thread-safe: the owner's delivery thread uses it.
class PushDuplicateFilter
{
public:
    using Clock = std::chrono::steady_clock;
    static constexpr std::size_t kMaxEntries = 4096;
    static constexpr std::chrono::minutes kMaxAge{5};

    // True when this message repeats one seen within the window (it is not
    // remembered again); otherwise remembers it and returns false.
    bool repeated(const std::string& topic, const std::string& payload, Clock::time_point now = Clock::now());
    std::size_t size() const { return order_.size(); }

private:
    struct Digest
    {
        std::uint64_t first;
        std::uint64_t second;
        bool operator==(const Digest& other) const { return first == other.first && second == other.second; }
    };
    struct DigestHash
    {
        std::size_t operator()(const Digest& d) const { return static_cast<std::size_t>(d.first); }
    };
    struct Entry
    {
        Digest digest;
        Clock::time_point at;
    };

    static Digest digestOf(const std::string& topic, const std::string& payload);
    void expire(Clock::time_point now);

    std::deque<Entry> order_;
    std::unordered_set<Digest, DigestHash> seen_;
};

#endif // PUSHDUPLICATEFILTER_H
