#pragma once

// What `ravelin delete` and `ravelin dupes --delete` share: the paths a host refuses to hand to
// deletion at all, the confirmation, the run of a `Deleter` with progress, pause and stop, and
// the report of what became of each path.

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Core/File.h"
#include "platform/TreeDeletion.h"

namespace cli {

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

// Shows the plan, asks (or takes `--yes`), runs the deletion and prints the outcome. `dryRun`
// stops after the plan. Returns normally when everything asked for is gone; otherwise ends with
// a `CommandError` (exit 1) after the report. Without a terminal and without `yes`, nothing is
// deleted and the answer is a usage error (exit 2).
void confirmAndDelete(const DeletionRequest& request, bool yes, bool dryRun, bool json);

}  // namespace cli
