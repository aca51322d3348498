// The Row type that queries return to Python: a tuple of values with the result's column
// names, like sqlite3.Row, made as a plain C type because a large fetchall makes one per row.
#pragma once

#include <Python.h>

namespace quilma::python {

// The Row type object, made ready by register_row_type().
PyTypeObject* row_type();

// Makes the type ready and adds it to `module` as "Row"; -1 with a Python error on failure.
int register_row_type(PyObject* module);

// A new Row that takes `values` (a tuple) and shares `keys` (a tuple of str, one per value).
// Steals `values`; returns null with a Python error on failure.
PyObject* make_row(PyObject* keys, PyObject* values);

}  // namespace quilma::python
