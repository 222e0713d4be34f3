/* The end of one established record, shared by five actors: the receive thread, the send thread, the timer, a thread of
 * the Center's, and the peer behind the socket.
 *
 * Choose the side:      -DOUTGOING or -DACCEPTED
 * Let an arming fail:   -DARM_FAILS (any arming of the send instance), -DBATON_LOST (one re-arming of the receive instance)
 * Let the timer hurry:  -DHASTY (it ticks again before the receive thread has come from an event to its handler)
 * Take a rule out:      -DWITHOUT_UNFILE      entries that name the record are erased before it is destroyed
 *                       -DWITHOUT_HANDOVER    a record with a send event due is left to the send thread
 *                       -DWITHOUT_DISPOSAL    the send thread destroys a doomed record when nothing is armed any more
 *                       -DWITHOUT_BOUND       a write gives up when the peer does not read
 *                       -DWITHOUT_REAPING     the timer cuts records that should be gone
 *                       -DWITHOUT_MARKING     a withdrawal marks a record that is in no registry just now
 *                       -DWITHOUT_TELLING     the Center hears of an end that the receive path found by itself
 *                       -DWITHOUT_REARMING    the timer re-arms a silent record that it shut down before
 *                       -DWITHOUT_TAKING_BACK the receive thread takes an event back that the timer armed
 */
#if !defined(OUTGOING) && !defined(ACCEPTED)
#error "choose a side"
#endif

#define PACKETS 3               /* the Center's, a heartbeat, an acknowledgement */

mtype = { packet, marker };

/* --- the record ---------------------------------------------------------------------------------------------- */

bool live = true;               /* its memory is valid */
bool filed = true;              /* an entry of the registry names it */
bool ending = false;            /* it is in the list of those that must be gone */
bool withdrawn = false;         /* close_requested */
bool sending = false;
bool armed_noted = false;       /* send_armed */
bool doomed = false;
bool shut_before = false;       /* silence: the socket was shut down on an earlier tick */
bool armed_by_timer = false;
chan queue = [PACKETS + 2] of { mtype };
bool at_marker = false;         /* send_ptr is null */

byte registry_owner = 0;
byte send_owner = 0;

/* --- its socket and registrations, as the kernel holds them ------------------------------------------------------ */

bool open = true;
bool recv_due = true;           /* registered and armed for reading */
bool send_due = false;          /* registered and armed for writing */
bool bytes_in = false;
bool fin_in = false;
bool reset = false;
bool shut_in = false;
bool shut_out = false;
bool room = true;               /* the peer reads */

#define HANG_UP     (reset || (shut_in && shut_out) || (fin_in && shut_out))
#define RECV_EVENT  (recv_due && open && (bytes_in || fin_in || HANG_UP))
#define SEND_EVENT  (send_due && open && (room || shut_out || HANG_UP))

/* --- what must hold ---------------------------------------------------------------------------------------------- */

byte handed = 0;                /* packets that came into the queue */
byte written = 0;
byte returned = 0;
byte notices = 0;               /* how often the Center was told of the end */
bool ended = false;             /* the receive thread is done with the record */
bool booked = false;            /* a fresh record waits for the destination */
bool destination_gone = false;  /* the Center has withdrawn it */

#define TOUCH assert(live)

inline lock_registry()   { atomic { registry_owner == 0 -> registry_owner = _pid + 1 } }
inline unlock_registry() { atomic { assert(registry_owner == _pid + 1); registry_owner = 0 } }
inline lock_send()       { TOUCH; atomic { send_owner == 0 -> TOUCH; send_owner = _pid + 1 } }
inline unlock_send()     { atomic { TOUCH; assert(send_owner == _pid + 1); send_owner = 0 } }

inline arm_send() {
    if
    :: true -> atomic { send_due = true; armed_noted = true }
#ifdef ARM_FAILS
    :: true -> skip
#endif
    fi
}

/* start_or_queue, and the same with the marker */
inline queue_up(what) {
    if
    :: what == packet -> handed++
    :: else
    fi;
    if
    :: empty(queue) ->
        queue!what;
        at_marker = (what == marker);
        sending = true;
        arm_send()
    :: nempty(queue) -> queue!what
    fi
}

inline shut_both() { atomic { shut_in = true; shut_out = true } }

/* delete_overlapped */
inline destroy(item) {
#ifndef WITHOUT_UNFILE
    lock_registry();
    filed = false;
    ending = false;
    unlock_registry();
#endif
    lock_send();
    do
    :: sending && !at_marker ->
        unlock_send();
        !(sending && !at_marker);
        lock_send()
    :: else -> break
    od;
    atomic {
        do
        :: queue?item ->
            if
            :: item == packet -> returned++
            :: else
            fi
        :: empty(queue) -> break
        od;
        open = false;
        recv_due = false;
        send_due = false
    };
    unlock_send();
    assert(!filed && !ending);
    atomic { TOUCH; live = false }
}

/* --- the send thread ------------------------------------------------------------------------------------------------ */

inline write_front(item) {
#ifdef WITHOUT_BOUND
    (room || shut_out || HANG_UP);      /* blocks with the lock held */
#endif
    atomic {
        if
        :: reset || shut_out -> sending = false
        :: else ->
            if
            :: !room -> arm_send()      /* what could be placed was placed */
            :: room ->
                if
                :: true -> arm_send()   /* a part */
                :: true ->
                    queue?item;
                    written++;
                    if
                    :: empty(queue) -> sending = false
                    :: nempty(queue) -> at_marker = queue?[marker]; arm_send()
                    fi
                fi
            fi
        fi
    }
}

active proctype send_thread() {
    bool failed;
    bool ends;
    mtype item;
end:
    do
    :: atomic { SEND_EVENT -> send_due = false; failed = HANG_UP } ->
        ends = false;
        lock_send();
        armed_noted = false;
        if
        :: failed -> sending = false
        :: !failed && empty(queue) -> sending = false
#ifndef WITHOUT_DISPOSAL
        :: !failed && nempty(queue) && doomed && !sending -> skip
        :: !failed && nempty(queue) && !(doomed && !sending) && at_marker ->
#else
        :: !failed && nempty(queue) && at_marker ->
#endif
            queue?item;
            assert(item == marker);
            sending = false;
            shut_out = true;
#ifdef ACCEPTED
            ends = true
#endif
#ifndef WITHOUT_DISPOSAL
        :: !failed && nempty(queue) && !(doomed && !sending) && !at_marker ->
#else
        :: !failed && nempty(queue) && !at_marker ->
#endif
            write_front(item)
        fi;
#ifndef WITHOUT_DISPOSAL
        ends = ends || (doomed && !armed_noted);
#endif
        if
        :: ends -> sending = false
        :: else
        fi;
        unlock_send();
        if
        :: ends -> destroy(item)
        :: else
        fi
    od
}

/* --- the receive thread ------------------------------------------------------------------------------------------- */

inline take_back() {
#ifndef WITHOUT_TAKING_BACK
    if
    :: armed_by_timer -> recv_due = false
    :: else
    fi
#else
    skip
#endif
}

inline end_outgoing(item) {
    /* close_client */
    lock_registry();
#ifndef WITHOUT_TELLING
    tell = filed;
#endif
#ifndef WITHOUT_UNFILE
    filed = false;
#endif
    ending = true;
    take_back();
    booked = !withdrawn;
    unlock_registry();
    if
    :: tell -> notices++
    :: else
    fi;
    lock_send();
#ifndef WITHOUT_HANDOVER
    if
    :: armed_noted -> doomed = true; shut_both(); leave = true
    :: else -> sending = false; leave = false
    fi;
#else
    sending = false;
    leave = false;
#endif
    ended = true;
    unlock_send();
    if
    :: !leave -> destroy(item)
    :: else
    fi
}

inline end_accepted(item) {
    /* shutdown_server */
    lock_registry();
    filed = false;
    unlock_registry();
    notices++;
    lock_registry();
    ending = true;
    take_back();
    unlock_registry();
    lock_send();
    queue_up(marker);
    leave = true;
#ifndef WITHOUT_DISPOSAL
    doomed = true;
    if
    :: !armed_noted -> arm_send()
    :: else
    fi;
    if
    :: !armed_noted -> sending = false; leave = false
    :: else
    fi;
#endif
    ended = true;
    unlock_send();
    if
    :: !leave -> destroy(item)
    :: else
    fi
}

inline arm_recv() {
    if
    :: true -> recv_due = true
#ifdef BATON_LOST
    :: !baton_lost -> baton_lost = true
#endif
    fi
}

active proctype receive_thread() {
    bool failed;
    bool tell = false;
    bool leave;
    bool answered = false;
    bool baton_lost = false;
    mtype item;
end:
    do
    :: atomic { RECV_EVENT -> recv_due = false; failed = HANG_UP } ->
        TOUCH;
        if
        :: !failed && bytes_in ->
            bytes_in = false;
#ifdef OUTGOING
            if
            :: !answered -> answered = true; lock_send(); queue_up(packet); unlock_send()
            :: true
            fi;
#endif
            arm_recv()
        :: else ->
#ifdef OUTGOING
            if
            :: failed -> lock_registry(); filed = false; unlock_registry(); notices++   /* unestablish_connect */
            :: else
            fi;
            end_outgoing(item)
#else
            end_accepted(item)
#endif
        fi
    od
}

/* --- the timer -------------------------------------------------------------------------------------------------------- */

active proctype timer() {
    byte beats = 0;
end:
    do
#ifdef HASTY
    :: beats < 3 || (timeout && beats < 6) ->
#else
    :: beats < 1 || (timeout && beats < 6) ->
#endif
        beats++;
        lock_registry();
        if
        :: filed ->
            TOUCH;
            if
            :: beats == 1 -> lock_send();
                if
                :: !withdrawn -> queue_up(packet)
                :: else
                fi;
                unlock_send()
            :: true ->                          /* silent */
                shut_both();
#ifndef WITHOUT_REARMING
                if
                :: shut_before -> armed_by_timer = true; recv_due = true
                :: else
                fi;
#endif
                shut_before = true
            fi
        :: else
        fi;
#ifndef WITHOUT_REAPING
        if
        :: ending && beats > 1 -> TOUCH; shut_both()
        :: else
        fi;
#endif
        unlock_registry()
    od
}

/* --- the Center -------------------------------------------------------------------------------------------------------- */

active proctype center() {
    lock_registry();
    if
    :: filed -> lock_send();
        if
        :: !withdrawn -> queue_up(packet)
        :: else
        fi;
        unlock_send()
    :: else
    fi;
    unlock_registry();
#ifdef OUTGOING
    if
    :: true ->                                  /* del_client */
        lock_registry();
        destination_gone = true;
        if
        :: filed ->
            TOUCH;
            ending = true;
            lock_send();
            withdrawn = true;
            if
            :: nempty(queue) && !armed_noted -> queue!marker; shut_out = true
            :: else -> queue_up(marker)
            fi;
            unlock_send()
        :: else ->
#ifndef WITHOUT_MARKING
            if
            :: live && !ended -> withdrawn = true
            :: else
            fi
#else
            skip
#endif
        fi;
        booked = false;
        unlock_registry()
    :: true
    fi
#endif
}

/* --- the peer -------------------------------------------------------------------------------------------------------------- */

active proctype peer() {
end:
    do
    :: !bytes_in && !fin_in && !reset -> bytes_in = true
    :: !fin_in && !reset -> fin_in = true
    :: !reset -> reset = true
    :: room -> room = false
    :: !room && !reset -> room = true
    :: break
    od
}

/* --- at rest -------------------------------------------------------------------------------------------------------------- */

active proctype judge() {
    (timeout && timer:beats == 6);
    assert(!ended || !live);                                            /* what ended is gone */
    assert(live || (handed == written + returned && notices == 1));     /* nothing lost, told once */
    assert(!(destination_gone && booked));                              /* withdrawn is withdrawn */
    assert(!(shut_before && live));                                     /* silence ends */
    assert(!(destination_gone && live && filed && !room))               /* a withdrawn one ends though nobody reads */
}
