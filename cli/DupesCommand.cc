#include <dirent.h>
#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>

#include "cli/Commands.h"
#include "cli/Deletion.h"
#include "host/Host.h"
#include "dff/CoreDuplicateFileFinder.h"
#include "dff/DuplicateGroups.h"
#include "platform/ByteCountFormatter.h"
#include "platform/Dispatch.h"
#include "platform/Files.h"
#include "platform/Locations.h"

namespace cli {

namespace {

class DupesReport final : public Core::DuplicateFileFinderDelegate {
 public:
  void duplicateFileFinderCurrent(const std::string& url) override {
    current = url;
    redraw();
  }
  void duplicateFileFinderProgress(double value) override {
    progress = value;
    redraw();
  }
  // The groups are refined as they arrive, and taken apart as they are: a search of a million
  // files would otherwise hold them twice.
  void duplicateFileFinderCompleted(std::vector<std::vector<Core::Duplicate>> found) override {
    groups = Core::refineGroups(std::move(found), options);
    finished = true;
  }

  void redraw() { status.show(fmt::format("{:3.0f}%  {}", progress * 100, current)); }

  StatusLine status;
  std::string current;
  double progress = 0;
  Core::RefineOptions options;
  std::vector<Core::DuplicateGroup> groups;
  bool finished = false;
};

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

void printReport(const std::vector<Core::DuplicateGroup>& groups, const Core::KeepOnePlan& plan,
                 bool stopped) {
  std::size_t items = 0;
  for (const auto& group : groups) {
    std::printf("%zu × %s\n", group.size(),
                platform::formatByteCount(group.front().file().size).c_str());
    for (const auto& member : group) {
      std::string line = "  " + displayText(member.file().url);
      if (auto* photo = std::get_if<Core::Photo>(&member.item)) {
        line += "  [photo " + displayText(photo->id) + "]";
      } else if (member.kind != Core::MemberKind::file) {
        line += std::string("  [") + kindName(member.kind) + "]";
      }
      std::printf("%s\n", line.c_str());
      for (const auto& name : member.otherNames) {
        std::printf("    = %s\n", displayText(name).c_str());
      }
    }
    std::printf("\n");
    items += group.size();
  }
  std::printf("%zu groups, %zu items, %s could be freed by keeping one of each%s\n", groups.size(),
              items, platform::formatByteCount(plan.bytesFreed).c_str(),
              stopped ? " (search stopped: only what was settled before the stop)" : "");
}

// Streams the groups as one JSON document; a document object of a million members would cost
// more memory than the search itself.
void printJson(const std::vector<Core::DuplicateGroup>& groups, const Core::KeepOnePlan& plan,
               bool stopped, const std::vector<ReadError>& errors) {
  std::string out = "{\"groups\":[";
  for (std::size_t g = 0; g < groups.size(); ++g) {
    out += g == 0 ? "[" : ",[";
    for (std::size_t m = 0; m < groups[g].size(); ++m) {
      const auto& member = groups[g][m];
      out += m == 0 ? "{\"path\":" : ",{\"path\":";
      out += jsonText(member.file().url).dump();
      out += ",\"size\":" + std::to_string(member.file().size);
      out += std::string(",\"kind\":\"") + kindName(member.kind) + "\"";
      if (auto* photo = std::get_if<Core::Photo>(&member.item)) {
        out += ",\"id\":" + jsonText(photo->id).dump();
      }
      if (!member.otherNames.empty()) {
        out += ",\"also\":[";
        for (std::size_t n = 0; n < member.otherNames.size(); ++n) {
          if (n > 0) out += ",";
          out += jsonText(member.otherNames[n]).dump();
        }
        out += "]";
      }
      out += "}";
      if (out.size() > (1 << 16)) {
        std::fwrite(out.data(), 1, out.size(), stdout);
        out.clear();
      }
    }
    out += "]";
  }
  out += "],\"reclaimable\":" + std::to_string(plan.bytesFreed);
  out += std::string(",\"stopped\":") + (stopped ? "true" : "false");
  out += std::string(",\"complete\":") + (stopped || !errors.empty() ? "false" : "true");
  out += ",\"errors\":" + errorsJson(errors).dump() + "}\n";
  std::fwrite(out.data(), 1, out.size(), stdout);
}

// Keeps one member of each group by `rule` and deletes the others, each only once it has been
// found byte for byte the same as the member kept: the digests decide what is shown, only bytes
// decide what is deleted.
void deleteDuplicates(const std::vector<Core::DuplicateGroup>& groups, const Core::KeepRule& rule,
                      bool yes, bool dryRun, bool json) {
  Core::KeepOnePlan plan = Core::planKeepingOne(groups, rule);
  DeletionRequest request;
  request.kept = plan.kept;
  for (const auto& target : plan.deletions) {
    std::string path(target.path), keptPath(target.keptPath);
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
  confirmAndDelete(request, yes, dryRun, json);
}

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

void addDupesCommand(CLI::App& app) {
  auto* command =
      app.add_subcommand("dupes", "Identical files, folders, packages and photo-library pictures");
  auto json = std::make_shared<bool>(false);
  auto hidden = std::make_shared<bool>(false);
  auto minSize = std::make_shared<std::string>("0");
  auto excludes = std::make_shared<std::vector<std::string>>();
  auto excludeExtensions = std::make_shared<std::vector<std::string>>();
  auto roots = std::make_shared<std::vector<std::string>>();
  auto hardLinks = std::make_shared<bool>(false);
  auto jobs = std::make_shared<unsigned>(0);
  auto remove = std::make_shared<bool>(false);
  auto keep = std::make_shared<std::string>("first");
  auto keepUnder = std::make_shared<std::string>();
  auto yes = std::make_shared<bool>(false);
  auto dryRun = std::make_shared<bool>(false);
  command->add_option("--min-size", *minSize, "Leave out files smaller than SIZE (default 0)");
  command->add_flag("--hidden", *hidden, "Enter folders whose name starts with a dot");
  command->add_option("--exclude", *excludes, "Leave out this folder (repeatable)")
      ->allow_extra_args(false);
  command
      ->add_option("--exclude-ext", *excludeExtensions,
                   "Leave out names ending in SUFFIX, e.g. .tmp (repeatable)")
      ->allow_extra_args(false);
  command->add_flag("--delete", *remove,
                    "Delete all but one member of each group (asks first, or needs --yes)");
  command
      ->add_option("--keep", *keep,
                   "With --delete: the member kept: first, newest, oldest or shortest-path")
      ->check(CLI::IsMember({"first", "newest", "oldest", "shortest-path"}));
  command->add_option("--keep-under", *keepUnder,
                      "With --delete: keep the member below DIR when a group has one");
  command->add_flag("--yes,-y", *yes, "With --delete: delete without asking");
  command->add_flag("--dry-run,-n", *dryRun, "With --delete: show the plan, delete nothing");
  command
      ->add_option("--jobs,-j", *jobs,
                   "Read and digest files on N threads (default: one per processor); the "
                   "result is the same for any N")
      ->check(CLI::Range(1u, 1024u));
  command->add_flag("--hard-links", *hardLinks,
                    "List each name of a hard-linked file as a member of its own");
  command->add_flag("--json", *json,
                    "Print {\"groups\": [[{\"path\", \"size\", \"kind\", \"id\", \"also\"}, "
                    "...], ...], \"reclaimable\": N, \"stopped\": BOOL, \"complete\": BOOL, "
                    "\"errors\": [{\"path\", \"error\"}, ...]}");
  command->footer(
      "Exit status 1 when Ctrl-C stopped the search or a root could not be read; what was\n"
      "settled is printed all the same.");
  command->add_option("ROOT", *roots, "Folders or photo libraries to search (default: home)");
  command->callback([=] {
    auto bytes = parseSize(*minSize);
    if (!bytes) throw CommandError{kUsage, fmt::format("--min-size: not a size: {}", *minSize)};
    for (const auto& suffix : *excludeExtensions) {
      if (suffix.empty())
        throw CommandError{kUsage, "--exclude-ext: an empty suffix matches every name"};
    }
    // A folder to keep under that isn't there would keep nothing, silently.
    if (!keepUnder->empty() &&
        !platform::isDirectory(absolutePath(*keepUnder), platform::Follow::yes)) {
      throw CommandError{kUsage,
                         fmt::format("--keep-under: not a folder: {}", displayText(*keepUnder))};
    }
    // Each root must be a folder; the roots are then resolved together, as the user gave them.
    for (const auto& root : *roots) resolveFolderArgument(root);
    std::vector<std::string> given = *roots;
    if (given.empty()) given.push_back(platform::currentLocations().home);
    // A folder given twice, or inside another root, is searched once: otherwise every file in it
    // would be its own duplicate.
    Core::ResolvedRoots resolved = Core::resolveRoots(given);
    for (const auto& dropped : resolved.dropped) {
      std::fprintf(stderr, "ravelin dupes: %s is searched once: %s\n",
                   displayText(dropped.root).c_str(), displayText(dropped.reason).c_str());
    }
    // A root that can't be listed would give an empty, and so wrong, answer: it is an error.
    std::vector<ReadError> errors;
    for (const auto& root : resolved.roots) {
      if (Core::isPhotoLibraryPath(root)) continue;
      if (DIR* dir = ::opendir(root.c_str())) {
        ::closedir(dir);
      } else {
        errors.push_back({root, errno});
      }
    }
    std::vector<std::string> excluded;
    for (const auto& path : *excludes) {
      if (path.empty()) throw CommandError{kUsage, "--exclude: an empty path"};
      excluded.push_back(normalizeExclude(path));
    }

    auto& finder = Core::DuplicateFileFinder::shared();
    finder.setRootFolderURLs(resolved.roots);
    finder.setExcludePaths(excluded);
    finder.setExcludeExtensions(*excludeExtensions);
    finder.setIncludeHiddenFolders(*hidden);
    finder.setMinFileSize(*bytes);
    finder.setJobs(*jobs);
    auto report = std::make_shared<DupesReport>();
    report->options.keepHardLinks = *hardLinks;
    finder.setDelegate(report);

    InterruptGuard interrupt;
    bool stopped = false;
    finder.start();
    platform::runMainUntil(
        [&] {
          if (interrupt.interrupted() && !stopped) {
            // The engine winds down and reports what it settled before the stop.
            stopped = true;
            finder.stop();
          }
          return report->finished;
        },
        std::chrono::hours(24 * 365));
    report->status.clear();
    std::vector<Core::DuplicateGroup> groups = std::move(report->groups);
    if (*remove) {
      if (stopped) throw CommandError{kFailure, "stopped: nothing deleted"};
      Core::KeepRule rule;
      rule.choice = *keep == "newest"          ? Core::KeepRule::Choice::newest
                    : *keep == "oldest"        ? Core::KeepRule::Choice::oldest
                    : *keep == "shortest-path" ? Core::KeepRule::Choice::shortestPath
                                               : Core::KeepRule::Choice::first;
      if (!keepUnder->empty()) rule.keepUnder = absolutePath(*keepUnder);
      deleteDuplicates(groups, rule, *yes, *dryRun, *json);
      if (!errors.empty()) failIncomplete(errors);
      return;
    }
    auto plan = Core::planKeepingOne(groups);
    if (*json) {
      printJson(groups, plan, stopped, errors);
    } else {
      printReport(groups, plan, stopped);
    }
    if (stopped) throw CommandError{kFailure, "stopped"};
    if (!errors.empty()) failIncomplete(errors);
  });
}

}  // namespace cli
