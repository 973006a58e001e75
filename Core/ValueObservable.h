#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>

#include "platform/Dispatch.h"

namespace Core {

// Limits how often a fast-changing value reaches the host. A value is accepted only when none is
// in flight; it is taken at once and delivered to `block` on the main queue 0.03 seconds later,
// and until then every other value is dropped without being produced. The hot path costs one
// flag test and no allocation unless a value goes out.
//
// `update` may be called from any thread; `block` always runs on the main queue.
template <class T>
class ValueObservable {
 public:
  static constexpr std::chrono::milliseconds kDelay{30};

  explicit ValueObservable(std::function<void(const T&)> block)
      : state_(std::make_shared<State>()) {
    state_->block = std::move(block);
  }

  // Publishes the value that `produce` gives, unless a value is in flight; then `produce` isn't
  // called at all.
  template <class Produce>
  void update(Produce&& produce) {
    if (state_->updating.exchange(true)) return;
    T value = produce();
    // The delivery holds the state weakly: once its owner is gone, it does nothing.
    std::weak_ptr<State> weak = state_;
    platform::DispatchQueue::main().asyncAfter(kDelay, [weak, value = std::move(value)] {
      if (auto state = weak.lock()) {
        if (state->block) state->block(value);
        state->updating.store(false);
      }
    });
  }

  bool updating() const { return state_->updating.load(); }

 private:
  struct State {
    std::function<void(const T&)> block;
    std::atomic<bool> updating{false};
  };
  std::shared_ptr<State> state_;
};

}  // namespace Core
