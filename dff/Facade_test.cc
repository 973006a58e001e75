#include <gtest/gtest.h>

#include <thread>

#include "dff/CoreDuplicateFileFinder.h"
#include "dff/SystemPhotoLibraryFinder.h"
#include "testsupport/TestSupport.h"

namespace Core {
namespace {

using testsupport::TempDir;

class RecordingDelegate final : public DuplicateFileFinderDelegate {
 public:
  void duplicateFileFinderCurrent(const std::string& url) override {
    events.push_back("current");
    onMain &= std::this_thread::get_id() == mainThread;
  }
  void duplicateFileFinderProgress(double progress) override {
    events.push_back("progress " + std::to_string(progress).substr(0, 3));
    onMain &= std::this_thread::get_id() == mainThread;
  }
  void duplicateFileFinderCompleted(dff::FoundGroups found) override {
    events.push_back("completed");
    groups = std::move(found);
    onMain &= std::this_thread::get_id() == mainThread;
  }
  bool completed() const { return !events.empty() && events.back() == "completed"; }

  std::thread::id mainThread = std::this_thread::get_id();
  std::vector<std::string> events;
  dff::FoundGroups groups;
  bool onMain = true;
};

class FacadeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    tmp_.write("first/a", "same");
    tmp_.write("first/b", "same");
    tmp_.write("second/x/data.bin", "content");
    tmp_.write("second/y/data.bin", "content");
    tmp_.write("second/e1", "");
    tmp_.write("second/e2", "");
    finder_->setDelegate(delegate_);
  }
  TempDir tmp_;
  std::shared_ptr<DuplicateFileFinder> finder_ = DuplicateFileFinder::create();
  std::shared_ptr<RecordingDelegate> delegate_ = std::make_shared<RecordingDelegate>();
};

TEST_F(FacadeTest, ReportsProgressThenCompletionOnTheMainQueueWithTheLastRootsOnly) {
  finder_->setRootFolderURLs({tmp_ / "first"});
  finder_->setRootFolderURLs({tmp_ / "second"});
  EXPECT_EQ(finder_->rootFolderURLs(), std::vector<std::string>{tmp_ / "second"});
  finder_->start();
  ASSERT_TRUE(testsupport::drainMainUntil([&] { return delegate_->completed(); }));
  EXPECT_TRUE(delegate_->onMain);

  std::vector<std::string> progress;
  for (const auto& e : delegate_->events) {
    if (e.rfind("progress", 0) == 0) progress.push_back(e);
  }
  EXPECT_EQ(progress, (std::vector<std::string>{"progress 0.3", "progress 0.5", "progress 0.8",
                                                "progress 0.9"}));
  // Empty files make a group with the default minimum of 0; the two folders another. Folders
  // come back as plain files with their total size.
  const auto& groups = delegate_->groups;
  ASSERT_EQ(groups.size(), 2u);
  ASSERT_EQ(groups.members(1).size(), 2u);
  const auto folder = std::get<File>(duplicateAt(groups, groups.members(1)[0]));
  EXPECT_EQ(folder.size, 7);
  EXPECT_TRUE(folder.url == tmp_ / "second/x" || folder.url == tmp_ / "second/y");
  for (std::size_t member : groups.members(0)) {
    EXPECT_EQ(std::get<File>(duplicateAt(groups, member)).size, 0);
  }
}

TEST_F(FacadeTest, SettingsWriteThroughAndADelegateThatIsGoneGetsNothing) {
  finder_->setRootFolderURLs({tmp_ / "second"});
  finder_->setMinFileSize(1);
  finder_->setExcludeExtensions({".BIN"});  // every data file is left out: nothing to group
  finder_->setIncludeHiddenFolders(true);
  EXPECT_TRUE(finder_->find().empty());

  finder_->setExcludeExtensions({});
  auto groups = finder_->find();
  ASSERT_EQ(groups.size(), 1u);  // the two folders; the empty files are below the minimum

  std::weak_ptr<RecordingDelegate> watcher = delegate_;
  delegate_.reset();
  EXPECT_TRUE(watcher.expired());
  // With no delegate the run still goes to its end and lets go of the finder.
  std::weak_ptr<DuplicateFileFinder> running = finder_;
  finder_->start();
  finder_.reset();
  EXPECT_TRUE(testsupport::drainMainUntil([&] { return running.expired(); }));
}

TEST_F(FacadeTest, AFinderLetGoOfDuringARunLivesUntilTheRunCompletes) {
  for (int i = 0; i < 200; ++i) tmp_.write("second/many/f" + std::to_string(i), "x");
  finder_->setRootFolderURLs({tmp_ / "first", tmp_ / "second"});
  std::weak_ptr<DuplicateFileFinder> running = finder_;
  finder_->start();
  finder_.reset();  // the host's only reference, while the engine walks
  ASSERT_TRUE(testsupport::drainMainUntil([&] { return delegate_->completed(); }));
  EXPECT_FALSE(delegate_->groups.empty());
  EXPECT_TRUE(testsupport::drainMainUntil([&] { return running.expired(); }));
}

// A host that knows where a photo library lies installs a source; without one there is none.
TEST(SystemPhotoLibraryFinderTest, AnswersOnlyThroughAnInstalledSource) {
  SystemPhotoLibraryFinder finder;
  EXPECT_FALSE(finder.getSystemPhotoLibraryPath("com.apple.Photos"));
  SystemPhotoLibraryFinder::setLocationSource([](const std::string& app) {
    return app == "com.apple.Photos" ? std::optional<std::string>("/mnt/x.photoslibrary")
                                     : std::nullopt;
  });
  EXPECT_EQ(finder.getSystemPhotoLibraryPath("com.apple.Photos"), "/mnt/x.photoslibrary");
  SystemPhotoLibraryFinder::setLocationSource(nullptr);
}

}  // namespace
}  // namespace Core
