// The message of the error of kind Kind that a call throws.
#pragma once

#include <string>

namespace quilma::testing {

// What `call` throws as a Kind, or "(no error)"; an error of another kind fails the test.
template <class Kind, class Call>
std::string error_of(Call&& call) {
  try {
    call();
  } catch (const Kind& error) {
    return error.what();
  }
  return "(no error)";
}

}  // namespace quilma::testing
