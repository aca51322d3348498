#!/usr/bin/env python3
"""The Python binding against Python's own sqlite3, on one file, in one run.

Prints each figure as a ratio: the binding's time over sqlite3's (lower is better), or for the
threads the queries per second of four threads over those of one. Each pair is measured in
alternating rounds and the medians compared, since the machines are shared and noisy.
Needs the built package: PYTHONPATH=build/default/python bench/python_bench.py
"""

import argparse
import os
import random
import sqlite3
import statistics
import tempfile
import threading
import time

from quilma.storage.database import Database

ROWS = 100_000
POINT = "SELECT path, size FROM bench WHERE id = ?"


def build(path):
    with Database(path) as db:
        db.execute("CREATE TABLE IF NOT EXISTS bench (id INTEGER PRIMARY KEY, path TEXT, size INTEGER)")
        if db.fetchone("SELECT count(*) FROM bench")[0] != ROWS:
            db.execute("DELETE FROM bench")
            db.executemany("INSERT INTO bench VALUES (?, ?, ?)",
                           [(i, f"src/module_{i % 97}/file_{i}.py", i * 7) for i in range(1, ROWS + 1)])


def median_rounds(pairs, rounds):
    """Runs each (ours, theirs) callable alternately; returns the medians of their times."""
    ours, theirs = [], []
    for _ in range(rounds):
        for work, times in ((pairs[0], ours), (pairs[1], theirs)):
            start = time.perf_counter()
            work()
            times.append(time.perf_counter() - start)
    return statistics.median(ours), statistics.median(theirs)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--dir", default=os.environ.get("QUILMA_BENCH_DIR") or tempfile.gettempdir())
    parser.add_argument("--rounds", type=int, default=7)
    args = parser.parse_args()
    path = os.path.join(args.dir, "python_bench.db")
    build(path)
    db = Database(path)
    db.connect()
    conn = sqlite3.connect(path, isolation_level=None, check_same_thread=False)
    conn.row_factory = sqlite3.Row  # the same shape of result: rows by position and name
    ids = [random.randrange(1, ROWS + 1) for _ in range(20_000)]

    def ours_point():
        for i in ids:
            db.fetchone(POINT, (i,))

    def theirs_point():
        for i in ids:
            conn.execute(POINT, (i,)).fetchone()

    groups = [ids[k:k + 20] for k in range(0, 4000, 20)]

    def ours_read():
        for group in groups:
            with db.read() as cur:
                for i in group:
                    cur.execute(POINT, (i,)).fetchone()

    def theirs_read():
        for group in groups:
            conn.execute("BEGIN")
            for i in group:
                conn.execute(POINT, (i,)).fetchone()
            conn.execute("COMMIT")

    def ours_all():
        db.fetchall("SELECT id, path, size FROM bench")

    def theirs_all():
        conn.execute("SELECT id, path, size FROM bench").fetchall()

    def qps(threads):
        share = ids[: len(ids) // threads * threads]
        per = len(share) // threads
        barrier = threading.Barrier(threads + 1)

        def run(part):
            barrier.wait()
            for i in part:
                db.fetchone(POINT, (i,))

        workers = [threading.Thread(target=run, args=(share[k * per:(k + 1) * per],))
                   for k in range(threads)]
        for worker in workers:
            worker.start()
        barrier.wait()
        start = time.perf_counter()
        for worker in workers:
            worker.join()
        return len(share) / (time.perf_counter() - start)

    figures = []
    for name, pair, unit in (
        ("fetchone point query / sqlite3", (ours_point, theirs_point), len(ids)),
        ("20 queries in one read / sqlite3 in one transaction", (ours_read, theirs_read), len(groups)),
        ("fetchall of 100 000 rows / sqlite3 fetchall", (ours_all, theirs_all), 1),
    ):
        ours, theirs = median_rounds(pair, args.rounds)
        figures.append((name, ours / theirs, f"{ours / unit * 1e6:.2f} us vs {theirs / unit * 1e6:.2f} us"))
    rounds = [(qps(1), qps(4)) for _ in range(args.rounds)]  # alternating, as the pairs above
    one = statistics.median(single for single, _ in rounds)
    four = statistics.median(together for _, together in rounds)
    figures.append(("4 threads / 1 thread, point queries per second", four / one,
                    f"{four:.0f} vs {one:.0f} qps"))
    for name, ratio, detail in figures:
        print(f"{name:55s} {ratio:5.2f}x  ({detail})")
    db.close()
    conn.close()


if __name__ == "__main__":
    main()
