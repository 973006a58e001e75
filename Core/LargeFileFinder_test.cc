#include "Core/LargeFileFinder.h"

#include <gtest/gtest.h>

#include "testsupport/TestSupport.h"

namespace Core {
namespace {

using namespace std::chrono_literals;

class RecordingDelegate final : public LargeFileFinderDelegate {
 public:
  void largeFileFinderCurrentURL(const std::string& url) override { urls.push_back(url); }
  void largeFileFinderFound(const std::vector<File>& files) override {
    found = files;
    ++finishes;
  }
  std::vector<std::string> urls;
  std::vector<File> found;
  int finishes = 0;
};

using testsupport::ScriptedQuery;

// Items the index gives without a path or a size are left out, of the report and the progress.
TEST(LargeFileFinderTest, ItemsWithoutAttributesAreSkipped) {
  auto owned = std::make_unique<ScriptedQuery>();
  ScriptedQuery& query = *owned;
  LargeFileFinder finder(std::move(owned));
  auto delegate = std::make_shared<RecordingDelegate>();
  finder.delegate = delegate;
  finder.start(0);
  query.items = {{"/home/a", 30}, {std::nullopt, 20}, {"/home/c", std::nullopt}, {"/home/d", 5}};
  query.update();
  EXPECT_EQ(delegate->urls, std::vector<std::string>{"/home/d"});
  query.finish();
  EXPECT_EQ(query.stops, 1);
  EXPECT_EQ(delegate->found, (std::vector<File>{{"/home/a", 30}, {"/home/d", 5}}));
}

class LargeFileFinderTreeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    tmp_.write("home/exact", std::string(1000, 'x'));
    tmp_.write("home/below", std::string(999, 'x'));
    tmp_.write("home/deep/er/big", std::string(5000, 'x'));
    tmp_.write("home/deep/also", std::string(1000, 'y'));
    tmp_.symlink("home/link-to-big", tmp_ / "home/deep/er/big");
    finder_.searchScopes = {tmp_ / "home"};
    finder_.delegate = delegate_;
  }

  testsupport::TempDir tmp_;
  LargeFileFinder finder_;
  std::shared_ptr<RecordingDelegate> delegate_ = std::make_shared<RecordingDelegate>();
};

TEST_F(LargeFileFinderTreeTest, FindsFilesOfAtLeastTheSizeLargestFirst) {
  finder_.start(1000);
  ASSERT_TRUE(testsupport::drainMainUntil([&] { return delegate_->finishes == 1; }));
  EXPECT_EQ(delegate_->found, (std::vector<File>{{tmp_ / "home/deep/er/big", 5000},
                                                 {tmp_ / "home/deep/also", 1000},
                                                 {tmp_ / "home/exact", 1000}}));
  EXPECT_EQ(delegate_->urls.back(), tmp_ / "home/exact");
  // Nothing large enough gives an empty list.
  delegate_->urls.clear();
  finder_.start(1 << 30);
  ASSERT_TRUE(testsupport::drainMainUntil([&] { return delegate_->finishes == 2; }));
  EXPECT_TRUE(delegate_->found.empty() && delegate_->urls.empty());
}

TEST_F(LargeFileFinderTreeTest, StopBeforeTheFinishReportsNothingAndTheFinderSearchesAgain) {
  finder_.start(0);
  finder_.stop();
  testsupport::drainMainUntil([] { return false; }, 300ms);
  EXPECT_EQ(delegate_->finishes, 0);

  // The same finder can search again.
  finder_.start(0);
  ASSERT_TRUE(testsupport::drainMainUntil([&] { return delegate_->finishes == 1; }));
  EXPECT_EQ(delegate_->found.size(), 4u);

  // A delegate that is gone makes the reports do nothing.
  finder_.start(0);
  delegate_.reset();
  testsupport::drainMainUntil([] { return false; }, 300ms);
}

}  // namespace
}  // namespace Core
