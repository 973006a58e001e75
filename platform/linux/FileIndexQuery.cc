#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <charconv>
#include <mutex>

#include "platform/Files.h"
#include "platform/Locations.h"
#include "platform/Metadata.h"
#include "platform/TreeWalker.h"

namespace platform {

namespace {

bool hasDiskImageExtension(std::string_view name) {
  auto dot = name.rfind('.');
  if (dot == std::string_view::npos || dot == 0) return false;
  std::string extension(name.substr(dot));
  for (auto& c : extension) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return diskImageExtensions().count(extension) > 0;
}

// What the walker thread shares with the delivery queue.
struct Gathering {
  std::atomic<bool> stop{false};
  std::mutex mutex;
  std::vector<MetadataItem> found;  // items not yet handed to `results`
  std::vector<WalkError> errors;    // likewise for `errors`
};

class Collector final : public WalkVisitor {
 public:
  Collector(const MetadataPredicate& predicate, Gathering& gathering,
            std::chrono::milliseconds interval, std::function<void()> announce)
      : predicate_(predicate),
        gathering_(gathering),
        interval_(interval),
        announce_(std::move(announce)),
        last_(DispatchClock::now()) {}

  // A search for disk images walks without examining every entry (the listing tells files from
  // folders): only a file named like an image is examined, for its size.
  void entryAt(int folder, const std::string& folderPath, std::string_view name,
               const struct stat& status) override {
    if (!std::holds_alternative<DiskImagePredicate>(predicate_)) {
      entry(folderPath, name, status);
      return;
    }
    if (!S_ISREG(status.st_mode) || !hasDiskImageExtension(name)) return;
    struct stat examined;
    if (::fstatat(folder, std::string(name).c_str(), &examined, AT_SYMLINK_NOFOLLOW) != 0 ||
        !S_ISREG(examined.st_mode)) {
      return;  // gone, or replaced since it was listed
    }
    add(folderPath, name, examined.st_size);
  }

  void entry(const std::string& folder, std::string_view name, const struct stat& status) override {
    if (!S_ISREG(status.st_mode)) return;
    bool wanted = std::visit(
        [&](const auto& p) {
          using P = std::decay_t<decltype(p)>;
          if constexpr (std::is_same_v<P, MinimumSizePredicate>) {
            return status.st_size >= p.bytes;
          } else {
            return hasDiskImageExtension(name);
          }
        },
        predicate_);
    if (wanted) add(folder, name, status.st_size);
  }

  bool enterFolder(const std::string& folder, std::string_view name,
                   const struct stat& status) override {
    // A sparse bundle is a folder that is one disk image.
    if (std::holds_alternative<DiskImagePredicate>(predicate_) && hasDiskImageExtension(name)) {
      add(folder, name, 0);
      return false;
    }
    return true;
  }

  void error(const std::string& path, int code) override {
    std::lock_guard lock(gathering_.mutex);
    gathering_.errors.push_back(WalkError{path, code});
  }

  void flush() {
    if (pending_.empty()) return;
    {
      std::lock_guard lock(gathering_.mutex);
      for (auto& item : pending_) gathering_.found.push_back(std::move(item));
    }
    pending_.clear();
  }

 private:
  void add(const std::string& folder, std::string_view name, std::int64_t size) {
    std::string path = folder.empty()         ? std::string(name)
                       : folder.back() == '/' ? folder + std::string(name)
                                              : folder + "/" + std::string(name);
    pending_.push_back(MetadataItem{std::move(path), size});
    auto now = DispatchClock::now();
    if (now - last_ >= interval_) {
      last_ = now;
      flush();
      announce_();
    }
  }

  const MetadataPredicate& predicate_;
  Gathering& gathering_;
  std::chrono::milliseconds interval_;
  std::function<void()> announce_;
  DispatchClock::time_point last_;
  std::vector<MetadataItem> pending_;
};

class FileIndexQuery final : public MetadataQuery {
 public:
  explicit FileIndexQuery(DispatchQueue delivery)
      : delivery_(std::move(delivery)), alive_(std::make_shared<int>(0)) {}

  ~FileIndexQuery() override { stopQuery(); }

  void setPredicate(MetadataPredicate predicate) override { predicate_ = predicate; }
  void setSearchScopes(std::vector<std::string> scopes) override { scopes_ = std::move(scopes); }
  void setNotificationBatchingInterval(std::chrono::milliseconds interval) override {
    interval_ = interval;
  }
  void setSortBySizeDescending(bool descending) override { sortDescending_ = descending; }
  void setDidUpdate(std::function<void()> handler) override { didUpdate_ = std::move(handler); }
  void setDidFinishGathering(std::function<void()> handler) override {
    didFinish_ = std::move(handler);
  }

  void startQuery() override {
    stopQuery();
    results_.clear();
    errors_.clear();
    auto gathering = std::make_shared<Gathering>();
    gathering_ = gathering;
    std::vector<std::string> scopes = scopes_;
    if (scopes.empty()) scopes.push_back(currentLocations().home);

    // Events are posted with a weak reference to this query and to this gathering: once the
    // query is gone, stopped or restarted, they do nothing.
    std::weak_ptr<int> alive = alive_;
    std::weak_ptr<Gathering> weakGathering = gathering;
    auto deliver = [this, alive, weakGathering](bool finished) {
      auto gathering = weakGathering.lock();
      if (alive.expired() || !gathering || gathering->stop.load() || gathering != gathering_) {
        return;
      }
      take(*gathering, finished);
      if (finished) {
        gathering_.reset();
        if (didFinish_) didFinish_();
      } else if (didUpdate_) {
        didUpdate_();
      }
    };
    DispatchQueue delivery = delivery_;
    auto announce = [delivery, deliver] { delivery.async([deliver] { deliver(false); }); };

    DispatchQueue walker("FileIndexQuery", QoS::userInitiated);
    walker.async([gathering, scopes, predicate = predicate_, interval = interval_, announce,
                  delivery, deliver] {
      Collector collector(predicate, *gathering, interval, announce);
      WalkOptions options;
      options.stayOnFileSystem = true;
      options.stop = &gathering->stop;
      options.statEntries = !std::holds_alternative<DiskImagePredicate>(predicate);
      for (const auto& scope : scopes) {
        if (gathering->stop.load()) break;
        walkTree(scope, collector, options);
      }
      collector.flush();
      if (!gathering->stop.load()) delivery.async([deliver] { deliver(true); });
    });
  }

  void stopQuery() override {
    if (gathering_) {
      gathering_->stop.store(true);
      gathering_.reset();
    }
  }

  const std::vector<MetadataItem>& results() const override { return results_; }
  std::vector<WalkError> errors() const override { return errors_; }

 private:
  void take(Gathering& gathering, bool finished) {
    {
      std::lock_guard lock(gathering.mutex);
      for (auto& item : gathering.found) results_.push_back(std::move(item));
      gathering.found.clear();
      for (auto& error : gathering.errors) errors_.push_back(std::move(error));
      gathering.errors.clear();
    }
    if (finished && sortDescending_) {
      std::sort(results_.begin(), results_.end(), [](const MetadataItem& a, const MetadataItem& b) {
        if (*a.size != *b.size) return *a.size > *b.size;
        return *a.path < *b.path;
      });
    }
  }

  DispatchQueue delivery_;
  std::shared_ptr<int> alive_;
  MetadataPredicate predicate_ = MinimumSizePredicate{0};
  std::vector<std::string> scopes_;
  std::chrono::milliseconds interval_{100};
  bool sortDescending_ = false;
  std::function<void()> didUpdate_;
  std::function<void()> didFinish_;
  std::shared_ptr<Gathering> gathering_;
  std::vector<MetadataItem> results_;
  std::vector<WalkError> errors_;
};

}  // namespace

std::optional<MetadataPredicate> predicateFromMetadataQueryString(const std::string& query) {
  static const std::string kSize = "kMDItemFSSize >= ";
  if (query.starts_with(kSize)) {
    std::int64_t bytes = 0;
    const char* begin = query.data() + kSize.size();
    const char* end = query.data() + query.size();
    auto [at, error] = std::from_chars(begin, end, bytes);
    if (error != std::errc() || at != end || begin == end) return std::nullopt;
    return MinimumSizePredicate{bytes};
  }
  if (query == "kMDItemContentType == 'com.apple.disk-image-udif'") return DiskImagePredicate{};
  return std::nullopt;
}

const std::set<std::string>& diskImageExtensions() {
  static const std::set<std::string> kExtensions = {
      ".dmg",   ".iso", ".img",  ".sparseimage", ".sparsebundle",
      ".qcow2", ".vdi", ".vmdk", ".vhd",         ".vhdx"};
  return kExtensions;
}

bool isPackage(const std::string& path) {
  static const std::set<std::string> kPackageExtensions = {
      "app",          "appex",       "aplibrary", "band",         "bundle",
      "component",    "docset",      "fcpbundle", "framework",    "imovielibrary",
      "kext",         "key",         "logicx",    "mdimporter",   "mpkg",
      "musiclibrary", "numbers",     "pages",     "photolibrary", "photoslibrary",
      "pkg",          "playground",  "plugin",    "prefpane",     "qlgenerator",
      "rtfd",         "saver",       "scptd",     "sparsebundle", "systemextension",
      "tvlibrary",    "vst",         "vst3",      "wdgt",         "xcarchive",
      "xcodeproj",    "xcworkspace", "xpc"};
  std::size_t end = path.size();
  while (end > 1 && path[end - 1] == '/') --end;
  if (end == 0) return false;
  std::size_t slash = path.rfind('/', end - 1);
  std::size_t nameStart = slash == std::string::npos ? 0 : slash + 1;
  std::size_t dot = path.rfind('.', end - 1);
  // A name that is nothing but the extension (Bundler's ".bundle" folder) is a hidden folder.
  if (dot == std::string::npos || dot < nameStart + 1) return false;
  std::string extension = path.substr(dot + 1, end - dot - 1);
  for (auto& c : extension) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return kPackageExtensions.count(extension) > 0;
}

std::int64_t packageFileSize(const std::string&) { return 0; }

std::unique_ptr<MetadataQuery> makeMetadataQuery(DispatchQueue delivery) {
  return std::make_unique<FileIndexQuery>(std::move(delivery));
}

}  // namespace platform
