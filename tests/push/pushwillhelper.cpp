// A process that holds one PushClient with a last will, for the test that
// kills it: prints "online" once connected, then waits to be killed.
// Usage: push_will_helper HOST PORT CLIENT_ID WILL_TOPIC WILL_PAYLOAD

#include "pushclient.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

namespace {

class Announcer : public PushEventReciever
{
public:
    void messgeRecievedMore(int, char*, void*, int, int, bool) override {}
    void connectStatus(bool connected) override
    {
        if (connected) {
            std::puts("online");
            std::fflush(stdout);
        }
    }
};

} // namespace

int main(int argc, char** argv)
{
    if (argc != 6) {
        std::fprintf(stderr, "usage: %s HOST PORT CLIENT_ID WILL_TOPIC WILL_PAYLOAD\n", argv[0]);
        return 2;
    }
    Announcer announcer;
    PushClient client(argv[3]);
    client.setEventRecv(&announcer);
    client.will_set(argv[4], argv[5], 2, false);
    client.start_connect(argv[1], std::atoi(argv[2]), 60);
    for (int i = 0; i < 600; ++i) // ends by itself after a minute at most
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    return 0;
}
