// Another process on the same files: a program started with pipes to its standard input and
// output, so that a test can wait for what it says and tell it when to go on.
#pragma once

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <spawn.h>
#include <sys/types.h>

namespace quilma::testing {

class ChildProcess {
 public:
  // Starts args[0] with the rest as its arguments; its standard error goes to the test's.
  explicit ChildProcess(const std::vector<std::string>& args);
  ~ChildProcess();  // kills and reaps a child still running
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // The next line it writes, without its end; std::nullopt once its output is closed.
  std::optional<std::string> read_line();
  // Ends its standard input: a child waiting for it to close goes on.
  void close_input();
  void kill(int signal);
  // Waits for it to end; its exit status, or 128 plus the signal that ended it.
  int wait();

 private:
  pid_t pid_ = -1;
  int input_ = -1;
  int output_ = -1;
  std::string buffered_;
};

// A program of the test suite, built beside the test executables.
std::filesystem::path test_program(const std::string& name);

}  // namespace quilma::testing
