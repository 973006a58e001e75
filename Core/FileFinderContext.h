#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Core/Progress.h"
#include "Core/ValueObservable.h"
#include "platform/Dispatch.h"

namespace Core {

// The handle of one running scan: how it is interrupted, and how code deep inside the scan finds
// its scan (through `contextKey` on the scan's queue) to offer the URL it is working on.
//
// `interrupted` is written by whoever interrupts and read by the scanning thread. `workItems`
// is filled by the scanner's `start` and emptied by `interrupt()`, both on the host's thread.
// `onInterrupted` may be installed by the scan's own thread while another interrupts.
class FileFinderContext {
 public:
  explicit FileFinderContext(std::function<void(const std::string&)> urlBlock);

  // Sets `interrupted`, cancels every work item not yet started and forgets them, then calls
  // `onInterrupted` if one is installed. A second call calls it again and cancels nothing.
  void interrupt();

  bool interrupted() const { return interrupted_.load(std::memory_order_relaxed); }
  const std::atomic<bool>& interruptedFlag() const { return interrupted_; }

  void setOnInterrupted(std::function<void()> action);

  std::vector<std::shared_ptr<platform::DispatchWorkItem>> workItems;
  ValueObservable<std::string> urlObservable;

 private:
  std::atomic<bool> interrupted_{false};
  std::atomic<std::shared_ptr<std::function<void()>>> onInterrupted_;
};

// The process-wide key under which a scan's queue holds its context.
const platform::DispatchSpecificKey<FileFinderContext>& contextKey();

// The context of the scan running the calling code, or nullptr outside a scan.
std::shared_ptr<FileFinderContext> currentContext();

// What a scanner keeps of a scan it started.
struct ScanSetup {
  std::shared_ptr<FileFinderContext> context;
  platform::DispatchQueue queue;
  std::shared_ptr<Progress> progress;
};

// Starts a scan the way every scanner does: makes the context (its URLs go to `urlBlock`), a
// serial queue "start()" of user-initiated quality, and the progress with `parts` (its values
// go to `progressBlock`); wraps `scan` in a work item, sets the context on the queue under
// `contextKey`, records the item in the context and runs it on the queue. Callbacks that reach
// back into the scanner must hold it weakly.
ScanSetup startScan(std::function<void(const std::string&)> urlBlock,
                    std::vector<std::int64_t> parts,
                    std::function<void(const double&)> progressBlock,
                    std::function<void(const ScanSetup&)> scan);

}  // namespace Core
