"""The check of histories finds what it is there for: a history that holds, and the same with one thing wrong."""

import copy
import unittest

from history import MOST_IN_FRONT, HistoryCheck
from nodes import Boot

PEER = "10.77.0.1:40000"
OTHER = "10.77.0.2:40000"


def notice(event, peer=PEER):
    return {"t": 0, "event": event, "peer": peer, "way": "in"}


def packet(number, flow=0, peer=PEER, droppable=0, boot=1):
    return {"t": 0, "event": "packet", "peer": peer, "sender": 1, "boot": boot, "flow": flow, "number": number,
            "droppable": droppable}


def returned(number, call=0):
    return {"t": 0, "event": "returned", "flow": 0, "number": number, "droppable": 0, "call": call}


def ended(returned=0, **figures):
    return {"t": 0, "event": "sum", "handed_over": 99, "written": 99 - returned, "returned": returned, "dropped": 0,
            "queued": 0, **figures}


def boot_of(node, *events):
    made = Boot(node, 1, None, events=list(events))
    made.sum = next((event for event in events if event["event"] == "sum"), None)
    return made


def sound():
    """Node 1 sends to node 0 over two connections; the second one begins with the end of the first flow."""
    receiver = boot_of(0, notice("connected"), packet(0), packet(1), packet(2), packet(0, droppable=1),
                       packet(2, droppable=1), notice("disconnected"), notice("connected"), packet(4),
                       packet(0, flow=1), packet(1, flow=1), ended())
    sender = boot_of(1, returned(3), ended(returned=1))
    return [receiver, sender]


class HistoryCheckTest(unittest.TestCase):
    def faults(self, change):
        boots = copy.deepcopy(sound())
        change(boots[0].events, boots)
        return HistoryCheck().check(boots).faults

    def assert_found(self, text, change):
        found = self.faults(change)
        self.assertTrue(found and all(text in fault for fault in found), found)

    def test_a_sound_history(self):
        self.assertEqual([], self.faults(lambda events, boots: None))

    def test_connected_twice(self):
        self.assert_found("connected twice", lambda events, boots: events.insert(1, notice("connected")))

    def test_disconnected_twice(self):
        self.assert_found("yet not connected", lambda events, boots: events.insert(7, notice("disconnected")))

    def test_a_packet_before_its_connection(self):
        self.assert_found("outside a connection", lambda events, boots: events.insert(0, packet(7, flow=2)))

    def test_a_packet_after_its_connection(self):
        self.assert_found("outside a connection", lambda events, boots: events.insert(7, packet(9)))

    def test_a_gap(self):
        self.assert_found("which would follow", lambda events, boots: events.pop(2))

    def test_out_of_order(self):
        def change(events, _):
            events[2], events[3] = events[3], events[2]
        self.assert_found("which would follow", change)

    def test_twice_over_one_connection(self):
        def change(events, _):
            events.insert(7, notice("disconnected", OTHER))
            events.insert(7, packet(2, peer=OTHER))
            events.insert(7, notice("connected", OTHER))
        self.assert_found("came before", change)

    def test_a_droppable_one_out_of_order(self):
        self.assert_found("out of order", lambda events, boots: events.insert(6, packet(1, droppable=1)))

    def test_an_older_flow_behind_a_newer_one(self):
        self.assert_found("does not follow on flow", lambda events, boots: events.insert(11, packet(5)))

    def test_a_flow_that_begins_in_the_middle(self):
        self.assert_found("does not follow on flow", lambda events, boots: events.pop(9))

    def test_a_connection_without_its_first_packets(self):
        def change(events, _):
            events[9:11] = [packet(5 + i) for i in range(MOST_IN_FRONT)]
        self.assert_found("first packets are missing", change)

    def test_a_packet_for_somebody_else(self):
        def change(_, boots):
            boots[1].events[:0] = [notice("connected"), packet(0, flow=1, droppable=1)]
        self.assert_found("of another node's flow", change)

    def test_a_broken_packet(self):
        self.assert_found("not as it was sent", lambda events, boots: events.insert(1, notice("broken")))

    def test_an_unexpected_line(self):
        line = {"t": 0, "event": "printed", "text": "epoll_wait"}
        self.assert_found("an unexpected line", lambda events, boots: events.insert(0, line))

    def test_a_sum_that_does_not_balance(self):
        self.assert_found("does not balance", lambda events, boots: boots[0].sum.update(queued=1))

    def test_a_sum_with_less_than_nothing(self):
        self.assert_found("does not balance", lambda events, boots: boots[0].sum.update(queued=-1, written=100))

    def test_a_returned_packet_that_the_center_did_not_get(self):
        self.assert_found("returned came back", lambda events, boots: boots[1].events.pop(0))

    def test_a_call_may_come_back_although_it_arrived(self):
        self.assertEqual([], self.faults(lambda events, boots: boots[1].events.__setitem__(0, returned(2, call=1))))

    def test_a_packet_that_came_back_although_it_arrived(self):
        self.assert_found("came back although", lambda events, boots: boots[1].events.__setitem__(0, returned(2)))

    def test_more_received_than_written(self):
        self.assert_found("more than was written",
                          lambda events, boots: boots[1].sum.update(handed_over=8, written=7))


if __name__ == "__main__":
    unittest.main()
