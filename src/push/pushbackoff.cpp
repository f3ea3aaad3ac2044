#include "pushbackoff.h"

#include <algorithm>

PushBackoff::PushBackoff(std::chrono::milliseconds minimum, std::chrono::milliseconds maximum)
    : minimum_(std::max(minimum, std::chrono::milliseconds(1))), maximum_(std::max(maximum, minimum_)),
      current_(minimum_), random_(std::random_device{}())
{ }

std::chrono::milliseconds PushBackoff::next()
{
    const auto full = current_;
    current_ = std::min(current_ * 2, maximum_);
    std::uniform_int_distribution<long long> spread(full.count() - full.count() / 2, full.count());
    return std::chrono::milliseconds(spread(random_));
}

void PushBackoff::reset()
{
    current_ = minimum_;
}
