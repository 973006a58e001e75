#include "Core/FileFinderContext.h"

#include <gtest/gtest.h>

#include <atomic>

#include "testsupport/TestSupport.h"

namespace Core {
namespace {

using namespace std::chrono_literals;
using platform::DispatchClock;
using testsupport::drainMainUntil;

TEST(ValueObservableTest, FirstValueOfASpanIsDeliveredLaterOnesDroppedUnproduced) {
  std::vector<int> delivered;
  DispatchClock::time_point deliveredAt;
  ValueObservable<int> observable([&](const int& v) {
    delivered.push_back(v);
    deliveredAt = DispatchClock::now();
  });
  int produced = 0;
  auto offered = DispatchClock::now();
  observable.update([&] { return ++produced, 1; });
  observable.update([&] { return ++produced, 2; });
  EXPECT_EQ(produced, 1);
  EXPECT_TRUE(observable.updating());

  ASSERT_TRUE(drainMainUntil([&] { return !delivered.empty(); }));
  EXPECT_EQ(delivered, std::vector<int>{1});
  EXPECT_GE(deliveredAt - offered, 30ms);
  EXPECT_FALSE(observable.updating());

  // Right after a delivery the gate is open again.
  observable.update([&] { return ++produced, 3; });
  EXPECT_EQ(produced, 2);
  ASSERT_TRUE(drainMainUntil([&] { return delivered.size() == 2; }));
  EXPECT_EQ(delivered.back(), 3);

  // A delivery after the owner is gone does nothing.
  bool called = false;
  {
    ValueObservable<int> gone([&](const int&) { called = true; });
    gone.update([] { return 1; });
  }
  drainMainUntil([] { return false; }, 80ms);
  EXPECT_FALSE(called);
}

TEST(ProgressTest, WeightedPartsAndStepsOfTheRunningPart) {
  std::vector<double> values;
  Progress progress({1, 1, 1, 12}, [&](const double& v) { values.push_back(v); });
  auto publishedNext = [&](auto action) {
    std::size_t before = values.size();
    action();
    EXPECT_TRUE(drainMainUntil([&] { return values.size() > before; }));
    return values.back();
  };
  EXPECT_DOUBLE_EQ(publishedNext([&] { progress.nextPart(); }), 1.0 / 15);
  EXPECT_DOUBLE_EQ(publishedNext([&] { progress.nextPart(); }), 2.0 / 15);
  EXPECT_DOUBLE_EQ(publishedNext([&] { progress.nextPart(); }), 3.0 / 15);
  progress.partTotal = 100;
  EXPECT_DOUBLE_EQ(publishedNext([&] { progress.setPartProgress(50); }), 0.6);
  EXPECT_DOUBLE_EQ(publishedNext([&] { progress.advancePart(); }), (12 * 0.51 + 3) / 15);

  // Counters move even when the gate drops the value: the second step's value is dropped.
  EXPECT_DOUBLE_EQ(publishedNext([&] {
                     progress.advancePart();
                     progress.advancePart();
                   }),
                   (12 * 0.52 + 3) / 15);
  EXPECT_EQ(progress.partProgress(), 53);
  EXPECT_DOUBLE_EQ(publishedNext([&] { progress.nextPart(); }), 1.0);
  EXPECT_EQ(progress.partTotal, 0);
  EXPECT_EQ(progress.partProgress(), 0);
  // Steps after the last part are not published.
  const std::size_t published = values.size();
  progress.advancePart();
  drainMainUntil([] { return false; }, 60ms);
  EXPECT_EQ(values.size(), published);
}

TEST(FileFinderContextTest, InterruptCancelsPendingItemsAndCallsTheActionEachTime) {
  FileFinderContext context([](const std::string&) {});
  EXPECT_FALSE(context.interrupted());
  int actions = 0;
  context.setOnInterrupted([&] { ++actions; });
  bool ran = false;
  auto item = std::make_shared<platform::DispatchWorkItem>([&] { ran = true; });
  context.workItems.push_back(item);

  context.interrupt();
  EXPECT_TRUE(item->isCancelled());
  EXPECT_TRUE(context.workItems.empty());
  EXPECT_EQ(actions, 1);
  item->perform();
  EXPECT_FALSE(ran);

  context.interrupt();
  EXPECT_EQ(actions, 2);
}

TEST(ScanSetupTest, TheScanFindsItsContextOnItsQueueAndSeesInterruption) {
  std::atomic<bool> inside{false};
  std::atomic<bool> sawContext{false};
  std::atomic<bool> sawInterrupt{false};
  std::vector<std::string> urls;
  auto setup =
      startScan([&](const std::string& url) { urls.push_back(url); }, {1, 1}, [](const double&) {},
                [&](const ScanSetup& scan) {
                  auto context = currentContext();
                  sawContext = context == scan.context;
                  context->urlObservable.update([] { return std::string("/scanned"); });
                  inside = true;
                  while (!context->interrupted()) std::this_thread::sleep_for(1ms);
                  sawInterrupt = true;
                });
  ASSERT_TRUE(drainMainUntil([&] { return inside.load() && !urls.empty(); }));
  EXPECT_TRUE(sawContext);
  EXPECT_EQ(urls, std::vector<std::string>{"/scanned"});
  EXPECT_EQ(currentContext(), nullptr);  // not inside a scan here

  setup.context->interrupt();
  setup.queue.sync([] {});
  EXPECT_TRUE(sawInterrupt);
}

}  // namespace
}  // namespace Core
