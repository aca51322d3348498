#!/usr/bin/env python3
"""Runs B1 and B2 with Python's sqlite3 module on the benchmark file and prints every figure
of the benchmark run as ratios, with its target.

Python's sqlite3 is what a user would pick instead of this layer; it reads the same file in
the same state as the C++ benchmarks: a read-write connection with the layer's pragmas holds
the file open, and the queries run on a second, read-only connection.
"""
import argparse
import json
import random
import sqlite3
import statistics
import sys
import time

POINT_QUERY = "SELECT id, path, language, hash FROM files WHERE id = ?"
BENCH_FILES = 50000
COLUMNS = ["id", "path", "language", "hash"]


def rotation_queries():
    queries = []
    for mask in range(1, 16):
        picked = [c for i, c in enumerate(COLUMNS) if mask & (1 << i)]
        queries.append("SELECT " + ", ".join(picked) + " FROM files WHERE id = ?")
    queries += [
        "SELECT hash, path FROM files WHERE id = ?",
        "SELECT length(path) FROM files WHERE id = ?",
        "SELECT COUNT(*) FROM files WHERE id = ?",
        "SELECT path FROM files WHERE id = ? AND language IS NOT NULL",
        "SELECT id, language FROM files WHERE id >= ? ORDER BY id LIMIT 1",
    ]
    return queries


def per_call_ns(body, calls, repeats=5):
    runs = []
    for _ in range(repeats):
        started = time.perf_counter_ns()
        body(calls)
        runs.append((time.perf_counter_ns() - started) / calls)
    return statistics.median(runs)


def python_figures(db_path):
    writer = sqlite3.connect(db_path)
    for pragma in ("PRAGMA page_size=8192", "PRAGMA auto_vacuum=INCREMENTAL",
                   "PRAGMA journal_mode=WAL", "PRAGMA foreign_keys=ON", "PRAGMA synchronous=NORMAL"):
        writer.execute(pragma).fetchall()
    reader = sqlite3.connect(f"file:{db_path}?mode=ro", uri=True, check_same_thread=False)
    reader.row_factory = sqlite3.Row  # rows by name and position, as the layer gives them
    ids = [random.Random(42 + i).randint(1, BENCH_FILES) for i in range(4096)]
    queries = rotation_queries()

    def b1(calls):
        execute = reader.execute
        for i in range(calls):
            execute(POINT_QUERY, (ids[i & 4095],)).fetchone()

    def b2(calls):
        execute = reader.execute
        for i in range(calls):
            execute(queries[i % 20], (ids[i & 4095],)).fetchone()

    b1(2000)
    b2(2000)
    figures = {"B1": per_call_ns(b1, 100000), "B2": per_call_ns(b2, 100000)}
    reader.close()
    writer.close()
    return figures


def medians(results):
    found = {}
    for entry in results["benchmarks"]:
        name = entry["run_name"]
        if entry.get("aggregate_name") == "median" or entry.get("run_type") == "iteration":
            if entry.get("run_type") == "iteration" and name in found:
                continue
            found[name] = entry
    return found


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--results", required=True, help="Google Benchmark JSON output")
    parser.add_argument("--db", required=True, help="the benchmark database file")
    args = parser.parse_args()

    with open(args.results) as handle:
        runs = medians(json.load(handle))
    ns = {name: entry["real_time"] for name, entry in runs.items() if entry.get("time_unit") == "ns"}
    python = python_figures(args.db)

    rows = []

    def add(name, value, target, passed):
        rows.append((name, value, target, "yes" if passed else "NO"))

    b1 = ns["B1_PointQuery_Database"] / ns["B1_PointQuery_RawC"]
    add("B1 point query: Database / raw C (reused statement)", f"{b1:.3f}x", "<= 1.10x", b1 <= 1.10)
    b2 = ns["B2_Rotation_Database"] / ns["B2_Rotation_RawCPrepared"]
    add("B2 20 texts: Database / raw C (pre-prepared)", f"{b2:.3f}x", "<= 1.15x", b2 <= 1.15)
    b2p = ns["B2_Rotation_RawCPrepareEach"] / ns["B2_Rotation_Database"]
    add("B2 20 texts: raw C preparing each call / Database", f"{b2p:.2f}x faster", ">= 3x", b2p >= 3)
    p1 = python["B1"] / ns["B1_PointQuery_Database"]
    add("B1 point query: Python sqlite3 / Database", f"{p1:.2f}x faster", ">= 1.3x", p1 >= 1.3)
    p2 = python["B2"] / ns["B2_Rotation_Database"]
    add("B2 20 texts: Python sqlite3 / Database", f"{p2:.2f}x faster", ">= 2x", p2 >= 2)

    for pool in (1, 0):
        name = f"B3_ReadLatencyDuringWrite/pool:{pool}/iterations:1/repeats:1/real_time"
        entry = runs.get(name) or next((e for n, e in runs.items() if n.startswith(
            f"B3_ReadLatencyDuringWrite/pool:{pool}")), None)
        if entry is None:
            continue
        label = "pool" if pool else "QUILMA_DB_READERS=0"
        ratio = entry["write_p99_us"] / entry["idle_p99_us"]
        if pool:
            add("B3 read p99 during a 3 s write / idle p99 (pool)", f"{ratio:.2f}x", "<= 1.25x",
                ratio <= 1.25)
            add("B3 reads over 1 ms during the write (pool)",
                f"{int(entry['write_over_1ms'])} of {int(entry['write_reads'])}, reader preempted "
                f"{int(entry['write_preempted'])} times (idle: {int(entry['idle_over_1ms'])} of "
                f"{int(entry['idle_reads'])}, preempted {int(entry['idle_preempted'])} times)", "0",
                entry["write_over_1ms"] == 0)
        rows.append((f"B3 read latency during the write ({label})",
                     f"p50 {entry['write_p50_us']:.1f} us, p99 {entry['write_p99_us']:.1f} us, "
                     f"max {entry['write_max_us']:.0f} us; idle p50 {entry['idle_p50_us']:.1f} us, "
                     f"p99 {entry['idle_p99_us']:.1f} us, max {entry['idle_max_us']:.0f} us", "", ""))

    print("| measure | figure | target | met |")
    print("|---|---|---|---|")
    for name, value, target, met in rows:
        print(f"| {name} | {value} | {target} | {met} |")
    print()
    print("Per call (median): " + ", ".join(
        f"{name} {value:.0f} ns" for name, value in sorted(ns.items())) +
          f", Python B1 {python['B1']:.0f} ns, Python B2 {python['B2']:.0f} ns")
    return 0


if __name__ == "__main__":
    sys.exit(main())
