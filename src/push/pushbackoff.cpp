#include "pushbackoff.h"

#include <algorithm>

PushBackoff::PushBackoff(std::chrono::milliseconds minimum, std::chrono::milliseconds maximum)
    : m_minimum(std::max(minimum, std::chrono::milliseconds(1))), m_maximum(std::max(maximum, m_minimum)),
      m_current(m_minimum), m_random(std::random_device{}())
{ }

std::chrono::milliseconds PushBackoff::next()
{
    const auto full = m_current;
    m_current = std::min(m_current * 2, m_maximum);
    std::uniform_int_distribution<long long> spread(full.count() - full.count() / 2, full.count());
    return std::chrono::milliseconds(spread(m_random));
}

void PushBackoff::reset()
{
    m_current = m_minimum;
}
