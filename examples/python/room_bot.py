#!/usr/bin/env python3
"""room_bot: creates a room, welcomes its members, answers in it (asyncio).

    python3 room_bot.py HOST PORT USER ROOM MEMBER[,MEMBER...] [DOMAIN]

Logs in, creates the room ROOM with the members, welcomes everyone once the
server confirms it, and answers every message in the room with its length.
The events arrive through `async for` in the asyncio loop; Ctrl-C ends it.
"""

import asyncio
import sys

import pushchat

CREATED = 10  # GroupSub_Create


async def run(client: pushchat.Client, me: str, room_jid: str, room: str, members: str) -> None:
    client.login()
    async for event in client.events():
        if event.name == "onConnected":
            client.create_room(room, f"{room} (bot)", members.split(","))
        elif event.name == "onRoomChanged" and event.cmd == CREATED and event.room["jid"] == room_jid:
            client.send_message(room_jid, "Welcome, everyone!", room=True)
            print(f"room_bot: {room_jid} is open", flush=True)
        elif (event.name == "onMessageReceive" and event.to == room_jid and event.from_ != me
              and event.from_ != room_jid and event.body):
            client.send_message(room_jid, f"{event.from_} wrote {len(event.body)} characters", room=True)


def main() -> int:
    if len(sys.argv) not in (6, 7):
        print(__doc__, file=sys.stderr)
        return 64
    host, port, user, room, members = sys.argv[1:6]
    domain = sys.argv[6] if len(sys.argv) == 7 else host
    with pushchat.Client(user, domain=domain, brokers=[f"{host}:{port}"], device="room-bot-py") as client:
        try:
            asyncio.run(run(client, f"{user}@{domain}", f"{room}@{domain}", room, members))
        except KeyboardInterrupt:
            pass
    return 0


if __name__ == "__main__":
    sys.exit(main())
