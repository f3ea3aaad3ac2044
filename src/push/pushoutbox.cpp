#include "pushoutbox.h"

#include <algorithm>
#include <utility>

namespace {
// MQTT message ids are 16 bits; stay well clear of a wrap-around while a
// tracked id is still waiting for its acknowledgement.
constexpr std::size_t kMaxTrackedMessages = 65000;
} // namespace

PushOutbox::PushOutbox(std::size_t maxMessages, std::size_t maxBytes)
    : maxMessages_(std::min(maxMessages, kMaxTrackedMessages)), maxBytes_(maxBytes)
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
    return queued_.size() + inFlight_.size() < maxMessages_ && bytes <= maxBytes_ && bytes_ <= maxBytes_ - bytes;
}

bool PushOutbox::enqueue(Request request)
{
    const std::size_t size = sizeOf(request);
    if (!hasRoomFor(size))
        return false;
    bytes_ += size;
    queued_.push_back(std::move(request));
    return true;
}

void PushOutbox::popFront()
{
    bytes_ -= sizeOf(queued_.front());
    queued_.pop_front();
}

void PushOutbox::clearQueued()
{
    while (!queued_.empty())
        popFront();
}

void PushOutbox::trackInFlight(int mid, std::size_t bytes, std::uint64_t ticket)
{
    auto [it, inserted] = inFlight_.emplace(mid, InFlight{ bytes, ticket });
    if (!inserted) {
        // Same id still tracked: the old one can no longer be told apart.
        bytes_ -= it->second.bytes;
        it->second = { bytes, ticket };
    }
    bytes_ += bytes;
}

std::uint64_t PushOutbox::acknowledge(int mid)
{
    auto it = inFlight_.find(mid);
    if (it == inFlight_.end())
        return 0;
    const std::uint64_t ticket = it->second.ticket;
    bytes_ -= it->second.bytes;
    inFlight_.erase(it);
    return ticket;
}

int PushOutbox::answered(int mid)
{
    const auto it = requests_.find(mid);
    if (it == requests_.end())
        return -1;
    const int qos = it->second;
    requests_.erase(it);
    return qos;
}
