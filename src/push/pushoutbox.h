#ifndef PUSHOUTBOX_H
#define PUSHOUTBOX_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <unordered_map>
#include <vector>

// What a client has accepted and the broker has not yet confirmed:
//  - requests made while the link is down, kept in order until the next
//    CONNACK;
//  - QoS 1/2 publications handed to libmosquitto, by message id, until their
//    PUBACK/PUBCOMP (libmosquitto keeps and resends those itself).
// Both count against one bound in messages and in bytes (topic + payload).
// SUBSCRIBE and UNSUBSCRIBE packets sent are also tracked until their answer,
// outside the bound (they are the owner's, not the application's, and
// libmosquitto drops them when the link goes down).
// Not thread-safe: the owner guards it.
class PushOutbox {
public:
    struct Request {
        enum class Kind {
            Publish,
            Subscribe,
            Unsubscribe
        };
        Kind kind;
        std::string topic;   // Publish
        std::string payload; // Publish
        int qos;
        std::vector<std::string> filters; // Subscribe, Unsubscribe: one packet
        std::uint64_t ticket = 0;         // Publish: the owner's, told back at its acknowledgement
    };

    PushOutbox(std::size_t maxMessages, std::size_t maxBytes);

    bool hasRoomFor(std::size_t bytes) const;
    // Queues a request for the next connection; false (nothing queued) when
    // the bound would be exceeded.
    bool enqueue(Request request);
    bool hasQueued() const { return !m_queued.empty(); }
    const Request &front() const { return m_queued.front(); }
    void popFront();
    void clearQueued();

    // A QoS 1/2 publication libmosquitto now holds under this message id.
    void trackInFlight(int mid, std::size_t bytes, std::uint64_t ticket = 0);
    // Broker acknowledged mid: its ticket (0 for none, and for unknown ids).
    std::uint64_t acknowledge(int mid);
    bool hasInFlight() const { return !m_inFlight.empty(); }

    // A SUBSCRIBE (at `qos`) or UNSUBSCRIBE (-1) sent under mid, until
    // answered or forgotten; answered() gives back its level, or -1.
    void trackRequest(int mid, int qos = -1) { m_requests[mid] = qos; }
    int answered(int mid);
    // The link went down: requests sent on it will never be answered.
    void forgetRequests() { m_requests.clear(); }

    // Everything pending: queued, in flight, and requests not yet answered.
    std::size_t count() const { return m_queued.size() + m_inFlight.size() + m_requests.size(); }
    std::size_t bytes() const { return m_bytes; }

    static std::size_t sizeOf(const Request &request);

private:
    std::size_t m_maxMessages;
    std::size_t m_maxBytes;
    std::size_t m_bytes = 0;
    std::deque<Request> m_queued;
    struct InFlight {
        std::size_t bytes;
        std::uint64_t ticket;
    };
    std::unordered_map<int, InFlight> m_inFlight;
    std::unordered_map<int, int> m_requests; // mid -> level asked for
};

#endif // PUSHOUTBOX_H
