#include "support/child_process.h"

#include <csignal>
#include <system_error>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;  // NOLINT(readability-redundant-declaration): posix_spawn's environment

namespace quilma::testing {

ChildProcess::ChildProcess(const std::vector<std::string>& args) {
  int to_child[2];
  int from_child[2];
  if (::pipe2(to_child, O_CLOEXEC) != 0 || ::pipe2(from_child, O_CLOEXEC) != 0) {
    throw std::system_error(errno, std::generic_category(), "pipe2");
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, to_child[0], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, from_child[1], STDOUT_FILENO);
  std::vector<char*> argv;
  for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
  argv.push_back(nullptr);
  const int failed = posix_spawn(&pid_, argv.at(0), &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(to_child[0]);
  ::close(from_child[1]);
  input_ = to_child[1];
  output_ = from_child[0];
  if (failed != 0) {
    ::close(input_);  // the destructor does not run for an object that was never made
    ::close(output_);
    throw std::system_error(failed, std::generic_category(), "spawn " + args.at(0));
  }
}

ChildProcess::~ChildProcess() {
  if (pid_ > 0) {
    kill(SIGKILL);
    try {
      wait();
    } catch (const std::system_error&) {  // not ours to reap any more
    }
  }
  close_input();
  if (output_ >= 0) ::close(output_);
}

std::optional<std::string> ChildProcess::read_line() {
  for (;;) {
    if (const std::size_t end = buffered_.find('\n'); end != std::string::npos) {
      std::string line = buffered_.substr(0, end);
      buffered_.erase(0, end + 1);
      return line;
    }
    char chunk[256];
    const ssize_t got = ::read(output_, chunk, sizeof chunk);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return std::nullopt;
    buffered_.append(chunk, static_cast<std::size_t>(got));
  }
}

void ChildProcess::close_input() {
  if (input_ >= 0) ::close(input_);
  input_ = -1;
}

void ChildProcess::kill(int signal) {
  if (pid_ > 0) ::kill(pid_, signal);
}

int ChildProcess::wait() {
  int status = 0;
  while (::waitpid(pid_, &status, 0) < 0) {
    if (errno != EINTR) throw std::system_error(errno, std::generic_category(), "waitpid");
  }
  pid_ = -1;
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

std::filesystem::path test_program(const std::string& name) {
  return std::filesystem::read_symlink("/proc/self/exe").parent_path() / name;
}

}  // namespace quilma::testing
