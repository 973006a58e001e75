#include "dff/File.h"

#include <typeinfo>
#include <vector>

namespace dff {

Path File::path() const {
  if (absolute_) return Path(std::string(name_, length_));
  // Gather the names up to the nearest entry that keeps a whole path, then join them.
  std::vector<const File*> chain;
  std::size_t length = 0;
  const File* entry = this;
  for (; !entry->absolute_; entry = entry->parent) {
    chain.push_back(entry);
    length += entry->length_ + 1;
  }
  std::string path;
  path.reserve(entry->length_ + length);
  path.append(entry->name_, entry->length_);
  for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
    path.append(1, '/').append((*it)->name_, (*it)->length_);
  }
  return Path(std::move(path));
}

std::uint32_t fileTypeId(const File* file) {
  const std::type_info& type = typeid(*file);
  if (type == typeid(File)) return 0;
  if (type == typeid(Directory)) return 1;
  if (type == typeid(Symlink)) return 2;
  return 3;
}

bool specialDirectory(const char* name, std::size_t length) {
  return (length == 1 && name[0] == '.') || (length == 2 && name[0] == '.' && name[1] == '.');
}

bool specialDirectory(const struct dirent* entry) {
  return specialDirectory(entry->d_name, std::strlen(entry->d_name));
}

}  // namespace dff
