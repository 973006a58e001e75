#include "dff/File.h"

#include <typeinfo>

namespace dff {

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
