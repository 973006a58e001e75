#pragma once

#include <concepts>
#include <cstdint>
#include <functional>
#include <string>
#include <variant>

#include "platform/ByteCountFormatter.h"

namespace Core {

// Anything with a file `url` (an absolute path) and a `size` in bytes.
template <class T>
concept FileProtocol = requires(const T& file) {
  { file.url } -> std::convertible_to<std::string>;
  { file.size } -> std::convertible_to<std::int64_t>;
};

// `size` of any file record for display, in the platform's file-style byte count.
template <FileProtocol T>
std::string sizeString(const T& file) {
  return platform::formatByteCount(file.size);
}

// A file on disk.
struct File {
  std::string url;  // absolute path
  std::int64_t size = 0;

  std::string sizeString() const { return platform::formatByteCount(size); }
  friend bool operator==(const File&, const File&) = default;
};

// A picture of a photo library: its local identifier in the library and its file.
struct Photo {
  std::string id;
  File file;

  friend bool operator==(const Photo&, const Photo&) = default;
};

// One member of a duplicate group as a host sees it: a file or a photo.
using Duplicate = std::variant<File, Photo>;

}  // namespace Core

template <>
struct std::hash<Core::File> {
  std::size_t operator()(const Core::File& f) const noexcept {
    return std::hash<std::string>()(f.url) * 31 + std::hash<std::int64_t>()(f.size);
  }
};
