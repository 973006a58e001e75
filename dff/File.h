#pragma once

// The engine's model of the disk: one tree of small entries built by a scan. Each entry carries
// its path, its size, its digest and the marks that later passes use to decide what is
// reported. Plain pointers (`parent`, the tables, the results of `find`) point into a tree that
// the finder owns until its `releaseFiles`.

#include <dirent.h>

#include <cstdint>
#include <cstring>
#include <deque>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace dff {

// A path as the file system gives it, byte for byte: nothing is normalised.
class Path {
 public:
  Path() = default;
  Path(const std::string& path) : path_(path) {}        // NOLINT: implicit by design
  Path(std::string&& path) : path_(std::move(path)) {}  // NOLINT: implicit by design
  Path(const char* path) : path_(path) {}               // NOLINT: implicit by design

  const char* cStr() const { return path_.c_str(); }
  const std::string& string() const { return path_; }
  std::size_t length() const { return path_.size(); }

  // This path, one "/" and `name`. A path that ends in a separator gains a second one.
  Path operator/(const std::string& name) const { return Path(path_ + "/" + name); }
  Path operator/(std::string&& name) const {
    std::string joined;
    joined.reserve(path_.size() + 1 + name.size());
    joined.append(path_).append(1, '/').append(name);
    return Path(std::move(joined));
  }
  Path operator/(const char* name) const { return Path(path_ + "/" + name); }

  friend bool operator==(const Path&, const Path&) = default;

 private:
  std::string path_;
};

// The 16 bytes of an MD5 digest as two words in machine byte order. Ordered by `first`, then
// `second`, both unsigned: a total order with no meaning beyond that.
struct HashValue {
  std::uint64_t first = 0;
  std::uint64_t second = 0;

  friend bool operator==(const HashValue& a, const HashValue& b) {
    return a.first == b.first && a.second == b.second;
  }
  friend bool operator<(const HashValue& a, const HashValue& b) {
    return a.first != b.first ? a.first < b.first : a.second < b.second;
  }
  friend bool operator>(const HashValue& a, const HashValue& b) { return b < a; }
};

class Container;

// An entry of the tree. Every entry starts with `unique` false and a zero `hash`: a pass writes
// the digest before another reads it, and an entry that never got one still digests the same
// way every time.
class File {
 public:
  File(const Path& path, std::int64_t size, Container* parent)
      : path(path), size(size), parent(parent) {}
  File(Path&& path, std::int64_t size, Container* parent)
      : path(std::move(path)), size(size), parent(parent) {}

  // Entries are owned through shared owners made from their concrete pointers; the destructor
  // is virtual all the same, so that no way of deleting one can go wrong.
  virtual ~File() = default;

  // Gives every entry run-time type information; nothing calls it.
  virtual void typeInfo() {}

  Path path;
  std::int64_t size;
  Container* parent;
  HashValue hash;
  bool unique = false;
};

class Symlink final : public File {
 public:
  Symlink(Path&& path, std::int64_t size, Container* parent)
      : File(std::move(path), size, parent) {}
};

class Container : public File {
 public:
  Container(const Path& path, std::int64_t size, Container* parent) : File(path, size, parent) {}
  Container(Path&& path, std::int64_t size, Container* parent)
      : File(std::move(path), size, parent) {}

  // True once the entry belongs to a group of two or more identical folders or packages.
  bool duplicate = false;
};

class Directory final : public Container {
 public:
  Directory(const Path& path, Container* parent) : Container(path, 0, parent) {}
  Directory(Path&& path, Container* parent) : Container(std::move(path), 0, parent) {}

  // What the scan met, in its order: `File`, `Symlink`, `Directory` or `Package` entries.
  std::vector<std::shared_ptr<File>> children;
};

class Package : public Container {
 public:
  Package(const Path& path, Container* parent) : Container(path, 0, parent) {}
  Package(Path&& path, Container* parent) : Container(std::move(path), 0, parent) {}
};

class Photo final : public File {
 public:
  Photo(std::string id, Path&& path, std::int64_t size, Container* parent)
      : File(std::move(path), size, parent), id(std::move(id)) {}

  std::string id;  // the library's identifier of the picture
};

class PhotoLibrary final : public Package {
 public:
  PhotoLibrary(const Path& path, Container* parent) : Package(path, parent) {}

  // One per picture, in the order of the database rows. Held by value: pointers to them stay
  // valid because the deque never moves its elements when appended to.
  std::deque<Photo> photos;
};

// 0 for exactly `File`, 1 for `Directory`, 2 for `Symlink`, 3 for everything else.
std::uint32_t fileTypeId(const File* file);

// True exactly for the entries "." and "..".
bool specialDirectory(const struct dirent* entry);
bool specialDirectory(const char* name, std::size_t length);

}  // namespace dff
