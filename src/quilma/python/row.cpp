// Row: indexing by position, slice or column name (ASCII case-insensitive), keys(), length,
// iteration over the values, and comparison and hashing by value.
#include "quilma/python/row.h"

#include <cstddef>

namespace quilma::python {

namespace {

struct RowObject {
  PyObject_HEAD PyObject* keys;  // tuple of str
  PyObject* values;              // tuple
};

RowObject* as_row(PyObject* self) { return reinterpret_cast<RowObject*>(self); }

void row_dealloc(PyObject* self) {
  PyTypeObject* type = Py_TYPE(self);
  Py_XDECREF(as_row(self)->keys);
  Py_XDECREF(as_row(self)->values);
  PyObject_Free(self);
  Py_DECREF(type);  // instances of a heap type hold a reference to it
}

bool same_name_ascii(PyObject* key, const char* name, Py_ssize_t name_size) {
  Py_ssize_t key_size = 0;
  const char* text = PyUnicode_AsUTF8AndSize(key, &key_size);
  if (text == nullptr) {
    PyErr_Clear();
    return false;
  }
  if (key_size != name_size) return false;
  for (Py_ssize_t i = 0; i < key_size; ++i) {
    char a = text[i];
    char b = name[i];
    if (a >= 'A' && a <= 'Z') a = static_cast<char>(a - 'A' + 'a');
    if (b >= 'A' && b <= 'Z') b = static_cast<char>(b - 'A' + 'a');
    if (a != b) return false;
  }
  return true;
}

PyObject* row_subscript(PyObject* self, PyObject* index) {
  RowObject* row = as_row(self);
  if (PyLong_Check(index)) {
    Py_ssize_t position = PyNumber_AsSsize_t(index, PyExc_IndexError);
    if (position == -1 && PyErr_Occurred()) return nullptr;
    if (position < 0) position += PyTuple_GET_SIZE(row->values);
    if (position < 0 || position >= PyTuple_GET_SIZE(row->values)) {
      PyErr_SetString(PyExc_IndexError, "Index out of range.");
      return nullptr;
    }
    PyObject* item = PyTuple_GET_ITEM(row->values, position);
    Py_INCREF(item);
    return item;
  }
  if (PyUnicode_Check(index)) {
    Py_ssize_t name_size = 0;
    const char* name = PyUnicode_AsUTF8AndSize(index, &name_size);
    if (name == nullptr) return nullptr;
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(row->keys); ++i) {
      if (same_name_ascii(PyTuple_GET_ITEM(row->keys, i), name, name_size)) {
        PyObject* item = PyTuple_GET_ITEM(row->values, i);
        Py_INCREF(item);
        return item;
      }
    }
    PyErr_SetString(PyExc_IndexError, "No item with that key");
    return nullptr;
  }
  if (PySlice_Check(index)) return PyObject_GetItem(row->values, index);
  PyErr_SetString(PyExc_IndexError, "Index must be int or string");
  return nullptr;
}

Py_ssize_t row_length(PyObject* self) { return PyTuple_GET_SIZE(as_row(self)->values); }

PyObject* row_item(PyObject* self, Py_ssize_t index) {
  PyObject* values = as_row(self)->values;
  if (index < 0 || index >= PyTuple_GET_SIZE(values)) {
    PyErr_SetString(PyExc_IndexError, "Index out of range.");
    return nullptr;
  }
  PyObject* item = PyTuple_GET_ITEM(values, index);
  Py_INCREF(item);
  return item;
}

PyObject* row_iter(PyObject* self) { return PyObject_GetIter(as_row(self)->values); }

PyObject* row_keys(PyObject* self, PyObject* /*unused*/) {
  return PySequence_List(as_row(self)->keys);
}

Py_hash_t row_hash(PyObject* self) {
  const Py_hash_t keys = PyObject_Hash(as_row(self)->keys);
  if (keys == -1) return -1;
  const Py_hash_t values = PyObject_Hash(as_row(self)->values);
  if (values == -1) return -1;
  const Py_hash_t mixed = keys ^ values;
  return mixed == -1 ? -2 : mixed;
}

PyObject* row_richcompare(PyObject* self, PyObject* other, int op) {
  if ((op != Py_EQ && op != Py_NE) || !PyObject_TypeCheck(other, row_type())) {
    Py_RETURN_NOTIMPLEMENTED;
  }
  const int keys_equal = PyObject_RichCompareBool(as_row(self)->keys, as_row(other)->keys, Py_EQ);
  if (keys_equal < 0) return nullptr;
  if (keys_equal == 0) return PyBool_FromLong(op == Py_NE ? 1 : 0);
  return PyObject_RichCompare(as_row(self)->values, as_row(other)->values, op);
}

PyObject* row_repr(PyObject* self) {
  RowObject* row = as_row(self);
  PyObject* items = PyList_New(0);
  if (items == nullptr) return nullptr;
  for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(row->values); ++i) {
    PyObject* item = PyUnicode_FromFormat("%S=%R", PyTuple_GET_ITEM(row->keys, i),
                                          PyTuple_GET_ITEM(row->values, i));
    if (item == nullptr || PyList_Append(items, item) < 0) {
      Py_XDECREF(item);
      Py_DECREF(items);
      return nullptr;
    }
    Py_DECREF(item);
  }
  PyObject* separator = PyUnicode_FromString(", ");
  PyObject* joined = separator == nullptr ? nullptr : PyUnicode_Join(separator, items);
  PyObject* text = joined == nullptr ? nullptr : PyUnicode_FromFormat("Row(%U)", joined);
  Py_XDECREF(joined);
  Py_XDECREF(separator);
  Py_DECREF(items);
  return text;
}

PyMethodDef row_methods[] = {
    {"keys", row_keys, METH_NOARGS, "The column names, in order."},
    {nullptr, nullptr, 0, nullptr},
};  // NOLINT

PyTypeObject* row_type_object = nullptr;

}  // namespace

PyTypeObject* row_type() { return row_type_object; }

int register_row_type(PyObject* module) {
  static PyType_Slot slots[] = {
      {Py_tp_dealloc, reinterpret_cast<void*>(row_dealloc)},
      {Py_tp_repr, reinterpret_cast<void*>(row_repr)},
      {Py_tp_hash, reinterpret_cast<void*>(row_hash)},
      {Py_tp_richcompare, reinterpret_cast<void*>(row_richcompare)},
      {Py_tp_iter, reinterpret_cast<void*>(row_iter)},
      {Py_tp_methods, row_methods},
      {Py_tp_doc, const_cast<char*>("One result row: by position, by column name (any ASCII "
                                    "case), and keys().")},
      {Py_sq_length, reinterpret_cast<void*>(row_length)},
      {Py_sq_item, reinterpret_cast<void*>(row_item)},
      {Py_mp_length, reinterpret_cast<void*>(row_length)},
      {Py_mp_subscript, reinterpret_cast<void*>(row_subscript)},
      {0, nullptr},
  };
  static PyType_Spec type_spec = {"quilma.storage.database.Row", sizeof(RowObject), 0,
                                  Py_TPFLAGS_DEFAULT, slots};
  PyObject* type = PyType_FromSpec(&type_spec);
  if (type == nullptr) return -1;
  row_type_object = reinterpret_cast<PyTypeObject*>(type);
  Py_INCREF(type);  // one reference stays here for the life of the process
  if (PyModule_AddObject(module, "Row", type) < 0) {
    Py_DECREF(type);
    return -1;
  }
  return 0;
}

PyObject* make_row(PyObject* keys, PyObject* values) {
  auto* row = PyObject_New(RowObject, row_type_object);
  if (row == nullptr) {
    Py_DECREF(values);
    return nullptr;
  }
  Py_INCREF(keys);
  row->keys = keys;
  row->values = values;
  return reinterpret_cast<PyObject*>(row);
}

}  // namespace quilma::python
