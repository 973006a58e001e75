#include "Core/FileFinderContext.h"

namespace Core {

FileFinderContext::FileFinderContext(std::function<void(const std::string&)> urlBlock)
    : urlObservable(std::move(urlBlock)) {}

void FileFinderContext::interrupt() {
  interrupted_.store(true);
  for (auto& item : workItems) item->cancel();
  workItems.clear();
  if (auto action = onInterrupted_.load()) (*action)();
}

void FileFinderContext::setOnInterrupted(std::function<void()> action) {
  onInterrupted_.store(action ? std::make_shared<std::function<void()>>(std::move(action))
                              : nullptr);
}

const platform::DispatchSpecificKey<FileFinderContext>& contextKey() {
  static const auto* key = new platform::DispatchSpecificKey<FileFinderContext>;
  return *key;
}

std::shared_ptr<FileFinderContext> currentContext() {
  return platform::DispatchQueue::currentSpecific(contextKey());
}

ScanSetup startScan(std::function<void(const std::string&)> urlBlock,
                    std::vector<std::int64_t> parts,
                    std::function<void(const double&)> progressBlock,
                    std::function<void(const ScanSetup&)> scan) {
  ScanSetup setup{std::make_shared<FileFinderContext>(std::move(urlBlock)),
                  platform::DispatchQueue("start()", platform::QoS::userInitiated),
                  std::make_shared<Progress>(std::move(parts), std::move(progressBlock))};
  auto item = std::make_shared<platform::DispatchWorkItem>(
      [setup, scan = std::move(scan)] { scan(setup); });
  setup.queue.setSpecific(contextKey(), setup.context);
  setup.context->workItems.push_back(item);
  setup.queue.async(item);
  return setup;
}

}  // namespace Core
