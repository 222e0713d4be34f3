#!/usr/bin/env python3
"""Copies the relay's sources with one rule of ownership taken out, for a simulation that has to notice.

Usage: break_rule.py RULE SOURCE_ROOT TARGET_ROOT

Each change names a source and the very text that it replaces; a text that does not stand there exactly once is an error, so
a rule cannot get lost when the relay changes.
"""

import shutil
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
        ("epoll_tcp_method_client.cpp", "        if (remain < 0) {\n", "        if (remain == -1) {\n"),
    ],
}


def main(rule, source_root, target_root):
    source, target = Path(source_root, ENGINE), Path(target_root, ENGINE)
    shutil.copytree(source, target, dirs_exist_ok=True)
    for name, before, after in RULES[rule]:
        text = (target / name).read_text(encoding="utf-8")
        if text.count(before) != 1:
            sys.exit(f"{rule}: {name}: stands there {text.count(before)} times instead of once:\n{before}")
        (target / name).write_text(text.replace(before, after), encoding="utf-8")


if __name__ == "__main__":
    main(*sys.argv[1:])
