#include "dff/CoreDuplicateFileFinder.h"

#include "platform/Dispatch.h"
#include "platform/Phases.h"

namespace Core {

DuplicateFileFinder::DuplicateFileFinder(Token) : slot_(std::make_shared<DelegateSlot>()) {}

std::shared_ptr<DuplicateFileFinder> DuplicateFileFinder::create() {
  return std::make_shared<DuplicateFileFinder>(Token{});
}

DuplicateFileFinder& DuplicateFileFinder::shared() {
  static auto* instance = new std::shared_ptr<DuplicateFileFinder>(create());
  return **instance;
}

void DuplicateFileFinder::setDelegate(std::weak_ptr<DuplicateFileFinderDelegate> delegate) {
  slot_->delegate = std::move(delegate);
}

void DuplicateFileFinder::start() {
  platform::DispatchQueue queue("start()", platform::QoS::userInitiated);
  // The run owns the finder: the engine's callbacks reach it until `find` has returned.
  queue.async([self = shared_from_this(), slot = slot_] {
    dff::DFFGroups found = self->find();
    // The entries are this run's alone: their strings move over instead of being copied, and
    // each group is let go once converted, so that the groups are held once, not twice.
    std::vector<std::vector<Duplicate>> groups;
    groups.reserve(found.size());
    for (auto& group : found) {
      auto& converted = groups.emplace_back();
      converted.reserve(group.size());
      for (auto& entry : group) {
        if (auto* photo = dynamic_cast<dff::DFFPhoto*>(entry.get())) {
          converted.push_back(
              Photo{std::move(photo->id), File{std::move(photo->url), photo->size}});
        } else {
          converted.push_back(File{std::move(entry->url), entry->size});
        }
      }
      group = {};
    }
    found = {};
    platform::endPhase("hand-over");
    platform::DispatchQueue::main().async([slot, groups = std::move(groups)]() mutable {
      if (auto delegate = slot->delegate.lock()) {
        delegate->duplicateFileFinderCompleted(std::move(groups));
      }
    });
  });
}

void DuplicateFileFinder::progress(double value) {
  platform::DispatchQueue::main().async([slot = slot_, value] {
    if (auto delegate = slot->delegate.lock()) delegate->duplicateFileFinderProgress(value);
  });
}

void DuplicateFileFinder::current(const std::string& url) {
  platform::DispatchQueue::main().async([slot = slot_, url] {
    if (auto delegate = slot->delegate.lock()) delegate->duplicateFileFinderCurrent(url);
  });
}

}  // namespace Core
