// What `index` tells a person while it works: a line that updates itself on a terminal, a
// line every few seconds in a log, nothing when asked to be quiet.
#pragma once

#include <chrono>
#include <cstdint>
#include <ostream>
#include <string_view>

namespace quilma::cli {

class Progress {
 public:
  enum class Mode { Quiet, Lines, Terminal };
  Progress(std::ostream& out, Mode mode);
  ~Progress();  // erases a terminal's status line
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // A file is done: `done` of `total` files and `bytes` read since start().
  void advance(std::int64_t done, std::int64_t total, std::uint64_t bytes);
  // Starts the clock of the files' progress.
  void start();
  // One line about a step, on its own line.
  void note(std::string_view text);
  // Erases a terminal's status line, so that what is written next, on either stream, starts
  // on a line of its own.
  void clear_status();

 private:
  using Clock = std::chrono::steady_clock;

  std::ostream& out_;
  Mode mode_;
  Clock::time_point started_;
  Clock::time_point shown_;
  bool status_shown_ = false;
};

}  // namespace quilma::cli
