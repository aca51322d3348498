// Which files an index run reads: git's view of a work tree, or a walk of a plain directory.
#include "quilma/cli/repo_files.h"

#include <cstdlib>
#include <fstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/temp_dir.h"

namespace quilma::cli {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;

void touch(const fs::path& path) {
  fs::create_directories(path.parent_path());
  std::ofstream(path) << "x\n";
}

TEST(RepoFilesTest, WalkSkipsHiddenBuildAndIndexFiles) {
  testing::TempDir dir;
  for (const char* path : {"a.py", "src/memory/kept.py", "src/.env", ".hidden/no.py", "build/no.o",
                           "node_modules/no.js", "cmake-build-release/no.cpp", "memory/no.md",
                           "data/my.db", "data/my.db-wal", "data/my.dbx"}) {
    touch(dir / path);
  }
  fs::create_symlink(dir / "a.py", dir / "link.py");
  const RepoFiles files = list_repo_files(dir.path(), dir / "data/my.db");
  EXPECT_FALSE(files.from_git);
  // The database's prefix covers its log and staging copies, and so "my.dbx" as well.
  EXPECT_THAT(files.paths, ElementsAre("a.py", "src/.env", "src/memory/kept.py"));
}

TEST(RepoFilesTest, GitListsTrackedAndUnignoredFiles) {
  testing::TempDir dir;
  for (const char* path : {"tracked.py", "deleted.py", "untracked.py", "skip.log", "build/out.c"}) {
    touch(dir / path);
  }
  std::ofstream(dir / ".gitignore") << "*.log\n";
  const std::string git = "git -C '" + dir.path().string() + "' ";
  // NOLINTNEXTLINE(concurrency-mt-unsafe): the test runs no other thread
  ASSERT_EQ(std::system((git + "init -q && " + git + "add tracked.py deleted.py").c_str()), 0);
  fs::remove(dir / "deleted.py");
  const RepoFiles files = list_repo_files(dir.path(), dir / "memory/codebase-index/index.db");
  EXPECT_TRUE(files.from_git);
  // git decides what is source: build/ is not ignored here, so it is listed.
  EXPECT_THAT(files.paths, ElementsAre(".gitignore", "build/out.c", "tracked.py", "untracked.py"));
}

}  // namespace
}  // namespace quilma::cli
