#include "Core/Progress.h"

#include <cstdio>
#include <cstdlib>
#include <numeric>

namespace Core {

Progress::Progress(std::vector<std::int64_t> parts, std::function<void(const double&)> block)
    : valueObservable_(std::move(block)),
      parts_(std::move(parts)),
      total_(std::accumulate(parts_.begin(), parts_.end(), std::int64_t{0})) {}

void Progress::nextPart() {
  ++currentIndex_;
  if (currentIndex_ >= static_cast<std::int64_t>(parts_.size())) {
    std::fputs("Progress::nextPart() called more often than there are parts\n", stderr);
    std::abort();
  }
  current_ += parts_[static_cast<std::size_t>(currentIndex_)];
  partTotal = 0;
  partProgress_ = 0;
  valueObservable_.update([this] { return static_cast<double>(current_) / total_; });
}

void Progress::setPartProgress(std::int64_t steps) {
  partProgress_ = steps;
  publishPartValue();
}

void Progress::advancePart() {
  ++partProgress_;
  publishPartValue();
}

double Progress::value() const {
  std::size_t running = static_cast<std::size_t>(currentIndex_ + 1);
  if (running >= parts_.size()) return static_cast<double>(current_) / total_;
  double weight = static_cast<double>(parts_[running]);
  return (weight * static_cast<double>(partProgress_) / static_cast<double>(partTotal) +
          static_cast<double>(current_)) /
         static_cast<double>(total_);
}

void Progress::publishPartValue() {
  // Steps are published only while a part is running.
  if (static_cast<std::size_t>(currentIndex_ + 1) >= parts_.size()) return;
  valueObservable_.update([this] { return value(); });
}

}  // namespace Core
