#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "Core/ValueObservable.h"

namespace Core {

// Turns the work of a scan into one fraction from 0 to 1. The scan is cut into parts of fixed
// weights; the running part is the one after `currentIndex`, and its own steps
// (`partProgress` of `partTotal`) count in proportion to its weight. Every change is offered to
// the same gate as `ValueObservable::update`, and the fraction is computed only when the gate is
// open.
//
// The counters are touched by the scanning thread only.
class Progress {
 public:
  Progress(std::vector<std::int64_t> parts, std::function<void(const double&)> block);

  // The running part is finished; publishes `current / total`. Calling it more often than there
  // are parts is a programming error and aborts.
  void nextPart();
  // Sets the steps of the running part and publishes.
  void setPartProgress(std::int64_t steps);
  // Adds one step to the running part and publishes.
  void advancePart();

  // The number of steps of the running part; the owner sets it before the first step.
  std::int64_t partTotal = 0;

  std::int64_t total() const { return total_; }
  std::int64_t current() const { return current_; }
  std::int64_t currentIndex() const { return currentIndex_; }
  std::int64_t partProgress() const { return partProgress_; }
  // The fraction that a publication now would carry.
  double value() const;

 private:
  void publishPartValue();

  ValueObservable<double> valueObservable_;
  std::vector<std::int64_t> parts_;
  std::int64_t total_ = 0;
  std::int64_t currentIndex_ = -1;
  std::int64_t current_ = 0;
  std::int64_t partProgress_ = 0;
};

}  // namespace Core
