#pragma once

// Deletes a list of paths one after the other with the rights of the user, on a serial queue of
// its own, and tells a delegate what became of each. It can be paused, resumed and stopped from
// any thread; it doesn't decide what to do with failures (the `Deleter` does).
//
// The list is worked from its end. Each path goes as `platform::deleteTree` deletes: from open
// descriptors, never following a link inside the tree (a link to a folder is no folder here,
// and a folder swapped for a link midway goes as the link), at any depth, never into another
// mount, and never a mount point itself.

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "platform/Dispatch.h"
#include "platform/TreeDeletion.h"

class RVFileDeleterDelegate {
 public:
  virtual ~RVFileDeleterDelegate() = default;
  // The path in work, at most every 0.03 seconds.
  virtual void fileDeleterCurrent(const std::string& path) = 0;
  // One list entry has ended: `error` 0 means deleted (or already gone), else the errno of the
  // failure; for a folder, that of the operation that failed inside it.
  virtual void fileDeleterDeleted(const std::string& path, int error) = 0;
  // The work is over; called once.
  virtual void fileDeleterCompleted() = 0;
  // A path that stays, whole or in part, and what became of it: the first failure inside and
  // the entries that went. Called before `fileDeleterDeleted` for a failure, and before
  // `fileDeleterCompleted` for the path a stop left part way.
  virtual void fileDeleterLeft(const std::string& path, const platform::TreeDeletion& outcome) {}
};

class RVFileDeleter : public std::enable_shared_from_this<RVFileDeleter> {
 public:
  enum State : int { paused = 0, running = 1, stopped = 2, completed = 3 };
  // What deleting one path came to.
  enum Result : int { deleted = 0, failed = 1, interrupted = 2 };

  explicit RVFileDeleter(std::vector<std::string> paths);

  // Starts, or resumes after `pause`; nothing in any other state.
  void start();
  // Makes the running loop stop at its next check; a folder may be left partly deleted, and is
  // taken up again by the next `start`.
  void pause();
  // Ends the work: completion is reported once what runs has returned.
  void stop();

  State state() const { return static_cast<State>(_state.load()); }

  std::weak_ptr<RVFileDeleterDelegate> delegate;
  // When set before `start`, asked just before each path is deleted (see
  // `platform::DeletionGuard`); a path it refuses is reported with the errno it gives.
  platform::DeletionGuard guard;

 private:
  void deleteFiles();
  Result deleteAt(const std::string& path);
  void updateCurrentPath(const char* path);
  // True, and the clock taken, when the last current path was told more than 0.03 s ago.
  bool currentPathDue();
  void completedStep();

  std::vector<std::string> _paths;  // the last one is next
  // What pauses left of the path in hand: the entries that went so far.
  platform::TreeDeletion _inHand;
  // The folder of the last path, open for the next one in the same folder.
  platform::ParentFolderCache _parents;
  platform::DispatchQueue _dispatchQueue;
  std::atomic<int> _state{paused};
  double _time = 0;
};
