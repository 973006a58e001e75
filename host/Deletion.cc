#include "host/Deletion.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <deque>
#include <filesystem>
#include <map>
#include <mutex>
#include <set>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <utility>

#include "deletion/Deleter.h"
#include "dff/DuplicateGroups.h"
#include "host/Host.h"
#include "monitor/DiskInfo.h"
#include "platform/ByteCountFormatter.h"
#include "platform/Dispatch.h"
#include "platform/Files.h"
#include "platform/Locations.h"
#include "platform/TreeWalker.h"

namespace host {

namespace {

// Collects the deleter's reports for the outcome at the end.
class DeletionProgress final : public DeleterDelegate {
 public:
  void deleterCurrent(const std::string& path) override {
    current = path;
    if (changed) changed();
  }
  void deleterProgress(double value) override {
    progress = value;
    if (changed) changed();
  }
  void deleterDeleted(const std::string& path) override {
    if (auto i = find(path)) {
      gone[*i] = true;
    } else {
      others.insert(path);  // a photo's
    }
  }
  bool wasDeleted(const std::string& path) const {
    auto i = find(path);
    return i ? gone[*i] : others.count(path) > 0;
  }
  void deleterPhotosFailed(bool notAuthorised, std::function<void(bool)> answer) override {
    photosFailed = true;
    photosNotAuthorised = notAuthorised;
    answer(false);  // a host can't open the photo library: don't ask again
  }
  void deleterCompleted() override {
    if (completed) completed();
  }
  void deleterLeft(const std::string& path, const platform::TreeDeletion& outcome) override {
    left[path] = outcome;
  }
  void deleterAskedHelper(const std::string& path, bool answered) override {
    askedHelper[path] = answered;
  }

  // Reports of deleted paths are kept as marks against `paths`, found by their sorted order: a
  // list of many paths isn't copied again.
  void index(const std::vector<std::string>& all) {
    paths = &all;
    order.resize(all.size());
    for (std::uint32_t i = 0; i < order.size(); ++i) order[i] = i;
    std::sort(order.begin(), order.end(),
              [&](std::uint32_t a, std::uint32_t b) { return all[a] < all[b]; });
    gone.assign(all.size(), false);
  }

  std::optional<std::uint32_t> find(const std::string& path) const {
    if (paths == nullptr) return std::nullopt;
    auto at = std::lower_bound(order.begin(), order.end(), path,
                               [&](std::uint32_t i, const auto& p) { return (*paths)[i] < p; });
    if (at == order.end() || (*paths)[*at] != path) return std::nullopt;
    return *at;
  }

  std::function<void()> changed, completed;
  std::string current;
  double progress = 0;
  const std::vector<std::string>* paths = nullptr;
  std::vector<std::uint32_t> order;
  std::vector<bool> gone;        // by index in `paths`: reported deleted
  std::set<std::string> others;  // reported deleted, not among `paths`
  bool photosFailed = false;
  bool photosNotAuthorised = false;
  std::map<std::string, platform::TreeDeletion> left;
  std::map<std::string, bool> askedHelper;  // path: whether the helper answered for it
};

bool exists(const std::string& path) {
  struct stat status;
  return ::lstat(path.c_str(), &status) == 0;
}

// Why a path that was asked for is still there: the step that failed, where and why, and
// what went before it. `outcome` is what deleting it with the user's rights came to, when known;
// `helper` whether the helper was asked (and could be reached).
std::string reasonLeft(const std::string& path, bool stopped,
                       const std::optional<platform::TreeDeletion>& outcome,
                       std::optional<bool> helper) {
  const std::uint64_t went = outcome ? outcome->removed : 0;
  if (stopped || (outcome && outcome->interrupted)) {
    return went > 0 ? fmt::format(
                          "stopped part way: {} entries inside were deleted, the rest "
                          "stays",
                          went)
                    : "stopped before it was deleted";
  }
  if (!outcome || outcome->error == 0) return "could not be deleted";
  std::string reason = std::strerror(outcome->error);
  if (outcome->error == EXDEV) reason = "another file system is mounted inside";
  if (outcome->error == EBUSY) reason = "it is the mount point of a file system";
  if (!outcome->failedPath.empty() && outcome->failedPath != path) {
    reason += " at " + displayText(outcome->failedPath);
  }
  if (went > 0) reason += fmt::format("; {} entries inside were deleted", went);
  if (outcome->error == EACCES || outcome->error == EPERM) {
    if (!helper) {
      reason += " (the helper was not asked)";
    } else {
      reason +=
          *helper ? " (the helper did not delete it either)" : " (the helper could not be reached)";
    }
  }
  return reason;
}

}  // namespace

namespace {

// `path` with the links of the folders above it resolved, as the deletion will reach it (the
// last component stays: deleting a link deletes the link). The path as given when its folder
// can't be resolved.
std::string resolvedPath(const std::string& path) {
  // Lists name many paths in few folders: each folder is resolved once.
  static std::mutex mutex;
  static std::unordered_map<std::string, std::optional<std::string>> folders;
  std::filesystem::path given(path);
  std::string folder = given.parent_path().string();
  std::optional<std::string> resolved;
  {
    std::lock_guard lock(mutex);
    auto found = folders.find(folder);
    if (found != folders.end()) {
      resolved = found->second;
    } else {
      std::error_code error;
      auto canonical = std::filesystem::canonical(folder, error);
      if (!error) resolved = canonical.string();
      if (folders.size() > 65536) folders.clear();
      folders.emplace(folder, resolved);
    }
  }
  return resolved ? (std::filesystem::path(*resolved) / given.filename()).string() : path;
}

bool isAtOrBelow(const std::string& path, const std::string& folder) {
  return path == folder || folder == "/" ||
         (path.size() > folder.size() && path.starts_with(folder) && path[folder.size()] == '/');
}

// The home folders the user may be said to have: the environment's and the password database's,
// each with its links resolved.
const std::vector<std::string>& homeFolders() {
  static const std::vector<std::string> homes = [] {
    std::vector<std::string> found;
    std::error_code error;
    for (const std::string& home : {platform::currentLocations().home, platform::passwordHome()}) {
      if (home.empty() || home.front() != '/') continue;
      auto resolved = std::filesystem::canonical(home, error);
      found.push_back(error ? absolutePath(home) : resolved.string());
    }
    return found;
  }();
  return homes;
}

}  // namespace

std::optional<std::string> hostRefusal(const std::string& path, bool system) {
  // The system reads a path up to its first NUL: "/tmp/..<NUL>/x" would be "/tmp/..".
  if (path.find('\0') != std::string::npos) return "a path holding a NUL byte";
  // Below a root, whatever the scans met there stays there: a path that leads out of it (by a
  // link of the folders above it) is never deleted.
  if (const std::string& root = platform::currentLocations().root; !root.empty() && root != "/") {
    if (!isAtOrBelow(resolvedPath(path), root) || !isAtOrBelow(path, root)) {
      return "outside the --root folder " + displayText(root);
    }
  }
  for (const std::string& candidate : {path, resolvedPath(path)}) {
    if (candidate == "/") return "the root folder";
    for (const auto& home : homeFolders()) {
      if (isAtOrBelow(home, candidate)) {
        return candidate == home ? "your home folder itself" : "a folder that holds your home";
      }
    }
    if (candidate.find('/', 1) == std::string::npos) return "a top-level folder of the system";
    if (system) continue;
    if (isAtOrBelow(candidate, "/usr/local")) continue;
    for (const char* tree : {"/dev", "/proc", "/sys", "/usr", "/etc", "/boot", "/var/lib"}) {
      if (isAtOrBelow(candidate, tree)) {
        return fmt::format("the system's own files in {} (--system deletes them)", tree);
      }
    }
  }
  return std::nullopt;
}

std::string absolutePath(const std::string& argument) {
  std::filesystem::path path(argument);
  if (path.is_relative()) {
    std::error_code error;
    path = std::filesystem::current_path(error) / path;
  }
  std::string text = path.lexically_normal().string();
  while (text.size() > 1 && text.back() == '/') text.pop_back();
  return text;
}

std::int64_t bytesAt(const std::string& path) {
  struct stat status;
  if (::lstat(path.c_str(), &status) != 0) return 0;
  if (S_ISDIR(status.st_mode)) return monitor::GetDirectorySize(path.c_str());
  return S_ISREG(status.st_mode) ? status.st_size : 0;
}

namespace {

// The regular files the paths to delete hold, and what deleting them may free. Made by one walk of
// each path, which also gives the plan its sizes; a folder's subfolders are walked by as many
// threads as there are processors. A file with one name is counted in its path's sum; only a
// file with several names (hard links) is kept as a 32-byte record, in chunks (growing never
// copies the whole list), sorted once.
class FilesHeld {
 public:
  struct Name {
    std::uint64_t device, inode;
    std::int64_t size;
    std::uint32_t links;
    std::uint32_t path;  // the index of the path to delete that holds it
    bool operator<(const Name& other) const {
      return device != other.device ? device < other.device : inode < other.inode;
    }
    bool sameFile(const Name& other) const {
      return device == other.device && inode == other.inode;
    }
  };

  // Walks `path`, the `index`th to delete; gives the bytes it holds (each name's size).
  std::int64_t add(const std::string& path, std::uint32_t index) {
    if (singles_.size() <= index) singles_.resize(index + 1, 0);
    Part part{index};
    struct stat status;
    if (::lstat(path.c_str(), &status) == 0) {
      if (S_ISDIR(status.st_mode)) {
        walkFolder(path, part);
      } else {
        part.add(status);
      }
    }
    take(part);
    return part.bytes;
  }

  // The bytes freed when the paths for which `gone` is true are deleted: each file once, and
  // only when all its names go.
  std::int64_t bytesFreed(const std::function<bool(std::uint32_t)>& gone) {
    if (!sorted_) std::sort(linked_.begin(), linked_.end());
    sorted_ = true;
    std::int64_t total = 0;
    for (std::uint32_t i = 0; i < singles_.size(); ++i) total += gone(i) ? singles_[i] : 0;
    for (std::size_t i = 0; i < linked_.size();) {
      std::size_t end = i;
      std::uint32_t going = 0;
      for (; end < linked_.size() && linked_[end].sameFile(linked_[i]); ++end) {
        going += gone(linked_[end].path) ? 1 : 0;
      }
      if (going > 0 && going >= linked_[i].links) total += linked_[i].size;
      i = end;
    }
    return total;
  }

 private:
  // What one walker found of one path.
  struct Part final : platform::WalkVisitor {
    explicit Part(std::uint32_t path) : path(path) {}
    void entry(const std::string&, std::string_view, const struct stat& status) override {
      add(status);
    }
    void add(const struct stat& status) {
      if (!S_ISREG(status.st_mode)) return;
      bytes += status.st_size;
      if (status.st_nlink <= 1) {
        single += status.st_size;
      } else {
        linked.push_back(Name{status.st_dev, status.st_ino, status.st_size,
                              static_cast<std::uint32_t>(status.st_nlink), path});
      }
    }
    std::uint32_t path;
    std::int64_t bytes = 0, single = 0;
    std::vector<Name> linked;
  };

  // The folder's own entries here, its subfolders by the workers, each a walk of its own.
  void walkFolder(const std::string& folder, Part& part) {
    auto entries = platform::listDirectory(folder, platform::Follow::no);
    if (!entries.ok()) return;
    std::vector<std::string> folders;
    for (const auto& entry : *entries) {
      std::string path = platform::joinPath(folder, entry.name);
      if (entry.isDirectory()) {
        folders.push_back(std::move(path));
      } else if (entry.type == platform::FileType::regular) {
        struct stat status;
        if (::lstat(path.c_str(), &status) == 0) part.add(status);
      }
    }
    const unsigned workers =
        std::min<unsigned>(platform::processorCount(), static_cast<unsigned>(folders.size()));
    if (workers <= 1) {
      for (const auto& sub : folders) platform::walkTree(sub, part);
      return;
    }
    std::atomic<std::size_t> next{0};
    std::vector<Part> parts(workers, Part{part.path});
    auto work = [&](unsigned w) {
      for (std::size_t i = next++; i < folders.size(); i = next++) {
        platform::walkTree(folders[i], parts[w]);
      }
    };
    std::vector<std::thread> threads;
    for (unsigned w = 1; w < workers; ++w) {
      try {
        threads.emplace_back(work, w);
      } catch (const std::system_error&) {
        break;  // no more threads to be had: the ones there and this one share the rest
      }
    }
    work(0);
    for (auto& thread : threads) thread.join();
    for (auto& done : parts) {
      part.bytes += done.bytes;
      part.single += done.single;
      part.linked.insert(part.linked.end(), done.linked.begin(), done.linked.end());
    }
  }

  void take(const Part& part) {
    singles_[part.path] += part.single;
    linked_.insert(linked_.end(), part.linked.begin(), part.linked.end());
    sorted_ = false;
  }

  std::vector<std::int64_t> singles_;  // by path: the bytes of its files with one name
  std::deque<Name> linked_;
  bool sorted_ = false;
};

}  // namespace

// Lets a duplicate go only while it is the entry that was compared and holds the bytes of the
// copy that is kept, that copy still there and no link: a member changed during the prompt, or a
// kept copy removed or swapped meanwhile, leaves the member, so no group is ever emptied.
platform::DeletionGuard sameBytesGuard(std::map<std::string, std::string> sameAs) {
  return [sameAs = std::move(sameAs)](const std::string& path, int folder, const std::string& name,
                                      const struct stat& status) {
    auto kept = sameAs.find(path);
    if (kept == sameAs.end()) return 0;
    auto sameEntry = [&] {
      struct stat now;
      return ::fstatat(folder, name.c_str(), &now, AT_SYMLINK_NOFOLLOW) == 0 &&
             now.st_dev == status.st_dev && now.st_ino == status.st_ino;
    };
    bool same = sameEntry() && Core::sameContentsAt(folder, name, kept->second) && sameEntry();
    return same ? 0 : ESTALE;
  };
}

platform::DeletionGuard quietGuard(std::set<std::string> quiet) {
  return [quiet = std::move(quiet)](const std::string& path, int, const std::string&,
                                    const struct stat& status) {
    if (!quiet.count(path)) return 0;
    return ::time(nullptr) - status.st_mtim.tv_sec < 3600 ? EBUSY : 0;
  };
}

struct DeletionJob::State : std::enable_shared_from_this<DeletionJob::State> {
  DeletionRequest request;
  FilesHeld held;
  std::vector<std::int64_t> sizes;
  std::int64_t total = 0;
  platform::DeletionGuard guard;
  std::shared_ptr<DeletionProgress> progress = std::make_shared<DeletionProgress>();
  std::shared_ptr<Deleter> deleter;
  std::function<void()> finished;
  bool started = false, running = false, paused = false, stopped = false, followersRan = false;
  std::map<std::string, std::string> stayed;  // path: the path that stays with it
  Outcome outcome;

  void run(std::vector<std::string> paths, std::vector<Core::Photo> photos) {
    deleter = Deleter::create(std::move(paths), std::move(photos));
    deleter->delegate = progress;
    deleter->guard = guard;
    std::weak_ptr<State> weak = weak_from_this();
    progress->completed = [weak] {
      // Carried on in a task of its own: the deleter reports its end from inside its own calls
      // (at once, from `start`, when it has nothing to do), and is let go of or replaced here.
      platform::DispatchQueue::main().async([weak] {
        if (auto self = weak.lock()) self->ranOnce();
      });
    };
    deleter->start();
  }

  // What goes only after another path goes once that one is gone; then the outcome.
  void ranOnce() {
    if (!followersRan && !stopped) {
      followersRan = true;
      std::vector<std::string> followers;
      for (const auto& path : request.paths) {
        auto leader = request.after.find(path);
        if (leader == request.after.end()) continue;
        if (exists(leader->second)) {
          stayed.emplace(path, leader->second);
        } else {
          followers.push_back(path);
        }
      }
      if (!followers.empty()) {
        run(std::move(followers), {});
        return;
      }
    }
    settle();
    running = false;
    deleter.reset();
    if (auto done = std::move(finished)) done();
  }

  void settle();
};

void DeletionJob::State::settle() {
  outcome.stopped = stopped;
  std::vector<std::string>& deleted = outcome.deleted;
  auto& failed = outcome.failed;
  failed = request.leftAlone;
  std::vector<bool> gone(request.paths.size(), false);
  std::int64_t partlyFreed = 0;
  for (std::size_t i = 0; i < request.paths.size(); ++i) {
    const std::string& path = request.paths[i];
    // A path that is gone is deleted, whoever reported it.
    if (progress->gone[i] || !exists(path)) {
      deleted.push_back(path);
      gone[i] = true;
      continue;
    }
    auto kept = request.sameAs.find(path);
    auto outcome = progress->left.find(path);
    auto helper = progress->askedHelper.find(path);
    if (auto leader = stayed.find(path); leader != stayed.end()) {
      failed.emplace_back(path, "kept: " + displayText(leader->second) + " was not deleted");
      continue;
    }
    if (outcome != progress->left.end() && outcome->second.error == EBUSY &&
        request.quiet.count(path)) {
      failed.emplace_back(path, "changed in the last hour: a program may be writing it");
      continue;
    }
    failed.emplace_back(
        path,
        kept != request.sameAs.end() && !stopped && !Core::sameContents(path, kept->second)
            ? "changed, or the kept " + displayText(kept->second) +
                  " changed or is gone, before it could be deleted"
            : reasonLeft(path, stopped,
                         outcome != progress->left.end()
                             ? std::optional<platform::TreeDeletion>(outcome->second)
                             : std::nullopt,
                         helper != progress->askedHelper.end() ? std::optional<bool>(helper->second)
                                                               : std::nullopt));
    // What went of a path deleted part way is freed too.
    if (outcome != progress->left.end() && outcome->second.removed > 0) {
      partlyFreed += std::max<std::int64_t>(0, sizes[i] - bytesAt(path));
    }
  }
  std::int64_t freed = held.bytesFreed([&](std::uint32_t i) { return gone[i]; }) + partlyFreed;
  for (const auto& photo : request.photos) {
    if (progress->wasDeleted(photo.file.url)) {
      deleted.push_back(photo.file.url);
      freed += photo.file.size;
    } else {
      failed.emplace_back(photo.file.url,
                          progress->photosNotAuthorised
                              ? "not authorised to change the photo library"
                              : "photos are deleted in the photo application; Linux has no "
                                "photo-library service");
    }
  }
  outcome.bytes = freed;
}

DeletionJob::DeletionJob(DeletionRequest request) : state_(std::make_shared<State>()) {
  State& s = *state_;
  s.request = std::move(request);
  s.sizes.reserve(s.request.paths.size());
  for (std::size_t i = 0; i < s.request.paths.size(); ++i) {
    s.sizes.push_back(s.held.add(s.request.paths[i], static_cast<std::uint32_t>(i)));
  }
  s.total = s.held.bytesFreed([](std::uint32_t) { return true; });
  for (const auto& photo : s.request.photos) s.total += photo.file.size;

  // Every guard the request asks for, in turn.
  std::vector<platform::DeletionGuard> guards;
  if (!s.request.sameAs.empty()) guards.push_back(sameBytesGuard(s.request.sameAs));
  if (!s.request.quiet.empty()) guards.push_back(quietGuard(s.request.quiet));
  if (!guards.empty()) {
    s.guard = [guards](const std::string& path, int folder, const std::string& name,
                       const struct stat& status) {
      for (const auto& check : guards) {
        if (int refused = check(path, folder, name, status)) return refused;
      }
      return 0;
    };
  }
}

DeletionJob::~DeletionJob() {
  if (state_->deleter) state_->deleter->stop();
}

const DeletionRequest& DeletionJob::request() const { return state_->request; }
const std::vector<std::int64_t>& DeletionJob::sizes() const { return state_->sizes; }
std::int64_t DeletionJob::total() const { return state_->total; }
std::size_t DeletionJob::count() const {
  return state_->request.paths.size() + state_->request.photos.size();
}

void DeletionJob::start(std::function<void()> finished, std::function<void()> changed) {
  State& s = *state_;
  if (s.started) return;
  s.started = s.running = true;
  s.finished = std::move(finished);
  s.progress->changed = std::move(changed);
  s.progress->index(s.request.paths);
  std::vector<std::string> first;
  for (const auto& path : s.request.paths) {
    if (!s.request.after.count(path)) first.push_back(path);
  }
  s.run(std::move(first), s.request.photos);
}

void DeletionJob::pause() {
  if (state_->deleter && !state_->paused && !state_->stopped) {
    state_->paused = true;
    state_->deleter->pause();
  }
}

void DeletionJob::resume() {
  if (state_->deleter && state_->paused && !state_->stopped) {
    state_->paused = false;
    state_->deleter->start();
  }
}

void DeletionJob::stop() {
  if (!state_->running || state_->stopped) return;
  state_->stopped = true;
  state_->paused = false;
  if (state_->deleter) state_->deleter->stop();
}

bool DeletionJob::paused() const { return state_->paused; }
bool DeletionJob::running() const { return state_->running; }
double DeletionJob::progress() const { return state_->progress->progress; }
const std::string& DeletionJob::current() const { return state_->progress->current; }
const DeletionJob::Outcome& DeletionJob::outcome() const { return state_->outcome; }

void writeOutcomeJson(const DeletionJob::Outcome& outcome,
                      const std::function<void(std::string_view)>& write) {
  std::string out = "{\"bytes\":" + std::to_string(outcome.bytes) + ",\"deleted\":[";
  auto flush = [&] {
    if (out.size() > (1 << 16)) {
      write(out);
      out.clear();
    }
  };
  for (std::size_t i = 0; i < outcome.deleted.size(); ++i) {
    if (i > 0) out += ",";
    out += jsonText(outcome.deleted[i]).dump();
    flush();
  }
  out += "],\"failed\":[";
  for (std::size_t i = 0; i < outcome.failed.size(); ++i) {
    if (i > 0) out += ",";
    out += nlohmann::json{{"path", jsonText(outcome.failed[i].first)},
                          {"reason", outcome.failed[i].second}}
               .dump();
    flush();
  }
  out += std::string("],\"stopped\":") + (outcome.stopped ? "true" : "false") + "}\n";
  write(out);
}

nlohmann::json outcomeJson(const DeletionJob::Outcome& outcome) {
  nlohmann::json out{{"deleted", nlohmann::json::array()},
                     {"failed", nlohmann::json::array()},
                     {"bytes", outcome.bytes},
                     {"stopped", outcome.stopped}};
  for (const auto& path : outcome.deleted) out["deleted"].push_back(jsonText(path));
  for (const auto& [path, reason] : outcome.failed) {
    out["failed"].push_back({{"path", jsonText(path)}, {"reason", reason}});
  }
  return out;
}

}  // namespace host
