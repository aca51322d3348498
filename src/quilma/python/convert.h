// Conversions between Python objects and the layer's values, rows, paths and errors.
#pragma once

#include <exception>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <pybind11/pybind11.h>

#include "quilma/sqlite/row.h"
#include "quilma/sqlite/value.h"

namespace quilma::python {

namespace py = pybind11;

// Looks up what the conversions use (sqlite3's classes, os.fsencode); called once at import.
void init_conversions(py::module_& module);

// A statement's values from any sequence: None, int (64-bit), float, str, bytes-like, bool.
sqlite::Params to_params(py::handle sequence);
std::vector<sqlite::Params> to_params_list(py::handle sequences);
// Text for the layer: UTF-8, with lone surrogates from undecodable bytes given back as bytes.
std::string to_text(py::handle text);
std::string_view sql_text(const py::str& sql);
std::filesystem::path to_path(py::handle path);  // str, bytes or os.PathLike

py::object to_python(const sqlite::Value& value);
py::str to_python_text(std::string_view text);

// Rows of one result to Row objects; the column names are converted once per result.
class RowMaker {
 public:
  py::object operator()(const sqlite::Row& row);

 private:
  const sqlite::Row::Columns* columns_ = nullptr;
  py::handle keys_;
};

// The Python exception object for a C++ error: sqlite3's class for an SQLite error (with
// sqlite_errorcode and sqlite_errorname), OSError and its subclasses, RuntimeError and the
// layer's own classes. Null for an error of another kind.
py::object python_error(const std::exception_ptr& error);
// Sets the Python error for a C++ one; false when it is of none of those kinds.
bool set_python_error(const std::exception_ptr& error);
// sqlite3.ProgrammingError with `message`, raised as a C++ exception pybind11 passes on.
[[noreturn]] void raise_programming_error(const char* message);

}  // namespace quilma::python
