#include "dff/DuplicateFileFinder.h"

#include <dirent.h>
#include <fcntl.h>
#include <strings.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <condition_variable>
#include <cstring>
#include <ctime>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "dff/Hash.h"
#include "dff/Md5Lanes.h"
#include "dff/PhotoLibraryReader.h"
#include "platform/Dispatch.h"
#include "platform/Metadata.h"
#include "platform/Phases.h"

namespace dff {

namespace {

// The longest stage that is read into a lane buffer to be digested with others.
constexpr std::size_t kLaneStageBytes = 64 * 1024;

// Processor-time reading of the last current-path report, for the whole process.
std::atomic<std::clock_t> gLastPathReport{0};

// Reading the process's processor time is a system call; a coarse wall clock is not. Processor
// time on the engine's one busy thread can't pass 0.04 seconds in less wall time than that, so
// the processor clock is consulted only once enough wall time has passed since the last look.
// This only ever makes a report come later, never sooner.
thread_local std::int64_t tNextClockCheck = 0;

std::int64_t coarseMilliseconds() {
  struct timespec now;
  ::clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return static_cast<std::int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// The type of a directory entry as readdir gives it; file systems that don't type their entries
// are asked through fstatat.
unsigned char entryType(DIR* dir, const struct dirent* entry) {
  if (entry->d_type != DT_UNKNOWN) return entry->d_type;
  struct stat status;
  if (::fstatat(::dirfd(dir), entry->d_name, &status, AT_SYMLINK_NOFOLLOW) != 0) return DT_UNKNOWN;
  return IFTODT(status.st_mode);
}

// What one folder holds, in the order `readdir` gave it: each entry's type, and for files and
// links what `fstatat` said of them. Made by any thread; read by the search's thread.
struct FolderListing {
  struct Entry {
    std::string name;
    unsigned char type;
    bool examined = false;  // fstatat succeeded: `size` holds
    std::int64_t size = 0;
  };
  bool opened = false;
  std::vector<Entry> entries;
};

// Lists folders ahead of the walk on helper threads, so that the folder the walk takes next is
// usually ready: the walk itself stays on the search's thread and builds the tree and the size
// tables in the one order, from listings made in any order. A folder not yet taken by a helper
// when the walk wants it is listed by the walk itself.
class FolderLister {
 public:
  // `skip` tells which regular files the walk ignores or excludes, so they aren't examined.
  FolderLister(unsigned helpers, std::function<bool(const char*, std::size_t)> skip)
      : skip_(std::move(skip)) {
    for (unsigned h = 0; h < helpers; ++h) threads_.emplace_back([this] { work(); });
  }
  ~FolderLister() {
    {
      std::lock_guard lock(mutex_);
      ending_ = true;
    }
    wake_.notify_all();
    for (auto& thread : threads_) thread.join();
  }
  FolderLister(const FolderLister&) = delete;
  FolderLister& operator=(const FolderLister&) = delete;

  bool threaded() const { return !threads_.empty(); }

  // Asks for `folder` to be listed soon; the latest asked is listed first.
  void prefetch(const Directory* folder, const Path& path) {
    {
      std::lock_guard lock(mutex_);
      if (!jobs_.try_emplace(folder, std::make_unique<Job>(path)).second) return;
      queue_.push_back(folder);
    }
    wake_.notify_one();
  }
  bool asked(const Directory* folder) const {
    std::lock_guard lock(mutex_);
    return jobs_.count(folder) > 0;
  }

  // The listing of `folder`: the one made ahead of time, or made now.
  FolderListing take(const Directory* folder, const Path& path) {
    std::unique_lock lock(mutex_);
    auto found = jobs_.find(folder);
    if (found == jobs_.end()) {
      lock.unlock();
      return list(path);
    }
    std::unique_ptr<Job> job = std::move(found->second);
    jobs_.erase(found);
    if (job->state == Job::queued) {
      queue_.erase(std::find(queue_.begin(), queue_.end(), folder));
      lock.unlock();
      return list(path);
    }
    done_.wait(lock, [&] { return job->state == Job::done; });
    return std::move(job->listing);
  }

  FolderListing list(const Path& path) const {
    FolderListing listing;
    DIR* dir = ::opendir(path.cStr());
    if (dir == nullptr) return listing;
    listing.opened = true;
    const int fd = ::dirfd(dir);
    while (struct dirent* entry = ::readdir(dir)) {
      const char* name = entry->d_name;
      const std::size_t length = std::strlen(name);
      FolderListing::Entry& out =
          listing.entries.emplace_back(FolderListing::Entry{{name, length}, entryType(dir, entry)});
      if (out.type == DT_LNK || (out.type == DT_REG && !skip_(name, length))) {
        struct stat status;
        if (::fstatat(fd, name, &status, AT_SYMLINK_NOFOLLOW) == 0) {
          out.examined = true;
          out.size = status.st_size;
        }
      }
    }
    ::closedir(dir);
    return listing;
  }

 private:
  struct Job {
    explicit Job(Path path) : path(std::move(path)) {}
    enum State { queued, taken, done };
    Path path;
    State state = queued;
    FolderListing listing;
  };

  void work() {
    std::unique_lock lock(mutex_);
    for (;;) {
      wake_.wait(lock, [&] { return ending_ || !queue_.empty(); });
      if (ending_) return;
      const Directory* folder = queue_.back();
      queue_.pop_back();
      Job* job = jobs_.at(folder).get();  // owned by the table until taken, then by `take`
      job->state = Job::taken;
      lock.unlock();
      FolderListing listing = list(job->path);
      lock.lock();
      job->listing = std::move(listing);
      job->state = Job::done;
      done_.notify_all();
    }
  }

  std::function<bool(const char*, std::size_t)> skip_;
  mutable std::mutex mutex_;
  std::condition_variable wake_, done_;
  std::unordered_map<const Directory*, std::unique_ptr<Job>> jobs_;
  std::vector<const Directory*> queue_;
  bool ending_ = false;
  std::vector<std::thread> threads_;
};

}  // namespace

DuplicateFileFinder::DuplicateFileFinder(std::function<void(double)> progressCallback,
                                         std::function<void(const Path&)> currentPathCallback)
    : progressCallback_(std::move(progressCallback)),
      currentPathCallback_(std::move(currentPathCallback)) {}

void DuplicateFileFinder::stop() { stopped_.store(true); }

void DuplicateFileFinder::releaseFiles() {
  directories.clear();
  photoLibraries.clear();
}

Result DuplicateFileFinder::find() {
  stopped_.store(false);
  platform::startPhases();
  Duplicate<long long, File*> filesBySize;
  Duplicate<long long, Symlink*> linksBySize;
  Duplicate<long long, Package*> packagesBySize;
  std::deque<Package*> unsizedPackages;
  Duplicate<HashValue, File*> fileDuplicates;
  Duplicate<HashValue, Package*> packageDuplicates;
  Duplicate<HashValue, Directory*> directoryDuplicates;

  for (const Path& root : rootFolders) {
    if (withExtension(root, ".photosLibrary")) {
      if (auto library = scanPhotoLibrary(root, filesBySize, packagesBySize, unsizedPackages)) {
        photoLibraries.push_back(std::move(library));
      }
    } else {
      directories.push_back(
          scanFiles(root, filesBySize, linksBySize, packagesBySize, unsizedPackages));
    }
  }
  progressCallback_(0.3);
  platform::endPhase("walk");
  findDuplicateFiles(filesBySize, fileDuplicates);
  findDuplicateLinks(linksBySize);
  progressCallback_(0.5);
  findDuplicatePackages(packagesBySize, unsizedPackages, packageDuplicates);
  progressCallback_(0.8);
  for (const auto& tree : directories) findDuplicateDirectories(tree.get(), directoryDuplicates);
  markDuplicateContainers(directoryDuplicates);
  progressCallback_(0.9);

  // Counted first: a million groups would otherwise outgrow their array twice over while the
  // tables are still held.
  auto groupsIn = [](const auto& table) {
    std::size_t groups = 0;
    for (const auto& node : table) groups += node.values.size() >= 2 ? 1 : 0;
    return groups;
  };
  Result result;
  result.reserve(groupsIn(fileDuplicates) + groupsIn(packageDuplicates) +
                 groupsIn(directoryDuplicates));
  filter(fileDuplicates, result);
  filter(packageDuplicates, result);
  filter(directoryDuplicates, result);
  platform::endPhase("search");
  return result;
}

std::unique_ptr<Directory> DuplicateFileFinder::scanFiles(
    const Path& root, Duplicate<long long, File*>& filesBySize,
    Duplicate<long long, Symlink*>& linksBySize, Duplicate<long long, Package*>& packagesBySize,
    std::deque<Package*>& unsizedPackages) {
  auto tree = std::make_unique<Directory>(root, nullptr);
  if (stopped_.load()) {
    // A root that was never walked holds nothing that was compared: two such roots would
    // otherwise make a folder group of two empty trees.
    tree->unique = true;
    return tree;
  }

  // Regular files the walk passes over are never examined.
  auto skip = [this](const char* name, std::size_t length) {
    return (length == 9 && std::memcmp(name, ".DS_Store", 9) == 0) || exclude(name, length);
  };
  const unsigned workers = jobs != 0 ? jobs : platform::processorCount();
  FolderLister lister(workers - 1, skip);
  // How many of the folders the walk takes next are listed ahead of it.
  const std::size_t ahead = 8 * static_cast<std::size_t>(workers);

  std::vector<Directory*> stack{tree.get()};
  while (!stack.empty()) {
    Directory* folder = stack.back();
    stack.pop_back();
    // A stop drains the stack, marking what wasn't visited.
    if (stopped_.load()) {
      folder->unique = true;
      continue;
    }
    const Path folderPath = folder->path();
    FolderListing listing = lister.take(folder, folderPath);
    if (!listing.opened) {
      folder->unique = true;
      continue;
    }
    // The folder's arrays are made to size first, so that its entries never move, and its
    // names share one block.
    std::size_t files = 0, links = 0, nameBytes = 0;
    for (const FolderListing::Entry& entry : listing.entries) {
      files += entry.type == DT_REG ? 1 : 0;
      links += entry.type == DT_LNK ? 1 : 0;
      nameBytes += entry.name.size() + 1;
    }
    folder->files.reserve(files);
    folder->links.reserve(links);
    folder->children.reserve(listing.entries.size());
    folder->names.reset(new char[nameBytes]);
    char* nameAt = folder->names.get();
    auto keepName = [&nameAt](const char* name, std::size_t length) {
      std::memcpy(nameAt, name, length + 1);
      Name kept{{nameAt, length}};
      nameAt += length + 1;
      return kept;
    };
    for (const FolderListing::Entry& entry : listing.entries) {
      if (stopped_.load(std::memory_order_relaxed)) {
        folder->unique = true;
        break;
      }
      const char* name = entry.name.c_str();
      const std::size_t length = entry.name.size();
      switch (entry.type) {
        case DT_LNK: {
          notifyCurrentPath(folderPath, name);
          if (!entry.examined || entry.size < minFileSize) {
            folder->unique = true;
            break;
          }
          Symlink& link = folder->links.emplace_back(keepName(name, length), entry.size, folder);
          linksBySize.add(entry.size, &link);
          folder->children.push_back(&link);
          break;
        }
        case DT_REG: {
          // Finder's folder settings: neither counted nor spoiling the folder.
          if (length == 9 && std::memcmp(name, ".DS_Store", 9) == 0) break;
          if (exclude(name, length)) {
            folder->unique = true;
            break;
          }
          notifyCurrentPath(folderPath, name);
          if (!entry.examined || entry.size < minFileSize) {
            folder->unique = true;
            break;
          }
          File& file = folder->files.emplace_back(keepName(name, length), entry.size, folder);
          filesBySize.add(entry.size, &file);
          folder->children.push_back(&file);
          break;
        }
        case DT_DIR: {
          if (specialDirectory(name, length)) break;
          notifyCurrentPath(folderPath, name);
          if (isPackage(folderPath / name)) {
            if (exclude(name, length)) {
              folder->unique = true;
              break;
            }
            std::int64_t size = platform::packageFileSize((folderPath / name).string());
            if (size != 0 && size < minFileSize) {
              folder->unique = true;
              break;
            }
            auto package = std::make_unique<Package>(keepName(name, length), folder);
            if (size != 0) {
              packagesBySize.add(size, package.get());
            } else {
              unsizedPackages.push_back(package.get());
            }
            folder->children.push_back(package.get());
            folder->containers.push_back(std::move(package));
            break;
          }
          if ((!includeHiddenFolders && name[0] == '.') ||
              (!excludePaths.empty() && exclude(folderPath / name))) {
            folder->unique = true;
            break;
          }
          auto child = std::make_unique<Directory>(keepName(name, length), folder);
          stack.push_back(child.get());
          folder->children.push_back(child.get());
          folder->containers.push_back(std::move(child));
          break;
        }
        default:
          // Devices, sockets, pipes, and entries that vanished before their type was known.
          folder->unique = true;
          break;
      }
    }
    if (lister.threaded()) {
      for (std::size_t i = stack.size(); i > 0 && i + ahead > stack.size(); --i) {
        if (!lister.asked(stack[i - 1])) lister.prefetch(stack[i - 1], stack[i - 1]->path());
      }
    }
  }
  return tree;
}

std::unique_ptr<PhotoLibrary> DuplicateFileFinder::scanPhotoLibrary(
    const Path& root, Duplicate<long long, File*>& filesBySize,
    Duplicate<long long, Package*>& packagesBySize, std::deque<Package*>& unsizedPackages) {
  std::int64_t size = platform::packageFileSize(root.string());
  if (size != 0 && size < minFileSize) return nullptr;
  auto library = std::make_unique<PhotoLibrary>(root, nullptr);
  if (size != 0) {
    packagesBySize.add(size, library.get());
  } else {
    unsizedPackages.push_back(library.get());
  }
  try {
    PhotoLibraryReader::readPhotos(*library);
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception&) {
    // An unreadable library is still compared as a package, without photos.
    return library;
  }
  for (Photo& photo : library->photos) filesBySize.add(photo.size, &photo);
  return library;
}

template <class Entry, class Hasher, class Make>
void DuplicateFileFinder::resolve(std::vector<std::vector<Entry*>>& groups,
                                  Duplicate<HashValue, Entry*>& finished, Entry* Hasher::*entry,
                                  Make make) const {
  // One stage of one member. False when the member dropped out (stopped or failed) or finished;
  // true when it goes on, filed in `stage` under its digest so far.
  auto treat = [&](Hasher& hasher, Entry* item, bool& goesOn) {
    goesOn = false;
    if (stopped_.load(std::memory_order_relaxed)) {
      item->unique = true;
      return;
    }
    notifyCurrentPath(item);
    bool done;
    try {
      done = hasher.update();
    } catch (const std::bad_alloc&) {
      throw;
    } catch (const std::exception&) {
      item->unique = true;
      return;
    }
    hasher.hashValue(item->hash);
    if (done) {
      finished.add(item->hash, item);
    } else {
      goesOn = true;
    }
  };
  // Parts of a split go on top of the work stack and are taken next; a lone member is unique.
  auto split = [&](Duplicate<HashValue, Hasher*>& stage, std::vector<std::vector<Hasher*>>& work) {
    for (auto& node : stage) {
      if (node.values.size() == 1) {
        (node.values.front()->*entry)->unique = true;
      } else {
        work.push_back(std::move(node.values));
      }
    }
  };

  // The groups are worked from the last, and each is settled completely before the one below it
  // is begun. So a group's hashers can be made when it is taken and dropped with it; and since
  // most members finish or drop out in their first stage, a member gets a hasher that outlives
  // its first stage only when it goes on. Memory follows what is still undecided.
  while (!groups.empty()) {
    std::vector<Entry*> entries = std::move(groups.back());
    groups.pop_back();
    std::deque<Hasher> goingOn;  // stable addresses
    std::vector<std::vector<Hasher*>> work;
    {
      Duplicate<HashValue, Hasher*> stage;
      for (Entry* item : entries) {
        Hasher hasher = make(item);
        bool goesOn;
        treat(hasher, item, goesOn);
        if (goesOn) stage.add(item->hash, &goingOn.emplace_back(std::move(hasher)));
      }
      split(stage, work);
    }
    while (!work.empty()) {
      std::vector<Hasher*> group = std::move(work.back());
      work.pop_back();
      Duplicate<HashValue, Hasher*> stage;
      for (Hasher* hasher : group) {
        bool goesOn;
        treat(*hasher, hasher->*entry, goesOn);
        if (goesOn) stage.add((hasher->*entry)->hash, hasher);
      }
      split(stage, work);
    }
  }
}

void DuplicateFileFinder::resolveFilesInParallel(std::vector<std::vector<File*>>& groups,
                                                 Duplicate<HashValue, File*>& finished,
                                                 unsigned workers, std::size_t handleBudget) const {
  std::vector<std::unique_ptr<DirectoryHandles>> handles;
  for (unsigned w = 0; w < workers; ++w) {
    handles.push_back(
        std::make_unique<DirectoryHandles>(std::max<std::size_t>(4, handleBudget / workers)));
  }
  const auto pool = platform::DispatchQueue::global(platform::QoS::userInitiated);

  // One stage of one member, read by a worker; settled later on this thread.
  struct Job {
    explicit Job(FileHash* hasher) : hasher(hasher) {}
    FileHash* hasher;
    bool done = false;
    bool failed = false;
    bool skipped = false;  // the search was stopped before it was read
    std::exception_ptr fatal;
  };
  // Buffers of whole long stages, kept from wave to wave.
  std::vector<std::unique_ptr<char[]>> wholeStages;
  // Reads every job of a wave: this thread takes its share beside the pool's workers, so a
  // wave costs one hand-off per extra worker and none when there is a single job.
  auto runWave = [&](std::vector<Job>& wave) {
    // Runs one worker's `step` of `job` unless the search was stopped, with that worker's folder
    // descriptors. A failure marks the job; running out of memory is handed to the search's
    // thread. True when the step ran through.
    auto attempt = [&](Job& job, DirectoryHandles* own, auto&& step) {
      if (stopped_.load(std::memory_order_relaxed)) {
        job.skipped = true;
        return false;
      }
      job.hasher->handles = own;
      try {
        step();
        return true;
      } catch (const std::bad_alloc&) {
        job.fatal = std::current_exception();
      } catch (const std::exception&) {
        job.failed = true;
      }
      return false;
    };
    // Short stages (every first stage, and the last stage of most files) are read a few at a
    // time by each worker and digested together, several files per vector instruction.
    const std::size_t width = md5LaneWidth();
    // A wave of long stages only, more than there are workers and not a multiple of them (the
    // three files of a group still equal after half of their length): taken whole, some
    // worker would be left with the last ones while the others wait. The last of them (the
    // odd ones and one more per worker) are read whole into buffers of their own, and then
    // digested a slice at a time by whichever worker is free, one worker at a time per file,
    // so that all of them digest until the end.
    const std::size_t odd = wave.size() % workers;
    const bool sliced = workers > 1 && wave.size() > workers && odd != 0 &&
                        std::all_of(wave.begin(), wave.end(), [](const Job& job) {
                          return job.hasher->stageBytes() > kLaneStageBytes;
                        });
    const std::size_t tail = sliced ? wave.size() - odd - workers : wave.size();
    std::atomic<std::size_t> next{0};
    auto drain = [&](unsigned w) {
      thread_local std::unique_ptr<char[]> laneBuffers;
      if (width > 1 && !laneBuffers) laneBuffers.reset(new char[width * kLaneStageBytes]);
      Md5Lane lanes[16];
      Job* laneJobs[16];
      for (;;) {
        // Small takes while the wave is short, so that every worker gets a share.
        const std::size_t seen = next.load(std::memory_order_relaxed);
        if (seen >= tail) break;
        const std::size_t take = std::clamp<std::size_t>((tail - seen) / (2 * workers), 1, width);
        const std::size_t from = next.fetch_add(take, std::memory_order_relaxed);
        if (from >= tail) break;
        const std::size_t to = std::min(tail, from + take);
        std::size_t used = 0;
        for (std::size_t i = from; i < to; ++i) {
          Job& job = wave[i];
          if (width == 1 || job.hasher->stageBytes() > kLaneStageBytes) {
            attempt(job, handles[w].get(), [&] { job.done = job.hasher->update(); });
            continue;
          }
          char* buffer = laneBuffers.get() + used * kLaneStageBytes;
          std::size_t taken = 0;
          if (attempt(job, handles[w].get(),
                      [&] { taken = job.hasher->fetch(buffer, job.done); })) {
            lanes[used] = {job.hasher->context(), reinterpret_cast<unsigned char*>(buffer), taken};
            laneJobs[used++] = &job;
          }
        }
        md5UpdateMany(lanes, used);
        for (std::size_t k = 0; k < used; ++k) {
          laneJobs[k]->hasher->offset += static_cast<std::int64_t>(lanes[k].length);
        }
      }
    };
    struct Slices {
      char* buffer = nullptr;
      std::size_t length = 0;
      std::size_t digested = 0;
      bool busy = false;
    };
    std::vector<Slices> slices(wave.size() - tail);
    while (wholeStages.size() < slices.size()) {
      wholeStages.emplace_back(new char[kReadBlock * kLaterStageBlocks]);
    }
    for (std::size_t k = 0; k < slices.size(); ++k) slices[k].buffer = wholeStages[k].get();
    std::atomic<std::size_t> nextWhole{tail};
    std::mutex sliceMutex;
    std::condition_variable sliceFreed;
    auto fetchWhole = [&](unsigned w) {
      for (std::size_t i; (i = nextWhole.fetch_add(1, std::memory_order_relaxed)) < wave.size();) {
        Job& job = wave[i];
        Slices& whole = slices[i - tail];
        attempt(job, handles[w].get(),
                [&] { whole.length = job.hasher->fetch(whole.buffer, job.done); });
      }
    };
    auto digestSlices = [&] {
      constexpr std::size_t kSlice = 512 * 1024;
      std::unique_lock lock(sliceMutex);
      for (;;) {
        Slices* pick = nullptr;
        bool pending = false;
        for (auto& file : slices) {
          if (file.digested == file.length) continue;
          pending = true;
          if (!file.busy &&
              (pick == nullptr || file.length - file.digested > pick->length - pick->digested)) {
            pick = &file;
          }
        }
        if (!pending) return;
        if (pick == nullptr) {
          sliceFreed.wait(lock);
          continue;
        }
        pick->busy = true;
        const std::size_t at = pick->digested;
        const std::size_t length = std::min(kSlice, pick->length - at);
        lock.unlock();
        wave[tail + static_cast<std::size_t>(pick - slices.data())].hasher->updateMD5(
            pick->buffer + at, static_cast<std::uint32_t>(length));
        lock.lock();
        pick->digested += length;
        pick->busy = false;
        sliceFreed.notify_all();
      }
    };
    const unsigned count = static_cast<unsigned>(std::min<std::size_t>(workers, wave.size()));
    std::barrier readersDone(static_cast<std::ptrdiff_t>(count));
    auto work = [&](unsigned w) {
      drain(w);
      if (!sliced) return;
      fetchWhole(w);
      readersDone.arrive_and_wait();
      digestSlices();
    };

    platform::DispatchGroup group;
    for (unsigned w = 1; w < count; ++w) pool.async(group, [&work, w] { work(w); });
    work(0);
    group.wait();
    for (std::size_t k = 0; k < slices.size(); ++k) {
      wave[tail + k].hasher->offset += static_cast<std::int64_t>(slices[k].length);
    }
  };

  // A part of a group whose next stage is to be read: the group itself for its first stage,
  // then each part a stage splits it into. Reading it settles some members (`finished`, in the
  // order they were settled) and splits the rest into new parts (`parts`, in the order made).
  struct Part {
    std::vector<FileHash*> members;
    std::vector<File*> finished;
    std::vector<std::size_t> parts;
  };
  // As `treat` in `resolve`, with what a worker read. True when the member goes on to another
  // stage; the caller files it.
  auto settle = [&](Job& job, Part& part) {
    File* item = job.hasher->file;
    if (job.skipped || stopped_.load(std::memory_order_relaxed)) {
      item->unique = true;  // nothing is settled from a stage that was cut off
      return false;
    }
    notifyCurrentPath(item);
    if (job.fatal) std::rethrow_exception(job.fatal);
    if (job.failed) {
      item->unique = true;
      return false;
    }
    job.hasher->hashValue(item->hash);
    if (job.done) {
      part.finished.push_back(item);
      return false;
    }
    return true;
  };
  // The members of part `p` that go on, by digest: a lone one is unique, the others make new
  // parts.
  auto split = [](std::vector<Part>& parts, std::size_t p, Duplicate<HashValue, FileHash*>& stage) {
    for (auto& node : stage) {
      if (node.values.size() == 1) {
        node.values.front()->file->unique = true;
      } else {
        parts[p].parts.push_back(parts.size());
        parts.push_back(Part{std::move(node.values), {}, {}});  // may move parts[p]
      }
    }
  };

  // A batch of groups is taken at a time, as `resolve` would take them, enough to keep every
  // worker busy. Its parts are read in waves, each wave every part the last one made, whatever
  // group it belongs to; what a part settles depends only on its own members, so the waves may
  // read the groups' parts in any order. The digest table is then filled in the one-thread
  // order: group by group, each group's parts taken from a stack as `resolve` takes them.
  const std::size_t batchEntries = 256 * static_cast<std::size_t>(workers);
  std::vector<FileHash> reading;
  reading.reserve(batchEntries);  // never moves: jobs point into it
  std::vector<std::size_t> owners;
  while (!groups.empty()) {
    std::vector<std::vector<File*>> batch;
    std::size_t entries = 0;
    while (!groups.empty() && (batch.empty() || entries + groups.back().size() <= batchEntries)) {
      entries += groups.back().size();
      batch.push_back(std::move(groups.back()));
      groups.pop_back();
    }
    const std::size_t batchGroups = batch.size();
    std::vector<Part> parts(batchGroups);
    std::deque<FileHash> hashers;  // members past their first stage; stable addresses

    // First stages are read a batch's worth of files at a time, whatever groups they belong to,
    // and a file keeps its hasher only when it goes on, as in `resolve`: one size group may
    // hold a million small files, and most finish or drop out in their first stage.
    auto stage = std::make_unique<Duplicate<HashValue, FileHash*>>();  // of group `open`
    std::size_t open = 0;
    for (std::size_t g = 0, i = 0; g < batchGroups;) {
      reading.clear();
      owners.clear();
      for (; g < batchGroups && reading.size() < batchEntries; ++g, i = 0) {
        for (; i < batch[g].size() && reading.size() < batchEntries; ++i) {
          reading.emplace_back(batch[g][i], nullptr);
          owners.push_back(g);
        }
        if (i < batch[g].size()) break;
      }
      std::vector<Job> wave;
      wave.reserve(reading.size());
      for (FileHash& hasher : reading) wave.emplace_back(&hasher);
      runWave(wave);
      for (std::size_t k = 0; k < wave.size(); ++k) {
        for (; open < owners[k]; ++open) {
          split(parts, open, *stage);
          stage = std::make_unique<Duplicate<HashValue, FileHash*>>();
        }
        if (settle(wave[k], parts[open])) {
          FileHash* kept = &hashers.emplace_back(std::move(reading[k]));
          stage->add(kept->file->hash, kept);
        }
      }
    }
    split(parts, open, *stage);
    stage.reset();
    batch.clear();

    for (std::size_t from = batchGroups, to = parts.size(); from < to;
         from = to, to = parts.size()) {
      std::vector<Job> wave;
      for (std::size_t p = from; p < to; ++p) {
        for (FileHash* hasher : parts[p].members) wave.emplace_back(hasher);
      }
      runWave(wave);
      std::size_t at = 0;
      for (std::size_t p = from; p < to; ++p) {
        Duplicate<HashValue, FileHash*> later;
        for (std::size_t k = 0; k < parts[p].members.size(); ++k) {
          Job& job = wave[at++];
          if (settle(job, parts[p])) later.add(job.hasher->file->hash, job.hasher);
        }
        split(parts, p, later);
        parts[p].members.clear();
        parts[p].members.shrink_to_fit();
      }
    }

    for (std::size_t g = 0; g < batchGroups; ++g) {
      std::vector<std::size_t> stack{g};
      while (!stack.empty()) {
        const Part& part = parts[stack.back()];
        stack.pop_back();
        for (File* file : part.finished) finished.add(file->hash, file);
        stack.insert(stack.end(), part.parts.begin(), part.parts.end());
      }
    }
  }
}

void DuplicateFileFinder::findDuplicateFiles(Duplicate<long long, File*>& filesBySize,
                                             Duplicate<HashValue, File*>& fileDuplicates) const {
  if (stopped_.load()) {
    // Stopped before any file was compared: none of them may stand for a twin, or two folders
    // of same-sized files would be grouped on digests that were never taken.
    for (auto& node : filesBySize) {
      for (File* file : node.values) file->unique = true;
    }
    return;
  }
  std::vector<std::vector<File*>> groups;
  for (auto& node : filesBySize) {
    if (node.values.size() == 1) {
      node.values.front()->unique = true;  // a size nothing else has needs no reading
    } else {
      groups.push_back(std::move(node.values));  // the scan's table is done with
    }
  }
  // Files are opened by name relative to their folder; a quarter of the descriptors this process
  // may open go to folders. Size groups are spread over the whole tree, so a folder left out
  // of the cache costs an open and a close for each of its files that is read: the cache holds
  // as many folders as the limit allows, up to a bound that a few megabytes of the kernel's
  // memory covers.
  struct rlimit limit {};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  const std::size_t budget = std::min<rlim_t>(16384, limit.rlim_cur / 4);
  const unsigned workers = jobs != 0 ? jobs : platform::processorCount();
  if (workers > 1) {
    resolveFilesInParallel(groups, fileDuplicates, workers, budget);
  } else {
    DirectoryHandles handles(budget);
    resolve(groups, fileDuplicates, &FileHash::file,
            [&handles](File* file) { return FileHash(file, &handles); });
  }
  for (auto& node : fileDuplicates) {
    if (node.values.size() == 1) node.values.front()->unique = true;
  }
}

void DuplicateFileFinder::findDuplicateLinks(
    const Duplicate<long long, Symlink*>& linksBySize) const {
  SymbolicLinkHash hasher;
  for (auto& node : linksBySize) {
    if (node.values.size() == 1) {
      node.values.front()->unique = true;
      continue;
    }
    Duplicate<HashValue, Symlink*> byTarget;
    for (Symlink* link : node.values) {
      if (hasher.hash(link, link->hash)) {
        byTarget.add(link->hash, link);
      } else {
        link->unique = true;
      }
    }
    for (auto& target : byTarget) {
      if (target.values.size() == 1) target.values.front()->unique = true;
    }
  }
}

void DuplicateFileFinder::findDuplicatePackages(
    Duplicate<long long, Package*>& packagesBySize, const std::deque<Package*>& unsizedPackages,
    Duplicate<HashValue, Package*>& packageDuplicates) const {
  if (stopped_.load()) {
    // As for files: a package that was never compared can't make its folder a duplicate.
    for (auto& node : packagesBySize) {
      for (Package* package : node.values) package->unique = true;
    }
    for (Package* package : unsizedPackages) package->unique = true;
    return;
  }
  std::vector<std::vector<Package*>> groups;
  if (!unsizedPackages.empty()) {
    // A package of unknown size might equal any other: one group for all.
    auto& all = groups.emplace_back();
    for (auto& node : packagesBySize) all.insert(all.end(), node.values.begin(), node.values.end());
    all.insert(all.end(), unsizedPackages.begin(), unsizedPackages.end());
  } else {
    for (auto& node : packagesBySize) groups.push_back(std::move(node.values));
  }
  resolve(groups, packageDuplicates, &PackageHash::package,
          [this](Package* package) { return PackageHash(package, minFileSize); });
  markDuplicateContainers(packageDuplicates);
}

void DuplicateFileFinder::findDuplicateDirectories(
    Directory* directory, Duplicate<HashValue, Directory*>& directoryDuplicates) const {
  Hash hash;
  std::vector<std::pair<Directory*, bool>> stack{{directory, true}};
  while (!stack.empty()) {
    auto& [folder, firstVisit] = stack.back();
    if (firstVisit) {
      firstVisit = false;
      Directory* current = folder;
      for (File* child : current->children) {
        if (child->unique) current->unique = true;
        if (fileTypeId(child) == 1) stack.emplace_back(static_cast<Directory*>(child), true);
      }
      continue;
    }
    Directory* current = folder;
    stack.pop_back();
    if (current->unique) {
      if (current->parent != nullptr) current->parent->unique = true;
      continue;
    }
    notifyCurrentPath(current);
    // Names play no part: a folder is the multiset of (kind, size, digest) of what it holds,
    // made an order by this sort.
    std::sort(current->children.begin(), current->children.end(), [](const File* a, const File* b) {
      std::uint32_t ta = fileTypeId(a), tb = fileTypeId(b);
      if (ta != tb) return ta > tb;
      if (a->size != b->size) return a->size > b->size;
      return a->hash > b->hash;
    });
    hash.reset();
    for (const File* child : current->children) {
      std::uint32_t type = fileTypeId(child);
      hash.updateMD5(&type, sizeof(type));
      hash.updateMD5(&child->size, sizeof(child->size));
      hash.updateMD5(&child->hash, sizeof(child->hash));
      current->size += child->size;
    }
    if (current->size >= minFileSize) {
      hash.hashValue(current->hash);
      directoryDuplicates.add(current->hash, current);
    }
  }
}

bool DuplicateFileFinder::exclude(const struct dirent* entry) const {
  return exclude(entry->d_name, std::strlen(entry->d_name));
}

bool DuplicateFileFinder::exclude(const char* name, std::size_t length) const {
  for (const auto& suffix : excludeExtensions) {
    if (withExtension(name, length, suffix.c_str())) return true;
  }
  return false;
}

bool DuplicateFileFinder::exclude(const Path& path) const {
  for (const auto& excluded : excludePaths) {
    if (excluded.length() == path.length() &&
        ::strncasecmp(excluded.cStr(), path.cStr(), path.length()) == 0) {
      return true;
    }
  }
  return false;
}

bool DuplicateFileFinder::isPackage(const Path& path) { return platform::isPackage(path.string()); }

bool DuplicateFileFinder::withExtension(const char* name, std::size_t length, const char* suffix) {
  std::size_t suffixLength = std::strlen(suffix);
  if (suffixLength >= length) return false;
  return ::strncasecmp(name + length - suffixLength, suffix, suffixLength) == 0;
}

bool DuplicateFileFinder::withExtension(const struct dirent* entry, const char* suffix) {
  return withExtension(entry->d_name, std::strlen(entry->d_name), suffix);
}

bool DuplicateFileFinder::withExtension(const Path& path, const char* suffix) {
  return withExtension(path.cStr(), path.length(), suffix);
}

bool DuplicateFileFinder::mayReportPath() const {
  // At most 25 reports per second of processor time, for the whole process.
  std::int64_t wall = coarseMilliseconds();
  if (wall < tNextClockCheck) return false;
  tNextClockCheck = wall + 10;
  std::clock_t now = std::clock();
  std::clock_t last = gLastPathReport.load(std::memory_order_relaxed);
  if (static_cast<double>(now - last) / CLOCKS_PER_SEC < 0.04) return false;
  gLastPathReport.store(now, std::memory_order_relaxed);
  return true;
}

void DuplicateFileFinder::notifyCurrentPath(const Path& path) const {
  if (mayReportPath()) currentPathCallback_(path);
}

void DuplicateFileFinder::notifyCurrentPath(const Path& folder, const char* name) const {
  if (mayReportPath()) currentPathCallback_(folder / name);
}

void DuplicateFileFinder::notifyCurrentPath(const File* entry) const {
  if (mayReportPath()) currentPathCallback_(entry->path());
}

}  // namespace dff
