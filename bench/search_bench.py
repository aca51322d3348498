#!/usr/bin/env python3
"""The search benchmark: `quilma-db search -w --all`, from process start to exit, against
`git grep -n -w -I` and `rg -n -w` (ripgrep) over the same generated tree (the index
benchmark's, about 20 000 files and 200 MiB, committed to git), for a rare, a medium and the
most common word of the index, and for the most common word piped into `head -1`; then the
same search while `quilma-db watch` runs, which spares it the check for changed files.

Each command is timed by hyperfine as a whole process (`--runs 3` after a warm-up run), the
commands of one word in turn, for ROUNDS rounds; the median over the rounds counts, so that the
machine's changing load weighs on every command alike. The ratios are the other tool's time over
quilma-db's: above 1 means quilma-db is faster. The rows also say how many lines each printed,
which for quilma-db and git grep must be the same.
"""
import json
import os
import shutil
import sqlite3
import statistics
import subprocess
import sys
import tempfile

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from index_bench import tree_arguments  # noqa: E402

ROUNDS = 5


def seconds(command, cwd):
    """Mean seconds of `command` (a shell command line) over hyperfine's runs."""
    with tempfile.NamedTemporaryFile(suffix=".json") as out:
        subprocess.run(["hyperfine", "-N" if "|" not in command else "--shell=sh", "--warmup",
                        "1", "--runs", "3", "--export-json", out.name, command], cwd=cwd,
                       check=True, capture_output=True)
        return json.load(open(out.name))["results"][0]["mean"]


def lines(command, cwd):
    return subprocess.run(command, cwd=cwd, shell=True, capture_output=True).stdout.count(b"\n")


def words(db, tree):
    """A rare (1 to 3 chunks), a medium (200 to 2 000) and the most common word, each as the
    tree writes it."""
    conn = sqlite3.connect(f"file:{db}?mode=ro", uri=True)
    conn.execute("CREATE VIRTUAL TABLE temp.terms USING fts5vocab(main, code_chunks, 'row')")
    chosen = []
    for low, high in ((1, 3), (200, 2000)):
        for (term,) in conn.execute("SELECT term FROM temp.terms WHERE doc BETWEEN ? AND ? AND "
                                    "length(term) >= 6 AND term GLOB '[a-z]*' ORDER BY doc DESC, "
                                    "term LIMIT 200", (low, high)):
            found = subprocess.run(["git", "grep", "-h", "-o", "-i", "-w", "-I", term], cwd=tree,
                                   capture_output=True, check=False, text=True).stdout
            if found:
                chosen.append(found.split("\n")[0])
                break
    chosen.append(conn.execute("SELECT term FROM temp.terms ORDER BY doc DESC LIMIT 1")
                  .fetchone()[0])
    conn.close()
    return chosen


def watch(binary, tree):
    """A `quilma-db watch` of the tree, once it says that the index is up to date."""
    watcher = subprocess.Popen([binary, "watch", tree], stderr=subprocess.PIPE, text=True)
    for line in watcher.stderr:
        if "up to date" in line:
            return watcher
    raise SystemExit(f"search_bench: the watcher ended ({watcher.wait()})")


def main():
    args, tree = tree_arguments(__doc__)
    for tool in ("hyperfine", "rg", "git"):
        if shutil.which(tool) is None:
            raise SystemExit(f"search_bench: {tool} is not installed (scripts/install-deps)")
    if not os.path.exists(os.path.join(tree, ".git")):
        git = ["git", "-c", "user.name=bench", "-c", "user.email=bench@localhost"]
        subprocess.run(["git", "init", "-q"], cwd=tree, check=True)
        subprocess.run(["git", "add", "-A"], cwd=tree, check=True)
        subprocess.run(git + ["commit", "-q", "-m", "tree"], cwd=tree, check=True)
    db = os.path.join(tree, "memory", "codebase-index", "index.db")
    if not os.path.exists(db):
        subprocess.run([args.binary, "-q", "index", tree], check=True, stdout=subprocess.DEVNULL)
    rare, medium, common = words(db, tree)

    cases = [(f"rare {rare}", rare, ""), (f"medium {medium}", medium, ""),
             (f"common {common}", common, ""), (f"common {common} | head -1", common, " | head -1")]
    print(f"{'word':32} {'command':22} {'lines':>8} {'seconds':>8} {'that / quilma-db':>17}")
    for label, word, pipe in cases:
        # --as-indexed leaves out the check for files changed since the index was updated.
        commands = {"quilma-db search -w": f"{args.binary} search -w --all {word}{pipe}",
                    "... --as-indexed": f"{args.binary} search --as-indexed -w --all {word}{pipe}",
                    "git grep -n -w -I": f"git grep -n -w -I {word}{pipe}",
                    "rg -n -w": f"rg -n -w {word}{pipe}"}
        # The same search while `quilma-db watch` runs and vouches for the index.
        watched_name = "... with watch running"
        times = {name: [] for name in [*commands, watched_name]}
        for _ in range(ROUNDS):
            for name, command in commands.items():
                times[name].append(seconds(command, tree))
            watcher = watch(args.binary, tree)
            times[watched_name].append(seconds(commands["quilma-db search -w"], tree))
            watcher.terminate()
            watcher.wait()
        commands[watched_name] = commands["quilma-db search -w"]
        ours = statistics.median(times["quilma-db search -w"])
        for name, command in commands.items():
            median = statistics.median(times[name])
            print(f"{label:32} {name:22} {lines(command, tree):8d} {median:8.3f} "
                  f"{median / ours:16.2f}x")


if __name__ == "__main__":
    main()
