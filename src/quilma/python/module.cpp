// The native module quilma.storage._native: Database, its cursors and scopes, and the
// constants of the storage modules. Every call into the layer, and every step of a cursor,
// runs with the GIL released; the GIL is taken back only to build the Python results and to
// hand log lines to `logging`. A thread therefore never waits for the connection lock, a read
// connection or the disk while it holds the GIL, which is what keeps Python threads and the
// layer's locks free of deadlocks.
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include "quilma/python/convert.h"
#include "quilma/python/log_sink.h"
#include "quilma/python/row.h"
#include "quilma/runtime/event_loop.h"
#include "quilma/sqlite/error.h"
#include "quilma/storage/database.h"
#include "quilma/storage/errors.h"
#include "quilma/storage/migrations.h"
#include "quilma/storage/reader_pool.h"
#include "quilma/storage/storage_size.h"

namespace quilma::python {

namespace {

using storage::Database;

constexpr int SQLITE_MISUSE_CODE = 21;

// Runs `work` without the GIL.
template <class Work>
auto released(Work&& work) {
  const py::gil_scoped_release release;
  return work();
}

// Takes `mutex` without holding the GIL while it waits: its holder may need the GIL to finish.
std::unique_lock<std::mutex> lock_released(std::mutex& mutex) {
  std::unique_lock hold(mutex, std::try_to_lock);
  if (!hold) {
    const py::gil_scoped_release release;
    hold.lock();
  }
  return hold;
}

py::list rows_to_python(const std::vector<sqlite::Row>& rows) {
  py::list out(rows.size());
  RowMaker make;
  for (std::size_t i = 0; i < rows.size(); ++i) out[i] = make(rows[i]);
  return out;
}

py::object row_to_python(const std::optional<sqlite::Row>& row) {
  if (!row) return py::none();
  return RowMaker()(*row);
}

py::dict counts_to_python(const storage::Counts& counts) {
  py::dict out;
  for (const auto& [name, count] : counts) out[to_python_text(name)] = count;
  return out;
}

// Whether the calling thread runs an asyncio event loop now.
bool on_asyncio_loop() {
  static const py::handle running =
      py::object(py::module_::import("asyncio.events").attr("_get_running_loop")).release();
  return !running().is_none();
}

struct PyDatabase {
  py::object path;
  std::filesystem::path fs_path;
  std::unique_ptr<Database> db;

  Database& get() const { return *db; }
};

// A cursor's statement state, shared by the Python Cursor and the scope that lends it one.
// The mutex serialises Python threads that share the cursor.
struct CursorState {
  std::mutex mutex;
  sqlite::Cursor* lent = nullptr;       // a scope's cursor, until the scope ends
  std::optional<sqlite::Cursor> owned;  // the writer's result, read ahead
  bool scoped = false;                  // statements run on `lent`, on the scope's thread
  std::thread::id thread;
  bool closed = false;
};

class Cursor {
 public:
  Cursor(py::object database, std::shared_ptr<CursorState> state)
      : database_(std::move(database)), state_(std::move(state)) {}

  Cursor& execute(const py::str& sql, const py::object& params) {
    sqlite::Params values = to_params(params);
    const std::string_view text = sql_text(sql);
    run([&](CursorState& state) {
      if (state.scoped) {
        usable(state).execute(text, values);
      } else {
        state.owned = database().execute(text, values);
      }
    });
    return *this;
  }

  Cursor& executemany(const py::str& sql, const py::object& params_list) {
    std::vector<sqlite::Params> values = to_params_list(params_list);
    const std::string_view text = sql_text(sql);
    run([&](CursorState& state) {
      if (state.scoped) {
        usable(state).executemany(text, values);
      } else {
        state.owned = database().executemany(text, values);
      }
    });
    return *this;
  }

  py::object fetchone() {
    std::optional<sqlite::Row> row;
    run([&](CursorState& state) {
      if (sqlite::Cursor* cursor = fetchable(state)) row = cursor->fetchone();
    });
    return row_to_python(row);
  }

  py::list fetchall() {
    std::vector<sqlite::Row> rows;
    run([&](CursorState& state) {
      if (sqlite::Cursor* cursor = fetchable(state)) rows = cursor->fetchall();
    });
    return rows_to_python(rows);
  }

  py::object next() {
    py::object row = fetchone();
    if (row.is_none()) throw py::stop_iteration();
    return row;
  }

  std::int64_t rowcount() {
    const auto hold = lock_released(state_->mutex);
    const sqlite::Cursor* cursor = current(*state_);
    return cursor == nullptr ? -1 : cursor->rowcount();
  }

  py::object lastrowid() {
    const auto hold = lock_released(state_->mutex);
    const sqlite::Cursor* cursor = current(*state_);
    if (cursor == nullptr || !cursor->lastrowid()) return py::none();
    return py::int_(*cursor->lastrowid());
  }

  py::object description() {
    const auto hold = lock_released(state_->mutex);
    const sqlite::Cursor* cursor = current(*state_);
    if (cursor == nullptr || !cursor->columns()) return py::none();
    const sqlite::Row::Columns& columns = *cursor->columns();
    py::tuple out(columns.size());
    for (std::size_t i = 0; i < columns.size(); ++i) {
      out[i] = py::make_tuple(to_python_text(columns[i]), py::none(), py::none(), py::none(),
                              py::none(), py::none(), py::none());
    }
    return out;
  }

  void close() {
    const auto hold = lock_released(state_->mutex);
    state_->closed = true;
    if (state_->owned) state_->owned->close();
  }

 private:
  Database& database() const { return database_.cast<PyDatabase&>().get(); }

  static sqlite::Cursor* current(CursorState& state) {
    if (state.scoped) return state.lent;
    return state.owned ? &*state.owned : nullptr;
  }

  // The cursor to fetch from; null for a writer cursor that has run nothing yet.
  static sqlite::Cursor* fetchable(CursorState& state) {
    sqlite::Cursor* cursor = current(state);
    if (cursor == nullptr && state.scoped) throw closed_cursor();
    return cursor;
  }

  static sqlite::Cursor& usable(CursorState& state) {
    sqlite::Cursor* cursor = current(state);
    if (cursor == nullptr) throw closed_cursor();
    return *cursor;
  }

  static sqlite::ProgrammingError closed_cursor() {
    return {SQLITE_MISUSE_CODE, "Cannot operate on a closed cursor."};
  }

  // Runs `work` on the state under its mutex, without the GIL.
  template <class Work>
  void run(Work&& work) {
    if (state_->scoped && state_->thread != std::this_thread::get_id()) {
      raise_programming_error(
          "This cursor belongs to a transaction or read block of another thread.");
    }
    released([&] {
      const std::lock_guard hold(state_->mutex);
      if (state_->closed) throw closed_cursor();
      work(*state_);
      return 0;
    });
  }

  py::object database_;
  std::shared_ptr<CursorState> state_;
};

// The scopes behind `with db.transaction()`, `with db.read()` and `with pool.lease()`: entering
// makes the C++ scope and lends its cursor; leaving takes the cursor back and ends the scope.
template <class Scope>
class ScopeContext {
 public:
  using Make = std::function<std::unique_ptr<Scope>()>;
  ScopeContext(py::object owner, Make make) : owner_(std::move(owner)), make_(std::move(make)) {}
  ScopeContext(const ScopeContext&) = delete;
  ScopeContext& operator=(const ScopeContext&) = delete;
  ~ScopeContext() {
    if (!scope_) return;
    try {  // a block never left (its object collected): roll back
      const py::gil_scoped_release release;
      end_scope(false);
    } catch (...) {  // nothing can report it here
    }
  }

  Cursor enter() {
    if (scope_ || state_) raise_programming_error("This block has been entered already.");
    released([&] {
      scope_ = make_();
      return 0;
    });
    state_ = std::make_shared<CursorState>();
    state_->scoped = true;
    state_->thread = std::this_thread::get_id();
    state_->lent = &scope_->cursor();
    return {owner_, state_};
  }

  // Ends the scope; the exception passing through, if any, goes on unchanged.
  bool exit(const py::object& error_type) {
    if (!scope_) return false;
    const bool ok = error_type.is_none();
    released([&] {
      end_scope(ok);
      return 0;
    });
    return false;
  }

 private:
  void end_scope(bool commit) {
    {
      const std::lock_guard hold(state_->mutex);
      state_->lent = nullptr;
      state_->closed = true;
    }
    std::unique_ptr<Scope> scope = std::move(scope_);
    if constexpr (requires { scope->commit(); }) {
      if (commit) {
        scope->commit();
      } else {
        scope->rollback();
      }
    }
  }

  py::object owner_;
  Make make_;
  std::unique_ptr<Scope> scope_;
  std::shared_ptr<CursorState> state_;
};

using TransactionContext = ScopeContext<Database::TransactionScope>;
using ReadContext = ScopeContext<Database::ReadScope>;

// A leased read connection with a cursor on it.
class LeaseScope {
 public:
  explicit LeaseScope(storage::ReaderPool& pool)
      : lease_(pool.lease()), cursor_(lease_.connection().cursor()) {}
  sqlite::Cursor& cursor() { return cursor_; }

 private:
  storage::ReaderPool::Lease lease_;
  sqlite::Cursor cursor_;
};
using LeaseContext = ScopeContext<LeaseScope>;

// The writer connection, as db.connection gives it: its statements run under the lock.
struct Connection {
  py::object database;

  Cursor cursor() const { return {database, std::make_shared<CursorState>()}; }
};

Database& get(const py::object& database) { return database.cast<PyDatabase&>().get(); }

template <class Context>
void bind_scope(py::module_& module, const char* name) {
  py::class_<Context>(module, name)
      .def("__enter__", &Context::enter)
      .def("__exit__", [](Context& self, const py::object& type, const py::object& /*value*/,
                          const py::object& /*traceback*/) { return self.exit(type); });
}

// Calls a method of Database without the GIL.
template <class Result, class... Args>
auto unlocked(Result (Database::*method)(Args...)) {
  return [method](const py::object& self, Args... args) {
    Database& db = get(self);
    return released([&] { return (db.*method)(args...); });
  };
}

// db.fetchone, the call a busy service makes most, as a vectorcall method of its own: without
// pybind11's general dispatch it holds the GIL for less of each query, which is what lets
// threads query side by side.
PyObject* fast_fetchone(PyObject* self, PyObject* const* args, Py_ssize_t count,
                        PyObject* names) noexcept {
  try {
    PyObject* sql = count > 0 ? args[0] : nullptr;
    PyObject* params = count > 1 ? args[1] : nullptr;
    const Py_ssize_t named = names == nullptr ? 0 : PyTuple_GET_SIZE(names);
    bool known = count <= 2;
    for (Py_ssize_t i = 0; i < named && known; ++i) {
      const auto key = py::cast<std::string>(PyTuple_GET_ITEM(names, i));
      PyObject*& slot = key == "sql" ? sql : params;
      known = (key == "sql" || key == "params") && slot == nullptr;
      slot = args[count + i];
    }
    if (!known || sql == nullptr || !PyUnicode_Check(sql)) {
      PyErr_SetString(PyExc_TypeError, "fetchone(sql: str, params=()) takes a statement text");
      return nullptr;
    }
    Database& db = get(py::reinterpret_borrow<py::object>(self));
    const sqlite::Params values = params == nullptr ? sqlite::Params{} : to_params(params);
    const std::string_view text = sql_text(py::reinterpret_borrow<py::str>(sql));
    return row_to_python(released([&] { return db.fetchone(text, values); })).release().ptr();
  } catch (py::error_already_set& error) {
    error.restore();
  } catch (...) {
    if (!set_python_error(std::current_exception())) {
      PyErr_SetString(PyExc_RuntimeError, "unexpected error in fetchone");
    }
  }
  return nullptr;
}

void bind_database(py::module_& module) {
  py::class_<PyDatabase>(module, "Database")
      .def(py::init([](py::object path) {
             auto made = std::make_unique<PyDatabase>();
             made->fs_path = to_path(path);
             made->path = std::move(path);
             made->db = std::make_unique<Database>(made->fs_path);
             return made;
           }),
           py::arg("db_path"))
      .def_property_readonly("db_path", [](const PyDatabase& self) { return self.path; })
      .def("connect", unlocked(&Database::connect))
      .def("close", unlocked(&Database::close))
      .def_property_readonly("closed", [](const PyDatabase& self) { return self.get().closed(); })
      .def_property_readonly("connection",
                             [](const py::object& self) {
                               get(self).connection();  // the exact RuntimeError when none
                               return Connection{self};
                             })
      .def("create_schema", unlocked(&Database::create_schema))
      .def("migrate_schema", unlocked(&Database::migrate_schema))
      .def("__enter__",
           [](const py::object& self) {
             Database& db = get(self);
             released([&] {
               db.connect();
               db.create_schema();
               db.migrate_schema();
               return 0;
             });
             return self;
           })
      .def("__exit__",
           [](const py::object& self, const py::object&, const py::object&, const py::object&) {
             Database& db = get(self);
             released([&] {
               db.close();
               return 0;
             });
             return false;
           })
      .def("transaction",
           [](const py::object& self) {
             Database& db = get(self);
             return std::make_unique<TransactionContext>(
                 self, [&db] { return std::make_unique<Database::TransactionScope>(db); });
           })
      .def("read",
           [](const py::object& self) {
             Database& db = get(self);
             return std::make_unique<ReadContext>(
                 self, [&db] { return std::make_unique<Database::ReadScope>(db); });
           })
      .def(
          "execute",
          [](const py::object& self, const py::str& sql, const py::object& params) {
            Cursor cursor(self, std::make_shared<CursorState>());
            cursor.execute(sql, params);
            return cursor;
          },
          py::arg("sql"), py::arg("params") = py::tuple())
      .def(
          "executemany",
          [](const py::object& self, const py::str& sql, const py::object& params_list) {
            Cursor cursor(self, std::make_shared<CursorState>());
            cursor.executemany(sql, params_list);
            return cursor;
          },
          py::arg("sql"), py::arg("params_list"))
      .def(
          "fetchall",
          [](const py::object& self, const py::str& sql, const py::object& params) {
            Database& db = get(self);
            const sqlite::Params values = to_params(params);
            const std::string_view text = sql_text(sql);
            return rows_to_python(released([&] { return db.fetchall(text, values); }));
          },
          py::arg("sql"), py::arg("params") = py::tuple())
      .def("check_integrity", unlocked(&Database::check_integrity))
      .def("integrity_problems",
           [](const py::object& self) {
             Database& db = get(self);
             py::list out;
             for (const std::string& problem : released([&] { return db.integrity_problems(); })) {
               out.append(to_python_text(problem));
             }
             return out;
           })
      .def("page_use", unlocked(&Database::page_use))
      .def("index_generation", unlocked(&Database::index_generation))
      .def(
          "refresh_extractor_stamp",
          [](const py::object& self, const py::object& versions) {
            std::map<std::string, std::int64_t> stamp;
            for (const py::handle item : versions.attr("items")()) {
              const auto pair = py::reinterpret_borrow<py::tuple>(item);
              stamp[to_text(pair[0])] = pair[1].cast<std::int64_t>();
            }
            Database& db = get(self);
            return released([&] { return db.refresh_extractor_stamp(stamp); });
          },
          py::arg("versions"))
      .def("clear_all", unlocked(&Database::clear_all))
      .def(
          "swap_index_from",
          [](const py::object& self, const py::object& staging_path) {
            Database& db = get(self);
            const std::filesystem::path path = to_path(staging_path);
            const bool on_loop = on_asyncio_loop();
            try {
              return counts_to_python(released([&] {
                std::optional<runtime::EventLoopScope> loop;
                if (on_loop) loop.emplace();
                return db.swap_index_from(path);
              }));
            } catch (const storage::FileNotFoundError& error) {
              const py::object made = py::reinterpret_borrow<py::object>(PyExc_FileNotFoundError)(
                  error.code().value(), error.what(), staging_path);
              PyErr_SetObject(PyExc_FileNotFoundError, made.ptr());
              throw py::error_already_set();
            }
          },
          py::arg("staging_path"))
      .def("get_stats",
           [](const py::object& self) {
             Database& db = get(self);
             return counts_to_python(released([&] { return db.get_stats(); }));
           })
      .def(
          "record_error",
          [](const py::object& self, const py::object& file_path, const py::object& error_type,
             const py::object& message, const py::object& line) {
            const std::string path = to_text(file_path);
            const std::string type = to_text(error_type);
            std::optional<std::string> text;
            if (!message.is_none()) text = to_text(message);
            std::optional<std::int64_t> number;
            if (!line.is_none()) number = line.cast<std::int64_t>();
            Database& db = get(self);
            released([&] {
              db.record_error(path, type, text, number);
              return 0;
            });
          },
          py::arg("file_path"), py::arg("error_type"), py::arg("message") = py::none(),
          py::arg("line") = py::none())
      .def(
          "clear_file_errors",
          [](const py::object& self, const py::object& file_path, const py::object& error_type) {
            const std::string path = to_text(file_path);
            std::optional<std::string> type;
            if (!error_type.is_none()) type = to_text(error_type);
            Database& db = get(self);
            released([&] {
              db.clear_file_errors(path, type);
              return 0;
            });
          },
          py::arg("file_path"), py::arg("error_type") = py::none())
      .def("get_error_count", unlocked(&Database::get_error_count))
      .def("compact", [](const py::object& self) {
        Database& db = get(self);
        const bool on_loop = on_asyncio_loop();
        return released([&] {
          std::optional<runtime::EventLoopScope> loop;
          if (on_loop) loop.emplace();
          return db.compact();
        });
      });
  static PyMethodDef fetchone_method = {
      "fetchone", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(fast_fetchone)),
      METH_FASTCALL | METH_KEYWORDS, "fetchone(sql, params=()): the first row, or None"};
  PyObject* method = PyDescr_NewMethod(
      reinterpret_cast<PyTypeObject*>(module.attr("Database").ptr()), &fetchone_method);
  if (method == nullptr) throw py::error_already_set();
  module.attr("Database").attr("fetchone") = py::reinterpret_steal<py::object>(method);
}

struct PyReaderPool {
  std::unique_ptr<storage::ReaderPool> pool;
};

void bind_reader_pool(py::module_& module) {
  py::class_<PyReaderPool>(module, "ReaderPool")
      .def(py::init([](const py::object& db_path, int count) {
             return PyReaderPool{std::make_unique<storage::ReaderPool>(to_path(db_path), count)};
           }),
           py::arg("db_path"), py::arg("count"))
      .def("lease",
           [](const py::object& self) {
             storage::ReaderPool& pool = *self.cast<PyReaderPool&>().pool;
             return std::make_unique<LeaseContext>(
                 self, [&pool] { return std::make_unique<LeaseScope>(pool); });
           })
      .def("close", [](PyReaderPool& self) {
        released([&] {
          self.pool->close();
          return 0;
        });
      });
}

void bind_constants(py::module_& module) {
  module.def("reader_count", &storage::reader_count);
  module.attr("COMPACT_STEP_PAGES") = storage::COMPACT_STEP_PAGES;
  module.attr("COMPACT_MIN_FREE_PAGES") = storage::COMPACT_MIN_FREE_PAGES;
  module.attr("COMPACT_MIN_FREE_RATIO") = storage::COMPACT_MIN_FREE_RATIO;
  module.attr("COMPACT_DISK_MARGIN_BYTES") = storage::COMPACT_DISK_MARGIN_BYTES;
  module.attr("COMPACT_CONVERT_MAX_BYTES") = storage::COMPACT_CONVERT_MAX_BYTES;
  module.attr("EXTRACTOR_VERSIONS_KEY") = std::string(storage::EXTRACTOR_VERSIONS_KEY);
  module.attr("LAST_INDEX_KEY") = std::string(storage::LAST_INDEX_KEY);
  module.attr("FQN_COLLISION_ERROR") = std::string(storage::FQN_COLLISION_ERROR);
  module.attr("PARTIAL_PARSE_ERROR") = std::string(storage::PARTIAL_PARSE_ERROR);
  module.attr("REINDEX_SENTINEL_HASH") = std::string(storage::migrations::REINDEX_SENTINEL_HASH);
  module.attr("SCHEMA_VERSION") = std::string(storage::migrations::SCHEMA_VERSION);
  module.attr("OLDEST_VERSION") = std::string(storage::migrations::OLDEST_VERSION);
  module.attr("PAGE_SIZE") = storage::storage_size::PAGE_SIZE;
}

}  // namespace

PYBIND11_MODULE(_native, module) {
  module.doc() = "The quilma storage layer, bound for Python.";
  init_conversions(module);
  if (register_row_type(module.ptr()) < 0) throw py::error_already_set();
  // NOLINTNEXTLINE(performance-unnecessary-value-param): pybind11's translator signature
  py::register_exception_translator([](std::exception_ptr error) {
    if (error && !set_python_error(error)) std::rethrow_exception(error);
  });

  py::class_<storage::Compaction>(module, "Compaction")
      .def(py::init(
               [](bool converted, std::int64_t pages_released, std::optional<std::string> skipped) {
                 return storage::Compaction{converted, pages_released, std::move(skipped)};
               }),
           py::arg("converted") = false, py::arg("pages_released") = 0,
           py::arg("skipped") = py::none())
      .def_readonly("converted", &storage::Compaction::converted)
      .def_readonly("pages_released", &storage::Compaction::pages_released)
      .def_readonly("skipped", &storage::Compaction::skipped)
      .def("__eq__",
           [](const storage::Compaction& a, const py::object& b) -> py::object {
             if (!py::isinstance<storage::Compaction>(b))
               return py::reinterpret_borrow<py::object>(Py_NotImplemented);
             return py::bool_(a == b.cast<const storage::Compaction&>());
           })
      .def("__hash__",
           [](const storage::Compaction& c) {
             return py::hash(py::make_tuple(c.converted, c.pages_released, c.skipped));
           })
      .def("__repr__", [](const storage::Compaction& c) {
        return "Compaction(converted=" + std::string(c.converted ? "True" : "False") +
               ", pages_released=" + std::to_string(c.pages_released) +
               ", skipped=" + py::repr(py::cast(c.skipped)).cast<std::string>() + ")";
      });

  py::class_<storage::PageUse>(module, "PageUse")
      .def_readonly("pages", &storage::PageUse::pages)
      .def_readonly("free_pages", &storage::PageUse::free_pages)
      .def_readonly("page_size", &storage::PageUse::page_size)
      .def("__repr__", [](const storage::PageUse& use) {
        return "PageUse(pages=" + std::to_string(use.pages) +
               ", free_pages=" + std::to_string(use.free_pages) +
               ", page_size=" + std::to_string(use.page_size) + ")";
      });

  // execute() gives back the cursor itself, as sqlite3's does.
  py::class_<Cursor>(module, "Cursor")
      .def(
          "execute",
          [](const py::object& self, const py::str& sql, const py::object& params) {
            self.cast<Cursor&>().execute(sql, params);
            return self;
          },
          py::arg("sql"), py::arg("params") = py::tuple())
      .def(
          "executemany",
          [](const py::object& self, const py::str& sql, const py::object& params_list) {
            self.cast<Cursor&>().executemany(sql, params_list);
            return self;
          },
          py::arg("sql"), py::arg("params_list"))
      .def("fetchone", &Cursor::fetchone)
      .def("fetchall", &Cursor::fetchall)
      .def("__iter__", [](py::object self) { return self; })
      .def("__next__", &Cursor::next)
      .def_property_readonly("rowcount", &Cursor::rowcount)
      .def_property_readonly("lastrowid", &Cursor::lastrowid)
      .def_property_readonly("description", &Cursor::description)
      .def("close", &Cursor::close);

  py::class_<Connection>(module, "Connection")
      .def("cursor", &Connection::cursor)
      .def(
          "execute",
          [](const Connection& self, const py::str& sql, const py::object& params) {
            Cursor cursor = self.cursor();
            cursor.execute(sql, params);
            return cursor;
          },
          py::arg("sql"), py::arg("params") = py::tuple())
      .def(
          "executemany",
          [](const Connection& self, const py::str& sql, const py::object& params_list) {
            Cursor cursor = self.cursor();
            cursor.executemany(sql, params_list);
            return cursor;
          },
          py::arg("sql"), py::arg("params_list"));

  bind_scope<TransactionContext>(module, "Transaction");
  bind_scope<ReadContext>(module, "Read");
  bind_scope<LeaseContext>(module, "Lease");
  bind_database(module);
  bind_reader_pool(module);
  bind_constants(module);
  install_log_sink(module);
}

}  // namespace quilma::python
