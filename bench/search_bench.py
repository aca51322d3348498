#!/usr/bin/env python3
"""The search benchmark: `quilma-db search`, from process start to exit, against
`git grep --no-index` over the same generated tree (the index benchmark's, about 20 000 files
and 200 MiB), for a rare and a common identifier.

Each command runs once to warm the page cache, then RUNS times; the median wall time counts.
The ratio is git grep's time over quilma-db's, so above 1 means quilma-db is faster. The
row with --as-indexed leaves out the check for files changed since the index was updated, so
the two -w -s rows differ by that check's cost. Both
print every matching line (quilma-db with --all); the rows also say how many lines each
printed, which for -w -s must be the same.
"""
import os
import sqlite3
import statistics
import subprocess
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from index_bench import tree_arguments  # noqa: E402

RUNS = 7


def wall(command, cwd):
    """Median seconds of `command` from start to exit, and the lines it printed."""
    subprocess.run(command, cwd=cwd, capture_output=True, check=False)
    times = []
    lines = 0
    for _ in range(RUNS):
        started = time.perf_counter()
        run = subprocess.run(command, cwd=cwd, capture_output=True, check=False)
        times.append(time.perf_counter() - started)
        lines = run.stdout.count(b"\n")
    return statistics.median(times), lines


def identifiers(db, tree):
    """A rare identifier (whole, in 1 to 5 lines) and the most common word, from the index's
    terms."""
    conn = sqlite3.connect(f"file:{db}?mode=ro", uri=True)
    conn.execute("CREATE VIRTUAL TABLE temp.terms USING fts5vocab(main, code_chunks, 'row')")
    candidates = conn.execute("SELECT term FROM temp.terms WHERE doc BETWEEN 1 AND 5 "
                              "AND length(term) >= 8 AND term GLOB '[a-z]*' ORDER BY doc DESC, "
                              "term LIMIT 200").fetchall()
    common = conn.execute("SELECT term FROM temp.terms WHERE term GLOB '[a-z]*' "
                          "AND length(term) >= 4 ORDER BY doc DESC LIMIT 1").fetchone()[0]
    conn.close()
    # The index keeps words in lower case: take the first that stands alone, as it is written.
    for (term,) in candidates:
        found = subprocess.run(["git", "grep", "--no-index", "-h", "-o", "-i", "-w", "-I", term],
                               cwd=tree, capture_output=True, check=False, text=True)
        if found.stdout:
            return found.stdout.split("\n")[0], common
    raise SystemExit("no rare identifier stands alone in the tree")


def main():
    args, tree = tree_arguments(__doc__)
    db = os.path.join(args.dir, "search-bench", "index.db")
    if not os.path.exists(db):
        subprocess.run([args.binary, "-q", "--db", db, "index", tree], check=True,
                       stdout=subprocess.DEVNULL)
    rare, common = identifiers(db, tree)

    print(f"{'identifier':28} {'command':34} {'lines':>7} {'seconds':>8} {'git grep / quilma-db':>21}")
    for name, term in (("rare", rare), ("common", common)):
        grep_seconds, grep_lines = wall(["git", "grep", "--no-index", "-n", "-w", "-I", term], tree)
        # --as-indexed skips the check for files changed since the index was updated.
        for flags in (["-w", "-s"], ["--as-indexed", "-w", "-s"], []):
            seconds, lines = wall([args.binary, "--db", db, "search", "--all", *flags, term], tree)
            label = "search --all " + " ".join(flags)
            print(f"{name + ' ' + term:28} {label:34} {lines:7d} {seconds:8.3f} "
                  f"{grep_seconds / seconds:20.1f}x")
        print(f"{name + ' ' + term:28} {'git grep -n -w -I':34} {grep_lines:7d} {grep_seconds:8.3f}")


if __name__ == "__main__":
    main()
