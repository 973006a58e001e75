#include <dirent.h>
#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>

#include "cli/Commands.h"
#include "cli/Deletion.h"
#include "dff/CoreDuplicateFileFinder.h"
#include "dff/DuplicateGroups.h"
#include "host/Dupes.h"
#include "host/Host.h"
#include "platform/ByteCountFormatter.h"
#include "platform/Dispatch.h"
#include "platform/Files.h"
#include "platform/Locations.h"
#include "platform/Phases.h"

namespace cli {

namespace {

void printReport(const Core::DuplicateGroups& groups, std::int64_t reclaimable, bool stopped) {
  std::size_t items = 0;
  for (const auto group : groups) {
    std::printf("%zu × %s\n", group.size(),
                platform::formatByteCount(groups.fileSize(group.front())).c_str());
    for (const auto& member : group) {
      std::string line = "  " + displayText(groups.path(member));
      if (auto id = groups.photoID(member)) {
        line += "  [photo " + displayText(*id) + "]";
      } else if (member.kind != Core::MemberKind::file) {
        line += std::string("  [") + kindName(member.kind) + "]";
      }
      std::printf("%s\n", line.c_str());
      if (groups.otherNameCount(member) == 0) continue;
      for (const auto& name : groups.otherNames(member)) {
        std::printf("    = %s\n", displayText(name).c_str());
      }
    }
    std::printf("\n");
    items += group.size();
  }
  std::printf("%zu groups, %zu items, %s could be freed by keeping one of each%s\n", groups.size(),
              items, platform::formatByteCount(reclaimable).c_str(),
              stopped ? " (search stopped: only what was settled before the stop)" : "");
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
                    "Print {\"groups\": [[{\"path\", \"size\", \"kind\", \"modified\", \"id\", "
                    "\"also\"}, "
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
    DupesOptions options;
    options.roots = *roots;
    options.minSize = *bytes;
    options.hidden = *hidden;
    options.exclude = *excludes;
    options.excludeExtensions = *excludeExtensions;
    options.hardLinks = *hardLinks;
    options.jobs = *jobs;
    DupesScan scan(std::move(options));
    for (const auto& dropped : scan.dropped()) {
      std::fprintf(stderr, "ravelin dupes: %s is searched once: %s\n",
                   displayText(dropped.root).c_str(), displayText(dropped.reason).c_str());
    }

    StatusLine status;
    InterruptGuard interrupt;
    scan.start({}, [&] {
      status.show(fmt::format("{:3.0f}%  {}", scan.progress() * 100, scan.current()));
    });
    platform::runMainUntil(
        [&] {
          // The engine winds down and reports what it settled before the stop.
          if (interrupt.interrupted()) scan.stop();
          return scan.finished();
        },
        std::chrono::hours(24 * 365));
    status.clear();
    const bool stopped = scan.stopped();
    Core::DuplicateGroups groups = std::move(scan.groups());
    const std::vector<ReadError>& errors = scan.errors();
    if (*remove) {
      if (stopped) throw CommandError{kFailure, "stopped: nothing deleted"};
      Core::KeepRule rule = *keepRuleNamed(*keep);
      if (!keepUnder->empty()) rule.keepUnder = absolutePath(*keepUnder);
      confirmAndDelete(duplicatesDeletion(groups, rule), *yes, *dryRun, *json);
      if (!errors.empty()) failIncomplete(errors);
      return;
    }
    const std::int64_t reclaimable = Core::bytesFreedKeepingOne(groups);
    platform::endPhase("plan");
    if (*json) {
      writeDupesJson(groups, reclaimable, stopped, errors, [](std::string_view piece) {
        std::fwrite(piece.data(), 1, piece.size(), stdout);
      });
    } else {
      printReport(groups, reclaimable, stopped);
    }
    platform::endPhase("report");
    if (stopped) throw CommandError{kFailure, "stopped"};
    if (!errors.empty()) failIncomplete(errors);
  });
}

}  // namespace cli
