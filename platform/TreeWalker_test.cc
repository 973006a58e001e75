#include "platform/TreeWalker.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>

#include "platform/Metadata.h"
#include "testsupport/TestSupport.h"

namespace platform {
namespace {

using testsupport::TempDir;

class RecordingVisitor : public WalkVisitor {
 public:
  void entry(const std::string& folder, std::string_view name, const struct stat& s) override {
    std::string path = folder.empty() ? std::string(name) : folder + "/" + std::string(name);
    entries[path] = s.st_mode & S_IFMT;
    sizes[path] = s.st_size;
  }
  bool enterFolder(const std::string& folder, std::string_view name, const struct stat&) override {
    ++folders;
    return skip.empty() || name != skip;
  }
  void error(const std::string& path, int code) override { errors[path] = code; }

  std::map<std::string, mode_t> entries;
  std::map<std::string, off_t> sizes;
  std::map<std::string, int> errors;
  std::string skip;
  int folders = 0;
};

// Entries of any name, links reported and never followed, folders the visitor declines left
// out; a root that is a file is its one entry, a missing one an error.
TEST(TreeWalkerTest, ReportsEntriesWithoutFollowingLinks) {
  TempDir tmp;
  tmp.write("root/a.txt", "abc");
  tmp.write("root/sub/b.bin", std::string(10, 'x'));
  tmp.write("root/skip/inside", "x");
  tmp.write("outside/secret", "must not be reached");
  tmp.symlink("root/link-to-outside", tmp / "outside");
  tmp.write(std::string("root/odd\nname\xff"), "1");

  RecordingVisitor visitor;
  visitor.skip = "skip";
  ASSERT_TRUE(walkTree(tmp / "root", visitor));
  EXPECT_EQ(visitor.entries.size(), 4u);
  EXPECT_EQ(visitor.entries[tmp / "root/a.txt"], S_IFREG);
  EXPECT_EQ(visitor.sizes[tmp / "root/sub/b.bin"], 10);
  EXPECT_EQ(visitor.entries[tmp / "root/link-to-outside"], S_IFLNK);
  EXPECT_FALSE(visitor.entries.count(tmp / "root/skip/inside"));
  EXPECT_TRUE(visitor.entries.count(tmp / std::string("root/odd\nname\xff")));
  EXPECT_TRUE(visitor.errors.empty());

  RecordingVisitor single;
  EXPECT_TRUE(walkTree(tmp / "root/a.txt", single));
  EXPECT_EQ(single.sizes[tmp / "root/a.txt"], 3);
  EXPECT_FALSE(walkTree(tmp / "missing", single));
  EXPECT_EQ(single.errors[tmp / "missing"], ENOENT);

  std::atomic<bool> stop{true};
  RecordingVisitor stopped;
  WalkOptions options;
  options.stop = &stop;
  walkTree(tmp / "root", stopped, options);
  EXPECT_TRUE(stopped.entries.empty());
}

TEST(TreeWalkerTest, TreesDeeperThanTheOpenFolderBudgetAndPathMaxAreWalkedWhole) {
  // 400 levels of 40-character names: paths far beyond PATH_MAX, more folders than may be open
  // at once. Every level also has four sibling folders holding a file; unless the listing puts
  // the deep folder last, the walk has to come back to folders it closed to make room.
  TempDir tmp;
  const std::string name(40, 'd');
  int fd = ::open(tmp.path().c_str(), O_RDONLY | O_DIRECTORY);
  ASSERT_GE(fd, 0);
  constexpr int kDepth = 400;
  for (int level = 0; level < kDepth; ++level) {
    ASSERT_EQ(::mkdirat(fd, name.c_str(), 0755), 0);
    for (const char* sibling : {"s0", "s1", "s2", "s3"}) {
      ASSERT_EQ(::mkdirat(fd, sibling, 0755), 0);
      int file = ::openat(fd, (std::string(sibling) + "/f").c_str(), O_CREAT | O_WRONLY, 0644);
      ASSERT_GE(file, 0);
      ASSERT_EQ(::write(file, "xy", 2), 2);
      ::close(file);
    }
    int next = ::openat(fd, name.c_str(), O_RDONLY | O_DIRECTORY);
    ::close(fd);
    ASSERT_GE(next, 0);
    fd = next;
  }
  ::close(fd);

  struct Counter : WalkVisitor {
    void entry(const std::string& folder, std::string_view, const struct stat& s) override {
      total += s.st_size;
      ++files;
      longest = std::max(longest, folder.size());
    }
    void error(const std::string&, int) override { ++errors; }
    std::int64_t total = 0;
    int files = 0;
    int errors = 0;
    std::size_t longest = 0;
  } counter;
  WalkStatistics statistics;
  WalkOptions options;
  options.statistics = &statistics;
  walkTree(tmp.path(), counter, options);
  EXPECT_EQ(counter.files, 4 * kDepth);
  EXPECT_EQ(counter.total, 8 * kDepth);
  EXPECT_EQ(counter.errors, 0);
  EXPECT_GT(counter.longest, 4096u);
  // Depth must cost what its folders cost: reopening from the root for each level would take
  // hundreds of opens per folder here.
  const std::size_t folders = 5 * kDepth + 1;
  EXPECT_LT(statistics.folderOpens, 4 * folders);

  // With a handful of descriptors the same tree is walked whole, and no more expensively.
  struct rlimit saved {};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &saved), 0);
  struct rlimit tight = saved;
  tight.rlim_cur = 20;
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &tight), 0);
  Counter tightCounter;
  WalkStatistics tightStatistics;
  options.statistics = &tightStatistics;
  walkTree(tmp.path(), tightCounter, options);
  ::setrlimit(RLIMIT_NOFILE, &saved);
  EXPECT_EQ(tightCounter.files, 4 * kDepth);
  EXPECT_EQ(tightCounter.errors, 0);
  EXPECT_LT(tightStatistics.folderOpens, 4 * folders);
}

// Out of descriptors altogether: what couldn't be opened is an error, never a silent gap.
TEST(TreeWalkerTest, RunningOutOfDescriptorsIsReported) {
  TempDir tmp;
  tmp.write("root/a/f", "1");
  tmp.write("root/b/f", "2");
  RecordingVisitor visitor;
  // A first walk with no shortage: the undefined-behaviour checker verifies a virtual call's
  // target once per type, through a pipe, which it couldn't open with no descriptor left.
  RecordingVisitor warmUp;
  walkTree(tmp / "root", warmUp);
  std::vector<int> hogs;
  struct rlimit saved {};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &saved), 0);
  struct rlimit tight = saved;
  tight.rlim_cur = 64;
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &tight), 0);
  // Take every descriptor but one, for the root.
  for (;;) {
    int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (fd < 0) break;
    hogs.push_back(fd);
  }
  ::close(hogs.back());
  hogs.pop_back();
  walkTree(tmp / "root", visitor);
  for (int fd : hogs) ::close(fd);
  ::setrlimit(RLIMIT_NOFILE, &saved);
  EXPECT_EQ(visitor.entries.size() + visitor.errors.size(), 2u);
  for (const auto& [path, code] : visitor.errors) EXPECT_EQ(code, EMFILE) << path;
  EXPECT_FALSE(visitor.errors.empty());
}

TEST(MetadataQueryTest, QueryStringsOfTheIndex) {
  EXPECT_EQ(predicateFromMetadataQueryString("kMDItemFSSize >= 0"),
            MetadataPredicate(MinimumSizePredicate{0}));
  EXPECT_EQ(predicateFromMetadataQueryString("kMDItemFSSize >= 104857600"),
            MetadataPredicate(MinimumSizePredicate{104857600}));
  EXPECT_EQ(predicateFromMetadataQueryString("kMDItemContentType == 'com.apple.disk-image-udif'"),
            MetadataPredicate(DiskImagePredicate{}));
  EXPECT_FALSE(predicateFromMetadataQueryString("kMDItemFSSize >= "));
  EXPECT_FALSE(predicateFromMetadataQueryString("kMDItemFSSize >= 12x"));
  EXPECT_FALSE(predicateFromMetadataQueryString("kMDItemDisplayName == 'x'"));
}

TEST(MetadataQueryTest, DiskImagesByExtensionWithBundlesAsOneItem) {
  TempDir tmp;
  tmp.write("home/Downloads/debian.ISO", std::string(100, 'x'));
  tmp.write("home/vm/disk.qcow2", std::string(50, 'x'));
  tmp.write("home/notes.txt", "x");
  tmp.write("home/Backup.sparsebundle/bands/0", std::string(10, 'x'));
  // Named like images, none is one: a link (to a large file), a pipe, a folder's content.
  tmp.write("elsewhere/big", std::string(1000, 'x'));
  tmp.symlink("home/link.iso", tmp / "elsewhere/big");
  ::mkfifo((tmp / "home/pipe.img").c_str(), 0600);
  auto query = makeMetadataQuery();
  query->setPredicate(DiskImagePredicate{});
  query->setSearchScopes({tmp / "home"});
  query->setSortBySizeDescending(true);
  bool finished = false;
  query->setDidFinishGathering([&] { finished = true; });
  query->startQuery();
  ASSERT_TRUE(testsupport::drainMainUntil([&] { return finished; }));
  std::vector<std::string> paths;
  for (const auto& item : query->results()) paths.push_back(*item.path);
  EXPECT_EQ(paths,
            (std::vector<std::string>{tmp / "home/Downloads/debian.ISO", tmp / "home/vm/disk.qcow2",
                                      tmp / "home/Backup.sparsebundle"}));
}

}  // namespace
}  // namespace platform
