"""Runs the matrix of states and faults, many cells at a time, and writes the table of it.

Each cell is a process with network namespaces of its own (cell.py). Status 0 only if every
check passed in each of them.
"""
import argparse
import concurrent.futures
import json
import pathlib
import shutil
import subprocess
import sys
import time

from harness import documents
from harness.workspace import Workspace

from catalogue import ALL_FAULTS, FAULTS, LONG_FAULTS, STATES

QUICK = (("uploading", "hole"), ("handshaking", "hole-up"), ("idle", "dns-dead"),
         ("32 sessions", "rst"), ("idle", "restarted"),
         ("idle", "dns-changed"), ("32 sessions", "bus"), ("uploading", "clock-forward"),
         ("downloading", "clock-back"), ("handshaking", "fin"), ("idle", "gone-20"),
         ("uploading", "unread"))
STALL_S = 0.3  # a process that waits so long for its turn measures nothing
HERE = pathlib.Path(__file__).resolve().parent


def run_cell(state, name, directory):
    """Repeated, up to twice, when it failed while the machine itself was stopped."""
    for attempt in range(3):
        result = run_once(state, name, directory / f"{state}-{name}-{attempt}".replace(" ", "-"))
        if not result["problems"] or result.get("lag", 0) < STALL_S:
            break
    return {**result, "cell": (state, name), "repeated": attempt}


def run_once(state, name, home):
    home.mkdir()
    try:
        done = subprocess.run([sys.executable, HERE / "cell.py", state, name, home,
                               home.parent / "tls"], capture_output=True, text=True, check=False,
                              timeout=600)
        result = json.loads(done.stdout)
    except subprocess.TimeoutExpired:
        result = {"problems": ["did not end"]}
    except ValueError:
        result = {"problems": [done.stderr]}
    if not result["problems"]:
        shutil.rmtree(home)
    return result


def size(count):
    return f"{count / 1e6:.1f} MB" if count >= 1e6 else f"{round(count / 1e3)} KB" if count else "0"


def figures(result):
    if result is None:
        return "–"
    if result["problems"]:
        return "FAILED"
    noticed, lost = result["noticed"], result["lost"]
    if noticed is None and not lost:
        return "goes on"
    noticed = "-" if noticed is None else f"{noticed:.1f}"
    return f"{noticed} / {result['again']:.1f} / {size(lost)}"


def table(results):
    """Of the states and faults that were run."""
    states = [state for state in STATES if any((state, name) in results for name in FAULTS)]
    rows = [f"| Fault | {' | '.join(states)} |", "|---|" + "---|" * len(states)]
    for name, fault in FAULTS.items():
        if any((state, name) in results for state in states):
            cells = (figures(results.get((state, name))) for state in states)
            rows.append(f"| {fault.title} | {' | '.join(cells)} |")
    rows += ["", "| Long fault | State | Figures | Process ended after |", "|---|---|---|---|"]
    for name, fault in LONG_FAULTS.items():
        for state in fault.states:
            if result := results.get((state, name)):
                ended = ", ".join(f"{at:.0f} s" for at in result.get("ended", ())) or "–"
                rows.append(f"| {fault.title} | {state} | {figures(result)} | {ended} |")
    return "\n".join(rows)


def chosen(arguments):
    if arguments.quick:
        return list(QUICK)
    return [(state, name) for name, fault in ALL_FAULTS.items() for state in fault.states
            if (not arguments.states or state in arguments.states)
            and (not arguments.faults or name in arguments.faults)]


def run_cells(cells, jobs, workspace):
    """The results by cell; what the failed ones left stays."""
    cells = sorted(cells, key=lambda cell: cell[1] not in LONG_FAULTS)  # those that wait come first
    started, results = time.monotonic(), {}
    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        running = [pool.submit(run_cell, *cell, workspace.directory) for cell in cells]
        for done in concurrent.futures.as_completed(running):
            result = done.result()
            results[result["cell"]] = result
            again = f" (repeated: {result['repeated']})" if result["repeated"] else ""
            print("{:12} {:15}".format(*result["cell"]), figures(result) + again, flush=True)
            for problem in result["problems"]:
                print(f"  {problem}")
    failed = [result for result in results.values() if result["problems"]]
    print(f"{len(results) - len(failed)} cells passed, {len(failed)} failed"
          f" in {time.monotonic() - started:.0f} s")
    workspace.keep |= bool(failed)
    return results


def main():
    parser = argparse.ArgumentParser(prog="scripts/faults", description=__doc__)
    parser.add_argument("states", metavar="STATE", nargs="*", help=", ".join(STATES))
    parser.add_argument("--faults", nargs="+", choices=ALL_FAULTS, metavar="FAULT",
                        help=", ".join(ALL_FAULTS))
    parser.add_argument("--quick", action="store_true", help="a part that takes about a minute")
    parser.add_argument("--jobs", type=int, default=14, help="cells at a time")
    documents.add_option(parser)
    arguments = parser.parse_args()
    arguments.states = [state.replace("-", " ") for state in arguments.states]
    if wrong := set(arguments.states) - set(STATES):
        parser.error(f"no such state: {', '.join(wrong)}")
    renewed = not (arguments.states or arguments.faults or arguments.quick or arguments.print)
    if renewed:
        documents.refuse_under_load("limits.md")
    with Workspace() as workspace:
        results = run_cells(chosen(arguments), arguments.jobs, workspace)
    if all(not result["problems"] for result in results.values()):
        if renewed:
            documents.replace_section("limits.md", "faults", table(results))
        return 0
    return 1


if __name__ == "__main__":
    sys.exit(main())
