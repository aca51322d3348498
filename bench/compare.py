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
import subprocess
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


def per_call_ns(body, calls):
    started = time.perf_counter_ns()
    body(calls)
    return (time.perf_counter_ns() - started) / calls


def cpp_per_call_ns(bench, names):
    """Nanoseconds per call of the named C++ benchmarks, from one short run of the binary."""
    output = subprocess.run(
        [bench, "--benchmark_filter=^(" + "|".join(names) + ")$", "--benchmark_min_time=0.3",
         "--benchmark_format=json"], check=True, capture_output=True, text=True).stdout
    return {entry["name"]: entry["real_time"] for entry in json.loads(output)["benchmarks"]}


def python_ratios(bench, db_path, rounds=5):
    """Python's sqlite3 against Database on B1 and B2. The two run in alternating rounds (a
    round of Python, a short run of the C++ benchmarks), and the median of the per-round ratios
    is reported, so that the shared machine's slow spells fall on both sides alike."""
    writer = sqlite3.connect(db_path)
    for pragma in ("PRAGMA page_size=8192", "PRAGMA auto_vacuum=INCREMENTAL",
                   "PRAGMA journal_mode=WAL", "PRAGMA foreign_keys=ON", "PRAGMA synchronous=NORMAL"):
        writer.execute(pragma).fetchall()
    with writer:  # the log holds frames, as in the C++ runs (see settle_log)
        writer.execute("INSERT INTO writes (payload) VALUES ('settle')")
        writer.execute("DELETE FROM writes")
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
    names = {"B1": "B1_PointQuery_Database", "B2": "B2_Rotation_Database"}
    ratios = {"B1": [], "B2": []}
    python_ns = {"B1": [], "B2": []}
    for _ in range(rounds):
        ours = cpp_per_call_ns(bench, list(names.values()))
        for key, body in (("B1", b1), ("B2", b2)):
            theirs = per_call_ns(body, 30000)
            python_ns[key].append(theirs)
            ratios[key].append(theirs / ours[names[key]])
    reader.close()
    writer.close()
    return ({key: statistics.median(values) for key, values in ratios.items()},
            {key: statistics.median(values) for key, values in python_ns.items()})


def medians(results):
    found = {}
    for entry in results["benchmarks"]:
        if entry.get("aggregate_name") == "median" or entry.get("run_type") == "iteration":
            found.setdefault(entry["run_name"], entry)
    return found


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--results", required=True, help="Google Benchmark JSON output")
    parser.add_argument("--db", required=True, help="the benchmark database file")
    parser.add_argument("--bench", required=True, help="the benchmark binary")
    args = parser.parse_args()

    with open(args.results) as handle:
        runs = medians(json.load(handle))
    python, python_ns = python_ratios(args.bench, args.db)

    rows = []

    def add(name, value, target, passed):
        rows.append((name, value, target, "yes" if passed else "NO"))

    def find(prefix):
        return next((entry for name, entry in runs.items() if name.startswith(prefix)), None)

    b1 = find("B1_PointQuery_Paired")
    b2 = find("B2_Rotation_Paired")
    add("B1 point query: Database / raw C (reused statement)",
        f"{b1['database_per_raw']:.3f}x", "<= 1.10x", b1["database_per_raw"] <= 1.10)
    add("B2 20 texts: Database / raw C (pre-prepared)",
        f"{b2['database_per_raw_prepared']:.3f}x", "<= 1.15x",
        b2["database_per_raw_prepared"] <= 1.15)
    faster = 1 / b2["database_per_raw_prepare_each"]
    add("B2 20 texts: raw C preparing each call / Database", f"{faster:.2f}x faster", ">= 3x",
        faster >= 3)
    add("B1 point query: Python sqlite3 / Database", f"{python['B1']:.2f}x faster", ">= 1.3x",
        python["B1"] >= 1.3)
    add("B2 20 texts: Python sqlite3 / Database", f"{python['B2']:.2f}x faster", ">= 2x",
        python["B2"] >= 2)

    b6 = find("B6_OpenSequence_Paired")
    if b6 is not None:
        add("B6 open sequence: Database / raw C open with the same pragmas",
            f"{b6['database_per_raw_pragmas']:.3f}x", "<= 1.20x", b6["database_per_raw_pragmas"] <= 1.2)
        rows.append(("B6 open sequence: Database / raw C running the same statements",
                     f"{b6['database_per_raw_same_statements']:.3f}x", "", ""))

    b4 = find("B4_Swap")
    if b4 is not None:
        add("B4 swap of a full index, commit and compaction included: Database / raw C",
            f"{b4['database_per_raw']:.3f}x", "<= 1.05x", b4["database_per_raw"] <= 1.05)
        rows.append(("B4 swap times (median)",
                     f"Database {b4['database_ms'] / 1000:.1f} s, raw C {b4['raw_ms'] / 1000:.1f} s, "
                     f"transfer-optimised copy (floor) {b4['transfer_floor_ms'] / 1000:.1f} s", "", ""))
        rows.append(("B4 share of the swap deleting the old rows and dropping code_chunks",
                     f"{b4['clear_share'] * 100:.0f}%", "", ""))
    b5 = find("B5_Compaction")
    if b5 is not None:
        add("B5 compaction after deleting 90%: Database / raw C", f"{b5['database_per_raw']:.3f}x",
            "<= 1.10x", b5["database_per_raw"] <= 1.10)
        add("B5 longest single hold of the connection lock",
            f"{b5['longest_hold_ms']:.1f} ms ({int(b5['pages_released'])} pages released in "
            f"{b5['database_ms'] / 1000:.1f} s)", "<= 50 ms", b5["longest_hold_ms"] <= 50)

    for pool in (1, 0):
        entry = find(f"B3_ReadLatencyDuringWrite/pool:{pool}")
        if entry is None:
            continue
        label = "pool" if pool else "QUILMA_DB_READERS=0"
        if pool:
            ratio = entry["write_p99_us"] / entry["idle_p99_us"]
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
    single = {name: entry["real_time"] for name, entry in runs.items()
              if entry.get("time_unit") == "ns" and "Paired" not in name}
    print("Per call, run alone (median): " + ", ".join(
        f"{name} {value:.0f} ns" for name, value in sorted(single.items())) +
          f"; Python B1 {python_ns['B1']:.0f} ns, Python B2 {python_ns['B2']:.0f} ns")
    return 0


if __name__ == "__main__":
    sys.exit(main())
