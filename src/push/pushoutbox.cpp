#include "pushoutbox.h"

#include <algorithm>
#include <utility>

namespace {
// MQTT message ids are 16 bits; stay well clear of a wrap-around while a
// tracked id is still waiting for its acknowledgement.
constexpr std::size_t kMaxTrackedMessages = 65000;
} // namespace

PushOutbox::PushOutbox(std::size_t maxMessages, std::size_t maxBytes)
    : m_maxMessages(std::min(maxMessages, kMaxTrackedMessages)), m_maxBytes(maxBytes)
{ }

std::size_t PushOutbox::sizeOf(const Request &request)
{
    std::size_t size = request.topic.size() + request.payload.size();
    for (const std::string &filter : request.filters)
        size += filter.size();
    return size;
}

bool PushOutbox::hasRoomFor(std::size_t bytes) const
{
    return m_queued.size() + m_inFlight.size() < m_maxMessages && bytes <= m_maxBytes && m_bytes <= m_maxBytes - bytes;
}

bool PushOutbox::enqueue(Request request)
{
    const std::size_t size = sizeOf(request);
    if (!hasRoomFor(size))
        return false;
    m_bytes += size;
    m_queued.push_back(std::move(request));
    return true;
}

void PushOutbox::popFront()
{
    m_bytes -= sizeOf(m_queued.front());
    m_queued.pop_front();
}

void PushOutbox::clearQueued()
{
    while (!m_queued.empty())
        popFront();
}

void PushOutbox::trackInFlight(int mid, std::size_t bytes, std::uint64_t ticket)
{
    auto [it, inserted] = m_inFlight.emplace(mid, InFlight{ bytes, ticket });
    if (!inserted) {
        // Same id still tracked: the old one can no longer be told apart.
        m_bytes -= it->second.bytes;
        it->second = { bytes, ticket };
    }
    m_bytes += bytes;
}

std::uint64_t PushOutbox::acknowledge(int mid)
{
    auto it = m_inFlight.find(mid);
    if (it == m_inFlight.end())
        return 0;
    const std::uint64_t ticket = it->second.ticket;
    m_bytes -= it->second.bytes;
    m_inFlight.erase(it);
    return ticket;
}

int PushOutbox::answered(int mid)
{
    const auto it = m_requests.find(mid);
    if (it == m_requests.end())
        return -1;
    const int qos = it->second;
    m_requests.erase(it);
    return qos;
}
