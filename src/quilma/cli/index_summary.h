// What `index` tells when it ends: one line of text, or a JSON object.
#pragma once

#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>

#include "quilma/cli/indexer.h"

namespace quilma::cli {

// "indexed N files ..." for a full build, "updated the index ..." for an update, with the
// files left out and those indexed with bytes that are not UTF-8 counted apart.
std::string index_summary(const IndexReport& report);

// The line, for stderr, that says a damaged index was moved aside; empty when none was.
std::string damage_notice(const IndexReport& report, const std::filesystem::path& database);

nlohmann::ordered_json index_json(const IndexReport& report, const std::filesystem::path& repo,
                                  const std::filesystem::path& database);

}  // namespace quilma::cli
