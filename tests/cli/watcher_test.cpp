// The watcher, run as a program of its own as a user starts it, and the searches that ask it
// whether the index is fresh.
#include "quilma/cli/watcher.h"

#include <chrono>
#include <csignal>
#include <cstring>
#include <fstream>
#include <functional>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/cli_run.h"
#include "support/temp_dir.h"

extern char** environ;  // NOLINT(readability-redundant-declaration): not every libc declares it

namespace quilma::cli {
namespace {

namespace fs = std::filesystem;
using testing::quilma_db;
using testing::write;

class WatcherTest : public ::testing::Test {
 protected:
  void SetUp() override {
    write(repo_ / "src/a.c", "int alpha = 1;\n");
    write(repo_ / "docs/b.md", "beta\n");
    start();
  }
  void TearDown() override {
    if (pid_ > 0) {
      EXPECT_EQ(stop(SIGTERM), 0);
    }
  }

  // Starts a watcher of `repo`, which builds its index; what it says goes to watch.log.
  pid_t spawn(const fs::path& repo) const {
    const std::string path = repo.string();
    // Changes settle for long enough that no update comes between a change and the question
    // that follows it, however slowly the test runs.
    const char* argv[] = {QUILMA_DB_EXECUTABLE, "watch", "--settle", "300", path.c_str(), nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, (dir_ / "watch.log").c_str(),
                                     O_WRONLY | O_CREAT | O_APPEND, 0600);
    pid_t pid = 0;
    ::posix_spawn(&pid, argv[0], &actions, nullptr, const_cast<char* const*>(argv), environ);
    posix_spawn_file_actions_destroy(&actions);
    return pid;
  }
  // Starts the repository's watcher and waits until it vouches for the index.
  void start() {
    pid_ = spawn(repo_);
    ASSERT_GT(pid_, 0);
    ASSERT_TRUE(fresh_soon());
  }
  // How many lines of watch.log hold `text`.
  int logged(const std::string& text) const {
    std::ifstream log(dir_ / "watch.log");
    int count = 0;
    for (std::string line; std::getline(log, line);) count += line.find(text) != line.npos ? 1 : 0;
    return count;
  }
  // A watcher's exit status once `signal` ends it; minus the signal when that killed it.
  static int end(pid_t pid, int signal) {
    ::kill(pid, signal);
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }
  int stop(int signal) { return end(std::exchange(pid_, 0), signal); }
  bool fresh_soon() const { return fresh_soon(db_); }
  static bool fresh_soon(const fs::path& db) {
    for (int i = 0; i < 3000; ++i) {
      if (watcher_vouches(db)) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
  }
  std::string search(const std::string& word, const std::string& flag = "-s") const {
    return quilma_db({"search", flag, "-w", "--all", word, repo_.string()}).out;
  }

  quilma::testing::TempDir dir_;
  fs::path repo_ = dir_ / "repo";
  fs::path db_ = repo_ / "memory/codebase-index/index.db";
  pid_t pid_ = 0;
};

// A change made before a search asks is in the kernel's queue when the watcher answers: the
// search never gets the index as it was. Once the watcher has caught up, the index itself holds
// the change, in directories made, moved and removed since the watcher started.
TEST_F(WatcherTest, EverySearchAfterAChangeSeesIt) {
  const std::string a = "src/a.c:2:int gamma = 2;\n";
  const std::vector<std::tuple<std::function<void()>, std::string>> steps{
      {[&] { std::ofstream(repo_ / "src/a.c", std::ios::app) << "int gamma = 2;\n"; }, a},
      {[&] { write(repo_ / "new/deep/n.txt", "gamma\n"); }, "new/deep/n.txt:1:gamma\n" + a},
      {[&] { write(repo_ / "new/deep/n.txt", "delta\n"); }, a},
      {[&] { fs::rename(repo_ / "new", repo_ / "moved"); }, a},
      {[&] { write(repo_ / "moved/deep/x/m.txt", "gamma\n"); }, "moved/deep/x/m.txt:1:gamma\n" + a},
      {[&] { write(repo_ / "moved/deep/x/m.txt", "gamma 2\n"); },
       "moved/deep/x/m.txt:1:gamma 2\n" + a},
      {[&] { fs::remove_all(repo_ / "src"); }, "moved/deep/x/m.txt:1:gamma 2\n"},
  };
  for (std::size_t i = 0; i < steps.size(); ++i) {
    const auto& [change, found] = steps[i];
    change();
    EXPECT_FALSE(watcher_vouches(db_)) << i;
    EXPECT_EQ(search("gamma"), found) << i;
    ASSERT_TRUE(fresh_soon()) << i;
    EXPECT_EQ(search("gamma", "--as-indexed"), found) << i;
  }
  // git replacing its list of the files it tracks counts as a change too.
  const std::string git = "cd " + repo_.string() + " && git ";
  ASSERT_EQ(testing::shell(git + "init -q && " + git + "add moved"), "0 ");
  ASSERT_TRUE(fresh_soon());
  ASSERT_EQ(testing::shell("cd " + repo_.string() + "/.git && cp index i && mv i index"), "0 ");
  EXPECT_FALSE(watcher_vouches(db_));
  // A line for each update that changed the index, none for those that found nothing.
  ASSERT_TRUE(fresh_soon());
  EXPECT_EQ(logged("quilma-db: watching 3 directories of " + repo_.string() + ";"), 1);
  EXPECT_EQ(logged("quilma-db: indexed 2 files"), 1);
  EXPECT_EQ(logged("quilma-db: the index is up to date; searches now ask this watcher"), 1);
  EXPECT_GE(logged("quilma-db: updated the index"), static_cast<int>(steps.size()));
  EXPECT_EQ(logged(": 0 added, 0 updated, 0 removed"), 0);
}

// A write through a shared mapping raises no inotify event, and a search takes the watcher's
// word for the index; a change of the file's time does raise one. Another program's write to
// the index, such as `clear`, makes the watcher build it again.
TEST_F(WatcherTest, SearchesTakeTheWatchersWordUntilAnEventOrAWriteToTheIndex) {
  const fs::path file = repo_ / "docs/b.md";
  const int fd = ::open(file.c_str(), O_RDWR);
  void* mapped = ::mmap(nullptr, 5, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  ::close(fd);  // the mapping keeps the file open: its close event comes with munmap()
  ASSERT_NE(mapped, MAP_FAILED);
  ASSERT_TRUE(fresh_soon());
  std::memcpy(mapped, "zeta\n", 5);
  EXPECT_EQ(search("beta"), "docs/b.md:1:beta\n");
  const timespec times[2] = {{0, UTIME_OMIT}, {1'700'000'000, 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
  EXPECT_EQ(search("beta"), "");
  EXPECT_EQ(search("zeta"), "docs/b.md:1:zeta\n");
  ::munmap(mapped, 5);

  ASSERT_TRUE(fresh_soon());
  EXPECT_EQ(quilma_db({"-q", "clear", repo_.string()}).told, "0 ");
  EXPECT_FALSE(watcher_vouches(db_));
  ASSERT_TRUE(fresh_soon());
  EXPECT_EQ(search("alpha", "--as-indexed"), "src/a.c:1:int alpha = 1;\n");
}

// One watcher per index. One that is stopped does not hold a search up; one that is killed
// leaves nothing behind, and the next starts at once.
TEST_F(WatcherTest, OneWatcherPerIndexAndAStoppedOrKilledOneHoldsNothingUp) {
  const std::atomic<bool> stop_now{true};
  EXPECT_EQ(quilma_db({"watch", repo_.string()}, &stop_now).told,
            "1 quilma-db: watch: a watcher already runs for " + db_.string() + "\n");
  // Each index has a watcher of its own.
  write(dir_ / "other/x.txt", "x\n");
  const pid_t other = spawn(dir_ / "other");
  EXPECT_TRUE(fresh_soon(dir_ / "other/memory/codebase-index/index.db"));
  EXPECT_TRUE(watcher_vouches(db_));
  EXPECT_EQ(end(other, SIGTERM), 0);
  ::kill(pid_, SIGSTOP);
  write(repo_ / "src/a.c", "int omega = 1;\n");
  const auto started = std::chrono::steady_clock::now();
  EXPECT_EQ(search("omega"), "src/a.c:1:int omega = 1;\n");
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(2));
  EXPECT_EQ(stop(SIGKILL), -SIGKILL);
  EXPECT_FALSE(watcher_vouches(db_));
  start();
  EXPECT_EQ(search("omega", "--as-indexed"), "src/a.c:1:int omega = 1;\n");
}

}  // namespace
}  // namespace quilma::cli
