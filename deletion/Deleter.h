#pragma once

// What the host uses to delete what the user chose: file paths and photos. Three phases run in a
// fixed order: the files with the user's rights; those among them refused for lack of permission
// (EACCES, and only that) through the privileged helper; the photos through the photo library.
// Their reports come together in one count and one delegate. Pause and stop go to whichever
// phase runs.
//
// Lives on the main queue: the host creates it, calls `start`, `pause` and `stop` there, and
// every delegate call arrives there. Made with `create`; phases hold it weakly.

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Core/File.h"
#include "platform/TreeDeletion.h"

class DeleterDelegate {
 public:
  virtual ~DeleterDelegate() = default;
  virtual void deleterCurrent(const std::string& path) = 0;
  // After each item: the items treated so far over all of them.
  virtual void deleterProgress(double progress) = 0;
  // An item deleted with success, before the progress step of that item.
  virtual void deleterDeleted(const std::string& path) = 0;
  // The photo request failed; `answer(true)` tries again, `answer(false)` gives up on them.
  virtual void deleterPhotosFailed(bool notAuthorised, std::function<void(bool)> answer) = 0;
  // Everything is over; called once.
  virtual void deleterCompleted() = 0;
  // A file path that stays with the user's rights, whole or in part, and what became of it (see
  // `RVFileDeleterDelegate::fileDeleterLeft`).
  virtual void deleterLeft(const std::string& path, const platform::TreeDeletion& outcome) {}
  // A path handed to the privileged helper, when its phase ends: whether the helper answered
  // for it (deleted or refused), or never did (not reached, or gone before it came to it).
  virtual void deleterAskedHelper(const std::string& path, bool answered) {}
};

// One phase: the files, the helper, the photos.
class DeleterProtocol {
 public:
  virtual ~DeleterProtocol() = default;
  virtual void start() = 0;
  virtual void pause() = 0;
  virtual void stop() = 0;
};

class Deleter : public std::enable_shared_from_this<Deleter> {
  struct Token {};

 public:
  enum class DeleterState { created, started, stopped, completed };

  Deleter(Token, std::vector<std::string> files, std::vector<Core::Photo> photos);
  static std::shared_ptr<Deleter> create(std::vector<std::string> files,
                                         std::vector<Core::Photo> photos = {});

  void start();
  void pause();
  void stop();
  bool isDeletingPhotos() const;
  DeleterState state() const { return state_; }

  std::weak_ptr<DeleterDelegate> delegate;
  // When set before `start`, asked just before each file path is deleted with the user's rights
  // (see `platform::DeletionGuard`). A guarded deletion hands nothing to the helper, which can't
  // ask it: what the user may not delete stays, reported as not deleted.
  platform::DeletionGuard guard;

 private:
  friend class FileDeleterWrapper;
  friend class HelperDeleterWrapper;
  friend class PhotoDeleter;

  double progress() const;
  void itemDeleted(const std::string& path, bool success);
  void finish();
  void fileDeletionFinished(std::vector<std::string> erroredPaths);
  void startPhotoDeletion();

  std::shared_ptr<DeleterProtocol> deleter_;
  std::vector<std::string> files_;
  std::vector<Core::Photo> photos_;
  std::size_t totalCount_;
  std::size_t currentCount_ = 0;
  DeleterState state_ = DeleterState::created;
};
