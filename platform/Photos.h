#pragma once

// Deleting pictures from the system's photo library by their local identifiers, in one request.
// Linux has no photo-library service: the request fails, and not as a matter of authorisation,
// so a host can tell its user that photos are deleted in the photo application itself.

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace platform {

class PhotoLibraryService {
 public:
  virtual ~PhotoLibraryService() = default;
  // Deletes the assets; `completion` (on any thread) gets success, and on failure whether the
  // user didn't authorise access.
  virtual void deleteAssets(const std::vector<std::string>& identifiers,
                            std::function<void(bool success, bool notAuthorised)> completion) = 0;
};

// The process-wide service: the platform's unless a test installed another.
PhotoLibraryService& photoLibrary();
void setPhotoLibrary(std::shared_ptr<PhotoLibraryService> service);

}  // namespace platform
