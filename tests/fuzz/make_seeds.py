#!/usr/bin/env python3
"""Writes the seed corpus that the fuzz targets begin with. Usage: make_seeds.py FOLDER

Each seed is written act by act, with the numbers that the targets' sources give them. Running it again gives the same
files; inputs that a fuzzer found are kept beside them and stay."""

import sys
from pathlib import Path

RANDOM, CHANGES, STARVING, REPLAY = range(4)
HALF_CLOSE, CLOSE, RESET, SHUT_BOTH = range(4)
DATA, CALL, SIGNAL, CALL_ANSWER, SIGNAL_ANSWER, HEARTBEAT, CONTROL, COMMAND, INFORMATION, ERROR = range(10)


def number(value):
    return value.to_bytes(2, "big")


def plan(how=REPLAY, seed=1, switches=()):
    """Who goes on: a strategy and its seed; for REPLAY the plain order and (points, actor) of each exception."""
    pairs = b"".join(bytes([points - 1, actor]) for points, actor in switches)
    return bytes([how + 4 * len(switches)]) + number(seed) + pairs


def header(kind=DATA, data_size=0, version=1, magic=b"ZOLT", sequence=0):
    return (magic + number(version) + number(72) + bytes([kind, 0, 0, 0]) + data_size.to_bytes(4, "big") +
            bytes(24) + sequence.to_bytes(8, "big") + bytes(8) + b"\xff" * 8 + bytes(8))


# --- TCP streams ------------------------------------------------------------------------------------------------------

def raw(data):
    pieces = [data[at:at + 32] for at in range(0, len(data), 32)]
    return b"".join(bytes([8 * (len(piece) - 1)]) + piece for piece in pieces)


def packet(kind, size, filler=0x41):
    return bytes([2, kind]) + number(size) + bytes([filler])


def hand_over(kind, size):
    return bytes([4, kind]) + number(size)


def cut(root):
    """Pieces of root * root bytes from now on; 0: uncut."""
    return bytes([5 + 8 * root])


def pause(root):
    """100 * root * root microseconds."""
    return bytes([7 + 8 * root])


READ = bytes([6])
ALL_KINDS = b"".join(packet(kind, size) for kind in range(10) for size in (0, 5))
STREAMS = {
    "nothing": plan() + bytes([HALF_CLOSE]),
    "one_packet": plan() + bytes([HALF_CLOSE]) + packet(DATA, 100),
    "all_kinds": plan() + bytes([HALF_CLOSE]) + ALL_KINDS,
    "byte_by_byte": plan() + bytes([HALF_CLOSE]) + cut(1) + packet(DATA, 40) + packet(CALL, 0),
    "cut_in_header_and_data": plan() + bytes([HALF_CLOSE]) + cut(5) + packet(SIGNAL, 300) + cut(9) + packet(DATA, 2999),
    "largest_and_one_more": plan() + bytes([HALF_CLOSE]) + packet(DATA, 3000) + packet(DATA, 3001) + packet(DATA, 5),
    "endless_data": plan() + bytes([CLOSE]) + raw(header(DATA, 0xFFFFFFFF)) + packet(DATA, 5),
    "half_a_header": plan() + bytes([HALF_CLOSE]) + packet(DATA, 8) + raw(header()[:35]),
    "half_of_the_data": plan() + bytes([HALF_CLOSE]) + raw(header(DATA, 64) + bytes(20)),
    "not_a_packet": plan() + bytes([HALF_CLOSE]) + raw(b"GET / HTTP/1.1\r\nHost: node\r\n\r\n" + bytes(80)),
    "forged_notice": plan() + bytes([HALF_CLOSE]) + packet(CONTROL, 0) + packet(ERROR, 0) + packet(DATA, 3),
    "both_ways": plan(RANDOM, 77) + bytes([HALF_CLOSE]) + (hand_over(1, 900) + packet(CALL, 500) + pause(3) + READ) * 4,
    "answers": plan(CHANGES, 5) + bytes([HALF_CLOSE]) + (hand_over(1, 50) + packet(CALL_ANSWER, 0) + pause(9)) * 3,
    "unread_until_reset": plan(RANDOM, 9) + bytes([RESET]) + hand_over(0, 2900) * 9 + pause(20),
    "closed_with_a_queue": plan(STARVING, 9) + bytes([CLOSE]) + hand_over(2, 2900) * 9,
    "shut_both_ways": plan(STARVING, 4) + bytes([SHUT_BOTH]) + packet(CALL, 70) * 3 + hand_over(0, 10),
    "silence": plan() + bytes([HALF_CLOSE]) + packet(DATA, 5) + pause(31) * 40 + pause(31) * 60,
    "switched": plan(REPLAY, 3, [(20, 5), (3, 0), (40, 6), (9, 5), (1, 6)]) + bytes([HALF_CLOSE]) + packet(CALL, 20) * 3,
}

# --- the block ----------------------------------------------------------------------------------------------------------

PORTS = number(7000) + number(7001)


def block(side, size, ports=PORTS, how=HALF_CLOSE, stays=False, reads_first=True, withdrawn_at=0, piece=0, pause_ms=0,
          filler=0):
    return (bytes([side, 0 if reads_first else 1, 0 if stays else 1, how, withdrawn_at]) + number(piece) +
            bytes([pause_ms]) + number(size) + bytes([filler]) + ports)


BLOCKS = {}
for name, side in (("accepted", 0), ("outgoing", 1)):
    BLOCKS.update({
        f"{name}_whole": plan() + block(side, 1024),
        f"{name}_none": plan() + block(side, 0, b""),
        f"{name}_short": plan() + block(side, 1023),
        f"{name}_short_and_silent": plan() + block(side, 512, stays=True),
        f"{name}_whole_and_silent": plan() + block(side, 1024, stays=True),
        f"{name}_with_more_behind": plan(RANDOM, 3) + block(side, 1100, filler=0xFF),
        f"{name}_in_pieces": plan(RANDOM, 4) + block(side, 1024, piece=100, pause_ms=200, filler=0x55),
        f"{name}_byte_by_byte": plan() + block(side, 1024, piece=1),
        f"{name}_reset": plan(CHANGES, 8) + block(side, 1024, how=RESET),
        f"{name}_before_reading": plan(RANDOM, 6) + block(side, 1024, reads_first=False, ports=b"\0\0\0\0"),
    })
for step in (1, 2, 3):
    BLOCKS[f"outgoing_withdrawn_{step}"] = plan(RANDOM, step) + block(1, 1024, withdrawn_at=step, pause_ms=5)

# --- datagrams ----------------------------------------------------------------------------------------------------------


def shaped(size, difference=0, kind=DATA):
    """A right header that announces so many bytes; there are so many more behind it, or up to 2 less."""
    return bytes([1, kind]) + number(size) + bytes([4 * difference if difference > 0 else 1 - difference])


def raw_datagram(data):
    return bytes([6 * (len(data) // 3)]) + data[:3 * (len(data) // 3)]


def send(size, kind=0):
    return bytes([3, kind]) + number(size)


TAKE = bytes([4])
DATAGRAMS = {
    "nothing": plan(),
    "header_only": plan() + shaped(0),
    "with_data": plan() + shaped(1) + shaped(400) + shaped(1599),
    "one_too_long": plan() + shaped(100, 1) + shaped(5),
    "one_too_short": plan() + shaped(100, -1) + shaped(5),
    "empty": plan() + raw_datagram(b"") * 3 + shaped(7),
    "short": plan() + raw_datagram(b"short") + shaped(7),
    "another_version": plan() + raw_datagram(header(version=2)) + shaped(7),
    "another_magic": plan() + raw_datagram(header(magic=b"ZALT")) + shaped(7),
    "no_end": plan() + raw_datagram(header(DATA, 0xFFFFFFFF)) + shaped(7),
    "all_kinds": plan() + b"".join(shaped(3, 0, kind) for kind in range(11)),
    "out": plan() + send(0) + send(500) + send(1500, 2) + TAKE,
    "both_ways": plan(RANDOM, 5) + (send(20, 1) + shaped(30) + raw_datagram(b"bad")) * 4 + TAKE,
    "many_dropped": plan(STARVING, 5) + shaped(9, 3) * 12 + shaped(9) * 3,
}

# --- the configuration file ---------------------------------------------------------------------------------------------

INI_TEXTS = {
    "nothing": b"",
    "shipped": b"[ZOLT]\nAUTO_DISCONNECT = yes\nSERVER_LISTEN_BACKLOG = 5\n",
    "before_any_section": b"key = value\n[a]\nkey = other\n",
    "comments": b"; one\n# two\n[s] ; three\nk = v ; four\nk2 = v;five\n",
    "quotes": b"[s]\na = \" kept \"\nb = \"x ; y\" ; comment\nc = \"\nd = \"open\ne = \"a\"b\"\n",
    "crlf_and_mark": b"\xef\xbb\xbf[s]\r\na = 1\r\n\r\nb=2",
    "faults": b"[open\nk = v\n= v\nneither\n[]\n[ s ] rest\n",
    "twice": b"[S]\nK = 1\n[t]\nK = 2\n[s]\nk = 3\n",
    "integers": b"[i]\na=0\nb=-1\nc=+7\nd=2147483647\ne=2147483648\nf=-2147483648\ng=0x10\nh=1 2\ni=+-1\nj=-\n",
    "an_integer": b"-2147483648",
    "odd_bytes": bytes(range(256)) + b"\n[\x00]\nk\x00 = \xff\n",
    "korean": "[구역]\n열쇠 = 값\n".encode(),
}

# --- operations ---------------------------------------------------------------------------------------------------------


def on_destination(which, what, variant=0):
    return bytes([which + 8 * (what + 8 * variant) & 0xFF])


def on_visitor(which, what, variant=0):
    return bytes([3 + which + 8 * (what + 4 * variant)])


def add(which):
    return on_destination(which, 0)


def withdraw(which):
    return on_destination(which, 2)


def reach(which, met):
    return on_destination(which, 4, met)


def lose(which, how):
    return on_destination(which, 5, how)


def visit(which):
    return on_visitor(which, 0)


def leave(which, how):
    return on_visitor(which, 1, how)


def seconds(count):
    return bytes([5 + 8 * (count - 1)])


OPEN, REFUSED, LOST = range(3)
MUTE_0, MUTE_VISITOR = on_destination(0, 7), on_visitor(0, 3)
LONG, SAY = bytes([6]), bytes([7])
OPERATIONS = {
    "add_and_withdraw": plan() + add(0) + SAY + withdraw(0),
    "twice": plan() + add(0) + add(0) + withdraw(0) + SAY + withdraw(0),
    "unknown_first": plan() + withdraw(0) + add(0) + add(0) + withdraw(0) + withdraw(0) + add(0),
    "refused_then_open": plan() + add(1) + seconds(2) + reach(1, OPEN) + seconds(3) + SAY,
    "lost_then_open": plan() + reach(0, LOST) + add(0) + LONG + reach(0, OPEN) + LONG + withdraw(0),
    "withdrawn_while_lost": plan() + reach(2, LOST) + add(2) + withdraw(2) + add(2) + seconds(3) + reach(2, OPEN),
    "lost_connections": plan(RANDOM, 3) + add(0) + b"".join(lose(0, how) + seconds(2) for how in range(3)),
    "silent_destination": plan() + add(0) + MUTE_0 + LONG + MUTE_0 + seconds(3),
    "silent_visitor": plan() + visit(0) + visit(1) + MUTE_VISITOR + LONG + SAY,
    "visitors": plan(CHANGES, 6) + b"".join(visit(0) + SAY + leave(0, how) for how in range(4)),
    "all_at_once": plan(RANDOM, 7) + add(0) + add(2) + visit(0) + visit(1) + SAY + on_destination(0, 6) + seconds(1) +
    withdraw(0) + leave(1, RESET) + SAY,
    "starved": plan(STARVING, 11) + add(0) + visit(0) + SAY + lose(0, RESET) + withdraw(0) + add(0) + seconds(2),
}

SEEDS = {
    "fuzz_accepted_stream": STREAMS,
    "fuzz_outgoing_stream": STREAMS,
    "fuzz_init_block": BLOCKS,
    "fuzz_datagrams": DATAGRAMS,
    "fuzz_ini_text": INI_TEXTS,
    "fuzz_operations": OPERATIONS,
}


def main(folder):
    for target, seeds in SEEDS.items():
        (Path(folder) / target).mkdir(parents=True, exist_ok=True)
        for name, data in seeds.items():
            (Path(folder) / target / name).write_bytes(data)


if __name__ == "__main__":
    main(sys.argv[1])
