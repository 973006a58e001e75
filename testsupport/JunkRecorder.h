#pragma once

// A recorder of what a junk scan reports, for the tests of the scans that report junk.

#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "Core/JunkFileFinder.h"

namespace testsupport {

// What a junk scan reported, by category ("cache", "log", "trash", "image", "app ID",
// "orphan ID", "browser ID"), as paths relative to `root` when they lie below it, and the order
// of its notifications ("system files", "disk images", "browser", "finish").
class JunkRecorder final : public Core::JunkFileFinderDelegate {
 public:
  explicit JunkRecorder(std::string root) : root_(std::move(root)) {}

  void junkFileFinderCurrentURL(const std::string&) override {}
  void junkFileFinderProgress(double) override {}
  void junkFileFinderFoundSystemCache(const Core::File& file) override { add("cache", file); }
  void junkFileFinderFoundLog(const Core::File& file) override { add("log", file); }
  void junkFileFinderFoundTrashItem(const Core::File& file) override { add("trash", file); }
  void junkFileFinderDidFinishSystemFiles() override { events.push_back("system files"); }
  void junkFileFinderFoundDiskImages(const std::vector<Core::File>& files) override {
    events.push_back("disk images");
    for (const auto& file : files) add("image", file);
  }
  void junkFileFinderFoundAppJunk(const Core::MacAppJunkFile& junk) override {
    for (const auto& file : junk.files)
      add("app " + junk.bundleID.origin(), Core::File{file.url, file.size});
  }
  void junkFileFinderFoundOrphanJunk(const Core::AppJunkFile& junk) override {
    for (const auto& file : junk.files)
      add("orphan " + junk.id.origin(), Core::File{file.url, file.size});
  }
  void junkFileFinderFoundBrowserJunk(const Core::MacAppJunkFile& junk) override {
    events.push_back("browser");
    for (const auto& file : junk.files)
      add("browser " + junk.bundleID.origin(), Core::File{file.url, file.size});
  }
  void junkFileFinderDidFinish() override {
    events.push_back("finish");
    finished = true;
  }

  std::map<std::string, std::set<std::string>> found() {
    std::lock_guard lock(mutex_);
    return found_;
  }
  std::int64_t size(const std::string& path) {
    std::lock_guard lock(mutex_);
    return sizes_[path];
  }

  // Every path reported, whatever its category.
  std::set<std::string> paths() {
    std::lock_guard lock(mutex_);
    std::set<std::string> all;
    for (const auto& [category, found] : found_) all.insert(found.begin(), found.end());
    return all;
  }

  std::size_t count(const std::string& category) {
    std::lock_guard lock(mutex_);
    return reported_[category];
  }

  std::vector<std::string> events;  // main queue only
  bool finished = false;

 private:
  void add(const std::string& category, const Core::File& file) {
    std::lock_guard lock(mutex_);  // the categories report on the scan queue
    std::string path =
        file.url.rfind(root_ + "/", 0) == 0 ? file.url.substr(root_.size() + 1) : file.url;
    found_[category].insert(path);
    ++reported_[category];
    sizes_[path] = file.size;
  }
  std::string root_;
  std::mutex mutex_;
  std::map<std::string, std::set<std::string>> found_;
  std::map<std::string, std::int64_t> sizes_;
  std::map<std::string, std::size_t> reported_;
};

}  // namespace testsupport
