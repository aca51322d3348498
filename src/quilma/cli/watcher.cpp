// Watching a repository with inotify, keeping its index up to date, and answering a search
// that asks whether the index is fresh.
#include "quilma/cli/watcher.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <exception>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <utility>

#include <fmt/format.h>
#include <fmt/ostream.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "quilma/cli/descriptor.h"
#include "quilma/cli/index_summary.h"
#include "quilma/cli/indexer.h"
#include "quilma/cli/progress.h"
#include "quilma/sqlite/connection.h"
#include "quilma/sqlite/cursor.h"

namespace quilma::cli {

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// How long a search waits for the watcher's answer before it looks at the files itself.
constexpr auto ANSWER_WAIT = std::chrono::milliseconds(100);
// Changes that never pause still bring an update this long after the first of them.
constexpr auto MAX_DELAY = std::chrono::seconds(2);
// After a failed update, the next one waits this long.
constexpr auto RETRY_DELAY = std::chrono::seconds(5);
// The longest the watcher sleeps before it looks at its stop flag again.
constexpr int POLL_MS = 200;

constexpr std::uint32_t DIRECTORY_EVENTS =
    IN_MODIFY | IN_ATTRIB | IN_CLOSE_WRITE | IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO |
    IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR | IN_DONT_FOLLOW;
// git replaces its index (the files it tracks) by renaming a new one over it.
constexpr std::uint32_t GIT_EVENTS = IN_MOVED_TO | IN_CLOSE_WRITE | IN_ONLYDIR;

// The index's path as every process names it.
fs::path index_path(const fs::path& database, std::error_code& error) {
  return fs::weakly_canonical(fs::absolute(database), error);
}

// The socket's address: in Linux's abstract namespace, so that a killed watcher leaves no file
// behind, named by a digest of the index's path. The answer repeats the path itself.
std::pair<sockaddr_un, socklen_t> address_of(const fs::path& database) {
  std::uint64_t digest = 14695981039346656037ULL;  // FNV-1a
  for (const char c : database.string()) {
    digest = (digest ^ static_cast<unsigned char>(c)) * 1099511628211ULL;
  }
  const std::string name = fmt::format("quilma-db-watch/{:016x}", digest);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path + 1, name.data(), name.size());  // sun_path[0] stays '\0'
  return {address, static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size())};
}

std::string answer_text(bool fresh, const fs::path& database) {
  return fmt::format("{} {}\n", fresh ? "fresh" : "stale", database.string());
}

// Whether the process at the other end of `socket` runs as this one's user.
bool same_user(int socket) {
  ucred peer{};
  socklen_t size = sizeof peer;
  return ::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && peer.uid == ::getuid();
}

[[noreturn]] void throw_errno(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

// The inotify watches on every directory of a repository but those named .git (of the top one
// only git's own index is watched), and what their events say.
class Watches {
 public:
  Watches(const fs::path& repo, const fs::path& database)
      : fd_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)),
        repo_(repo),
        own_dir_(database.parent_path()),
        own_name_(database.filename().string()) {
    if (fd_.get() < 0) throw_errno("cannot watch " + repo.string());
    watch_all();
  }

  int fd() const { return fd_.get(); }
  std::size_t count() const { return dirs_.size(); }

  // Reads the events queued so far; true when any says a file of the repository changed.
  bool drain() {
    bool changed = false;
    bool rewatch = false;
    alignas(inotify_event) std::array<char, 65536> buffer{};
    while (true) {
      const ssize_t got = ::read(fd_.get(), buffer.data(), buffer.size());
      if (got < 0 && errno == EINTR) continue;
      if (got < 0 && errno == EAGAIN) break;
      if (got <= 0) throw_errno("cannot watch " + repo_.string());
      for (std::size_t at = 0; at < static_cast<std::size_t>(got);) {
        inotify_event event{};
        std::memcpy(&event, buffer.data() + at, sizeof event);
        const std::string_view name =
            event.len > 0 ? std::string_view(buffer.data() + at + sizeof event) : "";
        at += sizeof event + event.len;
        if ((event.mask & IN_Q_OVERFLOW) != 0) {  // events were lost: watch everything again
          changed = rewatch = true;
          continue;
        }
        if (event.wd == git_) {
          changed |= name == "index";
          continue;
        }
        if (event.wd == root_ && (event.mask & (IN_DELETE_SELF | IN_MOVE_SELF)) != 0) {
          throw std::runtime_error("the repository " + repo_.string() + " was moved or removed");
        }
        const auto dir = dirs_.find(event.wd);
        if (dir == dirs_.end()) continue;
        if ((event.mask & IN_IGNORED) != 0) {  // the directory is gone
          dirs_.erase(dir);
          continue;
        }
        if (dir->second == own_dir_ && name.starts_with(own_name_)) continue;  // the index's
        changed = true;
        // A directory made, or moved in: watched with all under it. One moved within the tree
        // keeps its watches, which inotify_add_watch() then names by their new paths.
        if ((event.mask & IN_ISDIR) != 0 && (event.mask & (IN_CREATE | IN_MOVED_TO)) != 0) {
          add_tree(dir->second / name);
        }
      }
    }
    if (rewatch) watch_all();
    return changed;
  }

 private:
  void watch_all() {
    for (const auto& [wd, dir] : dirs_) ::inotify_rm_watch(fd_.get(), wd);
    dirs_.clear();
    add_tree(repo_);
    const auto root = std::find_if(dirs_.begin(), dirs_.end(),
                                   [&](const auto& entry) { return entry.second == repo_; });
    if (root == dirs_.end()) throw std::runtime_error("cannot watch " + repo_.string());
    root_ = root->first;
  }

  // Watches `dir`, then each directory under it: one made after `dir` is listed is announced
  // by an event of its own.
  void add_tree(const fs::path& dir) {
    if (dir.filename() == ".git") {
      if (dir == repo_ / ".git") git_ = ::inotify_add_watch(fd_.get(), dir.c_str(), GIT_EVENTS);
      return;
    }
    const int wd = ::inotify_add_watch(fd_.get(), dir.c_str(), DIRECTORY_EVENTS);
    if (wd < 0) {
      if (errno == ENOENT || errno == ENOTDIR || errno == EACCES) return;  // gone, or not ours
      if (errno == ENOSPC) {
        throw std::runtime_error(
            fmt::format("cannot watch {}: the tree has more directories than this user may "
                        "watch (fs.inotify.max_user_watches)",
                        repo_.string()));
      }
      throw_errno("cannot watch " + dir.string());
    }
    dirs_[wd] = dir;
    std::error_code error;
    for (fs::directory_iterator it(dir, fs::directory_options::skip_permission_denied, error), end;
         !error && it != end; it.increment(error)) {
      std::error_code type_error;
      if (it->is_directory(type_error) && !it->is_symlink(type_error)) add_tree(it->path());
    }
  }

  Descriptor fd_;
  fs::path repo_;
  fs::path own_dir_;      // the index's directory, whose files named after it are its own
  std::string own_name_;  // the index's file name
  std::unordered_map<int, fs::path> dirs_;
  int root_ = -1;
  int git_ = -1;
};

// Tells the index's changes by other programs: SQLite's data version, read on a connection of
// its own, changes with every commit of any other connection.
class IndexVersion {
 public:
  // Takes the index's present version as the one this watcher's update left. On a new
  // connection: the update may have moved a damaged index aside and built a new file.
  void take(const fs::path& database) {
    connection_.reset();
    try {
      connection_.emplace(database, sqlite::OpenOptions{.read_only = true});
      taken_ = read();
    } catch (const std::exception&) {
      connection_.reset();  // never unchanged: the next question brings another update
    }
  }
  // Whether no other program wrote the index since take().
  bool unchanged() {
    try {
      return connection_ && read() == taken_;
    } catch (const std::exception&) {
      return false;
    }
  }

 private:
  std::int64_t read() {
    return connection_->cursor().execute("PRAGMA data_version").fetchone().value()[0].as_int();
  }

  std::optional<sqlite::Connection> connection_;
  std::int64_t taken_ = 0;
};

// The outcome of one update, written by its thread and read once that thread is joined.
struct Outcome {
  IndexReport report;
  std::exception_ptr failure;
};

}  // namespace

void watch(const WatchRequest& request, std::ostream& log) {
  // Both as the kernel names them: the events of the index's own files are told by their paths.
  std::error_code error;
  const fs::path database = index_path(request.database, error);
  const fs::path repo = error ? fs::path() : fs::canonical(request.repo, error);
  if (error) throw std::system_error(error, "cannot watch " + request.repo.string());
  const Descriptor listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (listener.get() < 0) throw_errno("cannot make the watcher's socket");
  const auto [address, length] = address_of(database);
  if (::bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), length) != 0) {
    if (errno == EADDRINUSE) {
      throw std::runtime_error("a watcher already runs for " + database.string());
    }
    throw_errno("cannot make the watcher's socket");
  }
  if (::listen(listener.get(), 64) != 0) throw_errno("cannot make the watcher's socket");
  Watches watches(repo, database);
  const Descriptor wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (wake.get() < 0) throw_errno("cannot make the watcher's event");
  if (!request.quiet) {
    fmt::print(log, "quilma-db: watching {} directories of {}; Ctrl-C stops\n", watches.count(),
               repo.string());
  }

  IndexVersion version;
  bool synced = false;  // an update has ended well
  bool dirty = true;    // a change came since the last update began
  Clock::time_point changed_at = Clock::now();
  Clock::time_point dirty_since = changed_at;
  Clock::time_point retry_at = changed_at;
  const auto note_changes = [&](bool changed) {
    if (!changed) return;
    const Clock::time_point now = Clock::now();
    if (!dirty) dirty_since = now;
    dirty = true;
    changed_at = now;
  };
  // When the next update may start: once changes have paused, or have gone on long enough.
  const auto due = [&] {
    return std::max(std::min(changed_at + request.settle, dirty_since + MAX_DELAY), retry_at);
  };
  Outcome outcome;
  std::optional<std::jthread> update;  // declared after `outcome`: joined before it goes
  const auto start_update = [&] {
    dirty = false;
    update.emplace([&] {
      try {
        Progress quiet(log, Progress::Mode::Quiet);
        outcome.report = index_repository({repo, database, request.stop, false}, quiet);
      } catch (...) {
        outcome.failure = std::current_exception();
      }
      const std::uint64_t one = 1;
      [[maybe_unused]] const ssize_t ignored = ::write(wake.get(), &one, sizeof one);
    });
  };
  const auto end_update = [&] {
    std::uint64_t count = 0;
    [[maybe_unused]] const ssize_t ignored = ::read(wake.get(), &count, sizeof count);
    update.reset();
    if (outcome.failure) {
      dirty = true;
      retry_at = Clock::now() + RETRY_DELAY;
      try {
        std::rethrow_exception(outcome.failure);
      } catch (const Interrupted&) {
        return;  // the watcher is stopping
      } catch (const std::exception& e) {
        fmt::print(log, "quilma-db: watch: {}; trying again in {} s\n", e.what(),
                   std::chrono::duration_cast<std::chrono::seconds>(RETRY_DELAY).count());
      }
    } else {
      version.take(database);
      const IndexReport& report = outcome.report;
      if (!request.quiet && (report.full || report.added + report.updated + report.removed > 0)) {
        fmt::print(log, "quilma-db: {}\n", index_summary(report));
      }
      if (!request.quiet && !synced) {
        fmt::print(log, "quilma-db: the index is up to date; searches now ask this watcher\n");
      }
      synced = true;
    }
    outcome = {};
  };
  const auto answer = [&] {
    while (true) {
      const Descriptor asker(
          ::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
      if (asker.get() < 0) return;  // all answered; an asker that went meanwhile asks no more
      if (!same_user(asker.get())) continue;
      note_changes(watches.drain());
      if (synced && !version.unchanged()) note_changes(true);
      const std::string text = answer_text(synced && !dirty && !update, database);
      [[maybe_unused]] const ssize_t sent =
          ::send(asker.get(), text.data(), text.size(), MSG_NOSIGNAL);
    }
  };

  while (!request.stop->load()) {
    int timeout = POLL_MS;
    if (dirty && !update) {
      const auto wait = std::chrono::ceil<std::chrono::milliseconds>(due() - Clock::now()).count();
      timeout = static_cast<int>(std::clamp<std::int64_t>(wait, 0, POLL_MS));
    }
    std::array<pollfd, 3> fds{pollfd{watches.fd(), POLLIN, 0}, pollfd{listener.get(), POLLIN, 0},
                              pollfd{wake.get(), POLLIN, 0}};
    if (::poll(fds.data(), fds.size(), timeout) < 0) {
      if (errno == EINTR) continue;
      throw_errno("cannot watch " + repo.string());
    }
    if (fds[0].revents != 0) note_changes(watches.drain());
    if (fds[2].revents != 0) end_update();
    if (fds[1].revents != 0) answer();
    if (dirty && !update && Clock::now() >= due()) start_update();
  }
}

bool watcher_vouches(const fs::path& database) {
  std::error_code error;
  const fs::path path = index_path(database, error);
  if (error) return false;
  const Descriptor asker(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  const auto [address, length] = address_of(path);
  if (asker.get() < 0 ||
      ::connect(asker.get(), reinterpret_cast<const sockaddr*>(&address), length) != 0 ||
      !same_user(asker.get())) {
    return false;
  }
  const std::string expected = answer_text(true, path);
  std::string text;
  const Clock::time_point deadline = Clock::now() + ANSWER_WAIT;
  std::array<char, 4096> buffer{};
  while (text.find('\n') == std::string::npos) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    pollfd fd{asker.get(), POLLIN, 0};
    const int ready = ::poll(&fd, 1, static_cast<int>(std::max<std::int64_t>(left, 0)));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return false;
    const ssize_t got = ::read(asker.get(), buffer.data(), buffer.size());
    if (got <= 0) return false;
    text.append(buffer.data(), static_cast<std::size_t>(got));
  }
  return text == expected;
}

}  // namespace quilma::cli
