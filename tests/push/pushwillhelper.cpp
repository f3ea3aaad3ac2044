// Connects one PushClient with a last will, then SIGKILLs its own process as
// soon as it is online (or gives up after 15 s). It also dies with its parent.
// Usage: push_will_helper HOST PORT CLIENT_ID WILL_TOPIC WILL_PAYLOAD

#include "pushclient.h"

#include <sys/prctl.h>

#include <csignal>
#include <cstdlib>
#include <unistd.h>

struct KillOnConnect : PushEventReciever
{
    void messgeRecievedMore(int, char*, void*, int, int, bool) override {}
    void connectStatus(bool connected) override
    {
        if (connected)
            ::raise(SIGKILL); // no DISCONNECT: the socket just dies
    }
};

int main(int, char** argv)
{
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    KillOnConnect receiver;
    PushClient client(argv[3]);
    client.setEventRecv(&receiver);
    client.will_set(argv[4], argv[5], 2, false);
    client.start_connect(argv[1], std::atoi(argv[2]), 60);
    ::sleep(15);
    return 1;
}
