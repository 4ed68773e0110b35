#!/usr/bin/python3
"""Measures sessions over bad lines: throughput, keystrokes alone and beside bulk data, recovery
from ten seconds of silence, and bytes lost. See docs/wan.md."""
import argparse
import itertools
import json
import multiprocessing.connection
import os
import pathlib
import re
import sys
import time

from harness import documents
from harness.workspace import Workspace

import machine
import wan_cell
import wan_line
import wan_report
from wan_cell import PHASES, SYSTEMS, Cell, Job
from wan_ends import end_with_parent, fork

RATES, RTTS, LOSSES = (256_000, 1_000_000, 10_000_000, 100_000_000), (20, 100, 300, 600), (0, 1, 5)
CHECKED_RTTS = (20, 600)
QUICK = (Cell(1_000_000, 20, 0), Cell(10_000_000, 100, 1))
WINDOW_S, PATIENCE_S = 10, 10
QUICK_WINDOW_S, QUICK_PATIENCE_S = 5, 5
# What two cores carry without a delay that shows: so many phases side by side, whose lines have
# together no more than this rate, or one alone.
JOBS_A_CORE, RATE_AT_ONCE = 3, 220_000_000
JOB_LIMIT_S = 240
SUFFIXES = {"k": 1e3, "M": 1e6}


def rates(text):
    found = [re.fullmatch(r"([0-9.]+)([kM]?)", word) for word in text.split(",")]
    if None in found:
        raise argparse.ArgumentTypeError("bit/s are wanted, as in 256k,1M")
    return [int(float(match[1]) * SUFFIXES.get(match[2], 1)) for match in found]


def numbers(kind):
    return lambda text: [kind(word) for word in text.split(",")]


def names(known):
    def parse(text):
        if unknown := set(text.split(",")) - set(known):
            raise argparse.ArgumentTypeError(f"unknown: {', '.join(sorted(unknown))}")
        return text.split(",")
    return parse


def parse_options():
    parser = argparse.ArgumentParser(prog="scripts/wan", description=__doc__)
    add = parser.add_argument
    add("--rates", type=rates, metavar="BIT/S,...", help="default 256k,1M,10M,100M")
    add("--rtts", type=numbers(int), metavar="MS,...", help="default 20,100,300,600")
    add("--losses", type=numbers(float), metavar="PERCENT,...", help="default 0,1,5")
    add("--systems", type=names(SYSTEMS), metavar="NAME,...",
        help=f"default {','.join(SYSTEMS)}")
    add("--phases", type=names(PHASES), metavar="NAME,...", help=f"default {','.join(PHASES)}")
    add("--seconds", type=float, metavar="S", help=f"of each window (default {WINDOW_S})")
    add("--quick", action="store_true", help="two lines with short windows; prints only")
    add("--check", action="store_true", help="measure the line itself, and nothing over it")
    add("--jobs", type=int, default=JOBS_A_CORE * (os.cpu_count() or 1), metavar="N",
        help="phases side by side, at most (default %(default)s); 1 is the most exact")
    add("--congestion", default="cubic", metavar="NAME",
        help="control of all TCP connections (default %(default)s, which is Linux's own)")
    add("--json", type=pathlib.Path, metavar="FILE", help="all figures go there")
    documents.add_option(parser)
    return parser.parse_args()


def choose_cells(options):
    """The cells, and whether they are all that the document has."""
    parts = (options.rates, options.rtts, options.losses)
    if options.quick and not any(parts):
        return QUICK, False
    cells = [Cell(*point) for point in itertools.product(
        options.rates or RATES, options.rtts or RTTS, options.losses or LOSSES)]
    whole = not any((*parts, options.systems, options.phases, options.seconds, options.quick))
    return cells, whole


def choose_jobs(options, cells):
    window_s = options.seconds or (QUICK_WINDOW_S if options.quick else WINDOW_S)
    patience_s = QUICK_PATIENCE_S if options.quick else PATIENCE_S
    return [Job(cell, system, phase, window_s, patience_s, options.congestion)
            for cell in cells for phase in options.phases or PHASES
            for system in options.systems or SYSTEMS]


def work(run, arguments, answer):
    end_with_parent()
    try:
        answer.send(run(*arguments))
    except Exception as error:  # whatever it is, the other phases go on, and it is shown
        answer.send({"fault": f"{type(error).__name__}: {error}"[:2000]})


class Running:
    """A job in a process of its own, which takes all that it has started with it."""

    def __init__(self, run, arguments):
        self.answer, theirs = fork.Pipe(duplex=False)
        self._process = fork.Process(target=work, args=(run, arguments, theirs))
        self._process.start()
        theirs.close()
        self.limit = time.monotonic() + JOB_LIMIT_S

    def finish(self):
        """What it has found; called when the answer is there, or the time is over."""
        found = {"fault": f"not done within {JOB_LIMIT_S} s, or ended"}
        try:
            if self.answer.poll():
                found = self.answer.recv()
        except EOFError:
            pass
        self._process.kill()
        self._process.join()
        return found


def run_side_by_side(jobs, directory, at_once, done):
    """Calls done(job, figures) for each, the largest rates first."""
    waiting, running = sorted(jobs, key=lambda job: -job.cell.rate), {}
    while waiting or running:
        rate = sum(job.cell.rate for job in running)
        for job in [job for job in waiting if len(running) < at_once]:
            if len(running) < at_once and (not running or rate + job.cell.rate <= RATE_AT_ONCE):
                running[job] = Running(wan_cell.run, (directory, job))
                rate += job.cell.rate
                waiting.remove(job)
        multiprocessing.connection.wait([found.answer for found in running.values()], 1)
        now = time.monotonic()
        for job, found in list(running.items()):
            if found.answer.poll() or now > found.limit:
                done(job, found.finish())
                del running[job]


def measure(options, cells, workspace):
    """{(cell, system): {phase: figures}}, and what went wrong."""
    jobs = choose_jobs(options, cells)
    results = {(job.cell, job.system): {} for job in sorted(
        jobs, key=lambda job: (job.cell, list(SYSTEMS).index(job.system)))}
    faults, began = [], time.monotonic()

    def done(job, found):
        results[job.cell, job.system][job.phase] = found
        if "fault" in found:
            faults.append(f"{job.name}: {found['fault']}")
        count = sum(map(len, results.values()))
        print(f"{time.monotonic() - began:.0f} s, {count} of {len(jobs)}: {job.name}"
              + (f": {found['fault']}" if "fault" in found else ""), file=sys.stderr)

    run_side_by_side(jobs, workspace.directory, options.jobs, done)
    return results, faults


def check_line(options):
    """Rows of figures of the line itself, one after the other."""
    for rate, rtt in itertools.product(options.rates or RATES, options.rtts or CHECKED_RTTS):
        running = Running(wan_line.measure, (rate, rtt, options.congestion))
        running.answer.poll(JOB_LIMIT_S)
        row = running.finish()
        if "fault" in row:
            raise SystemExit(row["fault"])
        print(row, file=sys.stderr)
        yield row


def conditions(options):
    here = machine.describe()
    return (f"Measured on {here['date']}, {here['processors']} x {here['model']}, Linux "
            f"{here['kernel']}, {here['system']}, {here['openssl']}, {here['ssh']}; TCP over the "
            f"line with {options.congestion}; {options.jobs} phases side by side at most.")


def publish(options, section, lines, whole):
    text = "\n".join(lines)
    print(text)
    if whole and not options.print:
        documents.replace_section("wan.md", section, text)


def main():
    options = parse_options()
    cells, whole = choose_cells(options)
    if (whole or options.check) and not options.print:
        documents.refuse_under_load("wan.md")
    if options.check:
        publish(options, "line", wan_report.line_table(list(check_line(options))),
                not (options.rates or options.rtts))
        return 0
    with Workspace() as workspace:
        results, faults = measure(options, cells, workspace)
    if options.json:
        options.json.write_text(json.dumps(
            [{"rate": cell.rate, "rtt": cell.rtt, "loss": cell.loss, "system": system, **phases}
             for (cell, system), phases in results.items()], indent=1))
    publish(options, "wan", [conditions(options), "", *wan_report.tables(results)],
            whole and not faults)
    print("\n".join(faults), file=sys.stderr)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
