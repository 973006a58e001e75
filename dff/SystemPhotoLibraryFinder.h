#pragma once

#include <functional>
#include <optional>
#include <string>

namespace Core {

// Tells a host where the system's photo library lies, so that it can pass it as a search root.
// Linux has no system photo library; a host that knows where one is (a Mac disk, a synced copy)
// installs a source.
class SystemPhotoLibraryFinder {
 public:
  using LocationSource = std::function<std::optional<std::string>(const std::string& appID)>;

  // The library of the photos application `appID`; nothing without a source or an answer.
  std::optional<std::string> getSystemPhotoLibraryPath(const std::string& appID) const;

  // Installs the process-wide source; nullptr removes it.
  static void setLocationSource(LocationSource source);
};

}  // namespace Core
