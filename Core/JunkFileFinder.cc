#include "Core/JunkFileFinder.h"

#include <algorithm>
#include <ctime>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "platform/Files.h"
#include "platform/Locations.h"
#include "platform/Regex.h"

namespace Core {

namespace {

// The size of a listed item: its file size, the size of what is below a folder, else nothing.
std::int64_t listedSize(const URLResource& item) {
  switch (item.resourceValues.type) {
    case platform::FileType::regular:
    case platform::FileType::symbolicLink:
      return item.resourceValues.fileSize;
    case platform::FileType::directory:
      return directorySize(item.url);
    default:
      return 0;
  }
}

}  // namespace

const std::set<std::string>& systemCacheExclusions() {
  // debconf: the answers given to every package's questions, a database and no cache.
  // cracklib: the dictionary password checks need, built only when the package is configured.
  // dictionaries-common: the spelling dictionaries' registry, made only at package installation.
  // ldconfig: the linker's auxiliary cache, which ldconfig rewrites as it likes.
  // bind: where BIND keeps the zones it serves, masters as well as copies.
  // postgresql: the text-search dictionaries PostgreSQL links to, made when a package is set up.
  static const auto* names = new std::set<std::string>{
      "debconf", "cracklib", "dictionaries-common", "ldconfig", "bind", "postgresql"};
  return *names;
}

namespace {

constexpr std::int64_t kHour = 3600;
constexpr std::int64_t kWeek = 7 * 24 * kHour;

// A log's name taken apart: the live log's name it comes from, and what was added to it.
struct LogName {
  std::string base;
  bool compressed = false;
  bool rotated = false;  // a rotation suffix: .1, .old, -20261101, .2026-11-01
};

bool allDigits(std::string_view text) {
  return !text.empty() &&
         std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// YYYYMMDD, optionally with HH after it, in a range a log could carry.
bool isCompactDate(std::string_view digits) {
  if ((digits.size() != 8 && digits.size() != 10) || !allDigits(digits)) return false;
  int year = std::stoi(std::string(digits.substr(0, 4)));
  int month = std::stoi(std::string(digits.substr(4, 2)));
  int day = std::stoi(std::string(digits.substr(6, 2)));
  int hour = digits.size() == 10 ? std::stoi(std::string(digits.substr(8, 2))) : 0;
  return year >= 1990 && year <= 2199 && month >= 1 && month <= 12 && day >= 1 && day <= 31 &&
         hour <= 23;
}

// YYYY-MM-DD.
bool isDashedDate(std::string_view text) {
  return text.size() == 10 && text[4] == '-' && text[7] == '-' &&
         isCompactDate(std::string(text.substr(0, 4)) + std::string(text.substr(5, 2)) +
                       std::string(text.substr(8, 2)));
}

bool isDateSeparator(char c) { return c == '-' || c == '.' || c == '_'; }

LogName parseLogName(std::string_view name) {
  LogName parsed;
  for (const char* extension : {".gz", ".xz", ".bz2", ".zst", ".lz4", ".Z"}) {
    std::string_view suffix(extension);
    if (name.size() > suffix.size() && name.ends_with(suffix)) {
      name.remove_suffix(suffix.size());
      parsed.compressed = true;
      break;
    }
  }
  auto strip = [&](std::size_t length) {
    name.remove_suffix(length);
    parsed.rotated = true;
  };
  std::size_t lastNonDigit = name.find_last_not_of("0123456789");
  std::size_t digits = lastNonDigit == std::string_view::npos ? 0 : name.size() - lastNonDigit - 1;
  if (name.size() > 4 && name.ends_with(".old")) {
    strip(4);
  } else if (digits > 0 && lastNonDigit > 0) {
    char separator = name[lastNonDigit];
    std::string_view number = name.substr(lastNonDigit + 1);
    if (separator == '.' && digits <= 3) {
      strip(digits + 1);  // syslog.1; savelog's .0; at most a few hundred kept
    } else if (isDateSeparator(separator) && isCompactDate(number)) {
      strip(digits + 1);  // messages-20261101, access_log.20261123
    } else if (name.size() > 11 && isDateSeparator(name[name.size() - 11]) &&
               isDashedDate(name.substr(name.size() - 10))) {
      strip(11);  // app.log.2026-11-01
    }
  }
  parsed.base = std::string(name);
  return parsed;
}

std::string lowercaseASCII(std::string_view text) {
  std::string out(text);
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return out;
}

// A name that says it is a log: rotation suffixes on anything else (a client's address in
// Samba's log.192.168.1.5, an archive's volume number) are not taken for rotations.
bool isLogLike(std::string_view base) {
  std::string name = lowercaseASCII(base);
  for (const char* ending : {"log", "logs", ".err", ".warn", ".info", ".crit", ".notice"}) {
    if (name.ends_with(ending)) return true;
  }
  static const std::set<std::string> kNames = {"messages", "debug", "wtmp",    "btmp",
                                               "dmesg",    "kern",  "mail",    "cron",
                                               "secure",   "boot",  "spooler", "user"};
  return kNames.count(name) > 0;
}

// Families whose numbered files are all live: a server reads them back (binary and relay logs of
// MySQL and MariaDB, listed in their index; redo and Aria logs; write-ahead logs).
bool isAlwaysLive(std::string_view name) {
  static const platform::Regex* expression = new platform::Regex(
      *platform::Regex::compile("(?i)^(?:(?:.*[-_.])?(?:bin|binlog|relay-bin|relay-log)\\.[0-9]+"
                                "|#?ib_logfile[0-9]+|#?ib_redo[0-9]+|aria_log\\.[0-9]+"
                                "|.*(?:[-_.]|^)wal(?:[-_.].*)?|[0-9A-F]{24}(?:\\.partial)?)$"));
  return expression->matches(name);
}

// journald's archived files, and those it set aside as damaged.
bool isFinishedJournal(std::string_view name) {
  static const platform::Regex* expression = new platform::Regex(
      *platform::Regex::compile("^(?:[^/]+@[^/]+\\.journal~?|[^/]+\\.journal~)$"));
  return expression->matches(name);
}

// A part of an archive (PCP's BASE.0, BASE.meta, BASE.index, compressed or not), which the
// archive's index and metadata refer to: a prefix of the name, up to a dot, has a metadata or
// index file beside it.
bool isArchiveMember(const std::string& name, const std::unordered_set<std::string>& present) {
  for (std::size_t dot = name.find('.'); dot != std::string::npos; dot = name.find('.', dot + 1)) {
    std::string prefix = name.substr(0, dot);
    for (const char* part : {".meta", ".meta.xz", ".index", ".index.xz"}) {
      if (present.count(prefix + part)) return true;
    }
  }
  return false;
}

}  // namespace

std::vector<bool> finishedLogs(const std::vector<platform::DirectoryEntry>& entries,
                               std::int64_t now) {
  std::vector<LogName> names;
  names.reserve(entries.size());
  std::unordered_map<std::string, std::int64_t> newest;  // base: newest of the family
  std::unordered_set<std::string> present;               // regular files, by name
  for (const auto& entry : entries) {
    names.push_back(parseLogName(entry.name));
    if (entry.type != platform::FileType::regular) continue;
    present.insert(entry.name);
    auto [found, inserted] = newest.try_emplace(names.back().base, entry.modified);
    if (!inserted) found->second = std::max(found->second, entry.modified);
  }
  std::vector<bool> finished(entries.size(), false);
  for (std::size_t i = 0; i < entries.size(); ++i) {
    const auto& entry = entries[i];
    const LogName& name = names[i];
    if (entry.type != platform::FileType::regular) continue;
    if (now - entry.modified < kHour) continue;  // perhaps still being written
    if (isAlwaysLive(entry.name)) continue;
    if (isFinishedJournal(entry.name)) {
      finished[i] = true;
      continue;
    }
    if (!name.compressed && !name.rotated) continue;
    if (isArchiveMember(entry.name, present)) continue;
    if (name.compressed || present.count(name.base)) {
      finished[i] = true;
      continue;
    }
    finished[i] = isLogLike(name.base) &&
                  (entry.modified < newest[name.base] || now - entry.modified > kWeek);
  }
  return finished;
}

std::shared_ptr<JunkFileFinder> JunkFileFinder::create(std::shared_ptr<const RuleManager> rules,
                                                       QueryFactory makeQuery) {
  auto finder = std::make_shared<JunkFileFinder>(Token{}, std::move(rules), std::move(makeQuery));
  finder->appFileFinder->delegate = finder;
  return finder;
}

JunkFileFinder::JunkFileFinder(Token, std::shared_ptr<const RuleManager> rules,
                               QueryFactory makeQuery)
    : appFileFinder(AppJunkFinder::create(std::move(rules))),
      makeQuery_(makeQuery ? std::move(makeQuery)
                           : QueryFactory([] { return platform::makeMetadataQuery(); })) {}

void JunkFileFinder::start() {
  stopped_ = false;
  std::weak_ptr<JunkFileFinder> weak = weak_from_this();
  auto started = std::make_shared<bool>(false);  // touched on the scan's serial queue only
  auto setup = startScan(
      [weak](const std::string& url) {
        auto self = weak.lock();
        if (!self) return;
        if (auto live = self->delegate.lock()) live->junkFileFinderCurrentURL(url);
      },
      {1, 1, 1, 12},
      [weak](const double& fraction) {
        auto self = weak.lock();
        if (!self) return;
        if (auto live = self->delegate.lock()) live->junkFileFinderProgress(fraction);
      },
      [weak, started](const ScanSetup& running) {
        *started = true;
        if (auto self = weak.lock()) self->run(running);
      });
  interrupter_ = setup.context;
  progress_ = setup.progress;
  // A stop that came before the scan's item began cancels it; the scan must still end the way a
  // stopped one does, through the disk image and application stages.
  setup.queue.async([weak, started] {
    if (*started) return;
    platform::DispatchQueue::main().sync([weak] {
      if (auto self = weak.lock()) self->endSystemFiles();
    });
  });
}

void JunkFileFinder::stop() {
  stopped_ = true;
  if (interrupter_) {
    interrupter_->interrupt();
    interrupter_.reset();
  }
  // The disk image query walks the home folder: a stop ends it with an empty list, and the
  // application stage it starts is the one interrupted next.
  if (query_) {
    query_->stopQuery();
    query_.reset();
    finishDiskImages({});
  }
  if (appFileFinder->context) {
    appFileFinder->context->interrupt();
    appFileFinder->context.reset();
  }
}

void JunkFileFinder::run(const ScanSetup& setup) {
  FileFinderContext& context = *setup.context;
  caches(context);
  setup.progress->nextPart();
  logs(context);
  setup.progress->nextPart();
  trash(context);
  setup.progress->nextPart();
  std::weak_ptr<JunkFileFinder> weak = weak_from_this();
  platform::DispatchQueue::main().sync([weak] {
    if (auto self = weak.lock()) self->endSystemFiles();
  });
}

void JunkFileFinder::endSystemFiles() {
  if (auto live = delegate.lock()) live->junkFileFinderDidFinishSystemFiles();
  diskImages();
}

void JunkFileFinder::caches(FileFinderContext& context) {
  if (context.interrupted()) return;
  auto listing = listDirectory(platform::currentLocations().systemCaches);
  if (!listing.ok()) return;
  for (const auto& item : *listing) {
    if (context.interrupted()) return;
    if (systemCacheExclusions().count(item.resourceValues.name)) continue;
    File file{item.url, listedSize(item)};
    if (auto live = delegate.lock()) live->junkFileFinderFoundSystemCache(file);
  }
}

void JunkFileFinder::logs(FileFinderContext& context) {
  if (context.interrupted()) return;
  const platform::Locations& locations = platform::currentLocations();
  // Crash reports, every one the system is done writing.
  const std::int64_t now = static_cast<std::int64_t>(std::time(nullptr));
  if (auto listing = listDirectory(locations.crashReports); listing.ok()) {
    for (const auto& item : *listing) {
      if (context.interrupted()) return;
      if (now - item.resourceValues.modified < kHour) continue;
      File file{item.url, listedSize(item)};
      if (auto live = delegate.lock()) live->junkFileFinderFoundLog(file);
    }
  }
  // The logs that are done with, in the logs folder and the folders below it (apt's, the
  // journal's), never entering a link.
  if (context.interrupted()) return;
  std::vector<std::pair<std::string, int>> folders{{locations.systemLogs, 0}};
  while (!folders.empty()) {
    auto [folder, depth] = std::move(folders.back());
    folders.pop_back();
    if (context.interrupted()) return;
    auto listing = listDirectory(folder);
    if (!listing.ok()) continue;  // what can't be read is passed over
    std::vector<platform::DirectoryEntry> entries;
    entries.reserve(listing->size());
    for (const auto& item : *listing) entries.push_back(item.resourceValues);
    const std::vector<bool> finished = finishedLogs(entries, now);
    for (std::size_t i = 0; i < listing->size(); ++i) {
      if (context.interrupted()) return;
      const auto& item = (*listing)[i];
      if (item.resourceValues.isDirectory()) {
        if (depth < 8) folders.emplace_back(item.url, depth + 1);
        continue;
      }
      if (!finished[i]) continue;
      File file{item.url, item.resourceValues.fileSize};
      if (auto live = delegate.lock()) live->junkFileFinderFoundLog(file);
    }
  }
}

void JunkFileFinder::trash(FileFinderContext& context) {
  if (context.interrupted()) return;
  const auto& trashes = platform::currentLocations().trashes;
  std::set<std::string> listed;
  for (const auto& folder : trashes) {
    if (!listed.insert(folder).second) continue;  // each trash once
    auto listing = listDirectory(folder);
    if (!listing.ok()) continue;
    for (const auto& item : *listing) {
      if (context.interrupted()) return;
      File file{item.url, listedSize(item)};
      if (auto live = delegate.lock()) live->junkFileFinderFoundTrashItem(file);
    }
  }
}

void JunkFileFinder::diskImages() {
  if (!interrupter_) {
    finishDiskImages({});
    return;
  }
  query_ = makeQuery_();
  query_->setPredicate(platform::DiskImagePredicate{});
  query_->setSearchScopes({platform::currentLocations().home});
  std::weak_ptr<JunkFileFinder> weak = weak_from_this();
  query_->setDidFinishGathering([weak] {
    auto self = weak.lock();
    if (!self || !self->query_) return;
    self->query_->stopQuery();
    std::vector<File> found;
    for (const auto& item : self->query_->results()) {
      if (item.path && item.size) found.push_back(File{*item.path, *item.size});
    }
    self->query_.reset();
    self->finishDiskImages(std::move(found));
  });
  query_->startQuery();
}

void JunkFileFinder::finishDiskImages(std::vector<File> found) {
  if (auto live = delegate.lock()) live->junkFileFinderFoundDiskImages(found);
  if (progress_) progress_->partTotal = 100;
  if (stopped_) {
    appJunkFinderDidFinish();
    return;
  }
  appFileFinder->start();
}

void JunkFileFinder::appJunkFinderCurrentURL(const std::string& url) {
  if (auto live = delegate.lock()) live->junkFileFinderCurrentURL(url);
}

void JunkFileFinder::appJunkFinderProgress(double fraction) {
  if (progress_) progress_->setPartProgress(static_cast<std::int64_t>(fraction * 100));
}

void JunkFileFinder::appJunkFinderFoundAppJunk(const MacAppJunkFile& junk) {
  if (auto live = delegate.lock()) live->junkFileFinderFoundAppJunk(junk);
}

void JunkFileFinder::appJunkFinderFoundOrphanJunk(const AppJunkFile& junk) {
  if (auto live = delegate.lock()) live->junkFileFinderFoundOrphanJunk(junk);
}

void JunkFileFinder::appJunkFinderFoundBrowserJunk(const MacAppJunkFile& junk) {
  if (auto live = delegate.lock()) live->junkFileFinderFoundBrowserJunk(junk);
}

void JunkFileFinder::appJunkFinderDidFinish() {
  if (auto live = delegate.lock()) live->junkFileFinderDidFinish();
}

}  // namespace Core
