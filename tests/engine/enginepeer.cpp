// A process that logs one user in with Message_lib and waits to be killed,
// for the tests of what happens when a client's link dies without a logout.
// Prints "online" after every onConnected.
// Usage: engine_peer HOST PORT USER DOMAIN DEVICE_ID

#include "message_lib.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

namespace {

class Announcer : public ImEventReciever {
public:
    void onConnected() override
    {
        std::puts("online");
        std::fflush(stdout);
    }
};

} // namespace

int main(int argc, char **argv)
{
    if (argc != 6) {
        std::fprintf(stderr, "usage: %s HOST PORT USER DOMAIN DEVICE_ID\n", argv[0]);
        return 2;
    }
    Announcer announcer;
    Message_lib lib(&announcer, nullptr, argv[5], "peer-device");
    lib.registerToImServer(QString::fromUtf8(argv[1]), std::atoi(argv[2]), QString::fromUtf8(argv[3]), QString(), 5,
                           QString::fromUtf8(argv[4]), QString());
    for (int i = 0; i < 600; ++i) // ends by itself after a minute at most
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    return 0;
}
