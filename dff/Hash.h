#pragma once

// Digests of files, links and packages, built in stages so that a group of same-sized candidates
// can fall apart after the first block and no file is read to its end unless another still
// matches it all the way. Everything here runs on the one thread of `find`.

#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/md5.h>
#include <sys/types.h>

#include <cstdint>
#include <list>
#include <string>
#include <unordered_map>
#include <vector>

#include "dff/File.h"

namespace dff {

inline constexpr std::size_t kReadBlock = 4096;
inline constexpr int kFirstStageBlocks = 1;
inline constexpr int kLaterStageBlocks = 1000;
inline constexpr std::size_t kLinkBuffer = 1024;

// The call that reads a stage, `pread` unless a test replaced it. A read of a regular file may give
// fewer bytes than asked before its end (FUSE and network file systems do), so a stage is read
// until it is full or the file ends; tests use this to read short. Gives the previous call; null
// puts `pread` back. Not for use while a search runs.
using ReadCall = ssize_t (*)(int, void*, std::size_t, off_t);
ReadCall setReadCall(ReadCall call);

// A running MD5 (RFC 1321). The low-level context is a plain value: no allocation per candidate,
// and taking a digest mid-stream finalises a copy so that reading can go on.
class Hash {
 public:
  Hash() { reset(); }
  void reset() { MD5_Init(&state_); }
  void updateMD5(const void* data, std::uint32_t length) { MD5_Update(&state_, data, length); }
  // The digest of everything added so far.
  void hashValue(HashValue& value) const;
  // The running state, for digesting several hashes' bytes at once.
  MD5_CTX* context() { return &state_; }

 private:
  MD5_CTX state_;
};

// Open descriptors of recently used folders, so that files are opened by name relative to their
// folder instead of by walking their whole path again. Least recently used folders are closed
// first. Owned by one pass of one run: folder pointers are keys only while the tree lives.
class DirectoryHandles {
 public:
  explicit DirectoryHandles(std::size_t capacity);
  ~DirectoryHandles();
  DirectoryHandles(const DirectoryHandles&) = delete;
  DirectoryHandles& operator=(const DirectoryHandles&) = delete;

  // A descriptor of `folder`, or -1 when it can't be opened.
  int descriptor(const Container* folder);

 private:
  std::size_t capacity_;
  std::list<std::pair<const Container*, int>> recent_;  // most recent first
  std::unordered_map<const Container*, std::list<std::pair<const Container*, int>>::iterator>
      index_;
};

// Reads one file a stage at a time: 1 block of 4096 bytes from offset 0, then 1000 blocks a
// stage. The file is opened and closed once per stage.
class FileHash : public Hash {
 public:
  explicit FileHash(File* file, DirectoryHandles* handles = nullptr)
      : file(file), handles(handles) {}

  // Reads one stage. True when the whole file (as long as the scan saw it) has been digested.
  // Throws a standard exception when the file can't be opened without blocking, is no longer a
  // regular file of its recorded size, or ends before it.
  bool update();

  // `update` in two halves, so that the bytes of many files can be digested together: `fetch`
  // reads the next stage into `buffer` (room for `stageBytes()`) and gives how many bytes of it
  // go to the digest, setting `done` as `update` would return; the caller adds them to
  // `context()` and then to `offset`. Throws as `update` does.
  std::size_t stageBytes() const;
  std::size_t fetch(char* buffer, bool& done);

  File* file;
  std::int64_t offset = 0;
  DirectoryHandles* handles;  // optional, not owned
};

// The digest of a link's target text.
class SymbolicLinkHash : public Hash {
 public:
  // Writes the digest of `link`'s target into `value`; false when the target can't be read, is
  // longer than 1024 bytes, or no longer has the length the scan saw.
  bool hash(const Symlink* link, HashValue& value);
};

// Digests a package as a whole, one small step at a time: member records of one folder, one
// stage of one file, or one link target. Also adds up the package's size.
class PackageHash : public Hash {
 public:
  struct File {
    Path path;
    std::int64_t size;
  };

  PackageHash(Package* package, std::int64_t minFileSize);

  // One step. True when the whole package is digested. Throws a standard exception on any
  // failure: then the package has no twin.
  bool update();

  bool calculateDirectories();
  bool calculateFiles();
  bool calculateSymlinks();

  Package* package;
  std::int64_t minFileSize;
  std::vector<File> files;     // a stack
  std::vector<File> symlinks;  // a stack
  std::int64_t offset = 0;
  std::vector<Path> directories;  // a stack

 private:
  void addRecord(std::uint8_t type, const std::string& name, const std::int64_t* size);
};

}  // namespace dff
