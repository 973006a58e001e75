#include "monitor/DiskInfo.h"

#include <sys/stat.h>

#include "platform/Disks.h"
#include "platform/Locations.h"
#include "platform/TreeWalker.h"

namespace monitor {

std::optional<std::shared_ptr<DiskInfo>> GetDiskInfo() {
  auto space = platform::fileSystemSpace("/");
  if (!space) return std::nullopt;
  auto info = std::make_shared<DiskInfo>();
  info->totalSize = space->total;
  info->freeSize = space->available;
  return info;
}

DiskInfoReader& DiskInfoReader::shared() {
  static auto* reader = new DiskInfoReader;
  return *reader;
}

std::optional<std::shared_ptr<DiskInfo>> DiskInfoReader::readInfo() const {
  auto info = GetDiskInfo();
  std::int64_t important = platform::importantUsageCapacity(_rootUrl);
  if (important < 1) important = 0;
  if (info && (*info)->freeSize < important) (*info)->freeSize = important;

  const std::string& documents = platform::currentLocations().home;
  if (documents.empty()) return info;
  auto space = platform::fileSystemSpace(documents);
  if (!space || !info) return info;
  if (space->available > (*info)->freeSize) (*info)->freeSize = space->available;
  if (space->total > (*info)->totalSize) (*info)->totalSize = space->total;
  return info;
}

bool DiskInfoReader::isSSD() const {
  auto name = platform::blockDeviceOfMount(_rootUrl);
  return name ? isSolidState(*name) : false;
}

bool isSolidState(const std::string& bsdName) { return platform::blockDeviceIsSolidState(bsdName); }

namespace {

// Sums regular files' sizes and keeps the last error seen.
class SizeVisitor final : public platform::WalkVisitor {
 public:
  SizeVisitor(int* error, std::vector<platform::WalkError>* errors)
      : error_(error), errors_(errors) {}
  void entry(const std::string&, std::string_view, const struct stat& status) override {
    if (S_ISREG(status.st_mode)) total += status.st_size;
  }
  void error(const std::string& path, int code) override {
    if (error_ != nullptr && code != 0) *error_ = code;
    if (errors_ != nullptr) errors_->push_back({path, code});
  }
  std::int64_t total = 0;

 private:
  int* error_;
  std::vector<platform::WalkError>* errors_;
};

}  // namespace

std::int64_t GetDirectorySize(const char* path, const std::atomic<bool>* stop, int* error,
                              std::vector<platform::WalkError>* errors) {
  // A physical walk: links are neither followed nor counted, hard links count each time.
  SizeVisitor visitor(error, errors);
  platform::WalkOptions options;
  options.stop = stop;
  platform::walkTree(path, visitor, options);
  return visitor.total;
}

}  // namespace monitor
