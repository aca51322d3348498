// Runs a check in a child process as the user "nobody", whom file permissions bind (they do not
// bind root, as which the suite may run).
#pragma once

#include <cstdlib>
#include <filesystem>
#include <functional>

#include <sys/wait.h>
#include <unistd.h>

namespace quilma::testing {

inline constexpr uid_t NOBODY = 65534;

// The exit status of `check` run as nobody in a forked child (-1 when the child did not exit).
inline int exit_status_as_nobody(const std::function<bool()>& check) {
  const pid_t child = ::fork();
  if (child == 0) {
    const bool ok = ::setgid(NOBODY) == 0 && ::setuid(NOBODY) == 0 && check();
    std::_Exit(ok ? 0 : 1);
  }
  int status = -1;
  if (child < 0 || ::waitpid(child, &status, 0) != child || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

// Hands `path` and everything under it to nobody.
inline void give_to_nobody(const std::filesystem::path& path) {
  ::chown(path.c_str(), NOBODY, NOBODY);
  for (const auto& entry : std::filesystem::recursive_directory_iterator(path))
    ::chown(entry.path().c_str(), NOBODY, NOBODY);
}

}  // namespace quilma::testing
