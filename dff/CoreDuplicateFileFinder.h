#pragma once

// The duplicate search as a host uses it: set the properties, set `delegate`, call `start()`,
// and receive the current path, progress and finally the groups, in that order, on the main
// queue.

#include <memory>
#include <string>
#include <vector>

#include "Core/File.h"
#include "dff/DFFDuplicateFileFinder.h"

namespace Core {

class DuplicateFileFinderDelegate {
 public:
  virtual ~DuplicateFileFinderDelegate() = default;
  virtual void duplicateFileFinderCurrent(const std::string& url) = 0;
  virtual void duplicateFileFinderProgress(double progress) = 0;
  // The groups are the delegate's to keep or take apart.
  virtual void duplicateFileFinderCompleted(dff::FoundGroups groups) = 0;
};

// Member `member` of `groups` as a value: a photo when it is a picture of a library.
Duplicate duplicateAt(const dff::FoundGroups& groups, std::size_t member);

// Runs searches on a serial queue of their own and reports on the main queue. The delegate is
// held weakly and looked up on the main queue at each report; one that is gone makes the report
// do nothing while the run goes on to its end. A run holds its finder strongly until it has
// completed, so a host may let go of a finder in the middle of a run. A second `start()` must
// wait for the first to complete. Finders are made with `create()`; `shared` lives for the
// process.
class DuplicateFileFinder : public dff::DFFDuplicateFileFinder,
                            public std::enable_shared_from_this<DuplicateFileFinder> {
  struct Token {};

 public:
  explicit DuplicateFileFinder(Token);
  static std::shared_ptr<DuplicateFileFinder> create();

  static DuplicateFileFinder& shared();

  // Set and read on the main queue.
  void setDelegate(std::weak_ptr<DuplicateFileFinderDelegate> delegate);

  void start();

 protected:
  void progress(double value) override;
  void current(const std::string& url) override;

 private:
  struct DelegateSlot {
    std::weak_ptr<DuplicateFileFinderDelegate> delegate;
  };
  std::shared_ptr<DelegateSlot> slot_;
};

}  // namespace Core
