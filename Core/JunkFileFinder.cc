#include "Core/JunkFileFinder.h"

#include <utility>

#include "platform/Files.h"
#include "platform/Locations.h"

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

std::string joined(const std::vector<std::string>& parts, const std::string& separator) {
  std::string out;
  for (std::size_t i = 0; i < parts.size(); ++i) out += (i ? separator : "") + parts[i];
  return out;
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

const platform::Regex& rotatedLogExpression() {
  static const platform::Regex* expression = [] {
    const std::string compressed =
        "\\.(?:" + joined({"gz", "xz", "bz2", "zst", "lz4", "Z"}, "|") + ")";
    const std::vector<std::string> rotations = {
        "\\.[0-9]+(?:" + compressed + ")?",  // syslog.1, syslog.2.gz
        "-[0-9]{8}(?:" + compressed + ")?",  // messages-20261101
        "\\.old",                            // Xorg.0.log.old
        compressed,                          // anything compressed: never written to again
    };
    std::string pattern = "^(?:[^/]+?(?:" + joined(rotations, "|") + ")" +
                          // journald's archived files, and those it set aside as damaged
                          "|[^/]+@[^/]+\\.journal~?|[^/]+\\.journal~)$";
    return new platform::Regex(*platform::Regex::compile(pattern));
  }();
  return *expression;
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
  // Crash reports, every one.
  if (auto listing = listDirectory(locations.crashReports); listing.ok()) {
    for (const auto& item : *listing) {
      if (context.interrupted()) return;
      File file{item.url, listedSize(item)};
      if (auto live = delegate.lock()) live->junkFileFinderFoundLog(file);
    }
  }
  // The logs that are done with, in the logs folder and the folders below it (apt's, the
  // journal's), never entering a link.
  if (context.interrupted()) return;
  const platform::Regex& done = rotatedLogExpression();
  std::vector<std::pair<std::string, int>> folders{{locations.systemLogs, 0}};
  while (!folders.empty()) {
    auto [folder, depth] = std::move(folders.back());
    folders.pop_back();
    if (context.interrupted()) return;
    auto listing = listDirectory(folder);
    if (!listing.ok()) continue;  // what can't be read is passed over
    for (const auto& item : *listing) {
      if (context.interrupted()) return;
      if (item.resourceValues.isDirectory()) {
        if (depth < 8) folders.emplace_back(item.url, depth + 1);
        continue;
      }
      if (item.resourceValues.type != platform::FileType::regular) continue;
      if (!done.matches(item.resourceValues.name)) continue;
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
