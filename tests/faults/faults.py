"""Walks the running collector through faults, and prints one table: what became of each line of the log, and of the
other jobs meanwhile. See scripts/faults --help."""

import argparse
import random
import signal
import sys
import traceback

import database
import logs
import processes
import surroundings
from server import Server
from walk import Walk

GROUPS = {"processes": processes, "logs": logs, "database": database, "surroundings": surroundings}
HEAD = ["fault", "runs", "lines", "stored once", "doubled", "lost", "longest gap of samples/passes, s", "MB"]
HEAD += ["log lines a minute"]


def walk_through(name, fault, runs, server, options):
    """The fault's row, and what went wrong."""
    walk = Walk(server, options.binary, f"{options.seed} {name}", options.memory_factor)
    try:
        account = fault(walk, runs)
        return [name, str(runs), *account.row()], walk.complaints
    except Exception:  # a fault that breaks the test is told beside the others
        return [name, str(runs)], [*walk.complaints, traceback.format_exc(), *walk.collector.log()[-20:]]
    finally:
        walk.close()


def print_table(rows):
    widths = [max(len(row[column]) for row in rows if column < len(row)) for column in range(len(rows[0]))]
    for row in rows:
        name, *figures = row
        cells = [figure.rjust(width) for figure, width in zip(figures, widths[1:])]
        print("  ".join([name.ljust(widths[0]), *cells]))


def main():
    parser = argparse.ArgumentParser(prog="scripts/faults", description=__doc__)
    parser.add_argument("--binary", required=True, help="the collector")
    parser.add_argument("--group", choices=GROUPS, help="only the faults of this group")
    parser.add_argument("--only", help="only the faults whose names contain this")
    parser.add_argument("--runs", type=int, help="how often each fault comes; by default a few times")
    parser.add_argument("--seed", type=int, help="decides the moments; by default a new one that is printed")
    parser.add_argument("--memory-factor", type=float, default=1, help="times the memory that the collector may take")
    options = parser.parse_args()
    # Whoever ends this ends the server and removes the folders with it.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    if options.seed is None:
        options.seed = random.randrange(1_000_000)
    print(f"seed {options.seed}", flush=True)

    groups = [GROUPS[options.group]] if options.group else GROUPS.values()
    chosen = [fault for group in groups for fault in group.FAULTS if (options.only or "") in fault[0]]
    if not chosen:
        parser.error(f"no fault is called {options.only}")
    server = Server()
    rows, failed = [HEAD], False
    try:
        for name, fault, few in chosen:
            row, complaints = walk_through(name, fault, options.runs or few, server, options)
            rows.append(row)
            print(f"{name}: {', '.join(row[1:])}", flush=True)
            for complaint in complaints:
                failed = True
                print(f"  WRONG: {complaint}", flush=True)
    finally:
        server.close()
    print()
    print_table(rows)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
