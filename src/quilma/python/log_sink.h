// The storage layer's log lines as records of Python's `logging`.
#pragma once

#include <pybind11/pybind11.h>

namespace quilma::python {

// Installs the record sink that hands every log line of the layer to the `logging` logger of
// the same name, and removes it again when the interpreter exits.
void install_log_sink(pybind11::module_& module);

}  // namespace quilma::python
