// Logs one user in and waits (a minute at most) to be killed, for the tests
// of a link that dies without a logout.
// Usage: engine_peer HOST PORT USER DOMAIN DEVICE_ID

#include "message_lib.h"

#include <cstdlib>
#include <thread>

int main(int argc, char **argv)
{
    if (argc != 6)
        return 2;
    ImEventReciever quiet;
    Message_lib lib(&quiet, nullptr, argv[5], "peer-device");
    lib.registerToImServer(argv[1], std::atoi(argv[2]), argv[3], QString(), 5, argv[4], QString());
    std::this_thread::sleep_for(std::chrono::minutes(1));
    return 0;
}
