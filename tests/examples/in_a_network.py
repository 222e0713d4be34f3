"""Runs the multicast listener in the network it is started in, sends to its group from two sources, and prints what the
listener printed. Usage: in_a_network.py LISTENER
"""

import socket
import sys

import center_support as support

GROUP, PORT = "232.1.1.1", 7000
SOURCE, STRANGER = "127.0.0.1", "127.0.0.2"


def send(source, text):
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
        sender.bind((source, 0))
        sender.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton("127.0.0.1"))
        sender.sendto(support.make_packet(text, flags=support.MULTICAST), (GROUP, PORT))


with support.Running(GROUP, SOURCE, "127.0.0.1", PORT, program=sys.argv[1]) as listener:
    listener.wait_for("stdout", "ready\n")
    for data in (b"first", b"second"):
        send(STRANGER, b"not asked for")
        send(SOURCE, data)
    listener.wait_for("stdout", "second\n")
    listener.signal(15)
    code, out, errors = listener.finish()
    sys.stdout.write(out.decode().removeprefix("ready\n"))
    sys.stderr.write(errors)
    sys.exit(code)
