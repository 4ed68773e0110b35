"""One cell of the matrix: brings a gateway into a state, lets a fault happen, and measures.

Usage: cell.py STATE FAULT DIRECTORY TLS_DIRECTORY; prints a record in JSON. Its `problems` are
empty when every check passed.
"""
import collections
import json
import os
import pathlib
import re
import select
import sys
import time
import traceback

from harness.footprint import held_by

from catalogue import (ACCEPTED, ALL_FAULTS, CONNECTED, DROPPED_DOWN, DROPPED_UP, END, FAILED,
                       GIVEN_UP, LINES, RATE, START, STARTS_BY_ITSELF, wait_until)
from traffic import Session, Traffic
from world import World

# The first record of the gateway after the handshake of TLS and the upgrade is number 4.
HELD_AT = {"opening": 0, "handshaking": 4}
SMALL_RATE, MANY = 16_000, 31  # one session is left for the probe
OPENING_LIMIT_S, HANDSHAKE_LIMIT_S = 13, 3.5
NAP_S, LOST_PAUSE_S = 0.3, 0.5
SLACK_S = 1.0  # a busy machine, and a log that is looked at every 10 ms
BEYOND_S = 4   # a fault that is over when noticed would show no failed opening


class Cell:
    def __init__(self, state, name, directory, tls):
        self.state, self.name, self.fault = state, name, ALL_FAULTS[name]
        self.world = World(directory, tls, name.startswith("clock"),
                           gw_remoteaccess_ping_period=self.fault.ping_s,
                           gw_remoteaccess_tcp_keepalive_period=self.fault.keepalive_s,
                           gw_remoteaccess_trans_timeout=self.fault.write_ms)
        self.edge, self.traffic = self.world.edge, Traffic()
        self.cut = state in self.fault.cuts
        self.sessions, self.problems, self.ended = [], [], None
        self.began = self.before = None

    def check(self, holds, problem):
        if not holds:
            self.problems.append(problem)

    def seen(self, text, after=0.0):
        """When the lines with this text (or pattern) came."""
        fits = text.fullmatch if isinstance(text, re.Pattern) else text.__eq__
        return [event.at for event in self.edge.events if event.at >= after and fits(event.text)]

    def wait(self, text, seconds, after=0.0):
        found = wait_until(lambda: self.seen(text, after), seconds)
        self.check(found, f"no line {text!r} within {seconds:g} s")
        return found[0] if found else None

    # ---- before the fault

    def start(self, manager=True):
        if manager:
            self.edge.start_manager()
            self.edge.wait_for_name("iot.gateway.config_manager")
        self.edge.start_daemon()

    def enter_state(self):
        if self.name in STARTS_BY_ITSELF:
            return
        self.world.relay.hold_at = HELD_AT.get(self.state)
        self.start()
        if self.state in HELD_AT:
            self.check(wait_until(lambda: self.world.relay.holding, 30), "nothing to hold")
            return
        self.wait(ACCEPTED, 30)
        self.probe(5)
        self.check_no_session()
        self.before = held_by(self.edge.daemon.pid).descriptors
        up, down = {"uploading": (RATE, 0), "downloading": (0, RATE)}.get(self.state, (0, 0))
        for number in range(MANY if self.state == "32 sessions" else 1):
            if self.state == "32 sessions":
                up, down = (SMALL_RATE, 0) if number % 2 else (0, SMALL_RATE)
            self.sessions.append(Session(*self.open_session(), up, down))
        self.traffic.sessions = list(self.sessions)
        time.sleep(1.5)

    def fault_begins(self):
        self.began = time.monotonic()

    # ---- what is measured

    def open_session(self):
        """(client, service) of a session that carries bytes both ways, or None."""
        nonce, client, service = os.urandom(16), None, None
        try:
            client = self.world.client()
            client.sendall(nonce)
            while True:  # what earlier attempts left behind comes first
                ready, _, _ = select.select([self.world.service, client], [], [], 2)
                if self.world.service not in ready:
                    raise OSError("turned away, or no answer")
                service, _ = self.world.service.accept()
                service.settimeout(1)
                if service.recv(16) == nonce:
                    break
                service.close()
            service.sendall(nonce)
            if client.recv(16) == nonce:
                return client, service
        except OSError:
            pass
        for end in filter(None, (client, service)):
            end.close()
        return None

    def probe(self, seconds):
        """When a new session worked."""
        ends = wait_until(self.open_session, seconds)
        self.check(ends, f"no new session within {seconds:g} s")
        for end in ends or ():
            end.close()
        return time.monotonic() if ends else None

    def noticed(self):
        if self.ended:  # the operator notices
            self.check(wait_until(lambda: self.ended.up.sink_ended, 5), "the session did not end")
            return self.ended.up.sink_ended
        lost = (FAILED if self.state == "opening" else END) if self.cut else None
        line = self.fault.seen.get(self.state, lost)
        return line and self.wait(line, self.fault.limit_s + SLACK_S, self.began)

    def works_again(self, since):
        again = self.probe(40)
        if self.name == "bus":
            wait_until(lambda: self.edge.sessions() is not None, 10)
            again = time.monotonic()
        if self.cut and again and (accepted := self.seen(ACCEPTED, since)):
            self.check(again < accepted[0] + SLACK_S, "no new session though accepted")
        return again

    def run(self):
        self.enter_state()
        self.fault_begins()
        self.fault.begin(self)
        if self.world.relay.hold_at is not None:
            time.sleep(0.2)
            self.world.relay.hold_at = None
        noticed_at = self.noticed()
        lasts, now = self.fault.lasts, time.monotonic()
        over = (noticed_at or now) + BEYOND_S if lasts is None else self.began + lasts
        if not self.cut and self.state in CONNECTED:
            self.check_undisturbed(max(1, over - now))
        time.sleep(max(0, over - time.monotonic()))
        if self.fault.end:
            self.fault.end(self)
        over = self.began if self.cut and not self.fault.end else time.monotonic()
        since = max(over, noticed_at or over) if self.cut else over
        again_at = self.works_again(since)
        time.sleep(2)
        lost = self.check_bytes()
        self.check_schedule(over)
        self.check_leftovers()
        return {"noticed": noticed_at and noticed_at - self.began, "lost": lost,
                "again": again_at and again_at - since,
                "ended": [at - self.began for at in self.seen(re.compile(r"status \d+"))]}

    # ---- what has to hold

    def check_undisturbed(self, seconds):
        """The channel and every session live on, and new ones can be opened."""
        since = time.monotonic()
        if self.fault.answers:
            self.probe(5)
        wait_until(lambda: self.seen(END, since), since + seconds - time.monotonic())
        self.check(not self.seen(END, since), "the channel was lost")

    def check_no_session(self):
        self.check(wait_until(lambda: self.edge.sessions() == 0, 5), "sessions left over")

    def check_bytes(self):
        """How many bytes did not arrive. A session that lives on has lost none but with a line of
        the log, and one that does not has ended on both sides."""
        for session in self.sessions:
            session.up.rate = session.down.rate = 0
        time.sleep(1.5)  # what is under way arrives
        for session in self.sessions:
            ends = session.ends()
            self.check(all(ends) if self.cut else not any(ends), f"ends of a session: {ends}")
            stalled = self.name == "service-stalls" and session is self.sessions[0]
            for stream, logged in ((session.up, self.seen(DROPPED_UP)),
                                   (session.down, stalled and self.seen(DROPPED_DOWN))):
                self.check(not stream.corrupt and (logged or not stream.holes),
                           f"{stream.holes} bytes missing without a word")
                self.check(self.cut or stream.lost == stream.holes, "bytes never arrived")
        return sum(stream.lost for session in self.sessions + [self.ended] * bool(self.ended)
                   for stream in (session.up, session.down))

    def check_schedule(self, over):
        """Every attempt begins as soon as the back-off allows and ends in time, and the first one
        that begins after the fault is over succeeds."""
        begun, free_at, failures = None, None, 0
        for event in list(self.edge.events):
            if event.text == START:
                self.check(not free_at or event.at < free_at + SLACK_S, "an attempt came late")
                begun = event.at
            elif event.text in (FAILED, END):
                failures = failures + 1 if begun else 0
                back_off = 2 ** min(failures // 5, 6) + 2 * NAP_S
                free_at = event.at + (back_off if begun else LOST_PAUSE_S)
                limit = OPENING_LIMIT_S + HANDSHAKE_LIMIT_S * (event.text == END) + SLACK_S
                self.check(not begun or event.at < begun + limit, "an attempt took too long")
                self.check(not begun or begun < over + SLACK_S,
                           "an attempt failed though the fault was over")
            elif event.text == ACCEPTED or event.level == "-":
                begun, free_at, failures = None, None, 0

    def check_leftovers(self):
        """Neither sessions nor descriptors, and no lines but proper ones."""
        for session in self.traffic.sessions:
            session.close()
        self.check_no_session()
        expected = [LINES[name] for name in ("always", *self.fault.lines)]
        record = collections.Counter(event.text for event in self.edge.events if event.level in "WE"
                                     and not any(lines.fullmatch(event.text) for lines in expected))
        given_up, ends = record.pop(GIVEN_UP, 0), len(self.seen("status 1"))
        self.check(not record, f"in the log: {dict(record)}")
        self.check(len(self.edge.runs) == 1 + ends and given_up == ends and
                   bool(ends) == self.fault.ends, f"the daemon ended {len(self.edge.runs) - 1}"
                   f" times, {given_up} times after six failed openings")
        after = held_by(self.edge.daemon.pid).descriptors
        self.check(self.before in (None, after), f"descriptors: {self.before} before, {after} now")
        self.check("has not been fed" not in self.edge.log_beside("watchdog"), "watchdog not fed")


def main():
    state, name, directory, tls = sys.argv[1:]
    cell, result = Cell(state, name, pathlib.Path(directory), pathlib.Path(tls)), {}
    try:
        result = cell.run()
    except Exception:
        cell.problems.append(traceback.format_exc())
    cell.traffic.stop()
    cell.problems += cell.edge.stop()
    print(json.dumps({**result, "problems": cell.problems,
                      "lag": cell.edge.lag}))


if __name__ == "__main__":
    main()
