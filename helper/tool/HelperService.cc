#include "helper/tool/HelperService.h"

#include <thread>

#include "helper/tool/SafeDeletion.h"
#include "monitor/DiskInfo.h"
#include "platform/Launchd.h"
#include "platform/Locations.h"

namespace helper {

HelperService::HelperService(std::shared_ptr<RVHelperDelegate> client)
    : client_(std::move(client)) {}

HelperService::~HelperService() { shutDown(); }

void HelperService::test(std::function<void()> reply) { reply(); }

void HelperService::deleteAtPaths(std::vector<std::string> paths) {
  {
    std::lock_guard lock(mutex_);
    stopped_ = false;
    paused_ = false;
  }
  std::thread([self = shared_from_this(), paths = std::move(paths)] {
    std::lock_guard batch(self->batchMutex_);
    const std::set<std::string> mounts = currentMountPoints();
    for (const auto& path : paths) {
      if (!self->mayGoOn()) break;
      self->client_->helperDeletingAt(path);
      bool deleted = !refusal(path, mounts) && deleteTree(path, [&] { return self->mayGoOn(); });
      self->client_->helperDeletedAt(path, deleted);
    }
    self->client_->helperDeletionCompleted();
  }).detach();
}

bool HelperService::mayGoOn() {
  std::unique_lock lock(mutex_);
  resumed_.wait(lock, [this] { return !paused_ || stopped_; });
  return !stopped_;
}

void HelperService::pauseDeleting() {
  std::lock_guard lock(mutex_);
  paused_ = true;
}

void HelperService::resumeDeleting() {
  {
    std::lock_guard lock(mutex_);
    paused_ = false;
  }
  resumed_.notify_all();
}

void HelperService::stopDeleting() {
  {
    std::lock_guard lock(mutex_);
    stopped_ = true;
  }
  resumed_.notify_all();
}

void HelperService::getDirectorySizeAt(std::string path, std::function<void(std::int64_t)> reply) {
  stopSize_.store(false);
  std::thread([self = shared_from_this(), path = std::move(path), reply = std::move(reply)] {
    // Measuring only reads, but a path of odd shape gets no answer but 0.
    bool wellFormed =
        !path.empty() && path.front() == '/' && path.find("/./") == std::string::npos &&
        path.find("/../") == std::string::npos && !path.ends_with("/.") && !path.ends_with("/..");
    reply(wellFormed ? monitor::GetDirectorySize(path.c_str(), &self->stopSize_) : 0);
  }).detach();
}

void HelperService::stopGettingSize() { stopSize_.store(true); }

namespace {
std::string& unitsRoot() {
  static auto* root = new std::string;
  return *root;
}
}  // namespace

void HelperService::setUnitsRoot(std::string root) { unitsRoot() = std::move(root); }

void HelperService::setUnitEnabled(std::string label, bool global, bool enabled,
                                   std::function<void(bool)> reply) {
  std::thread([label = std::move(label), global, enabled, reply = std::move(reply)] {
    platform::Locations locations;
    locations.root = unitsRoot();
    auto runner = platform::makeProcessRunner();
    reply(platform::launchd::setEnabled(
        *runner, locations,
        global ? platform::launchd::Domain::global : platform::launchd::Domain::system, label,
        enabled));
  }).detach();
}

void HelperService::shutDown() {
  stopSize_.store(true);
  stopDeleting();
}

}  // namespace helper
