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
    std::chrono::milliseconds minimum_;
    std::chrono::milliseconds maximum_;
    std::chrono::milliseconds current_;
    std::minstd_rand random_;
};

#endif // PUSHBACKOFF_H
