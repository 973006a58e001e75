#pragma once

// The helper's side of one client connection: it serves `RVHelperProtocol` as root and reports
// through the client's `RVHelperDelegate`. A deletion batch and a measurement each run on a
// thread of their own, so that pause, resume and stop messages are read while they work.

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>

#include "helper/Protocols.h"

namespace helper {

class HelperService final : public RVHelperProtocol,
                            public std::enable_shared_from_this<HelperService> {
 public:
  // `client` receives the reports; it is the proxy of the connection's other end.
  explicit HelperService(std::shared_ptr<RVHelperDelegate> client);
  ~HelperService() override;

  void test(std::function<void()> reply) override;
  // Deletes each path that `refusal` allows, one after the other; a refused path is reported
  // as failed and the batch goes on. A batch that arrives while one runs waits for it.
  void deleteAtPaths(std::vector<std::string> paths) override;
  void pauseDeleting() override;
  void resumeDeleting() override;
  void stopDeleting() override;
  void getDirectorySizeAt(std::string path, std::function<void(std::int64_t)> reply) override;
  void stopGettingSize() override;
  // Only a unit's name is taken, never a path (systemctl would link any file as a unit).
  void setUnitEnabled(std::string label, bool global, bool enabled,
                      std::function<void(bool)> reply) override;

  // Where unit changes are made: "" for this system, or a folder holding a system's tree (for
  // images and tests).
  static void setUnitsRoot(std::string root);

  // Ends whatever runs: the connection is gone.
  void shutDown();

 private:
  bool mayGoOn();

  std::shared_ptr<RVHelperDelegate> client_;
  std::mutex batchMutex_;  // one batch at a time
  std::mutex mutex_;
  std::condition_variable resumed_;
  bool paused_ = false;
  bool stopped_ = false;
  std::atomic<bool> stopSize_{false};
};

}  // namespace helper
