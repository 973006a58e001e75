#pragma once

// What every deletion a host runs shares: the paths a host refuses to hand to deletion at all,
// the plan with its sizes, the run of a `Deleter` with progress, pause and stop, and the outcome
// of each path.

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Core/File.h"
#include "platform/TreeDeletion.h"

namespace host {

// Why the host won't delete `path` (an absolute, normalised path), or nothing. Refused before
// deletion sees them, as given and with the links of the folders above resolved: a path holding
// a NUL byte, "/", every top-level folder, the home folder (the environment's and the password
// database's, resolved) and every folder that holds it; and, unless `system`, the system's own
// trees: /dev, /proc, /sys, /usr (but /usr/local), /etc, /boot, /var/lib and all below them.
// Below a `--root`, every path outside the root folder, as given or resolved.
std::optional<std::string> hostRefusal(const std::string& path, bool system = false);

// `argument` made absolute against the working folder, with "." and ".." resolved in the text and
// no trailing slash; links are not resolved (deleting a link deletes the link).
std::string absolutePath(const std::string& argument);

// The bytes a path holds: a file's size, or the sum of the regular files below a folder; 0 for
// what isn't there.
std::int64_t bytesAt(const std::string& path);

// What is to be deleted, and what is left alone already and why.
struct DeletionRequest {
  std::vector<std::string> paths;
  std::vector<Core::Photo> photos;
  std::vector<std::pair<std::string, std::string>> leftAlone;  // path, reason
  std::vector<std::string> kept;                               // shown in the plan: what stays
  // A path that may go only while it holds the same bytes as the path it maps to (a duplicate
  // and the copy that is kept): compared again just before it is deleted.
  std::map<std::string, std::string> sameAs;
  // A path that goes only after another one went: a trashed item's description, which must
  // stay while the item does. Each such path is also among `paths`.
  std::map<std::string, std::string> after;
  // Paths that may go only while nothing changed them in the last hour (a log a program could
  // have begun writing again): checked just before each is deleted.
  std::set<std::string> quiet;
};

// The guard of a deletion with `sameAs`: a path that isn't the entry compared, or doesn't hold
// the bytes of its kept copy (changed, or the copy changed, gone or now a link), is refused with
// ESTALE.
platform::DeletionGuard sameBytesGuard(std::map<std::string, std::string> sameAs);

// The guard of a deletion with `quiet`: such a path changed in the last hour is refused with
// EBUSY.
platform::DeletionGuard quietGuard(std::set<std::string> quiet);

// One deletion, from its plan to its outcome. Made, started, paused and stopped on the main
// queue, where its callbacks arrive; the host drains the main queue meanwhile.
class DeletionJob {
 public:
  struct Outcome {
    std::vector<std::string> deleted;
    std::vector<std::pair<std::string, std::string>> failed;  // path, reason
    std::int64_t bytes = 0;                                   // freed
    bool stopped = false;
  };

  // Walks what the request names once, for the plan's sizes and what deleting them frees.
  explicit DeletionJob(DeletionRequest request);
  ~DeletionJob();
  DeletionJob(const DeletionJob&) = delete;
  DeletionJob& operator=(const DeletionJob&) = delete;

  const DeletionRequest& request() const;
  // The bytes each of `request().paths` holds, in order.
  const std::vector<std::int64_t>& sizes() const;
  // What deleting everything frees: hard-linked files once, and not at all while a name of them
  // stays elsewhere; photos by their size.
  std::int64_t total() const;
  // Paths and photos to delete.
  std::size_t count() const;

  // Starts the deletion; `finished` runs once, when the outcome is known. `changed` runs on
  // every report of progress.
  void start(std::function<void()> finished, std::function<void()> changed = {});
  void pause();
  void resume();
  void stop();
  bool paused() const;
  bool running() const;
  double progress() const;
  const std::string& current() const;
  // Known once `finished` ran.
  const Outcome& outcome() const;

 private:
  struct State;
  std::shared_ptr<State> state_;
};

// {"deleted": [...], "failed": [{"path", "reason"}], "bytes": N, "stopped": BOOL}
nlohmann::json outcomeJson(const DeletionJob::Outcome& outcome);
// The same document handed to `write` in pieces of about 64 KB, with a newline: a list of a
// million paths isn't held twice.
void writeOutcomeJson(const DeletionJob::Outcome& outcome,
                      const std::function<void(std::string_view)>& write);

}  // namespace host
