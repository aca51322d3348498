// Progress of an index run, throttled so that printing never costs what indexing does.
#include "quilma/cli/progress.h"

#include <fmt/format.h>
#include <fmt/ostream.h>

namespace quilma::cli {

namespace {

constexpr auto TERMINAL_EVERY = std::chrono::milliseconds(100);
constexpr auto LINES_EVERY = std::chrono::seconds(5);

}  // namespace

Progress::Progress(std::ostream& out, Mode mode) : out_(out), mode_(mode) { start(); }

Progress::~Progress() { clear_status(); }

void Progress::start() { started_ = shown_ = Clock::now(); }

void Progress::advance(std::int64_t done, std::int64_t total, std::uint64_t bytes) {
  if (mode_ == Mode::Quiet) return;
  const Clock::time_point now = Clock::now();
  const bool last = done == total;
  if (!last && now - shown_ < (mode_ == Mode::Terminal ? TERMINAL_EVERY : LINES_EVERY)) return;
  shown_ = now;
  const double seconds = std::chrono::duration<double>(now - started_).count();
  const double rate = seconds > 0 ? 1 / seconds : 0;
  const std::string text =
      fmt::format("{}/{} files, {:.0f} files/s, {:.1f} MiB/s", done, total,
                  static_cast<double>(done) * rate, static_cast<double>(bytes) / 1048576.0 * rate);
  if (mode_ == Mode::Terminal) {
    fmt::print(out_, "\r\033[Kindexing: {}", text);
    status_shown_ = true;
  } else {
    fmt::print(out_, "indexing: {}\n", text);
  }
  out_.flush();
}

void Progress::note(std::string_view text) {
  if (mode_ == Mode::Quiet) return;
  clear_status();
  fmt::print(out_, "{}\n", text);
  out_.flush();
}

void Progress::clear_status() {
  if (!status_shown_) return;
  // Erased, not ended: what is written next starts on a clean line of its own.
  out_ << "\r\033[K";
  out_.flush();
  status_shown_ = false;
}

}  // namespace quilma::cli
