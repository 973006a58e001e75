#include "deletion/Deleter.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <set>

#include "deletion/RVFileDeleter.h"
#include "helper/HelperConnection.h"
#include "platform/Analytics.h"
#include "platform/Dispatch.h"
#include "platform/Photos.h"

namespace {

void onMain(std::function<void()> block) {
  platform::DispatchQueue::main().async(std::move(block));
}

std::string nowText() {
  std::time_t now = std::time(nullptr);
  char text[64];
  std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S %z", std::localtime(&now));
  return text;
}

}  // namespace

// The first phase: an `RVFileDeleter` over the files, whose reports hop to the main queue. Paths
// refused with EACCES are kept for the helper, on the worker's queue, and read only after its
// completion has come by that same queue.
class FileDeleterWrapper final : public DeleterProtocol,
                                 public RVFileDeleterDelegate,
                                 public std::enable_shared_from_this<FileDeleterWrapper> {
 public:
  FileDeleterWrapper(std::weak_ptr<Deleter> deleter, std::vector<std::string> files)
      : deleter(std::move(deleter)),
        fileDeleter(std::make_shared<RVFileDeleter>(std::move(files))) {}

  void start() override { fileDeleter->start(); }
  void pause() override { fileDeleter->pause(); }
  void stop() override { fileDeleter->stop(); }

  void fileDeleterCurrent(const std::string& path) override {
    onMain([weak = deleter, path] {
      auto owner = weak.lock();
      if (!owner) return;
      if (auto d = owner->delegate.lock()) d->deleterCurrent(path);
    });
  }
  void fileDeleterDeleted(const std::string& path, int error) override {
    if (error == EACCES && !guarded) {
      erroredPaths.push_back(path);  // to the helper, uncounted for now
      return;
    }
    // Reported in batches: a list of many small files would otherwise wake the main queue once
    // per file.
    pending.emplace_back(path, error);
    auto now = std::chrono::steady_clock::now();
    if (pending.size() >= 512 || now - lastFlush > std::chrono::milliseconds(30)) flush();
  }
  // Hands the deletions reported so far to the main queue, in order.
  void flush() {
    lastFlush = std::chrono::steady_clock::now();
    if (pending.empty()) return;
    onMain([weak = deleter, batch = std::move(pending)] {
      auto owner = weak.lock();
      if (!owner) return;
      for (const auto& [path, error] : batch) owner->itemDeleted(path, error == 0);
    });
    pending.clear();
  }
  void fileDeleterLeft(const std::string& path, const platform::TreeDeletion& outcome) override {
    flush();
    onMain([weak = deleter, path, outcome] {
      auto owner = weak.lock();
      if (!owner) return;
      if (auto d = owner->delegate.lock()) d->deleterLeft(path, outcome);
    });
  }
  void fileDeleterCompleted() override {
    flush();
    onMain([weak = deleter, paths = erroredPaths] {
      if (auto owner = weak.lock()) owner->fileDeletionFinished(paths);
    });
  }

  std::weak_ptr<Deleter> deleter;
  std::shared_ptr<RVFileDeleter> fileDeleter;
  std::vector<std::string> erroredPaths;
  std::vector<std::pair<std::string, int>> pending;  // deleted, not yet reported
  std::chrono::steady_clock::time_point lastFlush = std::chrono::steady_clock::now();
  bool guarded = false;
};

// The second phase: what the user wasn't allowed to delete, through the privileged helper, which
// is installed first if it is missing.
class HelperDeleterWrapper final : public DeleterProtocol,
                                   public helper::RVHelperDelegate,
                                   public std::enable_shared_from_this<HelperDeleterWrapper> {
 public:
  HelperDeleterWrapper(std::weak_ptr<Deleter> deleter, std::vector<std::string> files)
      : deleter(std::move(deleter)),
        files(std::move(files)),
        connection(helper::HelperConnection::create()) {}

  // Made through here, so that the connection's handlers can hold the wrapper weakly.
  static std::shared_ptr<HelperDeleterWrapper> make(std::weak_ptr<Deleter> deleter,
                                                    std::vector<std::string> files) {
    auto wrapper = std::make_shared<HelperDeleterWrapper>(std::move(deleter), std::move(files));
    wrapper->connection->delegate = wrapper;
    std::weak_ptr<HelperDeleterWrapper> weak = wrapper;
    wrapper->connection->errorHandler = [weak] {
      if (auto self = weak.lock()) self->complete();
    };
    return wrapper;
  }

  void start() override {
    paused = false;
    heard();
    if (started) {
      if (connection->helper) connection->helper->resumeDeleting();
      return;
    }
    started = true;
    if (!connection->connect(true)) {
      onMain([weak = weak_from_this()] {
        if (auto self = weak.lock()) self->complete();
      });
      return;
    }
    connection->helper->deleteAtPaths(files);
    watch();
  }
  void pause() override {
    paused = true;
    if (connection->helper) connection->helper->pauseDeleting();
  }
  void stop() override {
    if (connection->helper) connection->helper->stopDeleting();
    // A helper that doesn't end its batch soon after a stop is not waited for.
    platform::DispatchQueue::main().asyncAfter(kStopGrace, [weak = weak_from_this()] {
      if (auto self = weak.lock()) self->giveUp();
    });
  }

  void helperDeletingAt(const std::string& path) override {
    heard();
    onMain([weak = deleter, path] {
      auto owner = weak.lock();
      if (!owner) return;
      if (auto d = owner->delegate.lock()) d->deleterCurrent(path);
    });
  }
  void helperDeletedAt(const std::string& path, bool success) override {
    heard();
    onMain([weak = weak_from_this(), path, success] {
      auto self = weak.lock();
      if (!self) return;
      self->answered.insert(path);
      if (auto owner = self->deleter.lock()) owner->itemDeleted(path, success);
    });
  }
  void helperDeletionCompleted() override {
    onMain([weak = weak_from_this()] {
      if (auto self = weak.lock()) self->complete();
    });
  }

  // Looks every few seconds whether the helper still speaks: one silent for `kSilence` while
  // not paused is given up on, as if it had died.
  void watch() {
    platform::DispatchQueue::main().asyncAfter(kSilence / 6, [weak = weak_from_this()] {
      auto self = weak.lock();
      if (!self || self->completed) return;
      auto silent = std::chrono::steady_clock::now().time_since_epoch() -
                    std::chrono::steady_clock::duration(self->lastHeard.load());
      if (!self->paused && silent > kSilence) return self->giveUp();
      self->watch();
    });
  }
  void heard() { lastHeard = std::chrono::steady_clock::now().time_since_epoch().count(); }
  void giveUp() {
    if (completed) return;
    connection->close();
    complete();
  }

  // The phase's end, once: a helper that can't be reached or dies halfway ends it too, and the
  // photos are still tried.
  void complete() {
    if (completed) return;
    completed = true;
    if (auto owner = deleter.lock()) {
      if (auto d = owner->delegate.lock()) {
        for (const auto& path : files) d->deleterAskedHelper(path, answered.count(path) > 0);
      }
    }
    if (auto owner = deleter.lock()) owner->startPhotoDeletion();
  }

  std::weak_ptr<Deleter> deleter;
  std::vector<std::string> files;
  static constexpr std::chrono::seconds kSilence{30};
  static constexpr std::chrono::seconds kStopGrace{5};

  std::shared_ptr<helper::HelperConnection> connection;
  bool started = false;
  bool completed = false;
  bool paused = false;             // main queue only
  std::set<std::string> answered;  // the paths the helper reported on; main queue only
  // When the helper last spoke, in steady-clock ticks; set on the transport's queue.
  std::atomic<std::chrono::steady_clock::rep> lastHeard{0};
};

// The third phase: the photos, in one request to the photo library. It can't be interrupted.
class PhotoDeleter final : public DeleterProtocol,
                           public std::enable_shared_from_this<PhotoDeleter> {
 public:
  explicit PhotoDeleter(std::weak_ptr<Deleter> deleter) : deleter(std::move(deleter)) {}

  void start() override {
    if (stated) return;
    stated = true;
    run();
  }
  void pause() override {}
  void stop() override {}

  void run() {
    auto owner = deleter.lock();
    if (!owner) return;
    std::vector<std::string> ids;
    for (const auto& photo : owner->photos_) ids.push_back(photo.id);
    platform::analytics().recordEvent(37);
    std::weak_ptr<PhotoDeleter> weak = weak_from_this();
    const std::size_t count = ids.size();
    platform::photoLibrary().deleteAssets(ids, [weak, count](bool success, bool notAuthorised) {
      const std::string number = std::to_string(count);
      if (success) {
        platform::analytics().recordEvent(
            38, {{"info", "stat:true,tm:" + nowText() + ",num:" + number}});
      } else {
        platform::analytics().recordEvent(
            38, {{"info", std::string("stat=") + (notAuthorised ? "auth_err" : "other_err") +
                              ",tm=" + nowText() + ",num=" + number}});
      }
      onMain([weak, success, notAuthorised] {
        if (auto self = weak.lock()) self->answered(success, notAuthorised);
      });
    });
  }

  void answered(bool success, bool notAuthorised) {
    auto owner = deleter.lock();
    if (!owner) return;
    if (success) {
      for (const auto& photo : owner->photos_) {
        if (auto d = owner->delegate.lock()) d->deleterDeleted(photo.file.url);
        ++owner->currentCount_;
        if (auto d = owner->delegate.lock()) d->deleterProgress(owner->progress());
      }
      owner->finish();
      return;
    }
    auto d = owner->delegate.lock();
    if (!d) return;  // no one can answer
    std::weak_ptr<PhotoDeleter> weak = weak_from_this();
    d->deleterPhotosFailed(notAuthorised, [weak](bool again) {
      auto self = weak.lock();
      if (!self) return;
      if (again) return self->run();
      auto owner = self->deleter.lock();
      if (!owner) return;
      for (std::size_t i = 0; i < owner->photos_.size(); ++i) {
        ++owner->currentCount_;
        if (auto d = owner->delegate.lock()) d->deleterProgress(owner->progress());
      }
      owner->finish();
    });
  }

  std::weak_ptr<Deleter> deleter;
  bool stated = false;
};

Deleter::Deleter(Token, std::vector<std::string> files, std::vector<Core::Photo> photos)
    : files_(std::move(files)),
      photos_(std::move(photos)),
      totalCount_(files_.size() + photos_.size()) {}

std::shared_ptr<Deleter> Deleter::create(std::vector<std::string> files,
                                         std::vector<Core::Photo> photos) {
  return std::make_shared<Deleter>(Token{}, std::move(files), std::move(photos));
}

double Deleter::progress() const {
  return static_cast<double>(currentCount_) / static_cast<double>(totalCount_);
}

void Deleter::start() {
  if (state_ == DeleterState::created) {
    state_ = DeleterState::started;
    if (files_.empty()) return fileDeletionFinished({});
    auto wrapper = std::make_shared<FileDeleterWrapper>(weak_from_this(), std::move(files_));
    wrapper->fileDeleter->delegate = wrapper;
    wrapper->fileDeleter->guard = guard;
    wrapper->guarded = static_cast<bool>(guard);
    deleter_ = wrapper;
  }
  if (deleter_) deleter_->start();
}

void Deleter::pause() {
  if (state_ == DeleterState::started && deleter_) deleter_->pause();
}

void Deleter::stop() {
  if (state_ == DeleterState::created) return finish();
  if (state_ != DeleterState::started) return;
  state_ = DeleterState::stopped;
  if (deleter_) deleter_->stop();
}

bool Deleter::isDeletingPhotos() const {
  return dynamic_cast<PhotoDeleter*>(deleter_.get()) != nullptr;
}

void Deleter::itemDeleted(const std::string& path, bool success) {
  auto d = delegate.lock();
  if (success && d) d->deleterDeleted(path);
  ++currentCount_;
  if (d) d->deleterProgress(progress());
}

void Deleter::finish() {
  if (state_ == DeleterState::completed) return;
  state_ = DeleterState::completed;
  if (auto d = delegate.lock()) d->deleterCompleted();
  deleter_.reset();
}

void Deleter::fileDeletionFinished(std::vector<std::string> erroredPaths) {
  if (state_ == DeleterState::completed) return;
  if (state_ == DeleterState::stopped) return finish();
  if (erroredPaths.empty()) return startPhotoDeletion();
  deleter_ = HelperDeleterWrapper::make(weak_from_this(), std::move(erroredPaths));
  if (state_ == DeleterState::started) deleter_->start();
}

void Deleter::startPhotoDeletion() {
  if (state_ == DeleterState::completed) return;
  if (state_ == DeleterState::stopped) return finish();
  if (photos_.empty()) return finish();
  deleter_ = std::make_shared<PhotoDeleter>(weak_from_this());
  if (state_ == DeleterState::started) deleter_->start();
}
