#!/usr/bin/env python3
"""Sends counters to an agent as the library does, but in any order.

send_points.py SOCKET WORD...: a word is NAME:SECONDS:VALUE, a point of the tenant `odd` so many seconds from now,
or a number alone, a pause in seconds. Each point is a packet of its own.
"""
import socket
import struct
import sys
import time


def text(value):
    data = value.encode()
    return struct.pack("<I", len(data)) + data


def texts(values):
    return struct.pack("<I", len(values)) + b"".join(map(text, values))


def packet(name, seconds, value, tags=None):
    pairs = [part for pair in (tags or {}).items() for part in pair]
    rest = struct.pack("<BIq", 3, 0, seconds) + text(name) + struct.pack("<I", 0)
    rest += struct.pack("<I", 0) + texts(pairs) + struct.pack("<IIId", 0, 1, 8, value)
    body = struct.pack("<II", 8 + len(rest), 1) + rest
    front = text("odd") + texts(["account_id", "", "project_id", ""]) + text("1.0.4")
    head = b"2scirtem" + struct.pack("<BIIBIqqIII", 4, 50 + len(front), len(body), 0, 0,
                                     int(time.time() * 1000), 0, 15, 1, 1)
    return head + front + body


def main():
    now = int(time.time())
    with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as agent:
        agent.connect(sys.argv[1])
        for word in sys.argv[2:]:
            name, _, rest = word.partition(":")
            if rest:
                seconds, value = rest.split(":")
                agent.send(packet(name, now + int(seconds), float(value)))
            else:
                time.sleep(float(name))


if __name__ == "__main__":
    main()
