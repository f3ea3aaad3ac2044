#ifndef FAULTKIT_H
#define FAULTKIT_H

// The fault runs' kit: fast reconnection, a counter of numbered messages
// ("n <i>") that tells what was lost and what came twice, a sender that
// applies back-pressure, and a user logged in with them.

#include "enginetestkit.h"

#include <cstdio>

namespace kit {

using namespace std::chrono_literals;

inline PushClientOptions fast(std::size_t maxPending = 1000)
{
    return { 20ms, 200ms, maxPending, 1 << 24, 1s, {}, {}, {}, {} };
}

/// Counts numbered bodies "n <i>" delivered to a façade or a push client,
/// and keeps the last other text (a presence as "from|body").
class Counter : public ImEventReciever, public PushEventReciever {
public:
    explicit Counter(int size = 0) : m_seen(std::size_t(size)) { }
    std::atomic<int> connects{ 0 }, disconnects{ 0 };
    void onConnected() override { ++connects; }
    void onDisconnected() override { ++disconnects; }
    void connectStatus(bool up) override { ++(up ? connects : disconnects); }
    void onMessageReceive(Q, Q, Q body, int, int, Q, Q, bool) override { count(body.toStdString()); }
    void onPresence(Q from, Q body) override { count(fields(from, body)); }
    void messgeRecievedMore(int, char *, void *payload, int length, int, bool) override
    {
        count(std::string(static_cast<const char *>(payload), std::size_t(length)));
    }
    void onConversations(S json) override { count(json); }
    std::string other() const { return locked(m_other); }
    int distinct() const { return locked(m_distinct); }
    /// Waits for n distinct messages while more keep coming (`stall` at most between two).
    void waitFor(int n, std::chrono::milliseconds stall = 5s) const
    {
        for (int before = -1; before != distinct() && !eventually([&] { return distinct() >= n; }, stall);)
            before = distinct();
    }
    /// Prints and returns the numbers below `sent` (`accepted` ones only) that
    /// never arrived, and how many arrived twice.
    std::pair<std::vector<int>, int> tally(const char *run, int sent, const std::vector<bool> &accepted = {}) const
    {
        std::vector<int> lost;
        int delivered = 0, duplicated = 0;
        for (int i = 0; i < sent; ++i) {
            const int n = locked(m_seen[std::size_t(i)]);
            if (n == 0 && (accepted.empty() || accepted[std::size_t(i)]))
                lost.push_back(i);
            delivered += n > 0;
            duplicated += std::max(0, n - 1);
        }
        std::printf(
            "%s: sent %d, delivered %d, lost %zu, duplicated %d\n", run, sent, delivered, lost.size(), duplicated);
        return { lost, duplicated };
    }

private:
    template <class T> T locked(const T &value) const { return std::lock_guard<std::mutex>(m_mutex), value; }
    void count(const std::string &text)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        char *end = nullptr;
        const long i = text.compare(0, 2, "n ") == 0 ? std::strtol(text.c_str() + 2, &end, 10) : -1;
        if (i >= 0 && std::size_t(i) < m_seen.size() && *end == '\0')
            m_distinct += m_seen[std::size_t(i)]++ == 0;
        else
            m_other = text;
    }
    mutable std::mutex m_mutex;
    std::vector<int> m_seen;
    int m_distinct = 0;
    std::string m_other;
};
inline const std::pair<std::vector<int>, int> kNoneLost{};

inline int send(Message_lib &from, const char *to, int i)
{
    return from.sendTextMessageTo("", to, 5, QString("n %1").arg(i), BODY_TYPE_DEFAULT, false, "k", "st");
}

/// Sends "n 0" .. "n <count - 1>", each again after 1 ms while the outbox
/// refuses it (the back-pressure an application applies); `accepted` counts.
inline void sendAll(Message_lib &from, const char *to, int count, std::atomic<int> *accepted = nullptr)
{
    for (int i = 0; i < count; ++i) {
        while (send(from, to, i) == 0)
            std::this_thread::sleep_for(1ms);
        if (accepted)
            *accepted = i + 1;
    }
}

/// A façade of `name` logged in at `port` whose subscriptions are in force.
struct User {
    Counter side;
    Message_lib lib;
    User(const char *name, int size, int port, PushClientOptions options = fast(), int maxQos = 2)
        : side(size), lib(&side, nullptr, std::string("dev-") + name, name)
    {
        lib.setPushClientOptions(options);
        lib.setMaxQos(maxQos);
        EXPECT_TRUE(lib.registerToImServer("127.0.0.1", port, name, {}, 5, "im.test", {}) == 1 &&
                    eventually([&] { return side.connects > 0 && lib.engine()->pendingCount() == 0; }));
    }
};

} // namespace kit

#endif // FAULTKIT_H
