#!/usr/bin/env python3
"""echo_bot: answers every chat message with the same text.

    python3 echo_bot.py HOST PORT USER [DOMAIN]

Logs in as USER@DOMAIN (DOMAIN defaults to HOST), prints "echo_bot: online
as USER@DOMAIN" once connected and sends every chat message addressed to it
back to its sender. Ctrl-C (or SIGTERM) logs out in order.
"""

import signal
import sys

import pushchat

CHAT = 1  # MediaInfo::MESSAGE_TYPE_CHAT


def main() -> int:
    if len(sys.argv) not in (4, 5):
        print(__doc__, file=sys.stderr)
        return 64
    host, port, user = sys.argv[1], sys.argv[2], sys.argv[3]
    domain = sys.argv[4] if len(sys.argv) == 5 else host
    me = f"{user}@{domain}"
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(0))
    with pushchat.Client(user, domain=domain, brokers=[f"{host}:{port}"], device="echo-bot-py") as client:
        client.login()
        try:
            for event in client.events():
                if event.name == "onConnected":
                    print(f"echo_bot: online as {me}", flush=True)
                elif (event.name == "onMessageReceive" and event.msg_type == CHAT and event.to == me
                      and event.from_ != me and event.readable):
                    client.send_message(event.from_, event.body)
        except KeyboardInterrupt:
            pass
    return 0


if __name__ == "__main__":
    sys.exit(main())
