#pragma once

// A scan as both hosts run it: made with its options checked, started on the main queue, with
// progress, a stop that keeps what was settled, its report as the JSON of the matching
// `ravelin SUBCOMMAND --json`, and the deletion of paths it reported.

#include <functional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "host/Deletion.h"
#include "host/Host.h"

namespace host {

class ScanJob {
 public:
  virtual ~ScanJob() = default;

  // On the main queue: starts it; `finished` runs once when it has settled, `changed` on each
  // report of progress.
  void start(std::function<void()> finished, std::function<void()> changed = {});
  // It winds down and settles with what it found before the stop.
  virtual void stop() = 0;

  bool finished() const { return finished_; }
  bool stopped() const { return stopped_; }
  double progress() const { return progress_; }
  const std::string& current() const { return current_; }

  // The report, handed to `write` in pieces.
  virtual void writeJson(const std::function<void(std::string_view)>& write) const = 0;
  // Every path the report names that a deletion may name.
  virtual std::vector<std::string> reportedPaths() const = 0;
  // The deletion of `chosen`, each a reported path, with what goes with it; what the host
  // refuses is left alone with the reason.
  virtual DeletionRequest deletion(const std::set<std::string>& chosen) const;

 protected:
  virtual void run() = 0;
  void show(double progress, const std::string& current);
  void showCurrent(const std::string& current);
  // Called once, on the main queue, when the scan has settled.
  void settle();

  bool stopped_ = false;

 private:
  std::function<void()> finishedBlock_, changed_;
  bool started_ = false, finished_ = false;
  double progress_ = 0;
  std::string current_;
};

// Each path once, refused ones left alone with the reason.
DeletionRequest plainDeletion(const std::vector<std::string>& paths);

}  // namespace host
