// quilma-db: the command-line tool that indexes a repository, searches it and maintains its
// index file.
#pragma once

#include <atomic>
#include <ostream>

namespace quilma::cli {

// Where a run writes, and what it knows of its surroundings.
struct Io {
  std::ostream& out;             // results
  std::ostream& err;             // progress, log lines and the error that ended the run
  bool out_is_terminal = false;  // search colours its matches
  bool err_is_terminal = false;  // index shows one status line that updates itself
  // Set by the interrupt handler; an index run stops before its swap once it is set.
  const std::atomic<bool>* stop = nullptr;
};

// Exit statuses: 0 success, 1 a failed operation (one line on `err` says why), 2 bad usage,
// 130 an index run stopped by an interrupt. search keeps grep's: 0 a line matched, 1 none did,
// 2 an error of any kind.
inline constexpr int EXIT_FAILED = 1;
inline constexpr int EXIT_NO_MATCH = 1;
inline constexpr int EXIT_USAGE = 2;
inline constexpr int EXIT_INTERRUPTED = 130;

// Runs one command line (argv[0] is the program's name).
int run(int argc, const char* const* argv, const Io& io);

}  // namespace quilma::cli
