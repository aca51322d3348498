// Values go in as SQLite binds them and come out as sqlite3 gives them; errors become the
// standard library's classes, with SQLite's message unchanged.
#include "quilma/python/convert.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <system_error>
#include <utility>

#include "quilma/python/row.h"
#include "quilma/sqlite/error.h"
#include "quilma/storage/errors.h"
#include "quilma/storage/migrations.h"
#include "quilma/storage/reader_pool.h"

namespace quilma::python {

namespace {

// Looked up once at import and kept for the life of the process (never released, so that
// nothing is freed after the interpreter has gone).
struct Classes {
  py::handle sqlite_error, database_error, operational_error, integrity_error, programming_error,
      data_error, internal_error;
  py::handle reader_unavailable, schema_migration_error;
  py::handle fsencode;
  py::handle error_names;  // dict: SQLite result code -> "SQLITE_..." name
};
Classes classes;

constexpr std::array<const char*, 29> PRIMARY_NAMES{
    "SQLITE_OK",       "SQLITE_ERROR",   "SQLITE_INTERNAL", "SQLITE_PERM",     "SQLITE_ABORT",
    "SQLITE_BUSY",     "SQLITE_LOCKED",  "SQLITE_NOMEM",    "SQLITE_READONLY", "SQLITE_INTERRUPT",
    "SQLITE_IOERR",    "SQLITE_CORRUPT", "SQLITE_NOTFOUND", "SQLITE_FULL",     "SQLITE_CANTOPEN",
    "SQLITE_PROTOCOL", "SQLITE_EMPTY",   "SQLITE_SCHEMA",   "SQLITE_TOOBIG",   "SQLITE_CONSTRAINT",
    "SQLITE_MISMATCH", "SQLITE_MISUSE",  "SQLITE_NOLFS",    "SQLITE_AUTH",     "SQLITE_FORMAT",
    "SQLITE_RANGE",    "SQLITE_NOTADB",  "SQLITE_NOTICE",   "SQLITE_WARNING"};

// Result code names: the primary ones above, and the extended ones that sqlite3 exports
// (SQLITE_CONSTRAINT_UNIQUE), told from its other constants by prefix and low byte.
py::dict error_names(const py::module_& sqlite3) {
  py::dict names;
  for (std::size_t code = 0; code < PRIMARY_NAMES.size(); ++code) {
    names[py::int_(code)] = py::str(PRIMARY_NAMES[code]);
  }
  for (const py::handle attribute : sqlite3.attr("__dir__")()) {
    const auto name = py::cast<std::string>(attribute);
    const py::object value = sqlite3.attr(attribute);
    if (!py::isinstance<py::int_>(value)) continue;
    const auto code = py::cast<std::int64_t>(value);
    const auto primary = static_cast<std::size_t>(code & 0xff);
    if (code <= 0xff || primary >= PRIMARY_NAMES.size()) continue;
    if (name.starts_with(std::string(PRIMARY_NAMES[primary]) + "_")) names[value] = attribute;
  }
  return names;
}

py::handle sqlite_class(const sqlite::Error& error) {
  if (dynamic_cast<const sqlite::IntegrityError*>(&error)) return classes.integrity_error;
  if (dynamic_cast<const sqlite::ProgrammingError*>(&error)) return classes.programming_error;
  if (dynamic_cast<const sqlite::OperationalError*>(&error)) return classes.operational_error;
  if (dynamic_cast<const sqlite::DataError*>(&error)) return classes.data_error;
  if (dynamic_cast<const sqlite::InternalError*>(&error)) return classes.internal_error;
  return classes.database_error;
}

py::object os_error(const std::error_code& code, const std::string& message,
                    const std::filesystem::path* path) {
  const int number =
      code.category() == std::generic_category() || code.category() == std::system_category()
          ? code.value()
          : 0;
  // OSError(errno, ...) gives the subclass of the errno: FileNotFoundError for ENOENT.
  if (path != nullptr) {
    return py::reinterpret_borrow<py::object>(PyExc_OSError)(number, message,
                                                             to_python_text(path->native()));
  }
  return py::reinterpret_borrow<py::object>(PyExc_OSError)(number, message);
}

}  // namespace

void init_conversions(py::module_& module) {
  const py::module_ sqlite3 = py::module_::import("sqlite3");
  const auto keep = [](const py::object& object) { return object.inc_ref(); };
  classes.sqlite_error = keep(sqlite3.attr("Error"));
  classes.database_error = keep(sqlite3.attr("DatabaseError"));
  classes.operational_error = keep(sqlite3.attr("OperationalError"));
  classes.integrity_error = keep(sqlite3.attr("IntegrityError"));
  classes.programming_error = keep(sqlite3.attr("ProgrammingError"));
  classes.data_error = keep(sqlite3.attr("DataError"));
  classes.internal_error = keep(sqlite3.attr("InternalError"));
  classes.fsencode = keep(py::module_::import("os").attr("fsencode"));
  classes.error_names = keep(error_names(sqlite3));
  const auto new_class = [&module](const char* dotted, const char* name) {
    const py::handle made(PyErr_NewException(dotted, PyExc_RuntimeError, nullptr));
    if (!made) throw py::error_already_set();
    module.add_object(name, made);
    return made.inc_ref();
  };
  classes.reader_unavailable =
      new_class("quilma.storage.reader_pool.ReaderUnavailable", "ReaderUnavailable");
  classes.schema_migration_error =
      new_class("quilma.storage.migrations.SchemaMigrationError", "SchemaMigrationError");
}

std::string to_text(py::handle text) {
  if (!PyUnicode_Check(text.ptr())) {
    throw py::type_error("expected str, got " + py::str(py::type::of(text)).cast<std::string>());
  }
  Py_ssize_t size = 0;
  if (const char* utf8 = PyUnicode_AsUTF8AndSize(text.ptr(), &size)) {
    return {utf8, static_cast<std::size_t>(size)};
  }
  PyErr_Clear();
  const auto raw = py::reinterpret_steal<py::bytes>(
      PyUnicode_AsEncodedString(text.ptr(), "utf-8", "surrogateescape"));
  if (!raw) throw py::error_already_set();
  return raw;
}

std::string_view sql_text(const py::str& sql) {
  Py_ssize_t size = 0;
  const char* utf8 = PyUnicode_AsUTF8AndSize(sql.ptr(), &size);
  if (utf8 == nullptr) throw py::error_already_set();
  return {utf8, static_cast<std::size_t>(size)};
}

std::filesystem::path to_path(py::handle path) {
  return {py::cast<std::string>(classes.fsencode(path))};
}

namespace {

sqlite::Value to_value(py::handle object, std::size_t position) {
  PyObject* raw = object.ptr();
  if (raw == Py_None) return {};
  if (PyLong_Check(raw)) {
    int overflow = 0;
    const long long value = PyLong_AsLongLongAndOverflow(raw, &overflow);
    if (overflow != 0) {
      PyErr_SetString(PyExc_OverflowError, "Python int too large to convert to SQLite INTEGER");
      throw py::error_already_set();
    }
    if (value == -1 && PyErr_Occurred()) throw py::error_already_set();
    return static_cast<std::int64_t>(value);
  }
  if (PyFloat_Check(raw)) return PyFloat_AS_DOUBLE(raw);
  if (PyUnicode_Check(raw)) return to_text(object);
  if (PyObject_CheckBuffer(raw)) {
    Py_buffer view;
    if (PyObject_GetBuffer(raw, &view, PyBUF_SIMPLE) < 0) throw py::error_already_set();
    const auto* bytes = static_cast<const std::uint8_t*>(view.buf);
    sqlite::Blob blob(bytes, bytes + view.len);
    PyBuffer_Release(&view);
    return blob;
  }
  const std::string message =
      "Error binding parameter " + std::to_string(position + 1) + ": type '" +
      py::str(py::type::of(object).attr("__name__")).cast<std::string>() + "' is not supported";
  raise_programming_error(message.c_str());
}

}  // namespace

sqlite::Params to_params(py::handle sequence) {
  if (!PySequence_Check(sequence.ptr()) || PyUnicode_Check(sequence.ptr())) {
    raise_programming_error("parameters are of unsupported type");
  }
  const auto values = py::reinterpret_steal<py::object>(PySequence_Fast(sequence.ptr(), ""));
  if (!values) throw py::error_already_set();
  const Py_ssize_t size = PySequence_Fast_GET_SIZE(values.ptr());
  PyObject** items = PySequence_Fast_ITEMS(values.ptr());
  sqlite::Params params;
  params.reserve(static_cast<std::size_t>(size));
  for (Py_ssize_t i = 0; i < size; ++i) {
    params.push_back(to_value(items[i], static_cast<std::size_t>(i)));
  }
  return params;
}

std::vector<sqlite::Params> to_params_list(py::handle sequences) {
  std::vector<sqlite::Params> list;
  for (const py::handle params : py::iter(sequences)) list.push_back(to_params(params));
  return list;
}

py::str to_python_text(std::string_view text) {
  return py::reinterpret_steal<py::str>(
      PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()), "surrogateescape"));
}

py::object to_python(const sqlite::Value& value) {
  switch (value.type()) {
    case sqlite::Value::Type::Null:
      return py::none();
    case sqlite::Value::Type::Integer:
      return py::reinterpret_steal<py::object>(PyLong_FromLongLong(value.as_int()));
    case sqlite::Value::Type::Real:
      return py::reinterpret_steal<py::object>(PyFloat_FromDouble(value.as_double()));
    case sqlite::Value::Type::Text:
      return to_python_text(value.text_view());
    case sqlite::Value::Type::Blob: {
      const sqlite::Blob& blob = value.as_blob();
      return py::reinterpret_steal<py::object>(PyBytes_FromStringAndSize(
          reinterpret_cast<const char*>(blob.data()), static_cast<Py_ssize_t>(blob.size())));
    }
  }
  return py::none();
}

namespace {

// The keys tuple of a result's column names, shared by every row with those names: the same few
// queries run again and again. Used with the GIL held, which guards it; its tuples live as long
// as the process.
py::handle keys_for(const sqlite::Row::Columns& columns) {
  constexpr std::size_t KEPT = 64;
  static std::vector<std::pair<sqlite::Row::Columns, py::handle>> kept;
  for (const auto& [names, keys] : kept) {
    if (names == columns) return keys;
  }
  py::tuple keys(columns.size());
  for (std::size_t i = 0; i < columns.size(); ++i) keys[i] = to_python_text(columns[i]);
  if (kept.size() == KEPT) {
    kept.front().second.dec_ref();
    kept.erase(kept.begin());
  }
  kept.emplace_back(columns, keys.release());
  return kept.back().second;
}

}  // namespace

py::object RowMaker::operator()(const sqlite::Row& row) {
  if (&row.columns() != columns_) {  // rows of one fetch share their columns
    columns_ = &row.columns();
    keys_ = keys_for(*columns_);
  }
  const std::vector<sqlite::Value>& values = row.values();
  PyObject* tuple = PyTuple_New(static_cast<Py_ssize_t>(values.size()));
  if (tuple == nullptr) throw py::error_already_set();
  for (std::size_t i = 0; i < values.size(); ++i) {
    PyTuple_SET_ITEM(tuple, static_cast<Py_ssize_t>(i), to_python(values[i]).release().ptr());
  }
  PyObject* made = make_row(keys_.ptr(), tuple);
  if (made == nullptr) throw py::error_already_set();
  return py::reinterpret_steal<py::object>(made);
}

py::object python_error(const std::exception_ptr& error) {
  try {
    std::rethrow_exception(error);
  } catch (const py::builtin_exception&) {  // pybind11's own (StopIteration) pass on
    return {};
  } catch (const sqlite::Error& caught) {
    py::object made = sqlite_class(caught)(caught.what());
    made.attr("sqlite_errorcode") = caught.extended_code();
    py::object name = classes.error_names.attr("get")(caught.extended_code());
    if (name.is_none()) name = classes.error_names.attr("get")(caught.code(), "unknown");
    made.attr("sqlite_errorname") = name;
    return made;
  } catch (const storage::ReaderUnavailable& caught) {
    return classes.reader_unavailable(caught.what());
  } catch (const storage::migrations::SchemaMigrationError& caught) {
    py::object made = classes.schema_migration_error(caught.what());
    if (const auto* nested = dynamic_cast<const std::nested_exception*>(&caught)) {
      if (nested->nested_ptr()) {
        const py::object cause = python_error(nested->nested_ptr());
        if (cause) PyException_SetCause(made.ptr(), cause.inc_ref().ptr());
      }
    }
    return made;
  } catch (const std::filesystem::filesystem_error& caught) {
    return os_error(caught.code(), caught.code().message(), &caught.path1());
  } catch (const std::system_error& caught) {
    return os_error(caught.code(), caught.what(), nullptr);
  } catch (const std::invalid_argument& caught) {
    return py::reinterpret_borrow<py::object>(PyExc_ValueError)(caught.what());
  } catch (const std::runtime_error& caught) {
    return py::reinterpret_borrow<py::object>(PyExc_RuntimeError)(caught.what());
  } catch (...) {
    return {};
  }
}

bool set_python_error(const std::exception_ptr& error) {
  const py::object made = python_error(error);
  if (!made) return false;
  PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(made.ptr())), made.ptr());
  return true;
}

void raise_programming_error(const char* message) {
  PyErr_SetString(classes.programming_error.ptr(), message);
  throw py::error_already_set();
}

}  // namespace quilma::python
