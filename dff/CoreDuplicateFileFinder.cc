#include "dff/CoreDuplicateFileFinder.h"

#include "platform/Dispatch.h"
#include "platform/Phases.h"

namespace Core {

Duplicate duplicateAt(const dff::FoundGroups& groups, std::size_t member) {
  File file{groups.path(member), groups.fileSize(member)};
  if (auto id = groups.photoID(member)) return Photo{std::string(*id), std::move(file)};
  return file;
}

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
    // Held by a shared owner only because a queued block must be copyable.
    auto groups = std::make_shared<dff::FoundGroups>(self->find());
    platform::endPhase("hand-over");
    platform::DispatchQueue::main().async([slot, groups] {
      if (auto delegate = slot->delegate.lock()) {
        delegate->duplicateFileFinderCompleted(std::move(*groups));
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
