#pragma once

#include <memory>
#include <optional>
#include <string>

namespace Core {

// A table made once per process from a resource built into the library: the table, or, when the
// resource has a defect, why not. No partial table is ever kept.
template <class T>
struct BuiltInResource {
  std::unique_ptr<const T> value;
  std::string error;
};

// Runs `load(&error)` (giving an optional T) and keeps its answer; `name` heads the error.
template <class T, class Load>
BuiltInResource<T> loadBuiltIn(const char* name, Load load) {
  BuiltInResource<T> resource;
  std::string error;
  if (std::optional<T> loaded = load(&error)) {
    resource.value = std::make_unique<const T>(std::move(*loaded));
  } else {
    resource.error = std::string(name) + ": " + error;
  }
  return resource;
}

}  // namespace Core
