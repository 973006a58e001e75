#include <mutex>

#include "platform/Photos.h"

namespace platform {

namespace {

// No photo-library service runs on Linux: every request fails, and not for want of permission.
class NoPhotoLibrary final : public PhotoLibraryService {
 public:
  void deleteAssets(const std::vector<std::string>&,
                    std::function<void(bool, bool)> completion) override {
    completion(false, false);
  }
};

std::mutex& serviceMutex() {
  static auto* mutex = new std::mutex;
  return *mutex;
}

std::shared_ptr<PhotoLibraryService>& serviceSlot() {
  static auto* slot = new std::shared_ptr<PhotoLibraryService>(std::make_shared<NoPhotoLibrary>());
  return *slot;
}

}  // namespace

PhotoLibraryService& photoLibrary() {
  std::lock_guard lock(serviceMutex());
  return *serviceSlot();
}

void setPhotoLibrary(std::shared_ptr<PhotoLibraryService> service) {
  std::lock_guard lock(serviceMutex());
  serviceSlot() = service ? std::move(service) : std::make_shared<NoPhotoLibrary>();
}

}  // namespace platform
