#!/usr/bin/env python3
"""The index benchmark: `quilma-db index` over a generated tree of about 20 000 files and
200 MiB, in the runs that a user meets:

  first    into a new database (a full build);
  again    the same tree again with --full, so the swap replaces an index of the same size;
  none     no file changed: an update that finds nothing to do;
  ten      10 files changed (a line appended to each): an update of those 10;
  shrunk   a tenth of the tree into that database, so the swap frees most of the file and
           compaction gives it back.

The updates are timed from process start to exit, as the median of RUNS runs, and set against
the full build ("again"): the goals are 10 changed files in at most 1.5 s and a tenth of a full
build, and no change in at most 0.5 s.

For each it reports files/s and MiB/s of the whole run and the shares of listing, building
the staging database, and the swap with its compaction (and, from the storage layer's own
log line, the compaction alone). As a floor it times Python's sqlite3 (SQLite's C API)
inserting the same chunks into the same FTS5 table in one transaction with the staging build's
settings, and merging the segments into one, the files read beforehand: the tokenising that no
indexer of this schema can skip.
"""
import argparse
import json
import os
import re
import shutil
import sqlite3
import statistics
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
CHUNK_LINES = 50
FTS_DDL = ("CREATE VIRTUAL TABLE code_chunks USING fts5("
           "text, start_line UNINDEXED, end_line UNINDEXED, exact UNINDEXED)")


def ensure_tree(path, files, mib):
    done = path + ".done"
    if os.path.exists(done):
        return
    shutil.rmtree(path, ignore_errors=True)
    subprocess.run([sys.executable, os.path.join(ROOT, "bench", "gen_repo.py"), path,
                    "--files", str(files), "--mib", str(mib)], check=True)
    open(done, "w").close()


def tree_files(tree):
    """The generated files of `tree`, in path order: not git's files nor an index kept in it
    (the search benchmark commits the tree and indexes it in place)."""
    for directory, subdirectories, names in os.walk(tree):
        subdirectories[:] = sorted(d for d in subdirectories if d not in (".git", "memory"))
        for name in sorted(names):
            yield os.path.join(directory, name)


def tenth_of(tree, path):
    """A tree of every tenth file of `tree`, as hard links."""
    shutil.rmtree(path, ignore_errors=True)
    kept = 0
    for source in tree_files(tree):
        if int(re.sub(r"\D", "", os.path.basename(source)) or 0) % 10:
            continue
        target = os.path.join(path, os.path.relpath(source, tree))
        os.makedirs(os.path.dirname(target), exist_ok=True)
        os.link(source, target)
        kept += 1
    return kept


RUNS = 5


def index(binary, tree, db, *flags):
    run = subprocess.run([binary, "--json", "-v", "--db", db, "index", *flags, tree],
                         capture_output=True, text=True, check=True)
    report = json.loads(run.stdout)
    compact = re.search(r"Compacted .*: (\d+) free pages released .* in ([\d.]+)s", run.stderr)
    report["compact_seconds"] = float(compact.group(2)) if compact else 0.0
    report["pages_released"] = int(compact.group(1)) if compact else 0
    return report


def fts_floor(tree):
    texts = []
    for path in tree_files(tree):
        with open(path, encoding="utf-8") as source:
            lines = source.read().split("\n")
        texts.extend("\n".join(lines[i:i + CHUNK_LINES]) for i in range(0, len(lines), CHUNK_LINES))
    path = os.path.join(os.path.dirname(tree), "fts-floor.db")
    for suffix in ("", "-journal", "-wal", "-shm"):
        if os.path.exists(path + suffix):
            os.remove(path + suffix)
    conn = sqlite3.connect(path)
    # The staging build's settings: no journal, no sync, an 8 MiB token hash, no merging until
    # the one at the end.
    conn.execute("PRAGMA journal_mode=OFF")
    conn.execute("PRAGMA synchronous=OFF")
    conn.execute(FTS_DDL)
    for setting, value in (("automerge", 0), ("crisismerge", 100000), ("hashsize", 8 << 20)):
        conn.execute("INSERT INTO code_chunks (code_chunks, rank) VALUES (?, ?)", (setting, value))
    started = time.perf_counter()
    with conn:
        conn.executemany("INSERT INTO code_chunks (rowid, text, start_line, end_line, exact) "
                         "VALUES (?, ?, 1, 1, 1)", enumerate(texts, 1))
    conn.execute("INSERT INTO code_chunks (code_chunks) VALUES ('optimize')")
    seconds = time.perf_counter() - started
    conn.close()
    os.remove(path)
    return seconds


def wall(command):
    started = time.perf_counter()
    subprocess.run(command, check=True, stdout=subprocess.DEVNULL)
    return time.perf_counter() - started


def updates(binary, tree, db):
    """Median seconds, process start to exit, of an update with nothing changed and of one
    with 10 files changed; the tree is as it was afterwards."""
    paths = list(tree_files(tree))
    changed = paths[::len(paths) // 10][:10]
    command = [binary, "-q", "--db", db, "index", tree]
    wall(command)  # settles the files' recorded times
    none = statistics.median(wall(command) for _ in range(RUNS))
    ten = []
    originals = {path: open(path, "rb").read() for path in changed}
    try:
        for run in range(RUNS):
            for path in changed:
                with open(path, "ab") as out:
                    out.write(f"# changed in run {run}\n".encode())
            ten.append(wall(command))
    finally:
        for path, content in originals.items():
            with open(path, "wb") as out:
                out.write(content)
    return none, statistics.median(ten)


def describe(name, report, floor):
    total = report["seconds"]["total"]
    mib = report["bytes"] / 1048576
    shares = {key: report["seconds"][key] / total for key in ("list", "build", "swap")}
    print(f"{name:7} {report['read']:6d} files {mib:6.1f} MiB "
          f"{total:6.1f} s  {(report['read']) / total:6.0f} files/s "
          f"{mib / total:5.1f} MiB/s  list {shares['list']:4.0%}  build {shares['build']:4.0%}  "
          f"swap+compaction {shares['swap']:4.0%} (compaction {report['compact_seconds'] / total:4.0%}, "
          f"{report['pages_released']} pages)" +
          (f"  build / FTS5 floor {report['seconds']['build'] / floor:4.2f}x"
           f"  whole run / FTS5 floor {total / floor:4.2f}x" if floor else ""))


def tree_arguments(doc):
    """The command line of a benchmark over the generated tree, and the tree, made if missing."""
    parser = argparse.ArgumentParser(description=doc,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--files", type=int, default=20000)
    parser.add_argument("--mib", type=float, default=200.0)
    parser.add_argument("--binary", default=os.path.join(ROOT, "build/default/quilma-db"))
    parser.add_argument("--dir", default=os.environ.get("QUILMA_BENCH_DIR",
                                                        os.path.join(ROOT, "build/bench-data")))
    args = parser.parse_args()
    tree = os.path.join(args.dir, f"index-tree-{args.files}")
    ensure_tree(tree, args.files, args.mib)
    return args, tree


def main():
    args, tree = tree_arguments(__doc__)
    db_dir = os.path.join(args.dir, "index-bench")
    shutil.rmtree(db_dir, ignore_errors=True)
    db = os.path.join(db_dir, "index.db")

    floor = fts_floor(tree)
    first = index(args.binary, tree, db)
    again = index(args.binary, tree, db, "--full")
    none, ten = updates(args.binary, tree, db)
    small_tree = os.path.join(args.dir, f"index-tree-{args.files}-tenth")
    tenth_of(tree, small_tree)
    shrunk = index(args.binary, small_tree, db)
    shutil.rmtree(small_tree)
    shutil.rmtree(db_dir)

    print(f"FTS5 floor: {floor:.1f} s for the chunks of the whole tree")
    describe("first", first, floor)
    describe("again", again, floor)
    describe("shrunk", shrunk, None)
    full = again["seconds"]["total"]
    print(f"none    update, no file changed    {none:6.2f} s  (goal <= 0.5 s)  "
          f"{none / full:6.1%} of a full build")
    print(f"ten     update, 10 files changed   {ten:6.2f} s  (goal <= 1.5 s)  "
          f"{ten / full:6.1%} of a full build (goal <= 10%)")


if __name__ == "__main__":
    main()
