#include "Core/FileFinder.h"

#include <atomic>
#include <cerrno>
#include <utility>

#include "Core/FileFinderContext.h"
#include "helper/HelperConnection.h"
#include "monitor/DiskInfo.h"

namespace Core {

namespace {

std::int64_t nodeID(const MatcherNode& node) {
  if (const auto* directory = std::get_if<std::shared_ptr<DirectoryMatcher>>(&node)) {
    return (*directory)->id;
  }
  return std::get<FileMatcher>(node).id;
}

// The identifier an entry is delivered with: the given one, else the bundle identifier of a rule
// that serves one application.
std::optional<CaseInsensitiveString> deliveredIdentifier(
    const std::optional<CaseInsensitiveString>& identifier, const RuleID& ruleID) {
  if (identifier) return identifier;
  if (const auto* bundle = std::get_if<BundleIDRule>(&ruleID)) return bundle->id;
  return std::nullopt;
}

void offer(const std::shared_ptr<FileFinderContext>& context, const std::string& url) {
  if (context) context->urlObservable.update([&] { return url; });
}

}  // namespace

// The folders of one level of the walk, in the order they were first added, each with the
// contexts to apply there.
struct FileFinder::Level {
  std::vector<std::pair<std::shared_ptr<DirectoryInfo>, std::vector<FileContext>>> items;
  std::unordered_map<const DirectoryInfo*, std::size_t> index;

  void add(const std::shared_ptr<DirectoryInfo>& directory, FileContext context) {
    auto [found, inserted] = index.try_emplace(directory.get(), items.size());
    if (inserted) items.emplace_back(directory, std::vector<FileContext>{});
    items[found->second].second.push_back(std::move(context));
  }
  bool empty() const { return items.empty(); }
};

FileFinder::FileFinder(std::shared_ptr<const AppFileRule> appFileRule)
    : appFileRule_(std::move(appFileRule)) {}

void FileFinder::resetCache() {
  cache.clear();
  statistics_ = Statistics{};
}

std::shared_ptr<DirectoryInfo> FileFinder::makeDirectory(std::string url) {
  ++statistics_.directories;
  return std::make_shared<DirectoryInfo>(std::move(url));
}

void FileFinder::scan(const Filter& filter, const Handler& handler) {
  walk(filter, [&](const std::optional<CaseInsensitiveString>& identifier,
                   const std::shared_ptr<FileInfo>& file, const AppFile::Kind& kind,
                   const RuleID& ruleID) { handler(identifier, file, kind, ruleID); });
}

void FileFinder::scanUnclaimed(const Filter& filter, std::vector<AppFileInfo>& into) {
  walk(filter, [&](const std::optional<CaseInsensitiveString>& identifier,
                   const std::shared_ptr<FileInfo>& file, const AppFile::Kind& kind,
                   const RuleID& ruleID) {
    if (file->used) return;
    if (std::holds_alternative<BlackRule>(ruleID) || std::holds_alternative<SystemRule>(ruleID)) {
      return;
    }
    into.push_back(
        AppFileInfo{file, kind, AppName{identifier ? *identifier : CaseInsensitiveString("")}});
  });
}

void FileFinder::walk(const Filter& filter, const Handler& deliver) {
  Level level;
  for (const auto& [root, nodes] : appFileRule_->rules) {
    auto& directory = cache[root];
    if (!directory) directory = makeDirectory(root);
    level.add(directory, FileContext{std::nullopt, &nodes});
  }
  const auto context = currentContext();
  while (!level.empty()) {
    Level next;
    for (auto& [directory, contexts] : level.items) {
      // A folder none of whose nodes serve this walk is left untouched.
      bool serves = false;
      for (const auto& fileContext : contexts) {
        for (const auto& node : *fileContext.rules) {
          if (filter(nodeID(node))) {
            serves = true;
            break;
          }
        }
        if (serves) break;
      }
      if (!serves) continue;
      // Every node runs, those of other applications too: their outcome is what the cache keeps
      // for the next application's walk.
      for (const auto& fileContext : contexts) {
        for (const auto& node : *fileContext.rules) {
          if (context && context->interrupted()) return;
          if (const auto* sub = std::get_if<std::shared_ptr<DirectoryMatcher>>(&node)) {
            directoryStep(*directory, fileContext.id, **sub, next);
          } else {
            fileStep(*directory, fileContext.id, std::get<FileMatcher>(node), filter, deliver);
          }
        }
      }
    }
    level = std::move(next);
  }
}

void FileFinder::fileStep(DirectoryInfo& d, const std::optional<CaseInsensitiveString>& c,
                          const FileMatcher& m, const Filter& filter, const Handler& deliver) {
  if (auto found = d.matched.find(m.matcher); found != d.matched.end()) {
    const auto* files = std::get_if<MatchedFiles>(&found->second);
    // Folders, or what a stronger rule with the same pattern claimed first.
    if (files == nullptr || files->priority > m.priority || !filter(m.id)) return;
    for (const auto& [key, list] : files->files) {
      // Where the match yielded nothing, the inherited identifier stands, as it did when the
      // entries were first matched: a second application's walk gets what the first one got.
      auto identifier = deliveredIdentifier(key ? key : c, m.ruleID);
      for (const auto& file : list) deliver(identifier, file, m.kind, m.ruleID);
    }
    return;
  }
  if (!std::holds_alternative<StringMatcher>(m.matcher)) {
    matchFiles(d, c, m, filter, deliver);
    return;
  }

  const CaseInsensitiveString& name = std::get<StringMatcher>(m.matcher).text;
  auto claim = [&](const std::string& diskName) {
    auto file = std::make_shared<FileInfo>(platform::joinPath(d.url, diskName), m.priority);
    d.children.insert_or_assign(diskName, file);
    if (filter(m.id)) deliver(deliveredIdentifier(c, m.ruleID), file, m.kind, m.ruleID);
  };
  if (auto child = d.children.find(name.origin()); child != d.children.end()) {
    if (const auto* file = std::get_if<std::shared_ptr<FileInfo>>(&child->second)) {
      if ((*file)->priority == m.priority && filter(m.id)) {
        deliver(deliveredIdentifier(c, m.ruleID), *file, m.kind, m.ruleID);
      }
    } else if (std::holds_alternative<UnknownNode>(child->second)) {
      claim(child->first);
    }
    return;
  }
  if (d.scanned) return;  // listed in full, and not there
  ++statistics_.existenceTests;
  if (platform::fileExists(platform::joinPath(d.url, name.origin()), platform::Follow::no)) {
    claim(name.origin());
  } else {
    d.children.emplace(name.origin(), NotExistsNode{});
  }
}

bool FileFinder::list(DirectoryInfo& d, std::vector<URLResource>& entries) {
  statistics_.listed.push_back(d.url);
  auto listing = listDirectory(d.url);
  if (!listing.ok()) return false;
  entries = std::move(*listing);
  d.scanned = true;
  return true;
}

void FileFinder::matchFiles(DirectoryInfo& d, const std::optional<CaseInsensitiveString>& c,
                            const FileMatcher& m, const Filter& filter, const Handler& deliver) {
  MatchedFiles result{m.priority, {}};
  auto take = [&](const std::shared_ptr<FileInfo>& file, const std::optional<std::string>& yield) {
    auto key = CaseInsensitiveString::from(yield);
    if (filter(m.id)) deliver(deliveredIdentifier(key ? key : c, m.ruleID), file, m.kind, m.ruleID);
    result.files[key].push_back(file);
  };
  // Applies the matcher to a known name; false for a node it doesn't look at.
  auto visit = [&](const std::string& key, FileNode& node) {
    if (auto* file = std::get_if<std::shared_ptr<FileInfo>>(&node)) {
      if ((*file)->priority != m.priority) return;
      auto matched = match(m.matcher, key);
      if (matched.matches) take(*file, matched.identifier);
    } else if (std::holds_alternative<UnknownNode>(node)) {
      auto matched = match(m.matcher, key);
      if (!matched.matches) return;
      auto file = std::make_shared<FileInfo>(platform::joinPath(d.url, key), m.priority);
      node = file;
      take(file, matched.identifier);
    }
  };

  if (d.scanned) {
    for (auto& [key, node] : d.children) visit(key, node);
  } else {
    std::vector<URLResource> entries;
    if (!list(d, entries)) return;  // tried again by the next matcher
    for (const auto& entry : entries) {
      const std::string& key = entry.resourceValues.name;
      if (auto child = d.children.find(key); child != d.children.end()) {
        visit(child->first, child->second);
        continue;
      }
      auto matched = match(m.matcher, entry.resourceValues.name);
      if (!matched.matches) {
        d.children.emplace(
            key, UnknownNode{entry.resourceValues.type == platform::FileType::symbolicLink});
        continue;
      }
      auto file = std::make_shared<FileInfo>(entry.url, m.priority);
      d.children.emplace(key, file);
      take(file, matched.identifier);
    }
  }
  d.matched.insert_or_assign(m.matcher, std::move(result));
}

void FileFinder::directoryStep(DirectoryInfo& d, const std::optional<CaseInsensitiveString>& c,
                               const DirectoryMatcher& m, Level& next) {
  auto add = [&](const std::shared_ptr<DirectoryInfo>& directory,
                 const std::optional<CaseInsensitiveString>& identifier) {
    next.add(directory, FileContext{identifier, &m.children});
  };
  if (auto found = d.matched.find(m.matcher); found != d.matched.end()) {
    if (const auto* directories = std::get_if<MatchedDirectories>(&found->second)) {
      for (const auto& [key, list] : directories->directories) {
        for (const auto& directory : list) add(directory, key ? key : c);
      }
    }
    return;
  }
  if (!std::holds_alternative<StringMatcher>(m.matcher)) {
    matchDirectories(d, c, m, next);
    return;
  }

  const CaseInsensitiveString& name = std::get<StringMatcher>(m.matcher).text;
  auto enter = [&](const std::string& diskName) {
    auto directory = makeDirectory(platform::joinPath(d.url, diskName));
    d.children.insert_or_assign(diskName, directory);
    add(directory, c);
  };
  if (auto child = d.children.find(name.origin()); child != d.children.end()) {
    if (const auto* directory = std::get_if<std::shared_ptr<DirectoryInfo>>(&child->second)) {
      add(*directory, c);
    } else if (const auto* unknown = std::get_if<UnknownNode>(&child->second)) {
      if (!unknown->symbolicLink) enter(child->first);
    }
    return;
  }
  if (d.scanned) return;
  ++statistics_.existenceTests;
  auto status =
      platform::fileStatus(platform::joinPath(d.url, name.origin()), platform::Follow::no);
  if (!status.ok()) {
    d.children.emplace(name.origin(), NotExistsNode{});
  } else if (status->type == platform::FileType::symbolicLink) {
    // Entering a link would hand out paths that lead somewhere else: whatever is deleted below
    // it would be deleted there.
    d.children.emplace(name.origin(), UnknownNode{true});
  } else {
    enter(name.origin());
  }
}

void FileFinder::matchDirectories(DirectoryInfo& d, const std::optional<CaseInsensitiveString>& c,
                                  const DirectoryMatcher& m, Level& next) {
  MatchedDirectories result;
  auto take = [&](const std::shared_ptr<DirectoryInfo>& directory,
                  const std::optional<std::string>& yield) {
    auto key = CaseInsensitiveString::from(yield);
    next.add(directory, FileContext{key ? key : c, &m.children});
    result.directories[key].push_back(directory);
  };
  auto visit = [&](const std::string& key, FileNode& node) {
    if (auto* directory = std::get_if<std::shared_ptr<DirectoryInfo>>(&node)) {
      auto matched = match(m.matcher, key);
      if (matched.matches) take(*directory, matched.identifier);
    } else if (const auto* unknown = std::get_if<UnknownNode>(&node)) {
      if (unknown->symbolicLink) return;
      auto matched = match(m.matcher, key);
      if (!matched.matches) return;
      auto directory = makeDirectory(platform::joinPath(d.url, key));
      node = directory;
      take(directory, matched.identifier);
    }
  };

  if (d.scanned) {
    for (auto& [key, node] : d.children) visit(key, node);
  } else {
    std::vector<URLResource> entries;
    if (!list(d, entries)) return;
    for (const auto& entry : entries) {
      const std::string& key = entry.resourceValues.name;
      if (auto child = d.children.find(key); child != d.children.end()) {
        visit(child->first, child->second);
        continue;
      }
      bool link = entry.resourceValues.type == platform::FileType::symbolicLink;
      auto matched = match(m.matcher, entry.resourceValues.name);
      if (!matched.matches || link) {
        d.children.emplace(key, UnknownNode{link});
        continue;
      }
      auto directory = makeDirectory(entry.url);
      d.children.emplace(key, directory);
      take(directory, matched.identifier);
    }
  }
  d.matched.insert_or_assign(m.matcher, std::move(result));
}

platform::Result<std::vector<URLResource>> listDirectory(const std::string& url) {
  const auto context = currentContext();
  if (context) {
    if (context->interrupted()) return std::vector<URLResource>{};
    offer(context, url);
  }
  auto listing = platform::listDirectory(url, platform::Follow::no);
  if (!listing.ok()) return listing.error();
  std::vector<URLResource> entries;
  entries.reserve(listing->size());
  for (auto& entry : *listing) {
    if (context && context->interrupted()) return std::vector<URLResource>{};
    if (entry.name.empty() || entry.name == ".DS_Store") continue;
    std::string path = platform::joinPath(url, entry.name);
    offer(context, path);
    entries.push_back(URLResource{std::move(path), std::move(entry)});
  }
  return entries;
}

std::int64_t itemSize(const std::string& url) {
  auto status = platform::fileStatus(url, platform::Follow::no);
  if (!status.ok()) return 0;
  switch (status->type) {
    case platform::FileType::regular:
    case platform::FileType::symbolicLink:
      return status->size;
    case platform::FileType::directory:
      return directorySize(url);
    default:
      return 0;
  }
}

std::int64_t directorySize(const std::string& url) {
  const auto context = currentContext();
  int error = 0;
  std::int64_t size = 0;
  if (!context) {
    size = monitor::GetDirectorySize(url.c_str(), nullptr, &error);
  } else {
    if (context->interrupted()) return 0;
    offer(context, url);
    size = monitor::GetDirectorySize(url.c_str(), &context->interruptedFlag(), &error);
  }
  if (error != EACCES) return size;

  // Something below can't be read by this user: the helper measures the whole folder, or the
  // size is unknown. The connection lives on the main queue, where its handlers run; this
  // thread only waits for the answer.
  std::shared_ptr<helper::HelperConnection> connection;
  std::weak_ptr<helper::RVHelperProtocol> proxy;
  platform::DispatchSemaphore answered(0);
  auto measured = std::make_shared<std::atomic<std::int64_t>>(0);
  platform::DispatchQueue::main().sync([&] {
    connection = helper::HelperConnection::create();
    connection->errorHandler = [answered] { answered.signal(); };
    if (!connection->connect(false) || !connection->helper) {
      connection.reset();
      return;
    }
    proxy = connection->helper;
    connection->helper->getDirectorySizeAt(url, [measured, answered](std::int64_t bytes) {
      measured->store(bytes);
      answered.signal();
    });
  });
  if (!connection) return 0;
  if (context) {
    context->setOnInterrupted([proxy] {
      if (auto live = proxy.lock()) live->stopGettingSize();
    });
    // An interruption that came before the action was in place.
    if (context->interrupted()) {
      if (auto live = proxy.lock()) live->stopGettingSize();
    }
  }
  answered.wait();
  if (context) context->setOnInterrupted(nullptr);
  platform::DispatchQueue::main().async([connection] { connection->close(); });
  return measured->load();
}

AppFile appFile(const AppFileInfo& info) {
  info.file->semaphore.wait();
  if (!info.file->size) info.file->size = itemSize(info.file->url);
  std::int64_t size = *info.file->size;
  info.file->semaphore.signal();
  return AppFile{info.file->url, size, info.kind, info.owner};
}

}  // namespace Core
