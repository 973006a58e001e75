#include "platform/Analytics.h"

#include <atomic>

namespace platform {

namespace {

class NullAnalytics final : public IAnalytics {
 public:
  void recordEvent(int) override {}
  void recordEvent(int, const std::map<std::string, std::string>&) override {}
};

std::shared_ptr<IAnalytics>& installed() {
  static auto* recorder = new std::shared_ptr<IAnalytics>(std::make_shared<NullAnalytics>());
  return *recorder;
}

}  // namespace

IAnalytics& analytics() { return *std::atomic_load(&installed()); }

void setAnalytics(std::shared_ptr<IAnalytics> recorder) {
  if (!recorder) recorder = std::make_shared<NullAnalytics>();
  std::atomic_store(&installed(), std::move(recorder));
}

}  // namespace platform
