// Listing a repository's files, through git when it is a work tree.
#include "quilma/cli/repo_files.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <optional>
#include <string_view>
#include <system_error>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;  // NOLINT(readability-redundant-declaration): not every libc declares it

namespace quilma::cli {

namespace {

namespace fs = std::filesystem;

// Directory names that hold what a build produces, not sources.
constexpr std::array<std::string_view, 6> BUILD_DIRS{"build",  "out",          "dist",
                                                     "target", "node_modules", "__pycache__"};

bool is_build_output(std::string_view name) {
  return std::find(BUILD_DIRS.begin(), BUILD_DIRS.end(), name) != BUILD_DIRS.end() ||
         name.starts_with("cmake-build-");
}

// What `git -C repo ls-files` prints, or std::nullopt when git is missing or fails.
std::optional<std::string> git_ls_files(const fs::path& repo) {
  int pipe_fds[2];
  if (::pipe2(pipe_fds, O_CLOEXEC) != 0) return std::nullopt;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipe_fds[1], STDOUT_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  const std::string repo_arg = repo.string();
  std::array<const char*, 10> argv{"git",      "-C",       repo_arg.c_str(),     "ls-files", "-z",
                                   "--cached", "--others", "--exclude-standard", nullptr};
  pid_t pid = 0;
  // posix_spawn's argv is char* const[] for C's sake; it does not write to the strings.
  const int spawned = ::posix_spawnp(&pid, "git", &actions, nullptr,
                                     const_cast<char* const*>(argv.data()), environ);  // NOLINT
  posix_spawn_file_actions_destroy(&actions);
  ::close(pipe_fds[1]);
  std::string output;
  if (spawned == 0) {
    std::array<char, 65536> buffer;
    while (true) {
      const ssize_t got = ::read(pipe_fds[0], buffer.data(), buffer.size());
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) break;
      output.append(buffer.data(), static_cast<std::size_t>(got));
    }
  }
  ::close(pipe_fds[0]);
  if (spawned != 0) return std::nullopt;
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return std::nullopt;
  return output;
}

std::vector<std::string> walk(const fs::path& repo) {
  std::vector<std::string> paths;
  auto it = fs::recursive_directory_iterator(repo, fs::directory_options::skip_permission_denied);
  for (; it != fs::recursive_directory_iterator(); ++it) {
    const fs::directory_entry& entry = *it;
    const std::string name = entry.path().filename().string();
    if (entry.is_directory() && !entry.is_symlink()) {
      if (name.starts_with('.') || is_build_output(name) || (it.depth() == 0 && name == "memory")) {
        it.disable_recursion_pending();
      }
      continue;
    }
    if (entry.is_regular_file() && !entry.is_symlink()) {
      paths.push_back(entry.path().lexically_relative(repo).generic_string());
    }
  }
  return paths;
}

}  // namespace

RepoFiles list_repo_files(const fs::path& repo, const fs::path& database, bool check_types) {
  RepoFiles files;
  // Only the top of a work tree: a directory inside one (a generated tree under an ignored
  // build directory, say) is walked, since git would list none of its ignored files.
  std::error_code no_git;
  std::optional<std::string> listed;
  if (fs::exists(repo / ".git", no_git)) listed = git_ls_files(repo);
  if (listed) {
    files.from_git = true;
    std::string_view rest = *listed;
    while (!rest.empty()) {
      const std::size_t end = std::min(rest.find('\0'), rest.size());
      const std::string path(rest.substr(0, end));
      rest.remove_prefix(std::min(end + 1, rest.size()));
      // git also lists symbolic links, submodules, and tracked files deleted since.
      std::error_code error;
      if (!check_types || fs::symlink_status(repo / path, error).type() == fs::file_type::regular) {
        files.paths.push_back(path);
      }
    }
  } else {
    files.paths = walk(repo);
  }

  const fs::path relative = database.lexically_relative(repo);
  const std::string own = relative.generic_string();
  if (!relative.empty() && !own.starts_with("..")) {
    std::erase_if(files.paths, [&](const std::string& path) { return path.starts_with(own); });
  }
  std::sort(files.paths.begin(), files.paths.end());
  files.paths.erase(std::unique(files.paths.begin(), files.paths.end()), files.paths.end());
  return files;
}

}  // namespace quilma::cli
