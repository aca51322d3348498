#include "quilma/models/symbol.h"

namespace quilma::models {

std::string listed_sql() {
  // The kind is a fixed word without quotes in it, so it goes into the text as it is.
  return "kind <> '" + std::string(FILE_SYMBOL_KIND) + "'";
}

}  // namespace quilma::models
