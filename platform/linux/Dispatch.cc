#include "platform/Dispatch.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <queue>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <vector>

namespace platform {

unsigned processorCount() {
  static const unsigned count = std::max(1u, std::thread::hardware_concurrency());
  return count;
}

std::string_view toString(QoS qos) {
  switch (qos) {
    case QoS::background:
      return "background";
    case QoS::utility:
      return "utility";
    case QoS::unspecified:
      return "unspecified";
    case QoS::userInitiated:
      return "user-initiated";
    case QoS::userInteractive:
      return "user-interactive";
  }
  return "unspecified";
}

namespace detail {

enum class QueueKind { serial, concurrent, main };

struct QueueState {
  QueueState(std::string l, QoS q, QueueKind k) : label(std::move(l)), qos(q), kind(k) {}

  const std::string label;
  const QoS qos;
  const QueueKind kind;

  std::mutex mutex;
  std::condition_variable arrived;  // main queue only: a task was queued
  std::deque<std::function<void()>> pending;
  bool draining = false;  // serial queues: a worker owns the queue

  std::mutex specificsMutex;
  std::unordered_map<const void*, std::shared_ptr<void>> specifics;
};

struct SemaphoreState {
  std::mutex mutex;
  std::condition_variable signalled;
  long value = 0;
};

struct GroupState {
  std::mutex mutex;
  std::condition_variable emptied;
  long count = 0;
  std::vector<std::pair<DispatchQueue, std::function<void()>>> notifications;
};

}  // namespace detail

namespace {

using detail::QueueKind;
using detail::QueueState;

thread_local QueueState* tCurrentQueue = nullptr;

// Runs `task` as a task of `queue`, so that `isCurrent` and `currentSpecific` see the queue.
void runAsTaskOf(QueueState* queue, const std::function<void()>& task) {
  QueueState* previous = tCurrentQueue;
  tCurrentQueue = queue;
  task();
  tCurrentQueue = previous;
}

void nameThread(const std::string& label) {
  char name[16] = {};
  label.copy(name, sizeof(name) - 1);
  pthread_setname_np(pthread_self(), name[0] ? name : "dispatch");
}

// Worker threads shared by all queues. A job never waits for a thread: when no worker is idle a
// new one starts, so tasks that block (on a semaphore, a helper's reply) can't starve others.
// Workers that stay idle for a while exit. The pool lives for the whole process and is never
// destroyed, so detached workers never touch a destroyed mutex at exit. A child made by `fork`
// has none of its parent's threads: it starts with a pool of its own, or its first job would be
// handed to a worker the counts say is idle and that doesn't exist there.
class WorkerPool {
 public:
  static WorkerPool& shared() {
    static WorkerPool* pool = [] {
      ::pthread_atfork(nullptr, nullptr, [] { current = new WorkerPool; });
      return current = new WorkerPool;
    }();
    (void)pool;
    return *current;
  }

  void submit(std::function<void()> job) {
    std::unique_lock lock(mutex_);
    jobs_.push_back(std::move(job));
    if (jobs_.size() > idle_ && threads_ < kMaxThreads) {
      ++threads_;
      lock.unlock();
      try {
        std::thread([this] { workerLoop(); }).detach();
      } catch (const std::system_error&) {
        // The process can't have another thread now: the job waits for a worker that has one.
        lock.lock();
        --threads_;
        lock.unlock();
        wake_.notify_one();
      }
    } else {
      lock.unlock();
      wake_.notify_one();
    }
  }

 private:
  static constexpr std::size_t kMaxThreads = 512;
  static constexpr auto kIdleExit = std::chrono::seconds(10);

  void workerLoop() {
    std::unique_lock lock(mutex_);
    for (;;) {
      if (jobs_.empty()) {
        ++idle_;
        bool got = wake_.wait_for(lock, kIdleExit, [this] { return !jobs_.empty(); });
        --idle_;
        if (!got) {
          --threads_;
          return;
        }
      }
      std::function<void()> job = std::move(jobs_.front());
      jobs_.pop_front();
      lock.unlock();
      job();
      job = nullptr;  // release captures before taking the lock again
      lock.lock();
    }
  }

  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::function<void()>> jobs_;
  std::size_t idle_ = 0;
  std::size_t threads_ = 0;
  static inline WorkerPool* current = nullptr;  // the parent's pool is left behind in a child
};

// Holds delayed tasks until their deadline, then queues them. One thread, started on first use.
class Timer {
 public:
  static Timer& shared() {
    static Timer* timer = [] {
      ::pthread_atfork(nullptr, nullptr, [] { current = new Timer; });  // as for the pool
      return current = new Timer;
    }();
    (void)timer;
    return *current;
  }

  void schedule(DispatchClock::time_point deadline, DispatchQueue queue,
                std::function<void()> task) {
    {
      std::lock_guard lock(mutex_);
      entries_.push(Entry{deadline, sequence_++, std::move(queue), std::move(task)});
      if (!started_) {
        started_ = true;
        std::thread([this] { loop(); }).detach();
      }
    }
    changed_.notify_one();
  }

 private:
  struct Entry {
    DispatchClock::time_point deadline;
    std::uint64_t sequence;
    DispatchQueue queue;
    std::function<void()> task;
  };
  struct Later {
    bool operator()(const Entry& a, const Entry& b) const {
      return a.deadline != b.deadline ? a.deadline > b.deadline : a.sequence > b.sequence;
    }
  };

  void loop() {
    nameThread("dispatch-timer");
    std::unique_lock lock(mutex_);
    for (;;) {
      if (entries_.empty()) {
        changed_.wait(lock);
        continue;
      }
      auto deadline = entries_.top().deadline;
      if (DispatchClock::now() < deadline) {
        changed_.wait_until(lock, deadline);
        continue;  // woken early, or an earlier entry arrived
      }
      Entry entry = std::move(const_cast<Entry&>(entries_.top()));
      entries_.pop();
      lock.unlock();
      entry.queue.async(std::move(entry.task));
      lock.lock();
    }
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::priority_queue<Entry, std::vector<Entry>, Later> entries_;
  std::uint64_t sequence_ = 0;
  bool started_ = false;
  static inline Timer* current = nullptr;  // the parent's timer is left behind in a child
};

std::shared_ptr<QueueState> mainState() {
  static auto* state = new std::shared_ptr<QueueState>(
      std::make_shared<QueueState>("com.apple.main-thread", QoS::userInteractive, QueueKind::main));
  return *state;
}

void drainSerial(const std::shared_ptr<QueueState>& state) {
  nameThread(state->label);
  for (;;) {
    std::function<void()> task;
    {
      std::lock_guard lock(state->mutex);
      if (state->pending.empty()) {
        state->draining = false;
        return;
      }
      task = std::move(state->pending.front());
      state->pending.pop_front();
    }
    runAsTaskOf(state.get(), task);
  }
}

// Takes one due main-queue task, waiting until `deadline` for one to arrive.
std::function<void()> takeMainTask(DispatchClock::time_point deadline) {
  auto state = mainState();
  std::unique_lock lock(state->mutex);
  if (!state->arrived.wait_until(lock, deadline, [&] { return !state->pending.empty(); })) {
    return nullptr;
  }
  auto task = std::move(state->pending.front());
  state->pending.pop_front();
  return task;
}

}  // namespace

// MARK: - DispatchWorkItem

struct DispatchWorkItem::State {
  std::function<void()> block;
  std::atomic<bool> cancelled{false};
  std::mutex mutex;
  std::condition_variable finished;
  bool started = false;
  bool done = false;
};

DispatchWorkItem::DispatchWorkItem(std::function<void()> block)
    : state_(std::make_shared<State>()) {
  state_->block = std::move(block);
}

void DispatchWorkItem::perform() {
  {
    std::lock_guard lock(state_->mutex);
    if (state_->started) return;
    state_->started = true;
  }
  if (!state_->cancelled.load()) state_->block();
  {
    std::lock_guard lock(state_->mutex);
    state_->done = true;
    state_->block = nullptr;
  }
  state_->finished.notify_all();
}

void DispatchWorkItem::cancel() { state_->cancelled.store(true); }

bool DispatchWorkItem::isCancelled() const { return state_->cancelled.load(); }

void DispatchWorkItem::wait() {
  std::unique_lock lock(state_->mutex);
  state_->finished.wait(lock, [&] { return state_->done; });
}

bool DispatchWorkItem::wait(std::chrono::nanoseconds timeout) {
  std::unique_lock lock(state_->mutex);
  return state_->finished.wait_for(lock, timeout, [&] { return state_->done; });
}

// MARK: - DispatchQueue

DispatchQueue::DispatchQueue(std::string label, QoS qos, Attributes attributes)
    : state_(std::make_shared<QueueState>(
          std::move(label), qos,
          attributes == Attributes::serial ? QueueKind::serial : QueueKind::concurrent)) {}

DispatchQueue::DispatchQueue(std::shared_ptr<QueueState> state) : state_(std::move(state)) {}

DispatchQueue DispatchQueue::main() { return DispatchQueue(mainState()); }

DispatchQueue DispatchQueue::global(QoS qos) {
  static auto* queues = [] {
    auto* all = new std::vector<std::shared_ptr<QueueState>>;
    for (QoS q : {QoS::background, QoS::utility, QoS::unspecified, QoS::userInitiated,
                  QoS::userInteractive}) {
      all->push_back(std::make_shared<QueueState>("com.apple.root." + std::string(toString(q)), q,
                                                  QueueKind::concurrent));
    }
    return all;
  }();
  return DispatchQueue((*queues)[static_cast<std::size_t>(qos)]);
}

const std::string& DispatchQueue::label() const { return state_->label; }
QoS DispatchQueue::qos() const { return state_->qos; }
bool DispatchQueue::isSerial() const { return state_->kind != QueueKind::concurrent; }
bool DispatchQueue::isMain() const { return state_->kind == QueueKind::main; }
bool DispatchQueue::isCurrent() const { return tCurrentQueue == state_.get(); }

void DispatchQueue::async(std::function<void()> block) const {
  switch (state_->kind) {
    case QueueKind::main: {
      {
        std::lock_guard lock(state_->mutex);
        state_->pending.push_back(std::move(block));
      }
      state_->arrived.notify_all();
      return;
    }
    case QueueKind::serial: {
      std::unique_lock lock(state_->mutex);
      state_->pending.push_back(std::move(block));
      if (state_->draining) return;
      state_->draining = true;
      lock.unlock();
      WorkerPool::shared().submit([state = state_] { drainSerial(state); });
      return;
    }
    case QueueKind::concurrent:
      WorkerPool::shared().submit([state = state_, block = std::move(block)] {
        nameThread(state->label);
        runAsTaskOf(state.get(), block);
      });
      return;
  }
}

void DispatchQueue::async(std::shared_ptr<DispatchWorkItem> item) const {
  async([item = std::move(item)] { item->perform(); });
}

void DispatchQueue::async(const DispatchGroup& group, std::function<void()> block) const {
  group.enter();
  async([group, block = std::move(block)] {
    block();
    group.leave();
  });
}

void DispatchQueue::sync(const std::function<void()>& block) const {
  if (isCurrent() || state_->kind == QueueKind::concurrent) {
    runAsTaskOf(state_.get(), block);
    return;
  }
  DispatchSemaphore done;
  async([&block, done] {
    block();
    done.signal();
  });
  done.wait();
}

void DispatchQueue::asyncAfter(std::chrono::nanoseconds delay, std::function<void()> block) const {
  Timer::shared().schedule(DispatchClock::now() + delay, *this, std::move(block));
}

void DispatchQueue::asyncAfter(std::chrono::nanoseconds delay,
                               std::shared_ptr<DispatchWorkItem> item) const {
  asyncAfter(delay, [item = std::move(item)] { item->perform(); });
}

void DispatchQueue::setSpecificRaw(const void* key, std::shared_ptr<void> value) const {
  std::lock_guard lock(state_->specificsMutex);
  if (value) {
    state_->specifics[key] = std::move(value);
  } else {
    state_->specifics.erase(key);
  }
}

std::shared_ptr<void> DispatchQueue::getSpecificRaw(const void* key) const {
  std::lock_guard lock(state_->specificsMutex);
  auto it = state_->specifics.find(key);
  return it == state_->specifics.end() ? nullptr : it->second;
}

std::shared_ptr<void> DispatchQueue::currentSpecificRaw(const void* key) {
  QueueState* current = tCurrentQueue;
  if (current == nullptr) return nullptr;
  std::lock_guard lock(current->specificsMutex);
  auto it = current->specifics.find(key);
  return it == current->specifics.end() ? nullptr : it->second;
}

// MARK: - Main queue draining

std::size_t runMain() {
  std::size_t ran = 0;
  auto state = mainState();
  while (auto task = takeMainTask(DispatchClock::time_point::min())) {
    runAsTaskOf(state.get(), task);
    ++ran;
  }
  return ran;
}

bool runMainUntil(const std::function<bool()>& done, std::chrono::nanoseconds timeout) {
  auto deadline = DispatchClock::now() + timeout;
  auto state = mainState();
  for (;;) {
    if (done()) return true;
    auto task = takeMainTask(deadline);
    if (!task) return done();
    runAsTaskOf(state.get(), task);
  }
}

// MARK: - DispatchSemaphore

DispatchSemaphore::DispatchSemaphore(long value)
    : state_(std::make_shared<detail::SemaphoreState>()) {
  state_->value = value;
}

void DispatchSemaphore::signal() const {
  {
    std::lock_guard lock(state_->mutex);
    ++state_->value;
  }
  state_->signalled.notify_one();
}

void DispatchSemaphore::wait() const {
  std::unique_lock lock(state_->mutex);
  state_->signalled.wait(lock, [&] { return state_->value > 0; });
  --state_->value;
}

bool DispatchSemaphore::wait(std::chrono::nanoseconds timeout) const {
  std::unique_lock lock(state_->mutex);
  if (!state_->signalled.wait_for(lock, timeout, [&] { return state_->value > 0; })) return false;
  --state_->value;
  return true;
}

// MARK: - DispatchGroup

DispatchGroup::DispatchGroup() : state_(std::make_shared<detail::GroupState>()) {}

void DispatchGroup::enter() const {
  std::lock_guard lock(state_->mutex);
  ++state_->count;
}

void DispatchGroup::leave() const {
  std::vector<std::pair<DispatchQueue, std::function<void()>>> ready;
  {
    std::lock_guard lock(state_->mutex);
    if (state_->count <= 0) {
      std::fputs("DispatchGroup::leave() without a matching enter()\n", stderr);
      std::abort();
    }
    if (--state_->count > 0) return;
    ready.swap(state_->notifications);
  }
  state_->emptied.notify_all();
  for (auto& [queue, block] : ready) queue.async(std::move(block));
}

void DispatchGroup::notify(const DispatchQueue& queue, std::function<void()> block) const {
  {
    std::lock_guard lock(state_->mutex);
    if (state_->count > 0) {
      state_->notifications.emplace_back(queue, std::move(block));
      return;
    }
  }
  queue.async(std::move(block));
}

void DispatchGroup::wait() const {
  std::unique_lock lock(state_->mutex);
  state_->emptied.wait(lock, [&] { return state_->count == 0; });
}

bool DispatchGroup::wait(std::chrono::nanoseconds timeout) const {
  std::unique_lock lock(state_->mutex);
  return state_->emptied.wait_for(lock, timeout, [&] { return state_->count == 0; });
}

}  // namespace platform
