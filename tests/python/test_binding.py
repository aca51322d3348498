"""What the binding itself decides: conversions, error classes, scopes, log records, the GIL."""

import asyncio
import concurrent.futures
import ctypes
import logging
import os
import shutil
import sqlite3
import subprocess
import sys
import threading

import pytest

import quilma
from quilma.storage.database import Compaction, Database, Row
from quilma.storage.reader_pool import ReaderPool, ReaderUnavailable

LOGGER = "quilma.storage.database"


@pytest.mark.parametrize(
    "value, stored",
    [
        (None, None),
        (-(2**63), -(2**63)),
        (2**63 - 1, 2**63 - 1),
        (True, 1),
        (1.5, 1.5),
        ("ünï\x00code", "ünï\x00code"),
        (b"\x00\xff", b"\x00\xff"),
        (bytearray(b"ab"), b"ab"),
        (memoryview(b"cd"), b"cd"),
    ],
)
def test_values_round_trip(db, value, stored):
    db.execute("CREATE TABLE IF NOT EXISTS v (x)")
    db.execute("INSERT INTO v VALUES (?)", [value])
    got = db.fetchone("SELECT x FROM v")[0]
    assert got == stored and type(got) is type(stored)
    if isinstance(value, bytearray):
        value.clear()  # BufferError while the binding still holds its buffer


@pytest.mark.parametrize(
    "args, keywords, error",
    [
        (("SELECT ?", (2**63,)), {}, OverflowError),
        (("SELECT ?", (object(),)), {}, sqlite3.ProgrammingError),
        (("SELECT ?", "a"), {}, sqlite3.ProgrammingError),
        (("SELECT ?", 1), {}, sqlite3.ProgrammingError),
        (("SELECT 1", (), ()), {}, TypeError),
        (("SELECT 1",), {"sql": "SELECT 1"}, TypeError),
        ((), {"params": ()}, TypeError),
    ],
)
def test_calls_refused(db, args, keywords, error):
    with pytest.raises(error):
        db.fetchone(*args, **keywords)


def test_row_and_cursor(db):
    cur = db.execute("SELECT 1 AS IdZz, 'a' || 'b' AS name UNION ALL SELECT 2, 'b'")
    assert [d[0] for d in cur.description] == ["IdZz", "name"]
    rows = list(cur)
    first = rows[0]
    assert (first[0], first["iDzZ"], first[-1], first[0:2]) == (1, 1, "ab", (1, "ab"))
    assert first.keys() == ["IdZz", "name"] and len(first) == 2 and tuple(first) == (1, "ab")
    assert repr(first) == "Row(IdZz=1, name='ab')"
    name = first[1]
    references = sys.getrefcount(name)
    first[1], first["NAME"]
    assert sys.getrefcount(name) == references
    again = db.fetchone(sql="SELECT 1 AS IdZz, 'ab' AS name", params=())
    assert again == first and not again != first and hash(again) == hash(first) != hash(rows[1])
    assert again != rows[1] and again != (1, "ab") and isinstance(first, Row)
    assert db.fetchone("SELECT 1 AS a, 'ab' AS b") != first  # other names
    with pytest.raises(TypeError):
        first < again
    with pytest.raises(IndexError):
        first["missing"]
    get_item = ctypes.pythonapi.PySequence_GetItem  # the sequence protocol C callers use
    get_item.restype, get_item.argtypes = ctypes.py_object, (ctypes.py_object, ctypes.c_ssize_t)
    with pytest.raises(IndexError):
        get_item(first, 2)
    assert (db.connection.cursor().rowcount, db.connection.cursor().lastrowid) == (-1, None)
    cur = db.execute("INSERT INTO components (name) VALUES (?)", ("c",))
    assert (cur.rowcount, cur.lastrowid, cur.description) == (1, 1, None)
    assert db.executemany("INSERT INTO components (name) VALUES (?)", [("d",), ("e",)]).rowcount == 2
    with db.read() as cur, concurrent.futures.ThreadPoolExecutor(1) as other:
        assert cur.execute("SELECT count(*) FROM components").fetchall()[0][0] == 3
        with pytest.raises(sqlite3.ProgrammingError, match="another thread"):
            other.submit(cur.execute, "SELECT 1").result()
    with pytest.raises(sqlite3.ProgrammingError):
        cur.execute("SELECT 1")


@pytest.mark.parametrize(
    "sql, kind, name",
    [
        ("INSERT INTO files (path) VALUES ('a'), ('a')", sqlite3.IntegrityError,
         "SQLITE_CONSTRAINT_UNIQUE"),
        ("SELECT * FROM nowhere", sqlite3.OperationalError, "SQLITE_ERROR"),
        ("SELECT ?", sqlite3.ProgrammingError, "SQLITE_RANGE"),
    ],
)
def test_sqlite_errors_are_sqlite3_classes(db, sql, kind, name):
    with pytest.raises(kind) as caught:
        db.execute(sql)
    assert type(caught.value) is kind and caught.value.sqlite_errorname == name
    assert caught.value.sqlite_errorcode == getattr(sqlite3, name)


def test_other_errors(tmp_path):
    db = Database(tmp_path / "x.db")
    with pytest.raises(RuntimeError, match=r"^Database not connected. Call connect\(\) first.$"):
        db.connection
    db.connect()
    with pytest.raises(FileNotFoundError) as missing:
        db.swap_index_from(tmp_path / "none.db")
    assert (missing.value.errno, missing.value.filename) == (2, tmp_path / "none.db")
    db.close()
    with pytest.raises(RuntimeError, match=r"^Database is closed.$"):
        db.execute("SELECT 1")
    with pytest.raises(NotADirectoryError) as not_directory:
        Database(tmp_path / "x.db" / "y.db").connect()
    assert not_directory.value.filename == str(tmp_path / "x.db")
    pool = ReaderPool(tmp_path / "x.db", 1)
    pool.close()
    with pytest.raises(ReaderUnavailable), pool.lease():
        pass


def test_transaction_rolls_back_and_raises_the_very_same_exception(db):
    raised = KeyError("mine")
    with pytest.raises(KeyError) as caught, db.transaction() as cur:
        cur.execute("INSERT INTO files (path) VALUES ('a')")
        raise raised
    assert caught.value is raised
    assert db.fetchone("SELECT count(*) FROM files")[0] == 0
    with db.transaction() as outer, db.transaction() as inner:
        inner.execute("INSERT INTO files (path) VALUES ('b')")
        assert outer.execute("SELECT path FROM files").fetchone()["path"] == "b"
    assert db.fetchall("SELECT path FROM files") == db.fetchall("SELECT 'b' AS path")


def test_paths_and_names_unchanged_and_not_utf8(tmp_path):
    path = os.fsdecode(bytes(tmp_path) + b"/\xff.db")
    with sqlite3.connect(path) as other:  # a column name another program wrote
        other.execute("CREATE TABLE t (a, x)")
        other.execute("INSERT INTO t VALUES (1, 2)")
        other.execute("PRAGMA writable_schema = ON")
        other.execute("UPDATE sqlite_master SET sql = "
                      "'CREATE TABLE t (' || CAST(x'ff' AS TEXT) || ', x)' WHERE name = 't'")
    other.close()
    with Database(path) as db:
        assert db.db_path is path
        row = db.fetchone("SELECT * FROM t")
        assert row["X"] == 2 and row.keys() == ["\udcff", "x"]
        db.record_error("\udcff.py", "t")
        db.record_error("\udcff.py", "u")
        db.clear_file_errors("\udcff.py", "u")  # that type alone
        assert [r[0] for r in db.fetchall("SELECT file_path FROM index_errors")] == ["\udcff.py"]
    assert os.path.exists(bytes(tmp_path) + b"/\xff.db")


def test_log_records(db, caplog):
    caplog.set_level(logging.WARNING, LOGGER)
    db.clear_all()
    assert not caplog.records
    caplog.set_level(logging.INFO, LOGGER)
    db.execute("INSERT INTO files (path) VALUES ('a')")
    db.clear_all()
    db.execute("UPDATE schema_info SET value = ? WHERE key = 'version'", ("3.1.0",))
    db.execute("INSERT INTO schema_info (key, value) VALUES ('extractor_versions', ?)",
               ("{'x\n",))
    db.refresh_extractor_stamp({"python": 7})
    stored = db.fetchone("SELECT value FROM schema_info WHERE key = 'extractor_versions'")
    assert stored[0] == '{"python": 7}'
    cleared, stamp = caplog.records[0], caplog.records[1]
    assert (cleared.msg, cleared.levelno) == (
        "clear_all: cleared all index data (rows removed: %s)", logging.INFO)
    assert "'files': 1" in cleared.args[0] and cleared.threadName == threading.current_thread().name
    assert stamp.args == ("{'x\n",) and stamp.levelno == logging.WARNING
    assert stamp.getMessage() == f"Extractor stamp {stamp.args[0]!r} has an unknown format; treating it as absent"


def test_compaction_failure_carries_the_error(tmp_path, caplog):
    with Database(tmp_path / "big.db") as db:
        db.execute("CREATE TABLE blobs (b)")
        db.execute("INSERT INTO blobs SELECT zeroblob(8000) FROM (WITH RECURSIVE n(i) AS "
                   "(SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 3000) SELECT i FROM n)")
        db.execute("DELETE FROM blobs")
        holder = sqlite3.connect(tmp_path / "big.db", isolation_level=None)
        holder.execute("BEGIN IMMEDIATE")
        try:
            result = db.compact()
        finally:
            holder.close()
    assert result.skipped.startswith("failed: ")
    record = next(r for r in caplog.records if r.name == LOGGER)
    assert (record.msg, record.args) == ("Compaction of %s skipped: %s",
                                         (str(tmp_path / "big.db"), result.skipped))
    assert isinstance(record.exc_info[1], sqlite3.OperationalError)


def test_compact_declines_on_an_asyncio_loop(db, caplog):
    async def on_loop():
        return db.compact()

    caplog.set_level(logging.DEBUG, LOGGER)
    assert "event loop" in asyncio.run(on_loop()).skipped
    assert "event loop" in asyncio.run(on_loop()).skipped
    assert [r.levelno for r in caplog.records[:2]] == [logging.INFO, logging.DEBUG]
    assert db.compact() == Compaction() != Compaction(skipped="x")
    assert hash(Compaction(False, 0, "x")) == hash(Compaction(skipped="x"))


def test_rows_leave_nothing_behind(db):
    def churn():
        for i in range(300):  # more column lists than the binding keeps
            repr(db.fetchone(f"SELECT {i} AS c{i % 100}"))

    churn()
    blocks = sys.getallocatedblocks()
    churn()
    assert sys.getallocatedblocks() - blocks < 100


def all_end(threads, seconds):  # whether every thread, all started at once, ended in time
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join(timeout=seconds)
    return not any(t.is_alive() for t in threads)


def test_a_thread_waiting_for_the_lock_holds_no_gil(db):
    inside, writer_waiting = threading.Event(), threading.Event()
    done = []

    def owner():
        with db.transaction() as cur:
            inside.set()
            writer_waiting.wait()
            cur.execute("INSERT INTO files (path) VALUES ('a')")

    def writer():
        inside.wait()
        writer_waiting.set()
        db.execute("INSERT INTO files (path) VALUES ('b')")  # waits for owner's transaction
        done.append(db.fetchone("SELECT count(*) FROM files")[0])

    assert all_end([threading.Thread(target=owner), threading.Thread(target=writer)], 30)
    assert done == [2]


def test_many_threads_mix_every_kind_of_call(tmp_path):
    staging = tmp_path / "staging.db"
    with Database(staging) as built:
        built.executemany("INSERT INTO files (path) VALUES (?)", [(f"f{i}",) for i in range(50)])
    errors = []
    barrier = threading.Barrier(6)

    def run(work):
        try:
            barrier.wait()
            for i in range(15):
                work(i)
        except BaseException as error:  # noqa: B036 - reported below
            errors.append(error)

    with Database(tmp_path / "live.db") as db:
        def write(i):
            with db.transaction() as cur:
                cur.execute("INSERT INTO components (name) VALUES (?)", (f"c{i}",))
                db.record_error(f"p{i}", "t")

        def read(i):
            with db.read() as cur:
                cur.execute("SELECT count(*) FROM files").fetchone()
            db.fetchall("SELECT path FROM files")

        works = [write, read, read, lambda i: db.swap_index_from(staging),
                 lambda i: db.compact(), lambda i: db.get_stats()]
        assert all_end([threading.Thread(target=run, args=(w,)) for w in works], 120), "deadlock"
    assert errors == []


@pytest.mark.parametrize("python", sorted({sys.executable, "/usr/bin/python3",
                                           shutil.which("python3") or sys.executable}))
def test_imports_from_elsewhere_with_each_interpreter(python, tmp_path):
    version = subprocess.run([python, "-c", "import sys; print(sys.version_info[:2])"],
                             capture_output=True, text=True).stdout.strip()
    if version != str(sys.version_info[:2]):
        pytest.skip(f"{python} is Python {version}: the module is built for this one's ABI")
    code = "import quilma.storage.database as d; print(d.Database.__name__)"
    package_root = os.path.dirname(os.path.dirname(quilma.__file__))
    done = subprocess.run([python, "-c", code], cwd=tmp_path, capture_output=True, text=True,
                          env={**os.environ, "PYTHONPATH": package_root})
    assert done.stdout == "Database\n", done.stderr
