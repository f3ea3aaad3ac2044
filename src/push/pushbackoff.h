#ifndef PUSHBACKOFF_H
#define PUSHBACKOFF_H

#include <chrono>
#include <random>

// Delay before the next connection attempt: starts at the minimum, doubles
// after every attempt up to the maximum, and each delay is drawn at random
// between half its value and its value, so clients cut off together spread
// out. reset() goes back to the minimum.
class PushBackoff {
public:
    PushBackoff(std::chrono::milliseconds minimum, std::chrono::milliseconds maximum);

    std::chrono::milliseconds next();
    void reset();

private:
    std::chrono::milliseconds m_minimum;
    std::chrono::milliseconds m_maximum;
    std::chrono::milliseconds m_current;
    std::minstd_rand m_random;
};

#endif // PUSHBACKOFF_H
