// The quilma-db executable: the command line, with Ctrl-C, SIGTERM and SIGHUP turned into a
// clean stop.
#include <atomic>
#include <csignal>
#include <iostream>

#include <unistd.h>

#include "quilma/cli/app.h"

namespace {

std::atomic<bool> stop_requested{false};

void request_stop(int /*signal*/) { stop_requested.store(true); }

}  // namespace

int main(int argc, char** argv) {
  static_assert(std::atomic<bool>::is_always_lock_free, "set from a signal handler");
  // The first Ctrl-C asks the run to stop cleanly; the handler then resets itself, so a second
  // one ends the process at once.
  struct sigaction action {};
  action.sa_handler = &request_stop;
  action.sa_flags = SA_RESETHAND | SA_RESTART;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  sigaction(SIGHUP, &action, nullptr);  // a closed terminal stops a run as cleanly

  std::ios::sync_with_stdio(false);
  const quilma::cli::Io io{std::cout, std::cerr, ::isatty(STDOUT_FILENO) == 1,
                           ::isatty(STDERR_FILENO) == 1, &stop_requested};
  const int status = quilma::cli::run(argc, argv, io);
  std::cout.flush();
  return status;
}
