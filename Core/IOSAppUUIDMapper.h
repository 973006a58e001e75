#pragma once

// iPhone and iPad applications on Apple silicon keep their data in a container folder named by a
// UUID rather than by their identifier. The mapper reads the containers' metadata to find the
// folder of an identifier; `WrappedBundle` is such an application's bundle. Only an arm64 build
// of the loader makes them.
//
// Used from the one queue of the finder that owns the loader; no lock.

#include <memory>
#include <optional>
#include <string>
#include <unordered_map>

#include "Core/AppBundle.h"

namespace Core {

class IOSAppUUIDMapper {
 public:
  // `home` is the folder whose "Library/Containers" holds the containers.
  explicit IOSAppUUIDMapper(std::string home) : home_(std::move(home)) {}

  // The container folder name of `bundleID`. Always a value: an identifier without a container
  // gets a fresh random UUID, which is not kept and matches no folder.
  CaseInsensitiveString uuid(const CaseInsensitiveString& bundleID);

  std::unordered_map<CaseInsensitiveString, CaseInsensitiveString> uuids;
  // How many times the containers were listed (for tests of the one-pass rule).
  int listings = 0;

 private:
  std::string home_;
};

class WrappedBundle final : public AppBundle {
 public:
  // Nothing unless `url` lies under "/Applications/" and holds a bundle "WrappedBundle" with an
  // identifier. `applicationsRoot` stands for "/Applications/" in tests.
  static std::optional<WrappedBundle> make(const std::string& url,
                                           std::shared_ptr<IOSAppUUIDMapper> uuidMapper,
                                           const std::string& applicationsRoot = "/Applications/");
  // The UUIDs of the wrapped application's plug-ins.
  void loadNestedBundles() override;

  std::shared_ptr<IOSAppUUIDMapper> uuidMapper;
};

// The identifier of the bundle at `url` (Contents/Info.plist, or Info.plist at its top as iOS
// bundles have it).
std::optional<std::string> readBundleIdentifier(const std::string& url);

}  // namespace Core
