/* The protocol of kept sessions (docs/keeper.md) over a carrier that drops, cuts, delays and dies.
 *
 * One process moves both ends, the other one causes faults, of which there is a budget. A timer of
 * an end fires where nothing else can move; one that fires too early is a fault. So a run that goes
 * on for ever is a cycle, and one that stops has to stop with everything delivered.
 *
 * Offsets count units of a short stream, and a unit's value is its offset: what is lost, doubled,
 * turned or foreign is seen by its value. Elements of a carrier are a header or one unit of
 * payload; a drop takes any run of them, so it takes whole messages and tails alike.
 */

/* Bounds. model/README.md and scripts/model name them. */
#ifndef UP
#define UP 2 /* units from the operator's end, before its END */
#endif
#ifndef DOWN
#define DOWN 2 /* from the keeper */
#endif
#ifndef BUFFER
#define BUFFER 2 /* units that an end takes before it has handed them over */
#endif
#ifndef DROPS
#define DROPS 1 /* runs of elements that a carrier drops */
#endif
#ifndef LOSSES
#define LOSSES 1 /* carriers that die, or that an end gives up without need */
#endif
#ifndef BREAKS
#define BREAKS 0 /* local connections that break */
#endif
#ifndef ABSENCES
#define ABSENCES 0 /* times that the line is away for longer than the keeper waits */
#endif
#ifndef REPEATS
#define REPEATS 0 /* acknowledgements that are said again */
#endif
#define PIPE_MAX 6 /* elements on their way in one direction of a carrier */

#define CARRIERS 2 /* at a time, the older one not yet closed at the keeper */
#define NO_CARRIER CARRIERS

/* Ends. A direction is named by its sender. */
#define OPERATOR 0
#define KEEPER 1
#define OTHER(e) (1 - (e))
#define LENGTH(e) ((e) == OPERATOR -> UP : DOWN) /* of the stream that it sends */
#define PIPE(c, e) (2 * (c) + (e))

/* Elements. DATA_1 and DATA_2 announce one and two units of payload. */
#define BEGIN 1
#define RESUME 2
#define HELLO 3
#define WELCOME 4
#define REFUSED 5 /* unknown, or over */
#define REFUSED_WHOLE 14 /* over, and both streams had arrived */
#define ACK 6
#define ASK 7 /* an ACK that is to be answered at once */
#define END 8
#define RESET 9
#define DONE 10
#define DATA_1 11
#define DATA_2 12
#define UNIT 13

/* A carrier at the keeper. */
#define CLOSED 0
#define FRESH 1    /* nothing read yet */
#define BEGINNING 2 /* its opening read, HELLO awaited */
#define RESUMING 3
#define USED 4

/* The session at the keeper, and its outcome at the operator's end. */
#define ABSENT 0 /* not known: not yet, or forgotten */
#define RUNNING 1
#define OVER 2 /* remembered, so that a resumption is told */
#define WHOLE 3
#define FAILED 4

typedef SIDE {
    byte carrier; /* in use */
    bit ready;    /* to send DATA on it */
    byte sent;    /* next offset to send on this carrier */
    byte top;     /* the highest ever sent */
    byte acked;   /* by the other end; END counts as a unit, here and below */
    byte edge;    /* units that it lets through */
    byte received;
    byte given;      /* handed over to the local connection */
    byte told_acked; /* last said on this carrier */
    byte told_edge;
    bit asked; /* and nothing heard since */
    bit owes   /* an answer */
};

SIDE side[2];
chan pipe[4] = [PIPE_MAX] of { byte, byte, byte, byte }; /* element, offset or value, acknowledged, edge */
byte need[4] = 1; /* elements that the first frame in it takes */
bit dropping[4];  /* a run of drops goes on */
bit open[CARRIERS];
bit damaged[CARRIERS]; /* something was dropped on it */
bit died[CARRIERS];    /* what it still carries may be lost */
byte at_keeper[CARRIERS];

byte outcome = RUNNING; /* at the operator's end */
bit waiting;            /* for WELCOME or REFUSED */
bit welcomed;           /* once */
byte session = ABSENT;  /* at the keeper */
bit was_whole;          /* one that is over */

byte drops = DROPS, losses = LOSSES, breaks = BREAKS, absences = ABSENCES, repeats = REPEATS;

/* Of the step that is running. */
hidden byte element, offset, acked, edge, value, size;
hidden byte bad;
hidden byte other, via, kind, soft;

/* What an end may acknowledge: END only once all of the stream is handed over. */
#ifdef MISTAKE_END_ACKNOWLEDGED_ON_ARRIVAL
#define TAKEN(e) side[e].received
#elif defined(MISTAKE_END_NOT_COUNTED)
#define TAKEN(e) (side[e].received > LENGTH(OTHER(e)) -> LENGTH(OTHER(e)) : side[e].received)
#else
#define TAKEN(e) \
    (side[e].received > LENGTH(OTHER(e)) && side[e].given <= LENGTH(OTHER(e)) \
         -> LENGTH(OTHER(e)) : side[e].received)
#endif
#ifdef MISTAKE_ACKNOWLEDGED_BEFORE_TAKEN
byte seen[2]; /* a header has announced up to here */
#define ACKED(e) (seen[e] > side[e].received -> seen[e] : TAKEN(e))
#else
#define ACKED(e) TAKEN(e)
#endif

/* How far the other end may send: what it had acknowledged and the window beside it. */
#ifdef MISTAKE_WINDOW_IGNORES_BUFFERED
#define EDGE(e) (ACKED(e) + BUFFER)
#else
#define EDGE(e) (side[e].given + BUFFER)
#endif

#ifdef MISTAKE_END_NOT_COUNTED
#define ALL_ACKED(e) (side[e].sent > LENGTH(e) && side[e].acked >= LENGTH(e))
#else
#define ALL_ACKED(e) (side[e].acked > LENGTH(e))
#endif
#define ALL_GIVEN(e) (side[e].given > LENGTH(OTHER(e)))

#ifdef MISTAKE_WHOLE_SEEN_ON_ACK_ONLY
bit whole_seen;
#define IS_WHOLE whole_seen
#else
#define IS_WHOLE (ALL_GIVEN(OPERATOR) && ALL_ACKED(OPERATOR))
#endif

/* ---- The carrier ---- */

inline look(p)
{
    need[p] = 1;
    if
    :: len(pipe[p]) > 0 ->
        pipe[p]?<element, _, _, _>;
        if
        :: element == DATA_1 -> need[p] = 2
        :: element == DATA_2 -> need[p] = 3
        :: else
        fi
    :: else
    fi
}

inline take(p)
{
    pipe[p]?element, offset, acked, edge
}

/* A drop may start or stop in front of any element. */
inline put(c, e, what, at, ack, right)
{
    if
    :: open[c] ->
        if
        :: dropping[PIPE(c, e)] -> dropping[PIPE(c, e)] = 0
        :: !dropping[PIPE(c, e)] && drops > 0 ->
            drops--;
            dropping[PIPE(c, e)] = 1;
            damaged[c] = 1
        :: true
        fi;
        if
        :: !dropping[PIPE(c, e)] ->
            pipe[PIPE(c, e)]!what, at, ack, right;
            if
            :: len(pipe[PIPE(c, e)]) == 1 ->
                need[PIPE(c, e)] = (what == DATA_1 -> 2 : (what == DATA_2 -> 3 : 1))
            :: else
            fi
        :: else
        fi
    :: else
    fi
}

inline drain(p)
{
    do
    :: len(pipe[p]) > 0 -> pipe[p]?_, _, _, _
    :: else -> break
    od;
    need[p] = 1
}

inline clear(c)
{
    if
    :: side[OPERATOR].carrier != c && at_keeper[c] == CLOSED ->
        damaged[c] = 0;
        died[c] = 0;
        dropping[PIPE(c, OPERATOR)] = 0;
        dropping[PIPE(c, KEEPER)] = 0
    :: else
    fi
}

inline leave(e)
{
    side[e].carrier = NO_CARRIER;
    side[e].ready = 0;
    side[e].sent = 0;
    side[e].edge = 0;
    side[e].told_acked = 0;
    side[e].told_edge = 0;
    side[e].asked = 0;
    side[e].owes = 0
}

/* What the closing end has sent may still arrive, any part of it. Where it said why, all of it
 * arrives: only a fault may cost that. */
inline close_at_operator()
{
    via = side[OPERATOR].carrier;
    open[via] = 0;
    died[via] = 1;
    drain(PIPE(via, KEEPER));
    waiting = 0;
    leave(OPERATOR);
    clear(via)
}

inline close_at_keeper(c)
{
    open[c] = 0;
    died[c] = 1;
    drain(PIPE(c, OPERATOR));
    at_keeper[c] = CLOSED;
    if
    :: side[KEEPER].carrier == c ->
        leave(KEEPER);
        if
        :: session == RUNNING && ALL_GIVEN(KEEPER) && ALL_ACKED(KEEPER) ->
            /* The operator's end has everything; only that it is done has not come. */
            session = OVER;
            was_whole = 1
        :: else
        fi
    :: else
    fi;
    clear(c)
}

#ifdef MISTAKE_REFUSAL_OVERTAKEN
#define CLOSE_BEHIND(c, close) close
#else
#define CLOSE_BEHIND(c, close) \
    soft = !died[c]; close; \
    if \
    :: soft && !(side[OPERATOR].carrier != (c) && at_keeper[c] == CLOSED) -> died[c] = 0 \
    :: else \
    fi
#endif

/* ---- Sending ---- */

#define ROOM(c, e, n) (len(pipe[PIPE(c, e)]) + (n) <= PIPE_MAX)

inline frame(e, what)
{
    via = side[e].carrier;
    side[e].told_acked = ACKED(e);
    side[e].told_edge = EDGE(e);
    side[e].owes = 0;
    put(via, e, what, side[e].sent, side[e].told_acked, side[e].told_edge)
}

#define HAS_DATA(e, n) \
    (side[e].ready && side[e].sent + (n) <= LENGTH(e) && side[e].sent + (n) <= side[e].edge && \
     ROOM(side[e].carrier, e, 1 + (n)))
#define HAS_END(e) \
    (side[e].ready && side[e].sent == LENGTH(e) && ROOM(side[e].carrier, e, 1))
#define HAS_NEWS(e) \
    (side[e].ready && ROOM(side[e].carrier, e, 1) && \
     (side[e].owes || side[e].told_acked != ACKED(e) || side[e].told_edge != EDGE(e)))

inline advance(e, n)
{
    side[e].sent = side[e].sent + n;
    if
    :: side[e].sent > side[e].top -> side[e].top = side[e].sent
    :: else
    fi;
    /* What has to be kept is bounded by the other end's buffer. */
    assert(side[e].top - side[e].acked <= BUFFER + 1)
}

inline send_data(e, n)
{
    kind = DATA_1 + n - 1;
    frame(e, kind);
    put(via, e, UNIT, side[e].sent, 0, 0);
    if
    :: n == 2 -> put(via, e, UNIT, side[e].sent + 1, 0, 0)
    :: else
    fi;
    advance(e, n)
}

inline send_end(e)
{
    frame(e, END);
    advance(e, 1)
}

/* ---- Receiving ---- */

/* Takes one frame's payload; bad: it is not what its check says. */
inline take_payload(e, p, n)
{
    size = n;
    do
    :: size > 0 ->
        pipe[p]?element, value, _, _;
#ifdef MISTAKE_PAYLOAD_UNCHECKED
        assert(element == UNIT && value == offset + n - size);
#else
        bad = bad || element != UNIT || value != offset + n - size;
#endif
        size--
    :: else -> break
    od
}

#ifdef MISTAKE_WINDOW_FROM_SENT
#define NEW_EDGE(e) (side[e].sent + edge - acked)
#else
#define NEW_EDGE(e) edge
#endif

inline take_acked(e)
{
    side[e].acked = acked;
    side[e].edge = NEW_EDGE(e);
    /* Nothing acknowledged is lost: the other end has it. */
    assert(acked <= side[OTHER(e)].received)
}

#define ACK_FITS(e) (acked >= side[e].acked && acked <= side[e].top)

#ifdef MISTAKE_OFFSET_OF_ACK_UNCHECKED
#define IS_NEXT(e) (offset == side[e].received || element == ACK || element == ASK)
#else
#define IS_NEXT(e) (offset == side[e].received)
#endif

/* A frame behind HELLO and WELCOME, all but those that end the session. */
inline take_frame(e, p)
{
    bad = !IS_NEXT(e) || !ACK_FITS(e);
    size = 0;
    if
    :: element == DATA_1 -> take_payload(e, p, 1); size = 1
    :: element == DATA_2 -> take_payload(e, p, 2); size = 2
    :: element == END -> size = 1
    :: element == ACK || element == ASK || element == RESET || element == DONE
    :: else -> bad = 1 /* not the header of a frame that may come here */
    fi
}

inline take_over(e)
{
    take_acked(e);
    side[e].asked = 0;
    side[e].owes = element == ASK;
    side[e].received = side[e].received + size;
    /* Its window was kept: what waits here fits its buffer. */
    assert(side[e].received - side[e].given <=
           BUFFER + (side[e].received > LENGTH(OTHER(e)) -> 1 : 0))
}

/* An END that was not acknowledged comes again on the next carrier. */
inline forget_end(e)
{
#ifndef MISTAKE_END_REMEMBERED
    side[e].received = ACKED(e)
#else
    skip
#endif
}

/* An end never takes a carrier that does what it should for a broken one. */
#define FAULT_EXPLAINED(c) (damaged[c] || !open[c])

/* ---- The operator's end ---- */

#ifdef MISTAKE_BEGUN_AGAIN
#define OPENING BEGIN
#else
#define OPENING (welcomed -> RESUME : BEGIN)
#endif

inline open_carrier(c)
{
    side[OPERATOR].carrier = c;
    open[c] = 1;
    at_keeper[c] = FRESH;
    forget_end(OPERATOR);
    kind = OPENING;
    put(c, OPERATOR, kind, 0, 0, 0);
    side[OPERATOR].sent = side[OPERATOR].acked;
    frame(OPERATOR, HELLO);
    waiting = 1;
#ifdef MISTAKE_DATA_BEFORE_WELCOME
    side[OPERATOR].ready = 1;
    side[OPERATOR].edge = side[OPERATOR].acked + BUFFER
#endif
}

inline fail_at_operator()
{
    outcome = FAILED;
    other = side[OPERATOR].carrier;
    CLOSE_BEHIND(other, close_at_operator())
}

inline fault_at_operator(c)
{
    assert(FAULT_EXPLAINED(c));
    close_at_operator()
}

inline finish_at_operator()
{
    outcome = WHOLE;
    /* A session ends as whole only if both streams are, up to the local connections. */
    assert(ALL_GIVEN(OPERATOR) && ALL_GIVEN(KEEPER));
    if
    :: side[OPERATOR].carrier != NO_CARRIER ->
        if
        :: side[OPERATOR].ready -> frame(OPERATOR, DONE)
        :: else
        fi;
        other = side[OPERATOR].carrier;
        CLOSE_BEHIND(other, close_at_operator())
    :: else
    fi
}

inline take_answer(c)
{
    if
    :: element == WELCOME && offset == side[OPERATOR].received && ACK_FITS(OPERATOR) ->
        take_acked(OPERATOR);
        waiting = 0;
        welcomed = 1;
        side[OPERATOR].ready = 1;
#ifdef MISTAKE_RESUMED_FROM_SENT
        side[OPERATOR].sent = side[OPERATOR].top
#else
        side[OPERATOR].sent = acked
#endif
    :: element == REFUSED -> fail_at_operator()
    :: element == REFUSED_WHOLE && ALL_GIVEN(OPERATOR) -> finish_at_operator()
    :: else -> fault_at_operator(c)
    fi
}

inline read_at_operator(c)
{
    take(PIPE(c, KEEPER));
    if
    :: waiting -> take_answer(c)
    :: else ->
        take_frame(OPERATOR, PIPE(c, KEEPER));
        if
        :: bad || element == DONE -> fault_at_operator(c)
        :: !bad && element == RESET -> fail_at_operator()
        :: else ->
            take_over(OPERATOR);
#ifdef MISTAKE_WHOLE_SEEN_ON_ACK_ONLY
            whole_seen = element == ACK && ALL_GIVEN(OPERATOR) && ALL_ACKED(OPERATOR)
#endif
        fi
    fi;
    if
    :: side[OPERATOR].carrier == c -> look(PIPE(c, KEEPER))
    :: else
    fi
}

/* ---- The keeper ---- */

inline use(c, answer)
{
    if
    :: side[KEEPER].carrier != NO_CARRIER ->
#ifndef MISTAKE_OLDER_CARRIER_READ
        other = side[KEEPER].carrier;
        side[KEEPER].carrier = NO_CARRIER; /* its place is taken */
        close_at_keeper(other);
        leave(KEEPER)
#else
        skip
#endif
    :: else
    fi;
    at_keeper[c] = USED;
    side[KEEPER].carrier = c;
    side[KEEPER].ready = 1;
    side[KEEPER].edge = edge;
    take_acked(KEEPER);
    side[KEEPER].sent = acked;
    forget_end(KEEPER);
    frame(KEEPER, answer)
}

#ifdef MISTAKE_STALE_HELLO_TAKEN
#define HELLO_FITS true
#else
#define HELLO_FITS ACK_FITS(KEEPER)
#endif

/* A BEGIN with a known key resumes: its first WELCOME may have been lost. */
inline join_session(c)
{
    if
    :: session == ABSENT && at_keeper[c] == BEGINNING ->
        /* A service that has been given bytes of a session is not connected to again for it. */
        assert(side[KEEPER].given == 0);
        side[KEEPER].acked = 0;
        side[KEEPER].top = 0;
        side[KEEPER].received = 0;
        session = RUNNING;
        use(c, WELCOME)
    :: session == RUNNING && HELLO_FITS ->
        /* What it sends from here on it still has. */
        assert(acked >= side[KEEPER].acked);
        use(c, WELCOME)
    :: session == RUNNING && !HELLO_FITS ->
        assert(FAULT_EXPLAINED(c)); /* a carrier that comes late */
        close_at_keeper(c)
    :: session == OVER || (session == ABSENT && at_keeper[c] == RESUMING) ->
        kind = (session == OVER && was_whole -> REFUSED_WHOLE : REFUSED);
        put(c, KEEPER, kind, 0, 0, 0);
        CLOSE_BEHIND(c, close_at_keeper(c))
    fi
}

inline end_session()
{
    session = OVER;
    if
    :: side[KEEPER].carrier != NO_CARRIER ->
        other = side[KEEPER].carrier;
        CLOSE_BEHIND(other, close_at_keeper(other))
    :: else
    fi
}

inline fault_at_keeper(c)
{
    assert(FAULT_EXPLAINED(c));
    close_at_keeper(c)
}

inline read_in_session(c)
{
    take_frame(KEEPER, PIPE(c, OPERATOR));
    if
    :: bad -> fault_at_keeper(c)
    :: !bad && element == RESET -> end_session()
    :: !bad && element == DONE ->
        assert(ALL_GIVEN(OPERATOR) && ALL_GIVEN(KEEPER));
        was_whole = 1;
        end_session();
#ifdef MISTAKE_FORGOTTEN_AT_DONE
        session = ABSENT
#endif
    :: else ->
        take_over(KEEPER);
#ifdef MISTAKE_FORGOTTEN_BEFORE_DONE
        if
        :: ALL_ACKED(KEEPER) && side[KEEPER].received > UP ->
            side[KEEPER].given = UP + 1;
            frame(KEEPER, ACK);
            end_session();
            session = ABSENT
        :: else
        fi
#endif
    fi
}

inline read_at_keeper(c)
{
    take(PIPE(c, OPERATOR));
    if
    :: at_keeper[c] == USED -> read_in_session(c)
    :: at_keeper[c] == FRESH ->
        if
        :: element == BEGIN -> at_keeper[c] = BEGINNING
        :: element == RESUME -> at_keeper[c] = RESUMING
        :: else -> fault_at_keeper(c)
        fi
    :: (at_keeper[c] == BEGINNING || at_keeper[c] == RESUMING) && element == HELLO -> join_session(c)
    :: else -> fault_at_keeper(c)
    fi;
    if
    :: at_keeper[c] != CLOSED -> look(PIPE(c, OPERATOR))
    :: else
    fi
}

/* ---- Time ---- */

/* An end that waits for an acknowledgement, or has more to send than the window that it knows of
 * lets through, asks for an answer, and gives the carrier up when it then hears nothing. */
#ifdef MISTAKE_NO_QUESTION_FOR_A_WINDOW
#define WAITS(e) (side[e].ready && side[e].acked < side[e].top)
#else
#define WAITS(e) \
    (side[e].ready && (side[e].acked < side[e].top || side[e].sent < LENGTH(e)))
#endif
#ifdef MISTAKE_KEEPER_NEVER_ASKS
#define MAY_ASK(e) ((e) == OPERATOR)
#else
#define MAY_ASK(e) true
#endif

inline stop()
{
    assert(outcome != RUNNING);
    /* Without a broken local connection and a long absence everything has arrived. */
    assert(outcome == WHOLE || breaks < BREAKS || absences < ABSENCES);
    assert(session == ABSENT && at_keeper[0] == CLOSED && at_keeper[1] == CLOSED)
}

#define UNUSED(c) (side[OPERATOR].carrier != (c) && at_keeper[c] == CLOSED)

#define OPENS (outcome == RUNNING && side[OPERATOR].carrier == NO_CARRIER)

#define SENDS(e) \
    :: atomic { HAS_DATA(e, 1) -> send_data(e, 1) } \
    :: atomic { HAS_DATA(e, 2) -> send_data(e, 2) } \
    :: atomic { HAS_END(e) -> send_end(e) } \
    :: atomic { HAS_NEWS(e) -> frame(e, ACK) }

#ifdef MISTAKE_WHOLE_SEEN_ON_ACK_ONLY
#define LOOK_AGAIN whole_seen = ALL_GIVEN(OPERATOR) && ALL_ACKED(OPERATOR)
#else
#define LOOK_AGAIN skip
#endif

#define HANDS_OVER(e) \
    :: d_step { side[e].given < side[e].received -> side[e].given++; LOOK_AGAIN }

#define ASKS(e) \
    :: atomic { MAY_ASK(e) && WAITS(e) && !side[e].asked && !((e) == OPERATOR && waiting) && \
                ROOM(side[e].carrier, e, 1) -> frame(e, ASK); side[e].asked = 1 }

/* No more of what the other end, e, has sent can come. */
#define IS_OVER(c, e) (died[c] || len(pipe[PIPE(c, e)]) < need[PIPE(c, e)])

#define KEEPER_READS(c) \
    :: atomic { at_keeper[c] != CLOSED && len(pipe[PIPE(c, OPERATOR)]) >= need[PIPE(c, OPERATOR)] && \
                (at_keeper[c] == USED || ROOM(c, KEEPER, 1)) -> read_at_keeper(c) } \
    :: atomic { at_keeper[c] != CLOSED && !open[c] && IS_OVER(c, OPERATOR) -> close_at_keeper(c) }

#ifdef MISTAKE_ACKNOWLEDGED_BEFORE_TAKEN
#define SEES_HEADER(e, c, n, what) \
    :: d_step { side[e].carrier == (c) && side[e].ready && !(e == OPERATOR && waiting) && \
                pipe[PIPE(c, OTHER(e))]?[what, _, _, _] && seen[e] < side[e].received + n -> \
                seen[e] = side[e].received + n }
#endif

active proctype ends()
{
    d_step {
        side[OPERATOR].carrier = NO_CARRIER;
        side[KEEPER].carrier = NO_CARRIER
    }
    do
    SENDS(OPERATOR)
    SENDS(KEEPER)
    HANDS_OVER(OPERATOR)
    HANDS_OVER(KEEPER)
    KEEPER_READS(0)
    KEEPER_READS(1)
#ifdef MISTAKE_ACKNOWLEDGED_BEFORE_TAKEN
    SEES_HEADER(KEEPER, 0, 2, DATA_2)
#endif
    :: atomic { OPENS && UNUSED(0) -> open_carrier(0) }
    :: atomic { OPENS && !UNUSED(0) && UNUSED(1) -> open_carrier(1) }
    :: atomic { side[OPERATOR].carrier == 0 && len(pipe[PIPE(0, KEEPER)]) >= need[PIPE(0, KEEPER)] ->
                read_at_operator(0) }
    :: atomic { side[OPERATOR].carrier == 1 && len(pipe[PIPE(1, KEEPER)]) >= need[PIPE(1, KEEPER)] ->
                read_at_operator(1) }
    :: atomic { side[OPERATOR].carrier != NO_CARRIER && !open[side[OPERATOR].carrier] &&
                IS_OVER(side[OPERATOR].carrier, KEEPER) -> close_at_operator() }
    :: atomic { outcome == RUNNING && IS_WHOLE &&
                (side[OPERATOR].carrier == NO_CARRIER || ROOM(side[OPERATOR].carrier, OPERATOR, 1)) ->
                finish_at_operator() }
    :: else ->
        /* Nothing moves: time passes until a timer fires. Meanwhile no fault may come. */
idle:
        if
        :: atomic { side[OPERATOR].carrier != NO_CARRIER && waiting -> close_at_operator() }
        ASKS(OPERATOR)
        ASKS(KEEPER)
        :: atomic { side[OPERATOR].asked && WAITS(OPERATOR) && !waiting -> close_at_operator() }
        :: atomic { side[KEEPER].asked && WAITS(KEEPER) ->
                    other = side[KEEPER].carrier; close_at_keeper(other) }
        :: atomic { at_keeper[0] != CLOSED && at_keeper[0] != USED -> close_at_keeper(0) }
        :: atomic { at_keeper[1] != CLOSED && at_keeper[1] != USED -> close_at_keeper(1) }
        :: else ->
forgetting:
            if
            :: d_step { session == RUNNING && side[KEEPER].carrier == NO_CARRIER -> session = OVER }
            :: d_step { session == OVER -> session = ABSENT }
            :: else -> atomic { stop(); break }
            fi
        fi
    od
}

/* What goes wrong, as long as there is a budget for it. Drops are chosen in put. */
#define MAY_FAIL (!ends@idle && !ends@forgetting)

#define IN_USE(c) (side[OPERATOR].carrier == (c) || at_keeper[c] != CLOSED)

active proctype faults()
{
end_of_faults:
    do
    :: atomic { MAY_FAIL && losses > 0 && !died[0] && IN_USE(0) -> losses--; open[0] = 0; died[0] = 1 }
    :: atomic { MAY_FAIL && losses > 0 && !died[1] && IN_USE(1) -> losses--; open[1] = 0; died[1] = 1 }
    :: atomic { MAY_FAIL && losses > 0 && side[OPERATOR].carrier != NO_CARRIER && open[side[OPERATOR].carrier] ->
                losses--; close_at_operator() }
    :: atomic { MAY_FAIL && losses > 0 && side[KEEPER].carrier != NO_CARRIER && open[side[KEEPER].carrier] ->
                losses--; other = side[KEEPER].carrier; close_at_keeper(other) }
    :: atomic { MAY_FAIL && absences > 0 && session == RUNNING && side[KEEPER].carrier == NO_CARRIER ->
                absences--; session = OVER }
    :: atomic { MAY_FAIL && absences > 0 && session != ABSENT && side[KEEPER].carrier == NO_CARRIER &&
                at_keeper[0] == CLOSED && at_keeper[1] == CLOSED ->
                absences--; session = ABSENT }
    :: atomic { MAY_FAIL && breaks > 0 && outcome == RUNNING && side[OPERATOR].carrier != NO_CARRIER &&
                ROOM(side[OPERATOR].carrier, OPERATOR, 1) ->
                breaks--;
                if
                :: side[OPERATOR].ready -> frame(OPERATOR, RESET)
                :: else
                fi;
                fail_at_operator() }
    :: atomic { MAY_FAIL && breaks > 0 && session == RUNNING && side[KEEPER].carrier != NO_CARRIER &&
                ROOM(side[KEEPER].carrier, KEEPER, 1) ->
                breaks--;
                frame(KEEPER, RESET);
                end_session() }
    :: atomic { MAY_FAIL && repeats > 0 && side[OPERATOR].ready && !waiting &&
                ROOM(side[OPERATOR].carrier, OPERATOR, 1) ->
                repeats--; frame(OPERATOR, ACK) }
    :: atomic { MAY_FAIL && repeats > 0 && side[KEEPER].ready && ROOM(side[KEEPER].carrier, KEEPER, 1) ->
                repeats--; frame(KEEPER, ACK) }
    od
}
