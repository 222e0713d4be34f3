#!/usr/bin/env python3
"""Copies the relay's sources with one rule of ownership taken out, for a simulation that has to notice.

Usage: break_rule.py RULE SOURCE_ROOT TARGET SOURCE...

The sources that the rule stands in are written to the folder TARGET.

Each change names a source and the very text that it replaces; a text that does not stand there exactly once is an error, so
a rule cannot get lost when the relay changes.
"""

import sys
from pathlib import Path

ENGINE = "Center/INet_Relay/EPoll"

RULES = {
    # Whoever ends an outgoing record destroys it, although the send thread has an event of it due.
    "hand_over": [
        ("epoll_tcp_method_client.cpp", "        if (rec->send_armed) {\n            rec->doomed = true;",
         "        if (false) {\n            rec->doomed = true;"),
    ],
    # A record that ends stays in its registry.
    "unfile": [
        ("epoll_tcp_method.cpp",
         "    is_outgoing(rec) ? static_cast<void>(unfile_outgoing(rec)) : unfile_accepted(rec);\n",
         "    is_outgoing(rec) ? static_cast<void>(rec) : unfile_accepted(rec);\n"),
        ("epoll_tcp_method_client.cpp", "    bool const was_established = unfile_outgoing(rec);\n",
         "    bool const was_established = rec->phase == outgoing_phase::established;\n"),
    ],
    # A record whose queue came to rest waits for a write that never comes.
    "stalled_queue": [
        ("epoll_tcp_method.cpp", "        if (!ends && (!rec->doomed || rec->send_armed)) {", "        if (!ends) {"),
        ("epoll_tcp_method.cpp", "        if (!rec->doomed) {\n            return 0;", "        if (true) {\n            return 0;"),
    ],
    # A write to a peer that does not read lasts as long as the peer likes.
    "send_time_out": [
        ("epoll_tcp_method.cpp", "    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &c_write_bound, sizeof c_write_bound);\n",
         "    static_cast<void>(fd);\n    static_cast<void>(c_write_bound);\n"),
    ],
    # What is left of the block is counted without the lock under which a withdrawal sets it to 0.
    "exchange_counter": [
        ("epoll_tcp_method_client.cpp",
         "            Tesk::OS::class_locker const guard(rec->send_lock, nullptr);\n            remain = send_init_block",
         "            remain = send_init_block"),
        # As a count without a sign would be compared.
        ("epoll_tcp_method_client.cpp", "        if (remain < 0) {\n", "        if (remain == -1) {\n"),
        ("epoll_tcp_method_client.cpp", "        if (remain > 0) {\n", "        if (remain != 0) {\n"),
    ],
    # A port that dropped a datagram waits for the next arrival, which a full socket never has.
    "look_again": [
        ("epoll.cpp", "    timer_reconnect_client();\n    timer_look_again();\n", "    timer_reconnect_client();\n"),
    ],
    # Whether the send thread has a datagram's event due is decided before the lock is taken under which it is sent.
    "datagram_arming": [
        ("inet_relay_epoll.cpp",
         "    Tesk::OS::class_locker const guard(rec->send_lock, nullptr);\n    bool const was_idle = rec->send_q.empty();\n",
         "    bool const was_idle = rec->send_q.empty();\n    Tesk::OS::class_locker const guard(rec->send_lock, nullptr);\n"),
    ],
}


def main(rule, source_root, target, *names):
    if set(names) != {name for name, _, _ in RULES[rule]}:
        sys.exit(f"{rule}: changes other sources than {' '.join(names)}")
    Path(target).mkdir(parents=True, exist_ok=True)
    texts = {name: Path(source_root, ENGINE, name).read_text(encoding="utf-8") for name in names}
    for name, before, after in RULES[rule]:
        if texts[name].count(before) != 1:
            sys.exit(f"{rule}: {name}: stands there {texts[name].count(before)} times instead of once:\n{before}")
        texts[name] = texts[name].replace(before, after)
    for name, text in texts.items():
        Path(target, name).write_text(text, encoding="utf-8")


if __name__ == "__main__":
    main(*sys.argv[1:])
