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

// A queue's specific value is seen by its own tasks only, and a sync from inside the queue runs
// inline instead of waiting for itself.
TEST(DispatchQueueTest, SpecificValuesAndSyncFromTheQueueItself) {
  static DispatchSpecificKey<std::string> key;
  DispatchQueue owner("owner");
  DispatchQueue stranger("stranger");
  owner.setSpecific(key, std::make_shared<std::string>("context"));

  std::shared_ptr<std::string> onOwner, onStranger;
  owner.sync([&] { owner.sync([&] { onOwner = DispatchQueue::currentSpecific(key); }); });
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

// A cancelled item never starts; one cancelled while it runs finishes and sees the cancel; an
// item runs at most once however often it is performed.
TEST(DispatchWorkItemTest, CancelSkipsAnItemNotStartedAndLetsARunningOneFinish) {
  DispatchQueue queue("items");
  DispatchSemaphore gate(0), started(0), proceed(0);
  queue.async([&] { gate.wait(); });  // hold the queue so the item can't start yet
  std::atomic<bool> ran{false}, finished{false}, sawCancel{false};
  auto skipped = std::make_shared<DispatchWorkItem>([&] { ran = true; });
  queue.async(skipped);
  skipped->cancel();
  gate.signal();
  ASSERT_TRUE(skipped->wait(5s));
  EXPECT_FALSE(ran);

  std::shared_ptr<DispatchWorkItem> running;
  running = std::make_shared<DispatchWorkItem>([&] {
    started.signal();
    proceed.wait();
    sawCancel = running->isCancelled();
    finished = true;
  });
  queue.async(running);
  ASSERT_TRUE(started.wait(5s));
  running->cancel();
  proceed.signal();
  ASSERT_TRUE(running->wait(5s));
  EXPECT_TRUE(finished && sawCancel);

  int runs = 0;
  DispatchWorkItem once([&] { ++runs; });
  once.perform();
  once.perform();
  EXPECT_EQ(runs, 1);
}

TEST(DispatchGroupTest, NotifyRunsAfterTheLastLeaveAndAtOnceWhenEmpty) {
  DispatchGroup group;
  std::atomic<bool> notified{false}, emptyNotified{false};
  group.enter();
  group.enter();
  group.notify(DispatchQueue::main(), [&] { notified = true; });
  group.leave();
  runMain();
  EXPECT_FALSE(notified);
  EXPECT_FALSE(group.wait(20ms));
  group.leave();
  EXPECT_TRUE(drainMainUntil([&] { return notified.load(); }, 5s));
  EXPECT_TRUE(group.wait(0ms));

  DispatchGroup empty;
  empty.notify(DispatchQueue::main(), [&] { emptyNotified = true; });
  EXPECT_TRUE(drainMainUntil([&] { return emptyNotified.load(); }, 5s));
}

TEST(DispatchAfterTest, NeverRunsEarlyKeepsDeadlineOrderAndHonoursACancel) {
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

  // A delayed item cancelled before its time never runs.
  std::atomic<bool> ran{false};
  auto item = std::make_shared<DispatchWorkItem>([&] { ran = true; });
  DispatchQueue::main().asyncAfter(10ms, item);
  item->cancel();
  drainMainUntil([] { return false; }, 50ms);
  EXPECT_FALSE(ran);
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
  // Waiting for what never comes ends at the timeout, not before.
  auto start = DispatchClock::now();
  EXPECT_FALSE(runMainUntil([] { return false; }, 50ms));
  EXPECT_GE(DispatchClock::now() - start, 50ms);
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

}  // namespace
}  // namespace platform
