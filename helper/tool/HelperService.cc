#include "helper/tool/HelperService.h"

#include <system_error>
#include <thread>

#include "helper/tool/SafeDeletion.h"
#include "helper/tool/UnitPolicy.h"
#include "monitor/DiskInfo.h"
#include "platform/Launchd.h"
#include "platform/Locations.h"

namespace helper {

namespace {

// Starts `body` on a thread of its own; false when the process can't make one more.
template <class Body>
bool startThread(Body&& body) {
  try {
    std::thread(std::forward<Body>(body)).detach();
    return true;
  } catch (const std::system_error&) {
    return false;
  }
}

}  // namespace

HelperService::HelperService(std::shared_ptr<RVHelperDelegate> client, HelperSettings settings)
    : client_(std::move(client)), settings_(std::move(settings)) {}

HelperService::~HelperService() { shutDown(); }

void HelperService::test(std::function<void()> reply) { reply(); }

void HelperService::deleteAtPaths(std::vector<std::string> paths) {
  bool start = false;
  {
    std::lock_guard lock(mutex_);
    if (batches_.size() < kMaxWaitingBatches) {
      batches_.push_back(Batch{nextBatch_++, std::move(paths)});
      start = !deleting_;
      deleting_ = true;
      paths.clear();
    }
  }
  if (start && !startThread([self = shared_from_this()] { self->runBatches(); })) {
    std::lock_guard lock(mutex_);
    deleting_ = false;
    for (auto& batch : batches_) {
      for (auto& path : batch.paths) paths.push_back(std::move(path));
    }
    batches_.clear();
  }
  if (paths.empty()) return;
  // Refused whole: too many batches waiting, or no thread to run them.
  for (const auto& path : paths) client_->helperDeletedAt(path, false);
  client_->helperDeletionCompleted();
}

void HelperService::runBatches() {
  for (;;) {
    Batch batch;
    {
      std::lock_guard lock(mutex_);
      if (batches_.empty()) {
        deleting_ = false;
        return;
      }
      batch = std::move(batches_.front());
      batches_.pop_front();
    }
    // The places are read for each batch: mounts come and go.
    const CleanupPlaces places = cleanupPlacesFor(settings_.servedUser, settings_.home);
    for (const auto& path : batch.paths) {
      if (!mayGoOn(batch.number)) break;
      client_->helperDeletingAt(path);
      bool deleted = !refusal(path, places) &&
                     deleteTree(path, [this, number = batch.number] { return mayGoOn(number); });
      client_->helperDeletedAt(path, deleted);
    }
    client_->helperDeletionCompleted();
  }
}

bool HelperService::mayGoOn(std::uint64_t batch) {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [&] { return !paused_ || batch < stopBefore_; });
  return batch >= stopBefore_;
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
  changed_.notify_all();
}

void HelperService::stopDeleting() {
  {
    std::lock_guard lock(mutex_);
    stopBefore_ = nextBatch_;
    paused_ = false;
  }
  changed_.notify_all();
}

void HelperService::runAlone(bool HelperService::*busy, std::function<std::int64_t()> work,
                             std::function<void(std::int64_t)> answer, std::int64_t refused) {
  {
    std::lock_guard lock(mutex_);
    if (this->*busy) return answer(refused);
    this->*busy = true;
  }
  auto release = [this, busy] {
    std::lock_guard lock(mutex_);
    this->*busy = false;
  };
  // The job is free again before the answer goes: a client may ask again as soon as it has it.
  if (!startThread([self = shared_from_this(), release, work = std::move(work), answer] {
        std::int64_t result = work();
        release();
        answer(result);
      })) {
    release();
    answer(refused);
  }
}

void HelperService::getDirectorySizeAt(std::string path, std::function<void(std::int64_t)> reply) {
  stopSize_.store(false);
  auto measure = [this, path = std::move(path)]() -> std::int64_t {
    // Measuring only reads, but a path of odd shape gets no answer but 0.
    bool wellFormed =
        !path.empty() && path.front() == '/' && path.find('\0') == std::string::npos &&
        path.find("/./") == std::string::npos && path.find("/../") == std::string::npos &&
        !path.ends_with("/.") && !path.ends_with("/..");
    return wellFormed ? monitor::GetDirectorySize(path.c_str(), &stopSize_) : 0;
  };
  runAlone(&HelperService::measuring_, std::move(measure), std::move(reply), 0);
}

void HelperService::stopGettingSize() { stopSize_.store(true); }

void HelperService::setUnitEnabled(std::string label, bool global, bool enabled,
                                   std::function<void(bool)> reply) {
  auto work = [this, label = std::move(label), global, enabled]() -> std::int64_t {
    platform::Locations locations = platform::Locations::fromEnvironment(settings_.unitsRoot);
    auto runner = platform::makeProcessRunner();
    DisabledUnitsRecord record(settings_.stateFolder);
    return switchUnit(
        *runner, locations, record,
        global ? platform::launchd::Domain::global : platform::launchd::Domain::system, label,
        enabled);
  };
  runAlone(
      &HelperService::switching_, std::move(work),
      [reply = std::move(reply)](std::int64_t done) { reply(done != 0); }, 0);
}

void HelperService::shutDown() {
  stopSize_.store(true);
  {
    std::lock_guard lock(mutex_);
    batches_.clear();
  }
  stopDeleting();
}

}  // namespace helper
