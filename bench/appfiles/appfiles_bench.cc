// The uninstaller's two questions on a generated home: 100 applications (desktop entries with
// their programs, a few of them with rules of their own, the rest served by the general rules)
// and about 200,000 entries below ~/.cache, ~/.config, ~/.local/share and ~/.var/app, with 20
// removed applications' folders left behind.
//
//   appfiles_bench [--junk] [TREE_PARENT]
//
// With --junk it runs the junk scan over the same tree instead (the home's caches and logs,
// 20,000 more entries of system caches, logs and trash) and also prints the peak memory.
//
// Prints the time of scan() and of scanLeftovers() (median of 5 runs, warm cache), the folders
// listed against the folders the rules reached, and `du -s` over the same entries. The tree is
// made once under TREE_PARENT (by default /dev/shm, where files are made fast) and kept.

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "Core/AppFileFinder.h"
#include "Core/JunkFileFinder.h"
#include "platform/Dispatch.h"
#include "platform/Locations.h"
#include "resources/Resources.h"

namespace {

using Clock = std::chrono::steady_clock;

// Applications with rules of their own in the built-in document.
const std::vector<std::string> kRuled = {"firefox-esr", "thunderbird", "chromium", "gimp",
                                         "vlc",         "code",        "audacity", "blender",
                                         "spotify",     "steam"};

void write(const std::string& path, const std::string& content) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream(path) << content;
}

std::size_t fill(const std::string& folder, int folders, int files) {
  std::size_t entries = 0;
  for (int d = 0; d < folders; ++d) {
    std::string sub = folder + "/d" + std::to_string(d);
    std::filesystem::create_directories(sub);
    ++entries;
    for (int f = 0; f < files; ++f) {
      std::ofstream(sub + "/f" + std::to_string(f))
          << std::string(static_cast<std::size_t>(f % 7) * 100, 'x');
      ++entries;
    }
  }
  return entries;
}

std::string idOf(int n) {
  return n < static_cast<int>(kRuled.size()) ? kRuled[static_cast<std::size_t>(n)]
                                             : "app" + std::to_string(n);
}

void makeTree(const std::string& root) {
  if (std::filesystem::exists(root + "/.complete-2")) return;
  std::filesystem::remove_all(root);
  const std::string home = root + "/home";
  std::size_t entries = 0;
  for (int n = 0; n < 100; ++n) {
    std::string id = idOf(n);
    write(root + "/usr/share/applications/" + id + ".desktop",
          "[Desktop Entry]\nType=Application\nName=App " + std::to_string(n) + "\nExec=/usr/bin/" +
              id + " %U\n");
    write(root + "/usr/bin/" + id, std::string(4096, 'b'));
    ::chmod((root + "/usr/bin/" + id).c_str(), 0755);
    entries += fill(home + "/.cache/" + id, 10, 99);
    entries += fill(home + "/.config/" + id, 5, 99);
    entries += fill(home + "/.local/share/" + id, 5, 99);
  }
  // What 20 removed applications left, named as the rules know them or as flatpaks.
  const std::vector<std::string> removed = {"discord",        "slack",  "zoom",     "opera",
                                            "signal-desktop", "obs",    "inkscape", "krita",
                                            "darktable",      "calibre"};
  for (const auto& id : removed) entries += fill(home + "/.config/" + id, 5, 19);
  for (int n = 0; n < 10; ++n) {
    entries += fill(home + "/.var/app/org.example.Gone" + std::to_string(n), 5, 19);
  }
  // The system's side: package caches, old and live logs, a trash.
  entries += fill(root + "/var/cache/apt/archives", 10, 499);
  entries += fill(root + "/var/cache/man", 5, 199);
  entries += fill(root + "/var/log/journal", 5, 199);
  for (int n = 0; n < 200; ++n) {
    write(root + "/var/log/app" + std::to_string(n) + ".log", "live");
    write(root + "/var/log/app" + std::to_string(n) + ".log.1", "old");
    // Rotated a day ago: a log changed in the last hour is never junk.
    struct timespec times[2] = {{::time(nullptr) - 86400, 0}, {::time(nullptr) - 86400, 0}};
    ::utimensat(AT_FDCWD, (root + "/var/log/app" + std::to_string(n) + ".log.1").c_str(), times, 0);
    entries += 2;
  }
  entries += fill(home + "/.local/share/Trash/files", 10, 599);
  write(root + "/var/crash/_usr_bin_app.0.crash", "crash");
  struct timespec times[2] = {{::time(nullptr) - 86400, 0}, {::time(nullptr) - 86400, 0}};
  ::utimensat(AT_FDCWD, (root + "/var/crash/_usr_bin_app.0.crash").c_str(), times, 0);
  ++entries;
  std::ofstream(root + "/.complete-2") << entries << "\n";
}

struct JunkGather final : Core::JunkFileFinderDelegate {
  void junkFileFinderCurrentURL(const std::string&) override {}
  void junkFileFinderProgress(double) override {}
  void junkFileFinderFoundSystemCache(const Core::File& f) override { add(f.url, f.size); }
  void junkFileFinderFoundLog(const Core::File& f) override { add(f.url, f.size); }
  void junkFileFinderFoundTrashItem(const Core::File& f) override { add(f.url, f.size); }
  void junkFileFinderDidFinishSystemFiles() override {}
  void junkFileFinderFoundDiskImages(const std::vector<Core::File>& files) override {
    for (const auto& f : files) add(f.url, f.size);
  }
  void junkFileFinderFoundAppJunk(const Core::MacAppJunkFile& junk) override { add(junk.files); }
  void junkFileFinderFoundOrphanJunk(const Core::AppJunkFile& junk) override { add(junk.files); }
  void junkFileFinderFoundBrowserJunk(const Core::MacAppJunkFile& junk) override {
    add(junk.files);
  }
  void junkFileFinderDidFinish() override { finished = true; }

  void add(const std::string& path, std::int64_t size) {
    std::lock_guard lock(mutex);  // the system categories come on the scan queue
    paths.push_back(path);
    bytes += size;
  }
  void add(const std::vector<Core::AppFile>& files) {
    for (const auto& f : files) add(f.url, f.size);
  }
  std::mutex mutex;
  std::vector<std::string> paths;
  std::int64_t bytes = 0;
  bool finished = false;
};

struct Gather final : Core::AppFileFinderDelegate {
  void appFileFinderFoundApp(const Core::CaseInsensitiveString& id, const std::string&) override {
    found.insert(id.origin());
  }
  void appFileFinderDidFindApps() override { didFind = true; }
  void appFileFinderFound(const Core::CaseInsensitiveString&,
                          const Core::AppFileSet& set) override {
    ++measured;
    for (const auto& file : set.files) {
      paths.push_back(file.url);
      bytes += file.size;
    }
  }
  void appFileFinderLeftovers(const Core::CaseInsensitiveString&,
                              const std::vector<Core::AppFile>& files) override {
    leftoverFiles += files.size();
  }
  void appFileFinderDidFinishLeftovers() override { leftoversDone = true; }

  std::set<std::string> found;
  bool didFind = false;
  std::size_t measured = 0;
  std::vector<std::string> paths;
  std::int64_t bytes = 0;
  std::size_t leftoverFiles = 0;
  bool leftoversDone = false;
};

double seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

}  // namespace

double duSeconds(const std::string& root, const std::vector<std::string>& paths) {
  std::string list = root + "/.du-paths";
  {
    std::ofstream out(list, std::ios::binary);
    for (const auto& path : paths) out << path << '\0';
  }
  std::vector<double> times;
  for (int run = 0; run < 5; ++run) {
    auto start = Clock::now();
    std::string command = "du -s -c --files0-from=" + list + " >/dev/null";
    if (std::system(command.c_str()) != 0) return -1;
    times.push_back(seconds(Clock::now() - start));
  }
  return median(times);
}

int junk(const std::string& root, const std::string& entries) {
  auto locations = platform::Locations::underRoot(root);
  platform::setCurrentLocations(locations);
  auto rules = std::make_shared<Core::RuleManager>(
      *Core::RuleManager::load(resources::ruleDocument(), locations));
  std::vector<double> times;
  std::shared_ptr<JunkGather> last;
  Core::FileFinder::Statistics statistics;
  for (int run = 0; run < 5; ++run) {
    auto gather = std::make_shared<JunkGather>();
    auto finder = Core::JunkFileFinder::create(rules);
    finder->delegate = gather;
    auto start = Clock::now();
    finder->start();
    platform::runMainUntil([&] { return gather->finished; }, std::chrono::minutes(10));
    times.push_back(seconds(Clock::now() - start));
    statistics = finder->appFileFinder->statistics();
    last = gather;
  }
  struct rusage usage {};
  ::getrusage(RUSAGE_SELF, &usage);
  std::printf("tree: %s entries\n", entries.c_str());
  std::printf("junk scan: %.3f s  (%zu items, %.1f MB)\n", median(times), last->paths.size(),
              static_cast<double>(last->bytes) / 1e6);
  std::printf("application stage: %zu folder listings (%zu distinct), %zu existence tests\n",
              statistics.listed.size(),
              std::set<std::string>(statistics.listed.begin(), statistics.listed.end()).size(),
              statistics.existenceTests);
  double du = duSeconds(root, last->paths);
  std::printf("du -s over the items found: %.3f s (scan / du = %.2f)\n", du, median(times) / du);
  // The scan also walks the whole home folder for disk images.
  double folders = duSeconds(
      root, {locations.home, locations.systemCaches, locations.systemLogs, locations.crashReports});
  std::printf("du -s over the folders scanned (home, caches, logs): %.3f s (scan / du = %.2f)\n",
              folders, median(times) / folders);
  std::printf("peak memory: %.1f MB\n", static_cast<double>(usage.ru_maxrss) / 1024);
  return 0;
}

int main(int argc, char** argv) {
  bool junkScan = argc > 1 && std::string(argv[1]) == "--junk";
  if (junkScan) {
    --argc;
    ++argv;
  }
  const std::string parent = argc > 1 ? argv[1] : "/dev/shm";
  const std::string root = parent + "/ravelin-bench-appfiles";
  makeTree(root);
  std::string entries;
  std::ifstream(root + "/.complete-2") >> entries;
  if (junkScan) return junk(root, entries);

  auto locations = platform::Locations::underRoot(root);
  platform::setCurrentLocations(locations);
  auto rules = std::make_shared<Core::RuleManager>(
      *Core::RuleManager::load(resources::ruleDocument(), locations));

  std::vector<double> scanTimes, leftoverTimes;
  std::shared_ptr<Gather> last;
  Core::FileFinder::Statistics statistics;
  for (int run = 0; run < 5; ++run) {
    auto gather = std::make_shared<Gather>();
    auto finder = Core::AppFileFinder::create(rules);
    finder->delegate = gather;
    auto start = Clock::now();
    finder->scan();
    platform::runMainUntil(
        [&] { return gather->didFind && gather->measured == gather->found.size(); },
        std::chrono::minutes(10));
    scanTimes.push_back(seconds(Clock::now() - start));
    statistics = finder->statistics();
    start = Clock::now();
    finder->scanLeftovers();
    platform::runMainUntil([&] { return gather->leftoversDone; }, std::chrono::minutes(10));
    leftoverTimes.push_back(seconds(Clock::now() - start));
    last = gather;
  }

  std::set<std::string> distinctListed(statistics.listed.begin(), statistics.listed.end());

  const double du = duSeconds(root, last->paths);

  std::printf("tree: %s entries, %zu applications\n", entries.c_str(), last->found.size());
  std::printf("scan():          %.3f s  (%zu entries claimed, %.1f MB)\n", median(scanTimes),
              last->paths.size(), static_cast<double>(last->bytes) / 1e6);
  std::printf("scanLeftovers(): %.3f s  (%zu leftover entries)\n", median(leftoverTimes),
              last->leftoverFiles);
  std::printf(
      "folders listed:  %zu (%zu distinct) of %zu folders the rules reached; "
      "%zu existence tests\n",
      statistics.listed.size(), distinctListed.size(), statistics.directories,
      statistics.existenceTests);
  std::printf("du -s over the same entries: %.3f s (scan() / du = %.2f)\n", du,
              median(scanTimes) / du);
  return statistics.listed.size() == distinctListed.size() ? 0 : 1;
}
