#include "host/Dupes.h"

#include <dirent.h>
#include <fmt/format.h>

#include <cerrno>
#include <filesystem>

#include "dff/CoreDuplicateFileFinder.h"
#include "platform/Files.h"
#include "platform/Locations.h"
#include "platform/Phases.h"

namespace host {

namespace {

// An excluded folder as the search will meet it: absolute, links resolved, no "." or "..", no
// trailing slash; the engine compares whole paths.
std::string normalizeExclude(const std::string& path) {
  std::error_code error;
  auto absolute = std::filesystem::absolute(path, error);
  if (error) return path;
  auto canonical = std::filesystem::weakly_canonical(absolute, error);
  std::string text = (error ? absolute.lexically_normal() : canonical).string();
  while (text.size() > 1 && text.back() == '/') text.pop_back();
  return text;
}

}  // namespace

const char* kindName(Core::MemberKind kind) {
  switch (kind) {
    case Core::MemberKind::folder:
      return "folder";
    case Core::MemberKind::package:
      return "package";
    case Core::MemberKind::photo:
      return "photo";
    case Core::MemberKind::file:
      break;
  }
  return "file";
}

class DupesScan::Delegate final : public Core::DuplicateFileFinderDelegate {
 public:
  explicit Delegate(DupesScan* scan) : scan_(scan) {}
  void duplicateFileFinderCurrent(const std::string& url) override {
    if (scan_) scan_->showCurrent(url);
  }
  void duplicateFileFinderProgress(double value) override {
    if (scan_) scan_->show(value, scan_->current());
  }
  // The groups are refined as they arrive, and taken apart as they are: a search of a million
  // files would otherwise hold them twice.
  void duplicateFileFinderCompleted(dff::FoundGroups found) override {
    if (!scan_) return;
    Core::RefineOptions options;
    options.keepHardLinks = scan_->options_.hardLinks;
    scan_->groups_ = Core::refineGroups(std::move(found), options);
    platform::endPhase("refine");
    scan_->settle();
  }
  void forget() { scan_ = nullptr; }

 private:
  DupesScan* scan_;
};

DupesScan::DupesScan(DupesOptions options) : options_(std::move(options)) {
  for (const auto& suffix : options_.excludeExtensions) {
    if (suffix.empty())
      throw CommandError{kUsage, "--exclude-ext: an empty suffix matches every name"};
  }
  std::vector<std::string> given;
  for (const auto& root : options_.roots) {
    if (root.empty()) throw CommandError{kUsage, "an empty folder name"};
    std::error_code error;
    auto absolute = std::filesystem::absolute(root, error);
    if (error || !platform::isDirectory(absolute.string(), platform::Follow::yes)) {
      throw CommandError{kUsage, "not a folder: " + displayText(root)};
    }
    given.push_back(absolute.lexically_normal().string());
  }
  if (given.empty()) given.push_back(platform::currentLocations().home);
  // A folder given twice, or inside another root, is searched once: otherwise every file in it
  // would be its own duplicate.
  Core::ResolvedRoots resolved = Core::resolveRoots(given);
  roots_ = std::move(resolved.roots);
  dropped_ = std::move(resolved.dropped);
  // A root that can't be listed would give an empty, and so wrong, answer: it is an error.
  for (const auto& root : roots_) {
    if (Core::isPhotoLibraryPath(root)) continue;
    if (DIR* dir = ::opendir(root.c_str())) {
      ::closedir(dir);
    } else {
      errors_.push_back({root, errno});
    }
  }
  for (const auto& path : options_.exclude) {
    if (path.empty()) throw CommandError{kUsage, "--exclude: an empty path"};
    excluded_.push_back(normalizeExclude(path));
  }
}

DupesScan::~DupesScan() {
  if (delegate_) delegate_->forget();
  if (finder_ && !finished()) finder_->stop();
}

void DupesScan::run() {
  finder_ = Core::DuplicateFileFinder::create();
  finder_->setRootFolderURLs(roots_);
  finder_->setExcludePaths(excluded_);
  finder_->setExcludeExtensions(options_.excludeExtensions);
  finder_->setIncludeHiddenFolders(options_.hidden);
  finder_->setMinFileSize(options_.minSize);
  finder_->setJobs(options_.jobs);
  delegate_ = std::make_shared<Delegate>(this);
  finder_->setDelegate(delegate_);
  finder_->start();
}

void DupesScan::stop() {
  if (!finder_ || finished() || stopped_) return;
  stopped_ = true;
  finder_->stop();
}

void DupesScan::writeJson(const std::function<void(std::string_view)>& write) const {
  writeDupesJson(groups_, Core::bytesFreedKeepingOne(groups_), stopped_, errors_, write);
}

std::vector<std::string> DupesScan::reportedPaths() const {
  std::vector<std::string> out;
  out.reserve(groups_.memberCount());
  for (const auto group : groups_) {
    for (const auto& member : group) out.push_back(groups_.path(member));
  }
  return out;
}

DeletionRequest DupesScan::deletion(const std::set<std::string>& chosen) const {
  return deletion(chosen, Core::KeepRule{});
}

DeletionRequest DupesScan::deletion(const std::set<std::string>& chosen,
                                    const Core::KeepRule& rule) const {
  return duplicatesDeletion(groups_, rule, &chosen);
}

void writeDupesJson(const Core::DuplicateGroups& groups, std::int64_t reclaimable, bool stopped,
                    const std::vector<ReadError>& errors,
                    const std::function<void(std::string_view)>& write) {
  std::string out = "{\"groups\":[";
  std::string path;
  for (std::size_t g = 0; g < groups.size(); ++g) {
    out += g == 0 ? "[" : ",[";
    const auto group = groups[g];
    for (std::size_t m = 0; m < group.size(); ++m) {
      const auto& member = group[m];
      out += m == 0 ? "{\"path\":" : ",{\"path\":";
      path.clear();
      groups.appendPath(member, path);
      out += jsonText(path).dump();
      out += ",\"size\":" + std::to_string(groups.fileSize(member));
      out += std::string(",\"kind\":\"") + kindName(member.kind) + "\"";
      out += ",\"modified\":" + std::to_string(member.modified);
      if (auto id = groups.photoID(member)) {
        out += ",\"id\":" + jsonText(*id).dump();
      }
      if (groups.otherNameCount(member) > 0) {
        const auto names = groups.otherNames(member);
        out += ",\"also\":[";
        for (std::size_t n = 0; n < names.size(); ++n) {
          if (n > 0) out += ",";
          out += jsonText(names[n]).dump();
        }
        out += "]";
      }
      out += "}";
      if (out.size() > (1 << 16)) {
        write(out);
        out.clear();
      }
    }
    out += "]";
  }
  out += "],\"reclaimable\":" + std::to_string(reclaimable);
  out += std::string(",\"stopped\":") + (stopped ? "true" : "false");
  out += std::string(",\"complete\":") + (stopped || !errors.empty() ? "false" : "true");
  out += ",\"errors\":" + errorsJson(errors).dump() + "}\n";
  write(out);
}

std::optional<Core::KeepRule> keepRuleNamed(std::string_view name) {
  Core::KeepRule rule;
  if (name == "first") {
    rule.choice = Core::KeepRule::Choice::first;
  } else if (name == "newest") {
    rule.choice = Core::KeepRule::Choice::newest;
  } else if (name == "oldest") {
    rule.choice = Core::KeepRule::Choice::oldest;
  } else if (name == "shortest-path") {
    rule.choice = Core::KeepRule::Choice::shortestPath;
  } else {
    return std::nullopt;
  }
  return rule;
}

DeletionRequest duplicatesDeletion(const Core::DuplicateGroups& groups, const Core::KeepRule& rule,
                                   const std::set<std::string>* chosen) {
  Core::KeepOnePlan plan = Core::planKeepingOne(groups, rule);
  DeletionRequest request;
  request.kept.assign(plan.kept.begin(), plan.kept.end());
  if (chosen) {
    for (const auto& kept : plan.kept) {
      if (chosen->count(std::string(kept))) {
        request.leftAlone.emplace_back(kept, "kept: the member its group keeps");
      }
    }
  }
  for (const auto& target : plan.deletions) {
    std::string path(target.path), keptPath(target.keptPath);
    if (chosen && !chosen->count(path)) continue;
    if (auto refused = hostRefusal(path)) {
      request.leftAlone.emplace_back(path, "refused: " + *refused);
    } else if (!Core::sameContents(path, keptPath)) {
      request.leftAlone.emplace_back(
          path,
          "changed since the search, or not the same bytes as the kept " + displayText(keptPath));
    } else if (target.photoID) {
      request.photos.push_back(
          Core::Photo{std::string(*target.photoID), Core::File{path, bytesAt(path)}});
    } else {
      request.sameAs[path] = keptPath;
      request.paths.push_back(std::move(path));
    }
  }
  return request;
}

}  // namespace host
