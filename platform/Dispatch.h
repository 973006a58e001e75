#pragma once

// Queues, work items, semaphores and groups in the shape of libdispatch, which every scanner of
// the library is written against.
//
// Serial queues run their tasks in order, one at a time; concurrent queues run many at once.
// Both run on a shared pool of worker threads that grows whenever no idle worker is free, so a
// task blocked on a semaphore never keeps another queue from running. The main queue has no
// thread of its own: the host drains it with `runMain()` or `runMainUntil()`, and everything the
// library reports to a host arrives there.
//
// All types here are handles to shared state and may be copied and used from any thread.

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace platform {

// Kept with each queue for debugging and thread names; it does not change scheduling.
enum class QoS { background, utility, unspecified, userInitiated, userInteractive };

std::string_view toString(QoS qos);

using DispatchClock = std::chrono::steady_clock;

namespace detail {
struct QueueState;
struct GroupState;
struct SemaphoreState;
}  // namespace detail

// A block that can be cancelled before it starts. Performing a cancelled item does nothing;
// cancelling an item that has started lets it finish (the block may poll `isCancelled()`).
class DispatchWorkItem {
 public:
  explicit DispatchWorkItem(std::function<void()> block);
  DispatchWorkItem(const DispatchWorkItem&) = delete;
  DispatchWorkItem& operator=(const DispatchWorkItem&) = delete;

  // Runs the block on the calling thread unless the item was cancelled. Runs it at most once.
  void perform();
  void cancel();
  bool isCancelled() const;
  // Blocks until `perform()` has returned (or found the item cancelled).
  void wait();
  // As `wait()`, giving false when `timeout` passed first.
  bool wait(std::chrono::nanoseconds timeout);

 private:
  struct State;
  std::shared_ptr<State> state_;
};

// A key for values attached to a queue. Keys are told apart by address, so each key is one
// long-lived object (usually a function-local static).
template <class T>
class DispatchSpecificKey {
 public:
  DispatchSpecificKey() = default;
  DispatchSpecificKey(const DispatchSpecificKey&) = delete;
  DispatchSpecificKey& operator=(const DispatchSpecificKey&) = delete;
};

class DispatchGroup;

// The processors this process may use, at least 1; looked up once.
unsigned processorCount();

class DispatchQueue {
 public:
  enum class Attributes { serial, concurrent };

  // Makes a new queue. Its worker starts when the first task arrives.
  explicit DispatchQueue(std::string label, QoS qos = QoS::unspecified,
                         Attributes attributes = Attributes::serial);

  // The queue that the host drains with `runMain()`; the same queue every time.
  static DispatchQueue main();
  // A process-wide concurrent queue for each quality of service.
  static DispatchQueue global(QoS qos = QoS::unspecified);

  const std::string& label() const;
  QoS qos() const;
  bool isSerial() const;
  bool isMain() const;

  void async(std::function<void()> block) const;
  void async(std::shared_ptr<DispatchWorkItem> item) const;
  // Enters `group` now and leaves it when the block has run.
  void async(const DispatchGroup& group, std::function<void()> block) const;

  // Runs the block on this queue and returns when it has run. Called from a task of this same
  // queue, the block runs at once on the calling thread instead of deadlocking.
  void sync(const std::function<void()>& block) const;

  // Queues the block no sooner than `delay` from now.
  void asyncAfter(std::chrono::nanoseconds delay, std::function<void()> block) const;
  void asyncAfter(std::chrono::nanoseconds delay, std::shared_ptr<DispatchWorkItem> item) const;

  // Attaches `value` to this queue under `key`; nullptr removes it.
  template <class T>
  void setSpecific(const DispatchSpecificKey<T>& key, std::shared_ptr<T> value) const {
    setSpecificRaw(&key, std::move(value));
  }
  // The value under `key` of this queue.
  template <class T>
  std::shared_ptr<T> getSpecific(const DispatchSpecificKey<T>& key) const {
    return std::static_pointer_cast<T>(getSpecificRaw(&key));
  }
  // The value under `key` of the queue running the calling code; nullptr outside any queue.
  template <class T>
  static std::shared_ptr<T> currentSpecific(const DispatchSpecificKey<T>& key) {
    return std::static_pointer_cast<T>(currentSpecificRaw(&key));
  }

  // True when the calling code runs as a task of this queue.
  bool isCurrent() const;

  friend bool operator==(const DispatchQueue& a, const DispatchQueue& b) {
    return a.state_ == b.state_;
  }

 private:
  explicit DispatchQueue(std::shared_ptr<detail::QueueState> state);
  void setSpecificRaw(const void* key, std::shared_ptr<void> value) const;
  std::shared_ptr<void> getSpecificRaw(const void* key) const;
  static std::shared_ptr<void> currentSpecificRaw(const void* key);

  std::shared_ptr<detail::QueueState> state_;
};

// Runs every task that is due on the main queue at the time of the call, and those they queue
// in turn, then returns the number run. Called by the host on its main thread.
std::size_t runMain();

// Runs main-queue tasks as they arrive until `done()` is true or `timeout` has passed, and gives
// the last answer of `done()`. `done()` is asked before waiting and after every task.
bool runMainUntil(const std::function<bool()>& done, std::chrono::nanoseconds timeout);

// A counting semaphore.
class DispatchSemaphore {
 public:
  explicit DispatchSemaphore(long value = 0);
  void signal() const;
  void wait() const;
  // Gives false when `timeout` passed before a signal could be taken.
  bool wait(std::chrono::nanoseconds timeout) const;

 private:
  std::shared_ptr<detail::SemaphoreState> state_;
};

// Counts tasks in flight; `notify` blocks run once the count falls to zero.
class DispatchGroup {
 public:
  DispatchGroup();
  void enter() const;
  // Leaving more often than entering is a programming error and aborts.
  void leave() const;
  // Queues `block` on `queue` when the group is empty: at once if it is empty now.
  void notify(const DispatchQueue& queue, std::function<void()> block) const;
  void wait() const;
  bool wait(std::chrono::nanoseconds timeout) const;

 private:
  std::shared_ptr<detail::GroupState> state_;
};

}  // namespace platform
