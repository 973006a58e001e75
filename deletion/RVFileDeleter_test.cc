#include "deletion/RVFileDeleter.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <condition_variable>
#include <mutex>

#include "testsupport/TestSupport.h"

namespace {

using testsupport::TempDir;

// Records the worker's reports, which come on its own queue.
class Recorder final : public RVFileDeleterDelegate {
 public:
  void fileDeleterCurrent(const std::string& path) override {
    std::lock_guard lock(mutex);
    current.push_back(path);
    if (onCurrent) onCurrent(path);
  }
  void fileDeleterDeleted(const std::string& path, int error) override {
    std::lock_guard lock(mutex);
    deleted.emplace_back(path, error);
  }
  void fileDeleterCompleted() override {
    std::lock_guard lock(mutex);
    ++completions;
    done.notify_all();
  }
  bool waitForCompletion() {
    std::unique_lock lock(mutex);
    return done.wait_for(lock, std::chrono::seconds(10), [this] { return completions > 0; });
  }

  std::mutex mutex;
  std::condition_variable done;
  std::vector<std::string> current;
  std::vector<std::pair<std::string, int>> deleted;
  int completions = 0;
  std::function<void(const std::string&)> onCurrent;
};

bool exists(const std::string& path) {
  struct stat status;
  return ::lstat(path.c_str(), &status) == 0;
}

TEST(RVFileDeleterTest, DeletesFromTheEndAndCountsMissingPathsAsDeleted) {
  TempDir tmp;
  tmp.write("a", "1");
  tmp.write("folder/x/y/z", "2");
  tmp.write("outside/keep", "3");
  tmp.symlink("folder/x/link", tmp / "outside");
  tmp.symlink("dirlink", tmp / "outside");
  auto deleter = std::make_shared<RVFileDeleter>(
      std::vector<std::string>{tmp / "a", tmp / "missing", tmp / "folder", tmp / "dirlink"});
  auto recorder = std::make_shared<Recorder>();
  deleter->delegate = recorder;
  deleter->start();
  deleter->start();  // a second start while running does nothing
  ASSERT_TRUE(recorder->waitForCompletion());
  EXPECT_EQ(recorder->deleted,
            (std::vector<std::pair<std::string, int>>{
                {tmp / "dirlink", 0}, {tmp / "folder", 0}, {tmp / "missing", 0}, {tmp / "a", 0}}));
  EXPECT_FALSE(exists(tmp / "folder"));
  EXPECT_FALSE(exists(tmp / "dirlink"));
  // Links were removed, never followed.
  EXPECT_TRUE(exists(tmp / "outside/keep"));
  deleter->stop();  // after completion: nothing more
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(recorder->completions, 1);
  EXPECT_EQ(deleter->state(), RVFileDeleter::completed);

  // An empty list completes at once.
  auto empty = std::make_shared<RVFileDeleter>(std::vector<std::string>{});
  auto quiet = std::make_shared<Recorder>();
  empty->delegate = quiet;
  empty->start();
  ASSERT_TRUE(quiet->waitForCompletion());
  EXPECT_TRUE(quiet->deleted.empty());
}

// Pausing as a folder is begun leaves it for the next start, which reports it once; a stop there
// reports nothing more but completion. (The first report of a run always passes the 0.03-second
// gate, so the folder's own path is where the test steps in.)
TEST(RVFileDeleterTest, PauseResumesWithThePathInHandAndStopEndsAtOnce) {
  TempDir tmp;
  for (int i = 0; i < 20; ++i) tmp.write("big/f" + std::to_string(i), "x");
  tmp.write("small", "y");
  auto deleter =
      std::make_shared<RVFileDeleter>(std::vector<std::string>{tmp / "small", tmp / "big"});
  auto recorder = std::make_shared<Recorder>();
  bool paused = false;
  recorder->onCurrent = [&](const std::string& path) {
    if (!paused && path == tmp / "big") {
      paused = true;
      deleter->pause();
    }
  };
  deleter->delegate = recorder;
  deleter->start();
  for (int i = 0; i < 500 && deleter->state() != RVFileDeleter::paused; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  {
    std::lock_guard lock(recorder->mutex);
    EXPECT_TRUE(paused);
    EXPECT_TRUE(recorder->deleted.empty());  // "big" was interrupted: not reported
  }
  EXPECT_TRUE(exists(tmp / "big"));
  deleter->start();
  ASSERT_TRUE(recorder->waitForCompletion());
  EXPECT_EQ(recorder->deleted,
            (std::vector<std::pair<std::string, int>>{{tmp / "big", 0}, {tmp / "small", 0}}));

  for (int i = 0; i < 20; ++i) tmp.write("again/f" + std::to_string(i), "x");
  auto stopping = std::make_shared<RVFileDeleter>(std::vector<std::string>{tmp / "again"});
  auto second = std::make_shared<Recorder>();
  bool stopped = false;
  second->onCurrent = [&](const std::string& path) {
    if (!stopped && path == tmp / "again") {
      stopped = true;
      stopping->stop();
    }
  };
  stopping->delegate = second;
  stopping->start();
  ASSERT_TRUE(second->waitForCompletion());
  EXPECT_TRUE(second->deleted.empty());
  EXPECT_EQ(second->completions, 1);
  EXPECT_TRUE(exists(tmp / "again"));
}

}  // namespace
