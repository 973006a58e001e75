#pragma once

#include <map>
#include <memory>
#include <string>

namespace platform {

// Receives usage events by number. Delivery is the business of whoever installs a recorder; the
// library only records. Implementations must be safe to call from any thread.
class IAnalytics {
 public:
  virtual ~IAnalytics() = default;
  virtual void recordEvent(int event) = 0;
  virtual void recordEvent(int event, const std::map<std::string, std::string>& properties) = 0;
};

// The process-wide recorder: one that does nothing until a host or a test installs another.
IAnalytics& analytics();

// Installs `recorder` (nullptr goes back to the one that does nothing). Not meant to race with
// events being recorded: hosts install once at start-up, tests between cases.
void setAnalytics(std::shared_ptr<IAnalytics> recorder);

}  // namespace platform
