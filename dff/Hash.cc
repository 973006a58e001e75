#include "dff/Hash.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <functional>
#include <memory>

namespace dff {

namespace {

// The stage buffer, shared by all instances on a thread: a whole later stage, 1000 blocks.
char* stageBuffer() {
  thread_local std::unique_ptr<char[]> buffer(new char[kReadBlock * kLaterStageBlocks]);
  return buffer.get();
}

char* linkBuffer() {
  thread_local char buffer[kLinkBuffer];
  return buffer;
}

ReadCall gReadCall = ::pread;

// Reads one stage of a file into `buffer`: `blocks` blocks of 4096 bytes from `offset`, or
// fewer when the file reaches `size` on a block boundary. The stage is fetched with as few
// reads as the kernel allows instead of one call per block; which bytes go to the digest, where
// the stage ends and when it fails are the same as reading block by block: the stage ends when
// a block brings `offset` to `size`, and a file that ends first fails. Gives the number of bytes
// for the digest, and sets `reachedEnd` when they bring the file to `size`, after checking that
// the file still ends there: a file that grew while it was read is no longer the file whose
// size was compared. Throws when the file can't be read, ends early or has changed size.
// Closes `fd` in every case.
std::size_t fetchStage(int fd, std::int64_t size, std::int64_t offset, int blocks, char* buffer,
                       bool& reachedEnd) {
  const std::size_t wanted = kReadBlock * static_cast<std::size_t>(blocks);
  // Long stages tell the kernel to read ahead; short ones aren't worth the call.
  if (blocks > 1 && size - offset > static_cast<std::int64_t>(kReadBlock * 64)) {
    ::posix_fadvise(fd, offset, static_cast<off_t>(wanted), POSIX_FADV_SEQUENTIAL);
  }
  // Nothing past `size` is wanted: the stage's reading stops there, and a block that would run
  // past it is read short, which is what reading block by block would have given at the end.
  const std::size_t limit = static_cast<std::size_t>(
      std::min<std::int64_t>(static_cast<std::int64_t>(wanted), size - offset));
  std::size_t got = 0;
  while (got < limit) {
    ssize_t n = gReadCall(fd, buffer + got, limit - got, offset + static_cast<std::int64_t>(got));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;  // an error, or the end of the file
    got += static_cast<std::size_t>(n);
  }
  reachedEnd = false;
  std::size_t taken = 0;
  for (std::size_t at = 0; at < limit; at += kReadBlock) {
    if (at >= got) break;  // a block read would have found the end
    std::size_t n = std::min(kReadBlock, got - at);
    taken += n;
    if (offset + static_cast<std::int64_t>(taken) == size) {
      reachedEnd = true;
      break;
    }
    if (n < kReadBlock) break;
  }
  if (got < limit) {
    ::close(fd);
    throw std::exception();
  }
  if (reachedEnd) {
    struct stat status;
    bool unchanged = ::fstat(fd, &status) == 0 && status.st_size == size;
    ::close(fd);
    if (!unchanged) throw std::exception();
    return taken;
  }
  ::close(fd);
  return taken;
}

// Opens a file for reading in a way that can't block: a pipe or a device put where a file was
// would otherwise hang the search in `open`. Only a regular file of the size that was compared is
// read; anything else throws, and the caller takes the entry to have no twin.
int openRegular(int folder, const char* name, std::int64_t size) {
  int fd = ::openat(folder, name, O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY | O_NOFOLLOW);
  if (fd < 0) throw std::exception();
  struct stat status;
  if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode) || status.st_size != size) {
    ::close(fd);
    throw std::exception();
  }
  return fd;
}

}  // namespace

ReadCall setReadCall(ReadCall call) {
  ReadCall previous = gReadCall;
  gReadCall = call != nullptr ? call : ::pread;
  return previous;
}

DirectoryHandles::DirectoryHandles(std::size_t capacity) : capacity_(capacity) {}

DirectoryHandles::~DirectoryHandles() {
  for (auto& [folder, fd] : recent_) {
    if (fd >= 0) ::close(fd);
  }
}

int DirectoryHandles::descriptor(const Container* folder) {
  auto found = index_.find(folder);
  if (found != index_.end()) {
    recent_.splice(recent_.begin(), recent_, found->second);
    return found->second->second;
  }
  if (capacity_ == 0) return -1;
  if (recent_.size() >= capacity_) {
    auto& [oldest, fd] = recent_.back();
    if (fd >= 0) ::close(fd);
    index_.erase(oldest);
    recent_.pop_back();
  }
  int fd = ::open(folder->path().cStr(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  recent_.emplace_front(folder, fd);
  index_[folder] = recent_.begin();
  return fd;
}

void Hash::hashValue(HashValue& value) const {
  MD5_CTX copy = state_;
  unsigned char digest[MD5_DIGEST_LENGTH];
  MD5_Final(digest, &copy);
  std::memcpy(&value.first, digest, 8);
  std::memcpy(&value.second, digest + 8, 8);
}

std::size_t FileHash::stageBytes() const {
  const std::int64_t wanted =
      static_cast<std::int64_t>(kReadBlock) * (offset == 0 ? kFirstStageBlocks : kLaterStageBlocks);
  return static_cast<std::size_t>(std::max<std::int64_t>(0, std::min(wanted, file->size - offset)));
}

std::size_t FileHash::fetch(char* buffer, bool& done) {
  done = false;
  if (file->size == 0) {
    // A scanned file's size is what `lstat` said; a photo's may come from its library's
    // database, so an empty photo is looked at (without opening it) before it counts as empty.
    if (dynamic_cast<const Photo*>(file) != nullptr) {
      struct stat status;
      if (::lstat(file->path().cStr(), &status) != 0 || !S_ISREG(status.st_mode) ||
          status.st_size != 0) {
        throw std::exception();
      }
    }
    done = true;
    return 0;
  }
  int folder = handles != nullptr && !file->keepsWholePath() && file->parent != nullptr
                   ? handles->descriptor(file->parent)
                   : -1;
  int fd = folder >= 0 ? openRegular(folder, file->nameCStr(), file->size)
                       : openRegular(AT_FDCWD, file->path().cStr(), file->size);
  return fetchStage(fd, file->size, offset, offset == 0 ? kFirstStageBlocks : kLaterStageBlocks,
                    buffer, done);
}

bool FileHash::update() {
  char* buffer = stageBuffer();
  bool done;
  const std::size_t taken = fetch(buffer, done);
  // One call for the whole stage: MD5 of a byte sequence doesn't depend on how it is handed in.
  updateMD5(buffer, static_cast<std::uint32_t>(taken));
  offset += static_cast<std::int64_t>(taken);
  return done;
}

bool SymbolicLinkHash::hash(const Symlink* link, HashValue& value) {
  char* buffer = linkBuffer();
  ssize_t length = ::readlink(link->path().cStr(), buffer, kLinkBuffer);
  if (length != link->size) return false;
  reset();
  updateMD5(buffer, static_cast<std::uint32_t>(length));
  hashValue(value);
  return true;
}

PackageHash::PackageHash(Package* package, std::int64_t minFileSize)
    : package(package), minFileSize(minFileSize) {
  directories.push_back(package->path());
}

bool PackageHash::update() {
  if (!calculateDirectories()) return false;
  if (!calculateFiles()) return false;
  return calculateSymlinks();
}

void PackageHash::addRecord(std::uint8_t type, const std::string& name, const std::int64_t* size) {
  std::uint64_t length = name.size();
  updateMD5(&type, 1);
  updateMD5(&length, sizeof(length));
  if (size != nullptr) updateMD5(size, sizeof(*size));
  updateMD5(name.data(), static_cast<std::uint32_t>(name.size()));
}

bool PackageHash::calculateDirectories() {
  if (directories.empty()) return true;
  Path folder = std::move(directories.back());
  directories.pop_back();

  DIR* dir = ::opendir(folder.cStr());
  if (dir == nullptr) throw std::exception();
  std::vector<std::string> fileNames, linkNames, folderNames;
  while (struct dirent* entry = ::readdir(dir)) {
    unsigned char type = entry->d_type;
    if (type == DT_UNKNOWN) {
      // Some file systems don't type their entries; ask for the type instead of failing.
      struct stat status;
      if (::fstatat(::dirfd(dir), entry->d_name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
        ::closedir(dir);
        throw std::exception();
      }
      type = IFTODT(status.st_mode);
    }
    switch (type) {
      case DT_REG:
        fileNames.emplace_back(entry->d_name);
        break;
      case DT_LNK:
        linkNames.emplace_back(entry->d_name);
        break;
      case DT_DIR:
        if (!specialDirectory(entry)) folderNames.emplace_back(entry->d_name);
        break;
      default:
        // A socket, pipe or device inside: the package has no digest.
        ::closedir(dir);
        throw std::exception();
    }
  }
  ::closedir(dir);

  // Descending byte order; folders are pushed in it and taken from the end, so subfolders are
  // listed in ascending order, depth first.
  auto descending = [](std::vector<std::string>& names) {
    std::sort(names.begin(), names.end(), std::greater<>());
  };
  auto members = [&](std::vector<std::string>& names, std::uint8_t type,
                     std::vector<File>& target) {
    descending(names);
    for (auto& name : names) {
      Path path = folder / name;
      struct stat status;
      if (::lstat(path.cStr(), &status) != 0) throw std::exception();
      package->size += status.st_size;
      std::int64_t size = status.st_size;
      addRecord(type, name, &size);
      target.push_back(File{std::move(path), size});
    }
  };
  members(fileNames, 0, files);
  members(linkNames, 1, symlinks);
  descending(folderNames);
  for (auto& name : folderNames) {
    addRecord(2, name, nullptr);
    directories.push_back(folder / name);
  }

  if (!directories.empty()) return false;
  if (package->size < minFileSize) throw std::exception();
  return true;
}

bool PackageHash::calculateFiles() {
  if (files.empty()) return true;
  File& file = files.back();
  if (file.size == 0) {
    files.pop_back();
    return files.empty();
  }
  char* buffer = stageBuffer();
  bool reachedEnd;
  const std::size_t taken =
      fetchStage(openRegular(AT_FDCWD, file.path.cStr(), file.size), file.size, offset,
                 offset == 0 ? kFirstStageBlocks : kLaterStageBlocks, buffer, reachedEnd);
  updateMD5(buffer, static_cast<std::uint32_t>(taken));
  offset += static_cast<std::int64_t>(taken);
  if (reachedEnd) {
    files.pop_back();
    offset = 0;
  }
  return files.empty();
}

bool PackageHash::calculateSymlinks() {
  if (symlinks.empty()) return true;
  const File& link = symlinks.back();
  char* buffer = linkBuffer();
  ssize_t length = ::readlink(link.path.cStr(), buffer, kLinkBuffer);
  if (length != link.size) throw std::exception();
  symlinks.pop_back();
  updateMD5(buffer, static_cast<std::uint32_t>(length));
  return symlinks.empty();
}

}  // namespace dff
