#pragma once

// The helper's side of one client connection: it serves `RVHelperProtocol` as root and reports
// through the client's `RVHelperDelegate`. Calls arrive on the connection's queue and return at
// once; the work runs on at most three threads per connection, one for deletion batches, one
// for a measurement and one for a unit switch, so that pause, resume and stop are read while
// they work and a client can't make the helper start more.

#include <sys/types.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>

#include "helper/Protocols.h"

namespace helper {

// What the helper was started with: whom it serves and where it works.
struct HelperSettings {
  uid_t servedUser = 0;
  // Replaces the password database's home folder of the served user ("" for the database's).
  std::string home;
  // Where unit changes are made: "" for this system, or a folder holding a system's tree.
  std::string unitsRoot;
  // Where the helper keeps what it switched off.
  std::string stateFolder = "/var/lib/ravelin";
};

class HelperService final : public RVHelperProtocol,
                            public std::enable_shared_from_this<HelperService> {
 public:
  // `client` receives the reports; it is the proxy of the connection's other end.
  HelperService(std::shared_ptr<RVHelperDelegate> client, HelperSettings settings);
  ~HelperService() override;

  void test(std::function<void()> reply) override;
  // Queues a batch; batches run one after the other. Each path that `refusal` allows is deleted,
  // a refused one is reported as failed and the batch goes on. Past a few batches waiting, a
  // batch is reported failed whole at once.
  void deleteAtPaths(std::vector<std::string> paths) override;
  // Holds the running batch (and those after it) at its next entry until resumed or stopped.
  void pauseDeleting() override;
  void resumeDeleting() override;
  // Ends every batch that arrived before it, the running one at its next entry, and ends a
  // pause; a batch that arrives after it runs.
  void stopDeleting() override;
  // One measurement at a time: a request while one runs is answered 0 (unknown) at once.
  void getDirectorySizeAt(std::string path, std::function<void(std::int64_t)> reply) override;
  void stopGettingSize() override;
  // Only a unit's name is taken, never a path, and only as `unitRefusal` allows; the answer is
  // the state read back. One switch at a time: a request while one runs is answered false.
  void setUnitEnabled(std::string label, bool global, bool enabled,
                      std::function<void(bool)> reply) override;

  // Ends whatever runs: the connection is gone.
  void shutDown();

 private:
  struct Batch {
    std::uint64_t number;
    std::vector<std::string> paths;
  };
  static constexpr std::size_t kMaxWaitingBatches = 4;

  void runBatches();
  // Runs `work` on a thread of its own while `busy` marks it, then gives its result to `answer`;
  // answers `refused` at once when such a job already runs or no thread can be had. The thread
  // keeps this object alive.
  void runAlone(bool HelperService::*busy, std::function<std::int64_t()> work,
                std::function<void(std::int64_t)> answer, std::int64_t refused);
  bool mayGoOn(std::uint64_t batch);

  std::shared_ptr<RVHelperDelegate> client_;
  const HelperSettings settings_;

  std::mutex mutex_;  // guards everything below
  std::condition_variable changed_;
  std::deque<Batch> batches_;
  bool deleting_ = false;  // a thread runs the batches
  std::uint64_t nextBatch_ = 0;
  std::uint64_t stopBefore_ = 0;  // batches numbered below it are stopped
  bool paused_ = false;
  bool measuring_ = false;
  bool switching_ = false;
  std::atomic<bool> stopSize_{false};
};

}  // namespace helper
