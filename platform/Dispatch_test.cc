#include "platform/Dispatch.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

#include "testsupport/TestSupport.h"

namespace platform {
namespace {

using namespace std::chrono_literals;
using testsupport::drainMainUntil;

TEST(DispatchQueueTest, SerialQueueRunsInOrderOneAtATime) {
  DispatchQueue queue("serial", QoS::userInitiated);
  constexpr int kProducers = 4;
  constexpr int kTasks = 2000;
  std::atomic<bool> inside{false};
  std::atomic<int> overlaps{0};
  std::mutex seenMutex;
  std::vector<std::vector<int>> seen(kProducers);
  DispatchGroup group;

  std::vector<std::thread> producers;
  for (int p = 0; p < kProducers; ++p) {
    producers.emplace_back([&, p] {
      for (int i = 0; i < kTasks; ++i) {
        queue.async(group, [&, p, i] {
          if (inside.exchange(true)) ++overlaps;
          {
            std::lock_guard lock(seenMutex);
            seen[p].push_back(i);
          }
          inside = false;
        });
      }
    });
  }
  for (auto& t : producers) t.join();
  ASSERT_TRUE(group.wait(10s));

  EXPECT_EQ(overlaps, 0);
  for (const auto& order : seen) {
    ASSERT_EQ(order.size(), static_cast<std::size_t>(kTasks));
    for (int i = 0; i < kTasks; ++i) ASSERT_EQ(order[i], i);
  }
}

TEST(DispatchQueueTest, BlockedSerialQueueDoesNotStarveOthers) {
  DispatchQueue blocked("blocked");
  DispatchQueue other("other");
  DispatchSemaphore gate(0);
  std::atomic<bool> blockedFinished{false};
  std::atomic<bool> mainRan{false};

  blocked.async([&] {
    gate.wait();
    blockedFinished = true;
  });
  // Queued behind the blocked task: must wait for it.
  std::atomic<bool> behind{false};
  blocked.async([&] { behind = true; });

  other.async([&] { DispatchQueue::main().async([&] { mainRan = true; }); });
  EXPECT_TRUE(drainMainUntil([&] { return mainRan.load(); }, 5s));
  EXPECT_FALSE(blockedFinished);
  EXPECT_FALSE(behind);

  gate.signal();
  DispatchSemaphore done(0);
  blocked.async([done] { done.signal(); });
  ASSERT_TRUE(done.wait(5s));
  EXPECT_TRUE(blockedFinished);
  EXPECT_TRUE(behind);
}

TEST(DispatchQueueTest, ConcurrentQueueRunsBlockedTasksSideBySide) {
  DispatchQueue queue("concurrent", QoS::utility, DispatchQueue::Attributes::concurrent);
  // Each task waits until all of them are running; a pool that didn't grow would time out.
  constexpr int kTasks = 16;
  std::atomic<int> running{0};
  std::atomic<int> sawAll{0};
  DispatchGroup group;
  for (int i = 0; i < kTasks; ++i) {
    queue.async(group, [&] {
      ++running;
      auto deadline = std::chrono::steady_clock::now() + 5s;
      while (running < kTasks && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(1ms);
      }
      if (running == kTasks) ++sawAll;
    });
  }
  ASSERT_TRUE(group.wait(10s));
  EXPECT_EQ(sawAll, kTasks);
}

TEST(DispatchQueueTest, SyncRunsOnTheQueueAndInlineFromItself) {
  DispatchQueue queue("sync");
  static DispatchSpecificKey<int> key;
  queue.setSpecific(key, std::make_shared<int>(7));

  int seen = 0;
  queue.sync([&] {
    seen = *DispatchQueue::currentSpecific(key);
    // A nested sync on the same queue must not deadlock.
    queue.sync([&] { seen += 1; });
  });
  EXPECT_EQ(seen, 8);
}

TEST(DispatchQueueTest, SpecificValueIsSeenOnlyByTasksOfItsQueue) {
  static DispatchSpecificKey<std::string> key;
  DispatchQueue owner("owner");
  DispatchQueue stranger("stranger");
  owner.setSpecific(key, std::make_shared<std::string>("context"));

  std::shared_ptr<std::string> onOwner, onStranger;
  owner.sync([&] { onOwner = DispatchQueue::currentSpecific(key); });
  stranger.sync([&] { onStranger = DispatchQueue::currentSpecific(key); });

  ASSERT_NE(onOwner, nullptr);
  EXPECT_EQ(*onOwner, "context");
  EXPECT_EQ(onStranger, nullptr);
  EXPECT_EQ(DispatchQueue::currentSpecific(key), nullptr);
  EXPECT_EQ(*owner.getSpecific(key), "context");

  owner.setSpecific<std::string>(key, nullptr);
  owner.sync([&] { onOwner = DispatchQueue::currentSpecific(key); });
  EXPECT_EQ(onOwner, nullptr);
}

TEST(DispatchWorkItemTest, CancelBeforeStartSkipsTheBlock) {
  DispatchQueue queue("items");
  DispatchSemaphore gate(0);
  queue.async([&] { gate.wait(); });  // hold the queue so the item can't start yet

  std::atomic<bool> ran{false};
  auto item = std::make_shared<DispatchWorkItem>([&] { ran = true; });
  queue.async(item);
  item->cancel();
  gate.signal();

  ASSERT_TRUE(item->wait(5s));
  EXPECT_FALSE(ran);
  EXPECT_TRUE(item->isCancelled());
}

TEST(DispatchWorkItemTest, CancelAfterStartLetsTheBlockFinish) {
  DispatchQueue queue("items");
  DispatchSemaphore started(0), proceed(0);
  std::atomic<bool> finished{false};
  std::atomic<bool> sawCancel{false};
  std::shared_ptr<DispatchWorkItem> item;
  item = std::make_shared<DispatchWorkItem>([&] {
    started.signal();
    proceed.wait();
    sawCancel = item->isCancelled();
    finished = true;
  });
  queue.async(item);
  ASSERT_TRUE(started.wait(5s));
  item->cancel();
  proceed.signal();

  ASSERT_TRUE(item->wait(5s));
  EXPECT_TRUE(finished);
  EXPECT_TRUE(sawCancel);
}

TEST(DispatchWorkItemTest, PerformsAtMostOnce) {
  int runs = 0;
  DispatchWorkItem item([&] { ++runs; });
  item.perform();
  item.perform();
  EXPECT_EQ(runs, 1);
}

TEST(DispatchGroupTest, NotifyRunsAfterTheLastLeave) {
  DispatchGroup group;
  std::atomic<bool> notified{false};
  group.enter();
  group.enter();
  group.notify(DispatchQueue::main(), [&] { notified = true; });

  group.leave();
  runMain();
  EXPECT_FALSE(notified);

  group.leave();
  EXPECT_TRUE(drainMainUntil([&] { return notified.load(); }, 5s));
}

TEST(DispatchGroupTest, NotifyOnAnEmptyGroupRunsAtOnceAndWaitTimesOut) {
  DispatchGroup group;
  std::atomic<bool> notified{false};
  group.notify(DispatchQueue::main(), [&] { notified = true; });
  EXPECT_TRUE(drainMainUntil([&] { return notified.load(); }, 5s));

  group.enter();
  EXPECT_FALSE(group.wait(20ms));
  group.leave();
  EXPECT_TRUE(group.wait(0ms));
}

TEST(DispatchAfterTest, NeverRunsEarlyAndKeepsDeadlineOrder) {
  DispatchQueue queue("after");
  std::mutex mutex;
  std::vector<std::pair<int, DispatchClock::duration>> fired;
  auto start = DispatchClock::now();
  DispatchSemaphore done(0);
  // The semaphore is a handle, copied into each block, and signalled once the lock is let go:
  // the test may end as soon as it is signalled, and take its mutex with it.
  queue.asyncAfter(60ms, [&, done] {
    {
      std::lock_guard lock(mutex);
      fired.emplace_back(60, DispatchClock::now() - start);
    }
    done.signal();
  });
  queue.asyncAfter(20ms, [&, done] {
    {
      std::lock_guard lock(mutex);
      fired.emplace_back(20, DispatchClock::now() - start);
    }
    done.signal();
  });
  ASSERT_TRUE(done.wait(5s));
  ASSERT_TRUE(done.wait(5s));

  ASSERT_EQ(fired.size(), 2u);
  EXPECT_EQ(fired[0].first, 20);
  EXPECT_GE(fired[0].second, 20ms);
  EXPECT_EQ(fired[1].first, 60);
  EXPECT_GE(fired[1].second, 60ms);
}

TEST(DispatchAfterTest, CancelledDelayedItemNeverRuns) {
  std::atomic<bool> ran{false};
  auto item = std::make_shared<DispatchWorkItem>([&] { ran = true; });
  DispatchQueue::main().asyncAfter(10ms, item);
  item->cancel();
  drainMainUntil([] { return false; }, 50ms);
  EXPECT_FALSE(ran);
}

TEST(MainQueueTest, RunMainUntilHonoursTheTimeout) {
  auto start = DispatchClock::now();
  EXPECT_FALSE(runMainUntil([] { return false; }, 50ms));
  EXPECT_GE(DispatchClock::now() - start, 50ms);
}

TEST(MainQueueTest, RunMainDrainsWhatIsQueuedAndWhatThatQueues) {
  std::vector<int> order;
  auto main = DispatchQueue::main();
  main.async([&] {
    order.push_back(1);
    main.async([&] { order.push_back(3); });
  });
  main.async([&] { order.push_back(2); });
  EXPECT_EQ(runMain(), 3u);
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
  EXPECT_TRUE(main.isSerial());
}

TEST(DispatchSemaphoreTest, TimedWaitGivesUpAndCountsSignals) {
  DispatchSemaphore semaphore(1);
  EXPECT_TRUE(semaphore.wait(0ms));
  EXPECT_FALSE(semaphore.wait(20ms));
  semaphore.signal();
  semaphore.signal();
  EXPECT_TRUE(semaphore.wait(0ms));
  EXPECT_TRUE(semaphore.wait(0ms));
  EXPECT_FALSE(semaphore.wait(0ms));
}

TEST(DispatchQueueTest, AForkedChildRunsItsOwnTasksAndTimers) {
  // The parent's pool has an idle worker and a timer thread; the child has neither thread.
  DispatchGroup warm;
  DispatchQueue::global().async(warm, [] {});
  warm.wait();
  DispatchQueue::global().asyncAfter(1ms, [] {});
  std::this_thread::sleep_for(20ms);
  pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    ::alarm(10);  // a task handed to a thread that isn't there would wait forever
    DispatchGroup group;
    std::atomic<int> ran{0};
    DispatchQueue::global().async(group, [&] { ++ran; });
    group.enter();
    DispatchQueue::global().asyncAfter(1ms, [&] {
      ++ran;
      group.leave();
    });
    group.wait();
    ::_exit(ran == 2 ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status)) << "the child was killed by signal " << WTERMSIG(status);
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(DispatchQueueTest, KeepsLabelAndQualityOfService) {
  DispatchQueue queue("start()", QoS::userInitiated);
  EXPECT_EQ(queue.label(), "start()");
  EXPECT_EQ(queue.qos(), QoS::userInitiated);
  EXPECT_TRUE(queue.isSerial());
  EXPECT_FALSE(DispatchQueue::global().isSerial());
  EXPECT_EQ(DispatchQueue::global(QoS::utility), DispatchQueue::global(QoS::utility));
  EXPECT_EQ(toString(QoS::userInitiated), "user-initiated");
}

}  // namespace
}  // namespace platform
