// Which files of a repository the index holds.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace quilma::cli {

struct RepoFiles {
  std::vector<std::string> paths;  // relative to the repository, '/'-separated, sorted, unique
  bool from_git = false;           // listed by git rather than by walking the tree
};

// The regular files of the repository at `repo` (an absolute, existing directory). At the top
// of a git work tree (`repo` holds ".git"): the files git tracks and the untracked ones it does
// not ignore. Elsewhere, or when git fails: a walk
// that skips hidden directories, a top-level "memory" directory, and build output. Either way,
// symbolic links, and the files whose path begins with `database` (the index itself, its log,
// its staging copies), are left out. With `check_types` false, the paths git lists are taken as
// they are (links, submodules and deleted files among them), for a caller that stats them anyway.
RepoFiles list_repo_files(const std::filesystem::path& repo, const std::filesystem::path& database,
                          bool check_types = true);

}  // namespace quilma::cli
