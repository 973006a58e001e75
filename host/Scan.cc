#include "host/Scan.h"

namespace host {

void ScanJob::start(std::function<void()> finished, std::function<void()> changed) {
  if (started_) return;
  started_ = true;
  finishedBlock_ = std::move(finished);
  changed_ = std::move(changed);
  run();
}

void ScanJob::show(double progress, const std::string& current) {
  progress_ = progress;
  current_ = current;
  if (changed_) changed_();
}

void ScanJob::showCurrent(const std::string& current) { show(progress_, current); }

void ScanJob::settle() {
  if (finished_) return;
  finished_ = true;
  progress_ = 1;
  if (auto done = std::move(finishedBlock_)) done();
}

DeletionRequest ScanJob::deletion(const std::set<std::string>& chosen) const {
  return plainDeletion({chosen.begin(), chosen.end()});
}

DeletionRequest plainDeletion(const std::vector<std::string>& paths) {
  DeletionRequest request;
  std::set<std::string> seen;
  for (const auto& path : paths) {
    if (!seen.insert(path).second) continue;
    if (auto refused = hostRefusal(path)) {
      request.leftAlone.emplace_back(path, "refused: " + *refused);
    } else {
      request.paths.push_back(path);
    }
  }
  return request;
}

}  // namespace host
