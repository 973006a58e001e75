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
#include <string_view>
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
  // The bytes, moved out of a path that is done with.
  std::string take() && { return std::move(path_); }

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

// The name of an entry below its parent, for entries that the scan builds inside a folder: a
// NUL-terminated text that the folder keeps for as long as the entry lives.
struct Name {
  std::string_view text;
};

// An entry of the tree. Every entry starts with `unique` false and a zero `hash`: a pass writes
// the digest before another reads it, and an entry that never got one still digests the same
// way every time.
//
// An entry made inside a folder keeps only its name, in a block its folder holds for the names
// of all it holds, and builds its path from its parents when asked: a tree of a million entries
// would otherwise hold a million copies of the same folder paths. Roots, photos and entries made
// from a whole path keep that path, in memory of their own.
class File {
 public:
  File(const Path& path, std::int64_t size, Container* parent)
      : size(size), parent(parent), absolute_(true) {
    own(path.string());
  }
  File(Path&& path, std::int64_t size, Container* parent) : File(path, size, parent) {}
  // Without a parent the name is the whole path, and the entry keeps a copy of it.
  File(Name name, std::int64_t size, Container* parent)
      : size(size), parent(parent), absolute_(parent == nullptr) {
    if (absolute_) {
      own(std::string(name.text));
    } else {
      name_ = name.text.data();
      length_ = static_cast<std::uint32_t>(name.text.size());
    }
  }
  File(File&& other) noexcept
      : size(other.size),
        parent(other.parent),
        hash(other.hash),
        name_(other.name_),
        length_(other.length_),
        unique(other.unique),
        absolute_(other.absolute_),
        owned_(other.owned_) {
    other.owned_ = false;
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  virtual ~File() {
    if (owned_) delete[] name_;
  }

  // Gives every entry run-time type information; nothing calls it.
  virtual void typeInfo() {}

  // The absolute path of the entry.
  Path path() const;
  // The entry's own name below its parent, or its whole path when it keeps one; NUL-terminated.
  std::string_view name() const { return {name_, length_}; }
  const char* nameCStr() const { return name_; }
  // True when `name()` is the whole path rather than a name below `parent`.
  bool keepsWholePath() const { return absolute_; }

  std::int64_t size;
  Container* parent;
  HashValue hash;

 private:
  void own(const std::string& text) {
    char* copy = new char[text.size() + 1];
    std::memcpy(copy, text.c_str(), text.size() + 1);
    name_ = copy;
    length_ = static_cast<std::uint32_t>(text.size());
    owned_ = true;
  }

  const char* name_ = "";
  std::uint32_t length_ = 0;

 public:
  bool unique = false;

 private:
  bool absolute_;
  bool owned_ = false;
};

class Symlink final : public File {
 public:
  using File::File;
};

class Container : public File {
 public:
  Container(const Path& path, std::int64_t size, Container* parent) : File(path, size, parent) {}
  Container(Name name, std::int64_t size, Container* parent) : File(name, size, parent) {}

  // True once the entry belongs to a group of two or more identical folders or packages.
  bool duplicate = false;
};

class Directory final : public Container {
 public:
  Directory(const Path& path, Container* parent) : Container(path, 0, parent) {}
  Directory(Name name, Container* parent) : Container(name, 0, parent) {}

  // What the scan met, in its order: `File`, `Symlink`, `Directory` or `Package` entries, each
  // owned by this folder through the members below.
  std::vector<File*> children;

  // The names of what it holds, one block for all; the groups a search hands over may take it
  // over, their names staying where they are.
  std::unique_ptr<char[]> names;
  // Its files and links by value, in arrays made to size when the folder is listed, so that
  // they never move; its folders and packages each on their own.
  std::vector<File> files;
  std::vector<Symlink> links;
  std::vector<std::unique_ptr<Container>> containers;
};

class Package : public Container {
 public:
  Package(const Path& path, Container* parent) : Container(path, 0, parent) {}
  Package(Name name, Container* parent) : Container(name, 0, parent) {}
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
