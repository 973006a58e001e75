#include <fmt/format.h>

#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <set>

#include "cli/Commands.h"
#include "cli/Deletion.h"
#include "host/Host.h"

namespace cli {

namespace {

// The whole of FILE, or of standard input for "-".
std::string readList(const std::string& file) {
  if (file == "-") {
    return std::string(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
  }
  std::ifstream input(file, std::ios::binary);
  if (!input) throw CommandError{kUsage, fmt::format("{}: can't be read", displayText(file))};
  return std::string(std::istreambuf_iterator<char>(input), std::istreambuf_iterator<char>());
}

// The non-empty entries of `text` between `separator`s.
std::vector<std::string> entriesOf(const std::string& text, char separator) {
  std::vector<std::string> entries;
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t end = text.find(separator, start);
    if (end == std::string::npos) end = text.size();
    if (end > start) entries.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return entries;
}

}  // namespace

void addDeleteCommand(CLI::App& app) {
  auto* command = app.add_subcommand(
      "delete", "Delete files and folders: with your rights, then through the helper");
  auto yes = std::make_shared<bool>(false);
  auto dryRun = std::make_shared<bool>(false);
  auto system = std::make_shared<bool>(false);
  auto json = std::make_shared<bool>(false);
  auto from = std::make_shared<std::string>();
  auto from0 = std::make_shared<std::string>();
  auto paths = std::make_shared<std::vector<std::string>>();
  command->add_flag("--yes,-y", *yes, "Delete without asking (needed without a terminal)");
  command->add_flag("--dry-run,-n", *dryRun, "Show what would be deleted, and delete nothing");
  command->add_flag("--system", *system,
                    "Also delete in the system's own folders (/etc, /usr but /usr/local, /boot, "
                    "/var/lib, /dev, /proc, /sys), which are refused otherwise");
  command->add_flag("--json", *json,
                    "Print {\"deleted\": [...], \"failed\": [{\"path\", \"reason\"}], "
                    "\"bytes\": N, \"stopped\": BOOL}");
  command->add_option("--from", *from,
                      "Read paths from FILE (- for standard input), one per line, written as "
                      "ravelin prints them");
  command->add_option("--from0", *from0,
                      "Read NUL-separated paths from FILE (- for standard input), as find -print0 "
                      "writes them");
  command->add_option("PATH", *paths, "Files and folders to delete");
  command->footer(
      "While deleting, p pauses and resumes and Ctrl-C stops. Exit status 0 when everything\n"
      "asked for is gone, 1 otherwise, 2 for bad arguments (and when asked to delete without a\n"
      "terminal and without --yes).");
  command->callback([=] {
    // The list read, and what made it, go before the deletion starts.
    DeletionRequest request;
    {
      std::vector<std::string> given = *paths;
      if (!from->empty()) {
        for (const auto& line : entriesOf(readList(*from), '\n')) {
          auto bytes = unescapeText(line);
          if (bytes && bytes->find('\0') != std::string::npos) {
            throw CommandError{
                kUsage, fmt::format("--from: a path holding a NUL byte: {}", displayText(line))};
          }
          if (!bytes) {
            throw CommandError{kUsage, fmt::format("--from: not a path as ravelin writes them: {}",
                                                   displayText(line))};
          }
          given.push_back(std::move(*bytes));
        }
      }
      if (!from0->empty()) {
        for (auto& entry : entriesOf(readList(*from0), '\0')) given.push_back(std::move(entry));
      }
      if (given.empty())
        throw CommandError{kUsage, "nothing to delete: give PATH, --from or --from0"};

      request.paths.reserve(given.size());
      for (auto& path : given) {
        if (path.empty()) throw CommandError{kUsage, "an empty path"};
        std::string absolute = absolutePath(path);
        if (auto refused = hostRefusal(absolute, *system)) {
          throw CommandError{kUsage,
                             fmt::format("{}: refused: {}", displayText(absolute), *refused)};
        }
        request.paths.push_back(std::move(absolute));
        std::string().swap(path);
      }
    }
    // Each path once, in the order first given: the order sorted by index, without copies.
    std::vector<std::uint32_t> order(request.paths.size());
    for (std::uint32_t i = 0; i < order.size(); ++i) order[i] = i;
    std::stable_sort(order.begin(), order.end(), [&](std::uint32_t a, std::uint32_t b) {
      return request.paths[a] < request.paths[b];
    });
    std::vector<bool> again(order.size(), false);
    for (std::size_t i = 1; i < order.size(); ++i) {
      if (request.paths[order[i]] == request.paths[order[i - 1]]) again[order[i]] = true;
    }
    std::size_t kept = 0;
    for (std::size_t i = 0; i < request.paths.size(); ++i) {
      if (again[i]) continue;
      if (kept != i) request.paths[kept] = std::move(request.paths[i]);
      ++kept;
    }
    request.paths.resize(kept);
    std::vector<std::uint32_t>().swap(order);
    confirmAndDelete(std::move(request), *yes, *dryRun, *json);
  });
}

}  // namespace cli
