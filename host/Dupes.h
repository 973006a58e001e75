#pragma once

// A duplicate search as a job both hosts run: its options checked and resolved as the command
// line checks them, the finder and its delegate on the main queue, the groups refined as they
// arrive, the report as JSON, and the deletion that keeps one member of every group.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "dff/DuplicateGroups.h"
#include "host/Deletion.h"
#include "host/Host.h"
#include "host/Scan.h"

namespace Core {
class DuplicateFileFinder;
}

namespace host {

struct DupesOptions {
  std::vector<std::string> roots;  // empty: the home folder
  std::int64_t minSize = 0;
  bool hidden = false;
  std::vector<std::string> exclude;
  std::vector<std::string> excludeExtensions;
  bool hardLinks = false;
  unsigned jobs = 0;
};

// What a member is, as the reports name it: "file", "folder", "package" or "photo".
const char* kindName(Core::MemberKind kind);

class DupesScan final : public ScanJob {
 public:
  // Checks and resolves the options: a root that isn't a folder, an empty exclusion or suffix
  // end it with a `CommandError` of `kUsage`. A root given twice or inside another is searched
  // once (see `dropped`); a root that can't be listed is an error of the result.
  explicit DupesScan(DupesOptions options);
  ~DupesScan() override;

  void stop() override;
  void writeJson(const std::function<void(std::string_view)>& write) const override;
  std::vector<std::string> reportedPaths() const override;
  // Keeps the first member of each group.
  DeletionRequest deletion(const std::set<std::string>& chosen) const override;
  DeletionRequest deletion(const std::set<std::string>& chosen, const Core::KeepRule& rule) const;

  const std::vector<Core::ResolvedRoots::Dropped>& dropped() const { return dropped_; }
  const Core::DuplicateGroups& groups() const { return groups_; }
  Core::DuplicateGroups& groups() { return groups_; }
  const std::vector<ReadError>& errors() const { return errors_; }

 private:
  void run() override;
  class Delegate;
  DupesOptions options_;
  std::vector<std::string> roots_, excluded_;
  std::vector<Core::ResolvedRoots::Dropped> dropped_;
  std::shared_ptr<Core::DuplicateFileFinder> finder_;
  std::shared_ptr<Delegate> delegate_;
  Core::DuplicateGroups groups_;
  std::vector<ReadError> errors_;
};

// The report as one JSON document, handed to `write` in pieces of about 64 KB: {"groups": [[{
// "path", "size", "kind", "modified", "id", "also"}, ...], ...], "reclaimable", "stopped",
// "complete", "errors"}. A document object of a million members would cost more memory than the
// search itself.
void writeDupesJson(const Core::DuplicateGroups& groups, std::int64_t reclaimable, bool stopped,
                    const std::vector<ReadError>& errors,
                    const std::function<void(std::string_view)>& write);

// The rule named "first", "newest", "oldest" or "shortest-path"; nothing for another name.
std::optional<Core::KeepRule> keepRuleNamed(std::string_view name);

// Keeps one member of each group by `rule` and asks to delete the others, each only while it is
// found byte for byte the same as the member kept: the digests decide what is shown, only bytes
// decide what is deleted. With `chosen`, only the members named there are deleted (a member the
// rule keeps stays, with the reason). Members the host refuses are left alone.
DeletionRequest duplicatesDeletion(const Core::DuplicateGroups& groups, const Core::KeepRule& rule,
                                   const std::set<std::string>* chosen = nullptr);

}  // namespace host
