#include "deletion/Deleter.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "helper/HelperConnection.h"
#include "platform/Photos.h"
#include "testsupport/FakeHelper.h"
#include "testsupport/TestSupport.h"

namespace {

using testsupport::TempDir;

// Records every report, which must all arrive on the main queue.
class Recorder final : public DeleterDelegate {
 public:
  void deleterCurrent(const std::string& path) override { check(); }
  void deleterProgress(double value) override {
    check();
    progress.push_back(value);
  }
  void deleterDeleted(const std::string& path) override {
    check();
    deleted.push_back(path);
  }
  void deleterPhotosFailed(bool notAuthorised, std::function<void(bool)> answer) override {
    check();
    ++photoFailures;
    lastNotAuthorised = notAuthorised;
    answer(retryPhotos && photoFailures < 2);
  }
  void deleterCompleted() override {
    check();
    ++completions;
  }
  void check() { onMain &= std::this_thread::get_id() == mainThread; }

  std::thread::id mainThread = std::this_thread::get_id();
  bool onMain = true;
  std::vector<double> progress;
  std::vector<std::string> deleted;
  int photoFailures = 0;
  bool lastNotAuthorised = false;
  bool retryPhotos = false;
  int completions = 0;
};

class FakePhotoLibrary final : public platform::PhotoLibraryService {
 public:
  void deleteAssets(const std::vector<std::string>& ids,
                    std::function<void(bool, bool)> completion) override {
    ++requests;
    asked = ids;
    bool ok = succeedFrom > 0 && requests >= succeedFrom;
    std::thread([completion, ok, this] { completion(ok, notAuthorised); }).detach();
  }
  int requests = 0;
  int succeedFrom = 0;  // the request that succeeds, 0 for none
  bool notAuthorised = false;
  std::vector<std::string> asked;
};

bool waitForCompletion(const Recorder& recorder) {
  return testsupport::drainMainUntil([&] { return recorder.completions > 0; },
                                     std::chrono::seconds(15));
}

class DeleterTest : public ::testing::Test {
 protected:
  void SetUp() override { platform::setPhotoLibrary(photos_); }
  void TearDown() override {
    platform::setPhotoLibrary(nullptr);
    helper::setHelperSocket("");
  }
  // Deletes `files`, then `photos`, reporting to `recorder`; whether it completed.
  bool deleteAll(std::vector<std::string> files, std::vector<Core::Photo> photos = {},
                 std::shared_ptr<Recorder> recorder = nullptr) {
    if (!recorder) recorder = recorder_;
    auto deleter = Deleter::create(std::move(files), std::move(photos));
    deleter->delegate = recorder;
    deleter->start();
    return waitForCompletion(*recorder);
  }

  std::shared_ptr<FakePhotoLibrary> photos_ = std::make_shared<FakePhotoLibrary>();
  std::shared_ptr<Recorder> recorder_ = std::make_shared<Recorder>();
  TempDir tmp_;
};

TEST_F(DeleterTest, NothingToDoCompletesWithoutProgressAndAStopBeforeStartCompletesAtOnce) {
  EXPECT_TRUE(deleteAll({}));
  EXPECT_TRUE(recorder_->progress.empty());

  auto unstarted = Deleter::create({tmp_.write("kept", "x")});
  auto second = std::make_shared<Recorder>();
  unstarted->delegate = second;
  unstarted->stop();
  EXPECT_EQ(second->completions, 1);
  unstarted->start();
  EXPECT_EQ(second->completions, 1);
  EXPECT_TRUE(std::filesystem::exists(tmp_ / "kept"));
}

TEST_F(DeleterTest, FilesAreCountedOneByOneAndPhotosFollow) {
  tmp_.write("a", "1");
  tmp_.write("folder/x/y", "2");
  photos_->succeedFrom = 1;
  testsupport::ScopedAnalyticsRecorder analytics;
  ASSERT_TRUE(deleteAll(
      {tmp_ / "a", tmp_ / "folder", tmp_ / "missing"},
      {Core::Photo{"UUID-1", Core::File{tmp_ / "p1.jpg", 5}}, Core::Photo{"UUID-2", {}}}));
  EXPECT_TRUE(recorder_->onMain);
  EXPECT_EQ(recorder_->progress, (std::vector<double>{0.2, 0.4, 0.6, 0.8, 1.0}));
  EXPECT_EQ(recorder_->deleted.size(), 5u);
  EXPECT_EQ(photos_->asked, (std::vector<std::string>{"UUID-1", "UUID-2"}));
  EXPECT_FALSE(std::filesystem::exists(tmp_ / "folder"));
  auto events = analytics.recorder().events();
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(events[0].number, 37);
  EXPECT_EQ(events[1].number, 38);
  EXPECT_EQ(events[1].properties->at("info").rfind("stat:true,tm:", 0), 0u);
  EXPECT_NE(events[1].properties->at("info").find(",num:2"), std::string::npos);
}

// On Linux the request fails, not as a matter of authorisation; the host decides.
TEST_F(DeleterTest, FailedPhotosAreLeftToTheHost) {
  platform::setPhotoLibrary(nullptr);  // the platform's own
  ASSERT_TRUE(deleteAll({}, {Core::Photo{"UUID-1", {}}}));
  EXPECT_EQ(recorder_->photoFailures, 1);
  EXPECT_FALSE(recorder_->lastNotAuthorised);
  EXPECT_EQ(recorder_->progress, std::vector<double>{1.0});
  EXPECT_TRUE(recorder_->deleted.empty());

  // Answered with "again", the request runs once more, and the count waits for it.
  platform::setPhotoLibrary(photos_);
  photos_->succeedFrom = 2;
  auto second = std::make_shared<Recorder>();
  second->retryPhotos = true;
  ASSERT_TRUE(deleteAll({}, {Core::Photo{"UUID-1", {}}}, second));
  EXPECT_EQ(photos_->requests, 2);
  EXPECT_EQ(second->progress, std::vector<double>{1.0});
  EXPECT_EQ(second->deleted.size(), 1u);
}

// What the user may not delete (EACCES) goes to the helper, and only that; the helper deletes it
// as root. The deleting runs as an unprivileged user, the helper as root on a socket of its own.
TEST_F(DeleterTest, PathsRefusedWithEaccesGoToTheHelper) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to run the helper and an unprivileged user";
  ::chmod(tmp_.path().c_str(), 0755);
  tmp_.write("mine/file", "1");
  tmp_.write("roots/locked/file", "2");
  ::chown((tmp_ / "mine").c_str(), 65534, 65534);
  ::chown((tmp_ / "mine/file").c_str(), 65534, 65534);
  const std::string socket = tmp_ / "helper.sock";
  testsupport::ChildProcess helperTool(
      {RAVELIN_HELPER_BINARY, "--socket", socket, "--allow-uid", "65534", "--home", tmp_.path()},
      socket);
  helper::setHelperSocket(socket);
  {
    testsupport::AsUnprivilegedUser user;
    ASSERT_TRUE(user.ok());
    // Files run from the end: "mine" is deleted, the locked one refused with EACCES.
    ASSERT_TRUE(deleteAll({tmp_ / "roots/locked", tmp_ / "mine"}));
  }
  helperTool.kill();
  EXPECT_EQ(recorder_->deleted, (std::vector<std::string>{tmp_ / "mine", tmp_ / "roots/locked"}));
  EXPECT_EQ(recorder_->progress, (std::vector<double>{0.5, 1.0}));
  EXPECT_FALSE(std::filesystem::exists(tmp_ / "roots/locked"));
  EXPECT_EQ(recorder_->completions, 1);
}

// No helper to be had: the helper phase ends, the photos are still tried, and completion comes
// once. The path that went to the helper is left uncounted.
TEST_F(DeleterTest, AHelperThatCantBeReachedEndsItsPhaseAndPhotosAreStillTried) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to act as an unprivileged user";
  ::chmod(tmp_.path().c_str(), 0755);
  tmp_.write("roots/locked/file", "x");
  helper::setHelperSocket(tmp_ / "nobody-listens.sock");
  photos_->succeedFrom = 1;
  {
    testsupport::AsUnprivilegedUser user;
    ASSERT_TRUE(user.ok());
    ASSERT_TRUE(
        deleteAll({tmp_ / "roots/locked"}, {Core::Photo{"UUID-1", Core::File{"/p.jpg", 1}}}));
    testsupport::drainMainUntil([] { return false; }, std::chrono::milliseconds(200));
  }
  EXPECT_EQ(recorder_->completions, 1);
  EXPECT_EQ(photos_->requests, 1);
  EXPECT_EQ(recorder_->progress, std::vector<double>{0.5});
  EXPECT_EQ(recorder_->deleted, std::vector<std::string>{"/p.jpg"});
  EXPECT_TRUE(std::filesystem::exists(tmp_ / "roots/locked/file"));
}

// A helper that takes the batch and never ends it: a stop ends the wait all the same.
TEST_F(DeleterTest, AStopEndsTheWaitForAHelperThatNeverFinishes) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to act as an unprivileged user";
  ::chmod(tmp_.path().c_str(), 0755);
  tmp_.write("roots/locked/file", "x");
  const std::string socket = tmp_ / "silent.sock";
  testsupport::FakeHelper silent(socket, std::chrono::milliseconds(0));
  helper::setHelperSocket(socket);
  {
    testsupport::AsUnprivilegedUser user;
    ASSERT_TRUE(user.ok());
    auto deleter = Deleter::create({tmp_ / "roots/locked"});
    deleter->delegate = recorder_;
    deleter->start();
    // The helper phase connects from the main queue.
    ASSERT_TRUE(testsupport::drainMainUntil([&] { return silent.connected(); }));
    deleter->stop();
    EXPECT_TRUE(waitForCompletion(*recorder_));
  }
  EXPECT_EQ(recorder_->completions, 1);
  EXPECT_TRUE(std::filesystem::exists(tmp_ / "roots/locked/file"));
}

}  // namespace
