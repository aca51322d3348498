// The summary of an index run.
#include "quilma/cli/index_summary.h"

#include <fmt/format.h>

namespace quilma::cli {

namespace {

constexpr double MIB = 1048576.0;

std::string plural(std::int64_t count, std::string_view one, std::string_view many) {
  return fmt::format("{} {}", count, count == 1 ? one : many);
}

}  // namespace

std::string index_summary(const IndexReport& report) {
  const double seconds = report.total_seconds > 0 ? report.total_seconds : 1e-9;
  std::string text;
  if (report.full) {
    const double mib = static_cast<double>(report.bytes) / MIB;
    text = fmt::format(
        "indexed {} ({:.1f} MiB) in {:.1f} s: {:.0f} files/s, {:.1f} MiB/s, a full build ({})",
        plural(report.files, "file", "files"), mib, report.total_seconds,
        static_cast<double>(report.read) / seconds, mib / seconds, report.full_reason);
  } else {
    text = fmt::format(
        "updated the index in {:.2f} s: {} added, {} updated, {} removed, {} unchanged",
        report.total_seconds, report.added, report.updated, report.removed, report.unchanged);
  }
  if (report.left_out > 0 || report.not_utf8 > 0) {
    text += fmt::format(
        "; {} left out, {} (see 'quilma-db errors')", report.left_out,
        plural(report.not_utf8, "with bytes that are not UTF-8", "with bytes that are not UTF-8"));
  }
  return text + fmt::format("; generation {}", report.generation);
}

std::string damage_notice(const IndexReport& report, const std::filesystem::path& database) {
  if (!report.moved_aside) return {};
  return fmt::format("quilma-db: index: {} was damaged ({}); moved it to {} and built a new one",
                     database.string(), report.damage, report.moved_aside->string());
}

nlohmann::ordered_json index_json(const IndexReport& report, const std::filesystem::path& repo,
                                  const std::filesystem::path& database) {
  nlohmann::ordered_json object{{"repository", repo.string()},
                                {"database", database.string()},
                                {"listed_by", report.from_git ? "git" : "walk"},
                                {"full", report.full},
                                {"files", report.files},
                                {"left_out", report.left_out},
                                {"not_utf8", report.not_utf8},
                                {"read", report.read},
                                {"bytes", report.bytes},
                                {"generation", report.generation}};
  if (report.full) {
    object["full_reason"] = report.full_reason;
  } else {
    object["added"] = report.added;
    object["updated"] = report.updated;
    object["removed"] = report.removed;
    object["unchanged"] = report.unchanged;
  }
  if (report.moved_aside) object["moved_aside"] = report.moved_aside->string();
  object["seconds"] = {{"list", report.list_seconds},
                       {"build", report.build_seconds},
                       {"swap", report.swap_seconds},
                       {"total", report.total_seconds}};
  return object;
}

}  // namespace quilma::cli
