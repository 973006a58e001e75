#include "dff/SystemPhotoLibraryFinder.h"

#include <mutex>

namespace Core {

namespace {

struct SourceHolder {
  std::mutex mutex;
  SystemPhotoLibraryFinder::LocationSource source;
};

SourceHolder& holder() {
  static auto* h = new SourceHolder;
  return *h;
}

}  // namespace

std::optional<std::string> SystemPhotoLibraryFinder::getSystemPhotoLibraryPath(
    const std::string& appID) const {
  LocationSource source;
  {
    std::lock_guard lock(holder().mutex);
    source = holder().source;
  }
  return source ? source(appID) : std::nullopt;
}

void SystemPhotoLibraryFinder::setLocationSource(LocationSource source) {
  std::lock_guard lock(holder().mutex);
  holder().source = std::move(source);
}

}  // namespace Core
