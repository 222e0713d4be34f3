/* One outgoing record before it is established: connecting, or in its exchange. The set-up, send and receive threads pass
 * it on, the timer cancels and retries, the Center withdraws the destination.
 *
 * Take a rule out:  -DWITHOUT_UNFILE         entries that name the record are erased before it is destroyed
 *                   -DWITHOUT_MARKING        a withdrawal marks a record that is in no registry just now
 *                   -DWITHOUT_CLOSING_LOCK   the socket is closed inside the hold that books the record
 *                   -DWITHOUT_SECOND_CANCEL  a second cancellation arms without the mask that the set-up thread ignores
 *                   -DWITHOUT_COUNTER_LOCK   the count of bytes to send changes only under send_lock
 */

bool live = true;
bool in_connecting = true;      /* entry of g_connect_map */
bool in_waiting = false;        /* entry of g_connect_fail_map */
bool established = false;       /* entry of g_establish_client_map */
bool withdrawn = false;         /* close_requested */
bool cancelled = false;
bool destination_gone = false;
byte remain = 0;                /* 2 the whole block, 1 a part, 0 nothing */
byte registry_owner = 0;
byte send_owner = 0;

/* The socket: a number tells one life of the descriptor from the next; 0 is closed. */
byte fd = 1;
byte sockets = 1;
bool done = false;              /* the kernel completed the connect */
bool failed = false;            /* the kernel gave it up */
byte shuts = 0;                 /* SHUT_RDWR calls on this socket */
bool peer_answers = false;
bool peer_gone = false;

bool init_known = true;         /* registered with the set-up instance */
bool init_due = true;
bool init_with_in = false;      /* EPOLLIN stands in that registration */
bool send_due = false;
bool recv_due = false;

#define INIT_EVENT (init_due && fd != 0 && (done || failed || shuts > 0))
#define SEND_EVENT (send_due && fd != 0)
#define RECV_EVENT (recv_due && fd != 0 && (peer_answers || peer_gone || shuts > 0))

#define TOUCH assert(live)
#define MOST_SOCKETS 3

/* The registry lock is re-entrant in the relay; no path of this model needs that. */
inline lock_registry()   { atomic { registry_owner == 0 -> registry_owner = _pid + 1 } }
inline unlock_registry() { atomic { assert(registry_owner == _pid + 1); registry_owner = 0 } }
inline lock_send()       { TOUCH; atomic { send_owner == 0 -> TOUCH; send_owner = _pid + 1 } }
inline unlock_send()     { atomic { TOUCH; assert(send_owner == _pid + 1); send_owner = 0 } }

inline close_socket() {
    atomic { fd = 0; init_known = false; init_due = false; send_due = false; recv_due = false }
}

inline destroy() {
    assert(!in_connecting && !in_waiting && !established);
    atomic { TOUCH; live = false }
}

inline forget() {
#ifndef WITHOUT_UNFILE
    in_connecting = false;
    in_waiting = false
#else
    skip
#endif
}

/* failed_connect_init */
inline give_up() {
    TOUCH;
#ifdef WITHOUT_CLOSING_LOCK
    close_socket();
#endif
    lock_registry();
#ifndef WITHOUT_CLOSING_LOCK
    close_socket();
#endif
    if
    :: withdrawn -> forget(); unlock_registry(); destroy()
    :: !withdrawn -> in_waiting = true; unlock_registry()
    fi
}

/* What epoll tells the set-up thread, as measured: 0x01D and 0x015 are nobody's. */
mtype = { nobodys, completed, refused };

active proctype set_up_thread() {
    mtype event;
end:
    do
    :: atomic { INIT_EVENT ->
            init_due = false;
            if
            :: init_with_in && (failed || shuts > 1 || (done && shuts > 0)) -> event = nobodys
            :: !init_with_in && failed -> event = refused
            :: !failed && done && !(init_with_in && shuts > 0) -> event = completed
            :: !failed && !done && shuts > 0 && !(init_with_in && shuts > 1) -> event = refused
            fi
        } ->
        TOUCH;
        if
        :: event == nobodys
        :: event == completed ->
            TOUCH;
            atomic { init_known = false; init_due = false };
            lock_send();
            remain = 2;
            unlock_send();
            send_due = (fd != 0)
        :: event == refused ->
            lock_registry();
            in_connecting = false;
            unlock_registry();
            give_up()
        fi
    od
}

active proctype send_thread() {
    byte sent;
    byte left;
end:
    do
    :: atomic { SEND_EVENT -> send_due = false } ->
        TOUCH;
#ifndef WITHOUT_COUNTER_LOCK
        lock_send();
#endif
        left = remain;
        if
        :: left == 0 || shuts > 0 || peer_gone -> sent = 0
        :: left > 0 && shuts == 0 -> sent = left
        :: left == 2 && shuts == 0 -> sent = 1
        fi;
        TOUCH;
        if
        :: sent != 0 ->
            assert(sent <= remain);     /* else the count wraps, and memory that is not the block's goes out */
            remain = remain - sent;
            left = remain
        :: else
        fi;
#ifndef WITHOUT_COUNTER_LOCK
        unlock_send();
#endif
        if
        :: sent == 0 -> give_up()
        :: sent != 0 && left != 0 -> send_due = true
        :: sent != 0 && left == 0 -> recv_due = true
        fi
    od
}

active proctype receive_thread() {
end:
    do
    :: atomic { RECV_EVENT -> recv_due = false } ->
        TOUCH;
        if
        :: shuts > 0 || peer_gone -> give_up()
        :: peer_answers && shuts == 0 && !peer_gone ->
            lock_registry();
            in_connecting = false;
            established = true;
            unlock_registry()
        :: else -> give_up()
        fi
    od
}

inline cancel(seen) {
    seen = fd;
    if
    :: seen != 0 ->
        assert(fd == seen);             /* else another socket is shut */
        shuts = (shuts < 3 -> shuts + 1 : shuts);
        assert(fd == seen);
        atomic {
            if
            :: init_known ->
#ifndef WITHOUT_SECOND_CANCEL
                init_with_in = !cancelled;
#else
                init_with_in = true;
#endif
                init_due = true
            :: else
            fi
        };
        cancelled = true
    :: else
    fi
}

/* request_connect, for the record that waits */
inline try_again() {
    if
    :: sockets < MOST_SOCKETS ->
        atomic {
            sockets++;
            fd = sockets;
            done = false;
            failed = false;
            shuts = 0;
            peer_answers = false;
            peer_gone = false;
            cancelled = false;
            in_connecting = true;
            in_waiting = false;
            init_known = true;
            init_due = true;
            init_with_in = false
        }
    :: true                             /* failed at once */
    fi
}

active proctype timer() {
    byte ticks = 0;
    byte seen;
end:
    do
    :: ticks < 2 || (timeout && ticks < 7) ->
        ticks++;
        lock_registry();
        if
        :: in_connecting && ticks > 2 -> TOUCH; cancel(seen)
        :: in_connecting && ticks <= 2 -> TOUCH; cancel(seen)
        :: ticks <= 2
        :: !in_connecting && ticks > 2
        fi;
        if
        :: in_waiting -> TOUCH; try_again()
        :: else
        fi;
        unlock_registry()
    od
}

/* del_client */
active proctype center() {
    bool mine = false;
    lock_registry();
    destination_gone = true;
    if
    :: established -> withdrawn = true
    :: else
    fi;
    if
    :: in_connecting -> lock_send(); withdrawn = true;
        remain = 0;
        unlock_send()
    :: else
    fi;
    if
    :: in_waiting ->
        TOUCH;
        in_waiting = false;
        forget();
        mine = true
    :: else ->
#ifndef WITHOUT_MARKING
        if
        :: live -> withdrawn = true
        :: else
        fi
#else
        skip
#endif
    fi;
    unlock_registry();
    if
    :: mine -> destroy()
    :: else
    fi
}

active proctype network() {
end:
    do
    :: fd != 0 && !done && !failed && shuts == 0 -> done = true
    :: fd != 0 && !done && !failed && shuts == 0 -> failed = true
    :: fd != 0 && done && !peer_gone -> peer_answers = true
    :: fd != 0 && done -> peer_gone = true
    :: break
    od
}

active proctype judge() {
    (timeout && timer:ticks == 7);
    assert(!(live && fd != 0 && !established && shuts >= 2));   /* what was cancelled ends */
    assert(!(destination_gone && live && in_waiting));          /* withdrawn is withdrawn */
    assert(!(destination_gone && live && fd == 0))              /* and its record is gone */
}
