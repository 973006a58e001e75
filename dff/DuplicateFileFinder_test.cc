#include "dff/DuplicateFileFinder.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <ctime>

#include "testsupport/TestSupport.h"

namespace dff {
namespace {

using testsupport::TempDir;

using testsupport::randomBytes;

// Burns processor time, so that the engine's next current-path report passes its throttle of
// 0.04 seconds of processor time.
void spendProcessorTime() {
  std::clock_t start = std::clock();
  volatile std::uint64_t sink = 0;
  while (static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC < 0.045) sink = sink + 1;
}

// Runs the engine over a tree and gives each group as sorted paths relative to the tree, in
// the engine's order of groups.
class FinderTest : public ::testing::Test {
 protected:
  FinderTest()
      : finder_([this](double v) { onProgress(v); },
                [this](const Path& p) { onPath(p.string()); }) {}

  std::vector<std::vector<std::string>> run(std::vector<std::string> roots = {""}) {
    finder_.rootFolders.clear();
    for (const auto& root : roots) {
      finder_.rootFolders.emplace_back(root.empty() ? tmp_.path() : tmp_ / root);
    }
    Result result = finder_.find();
    std::vector<std::vector<std::string>> groups;
    for (const auto& group : result) {
      auto& names = groups.emplace_back();
      for (File* entry : group) names.push_back(relative(entry->path().string()));
      std::sort(names.begin(), names.end());
    }
    finder_.releaseFiles();
    return groups;
  }

  std::string relative(const std::string& path) {
    std::string base = tmp_.path() + "/";
    return path.rfind(base, 0) == 0 ? path.substr(base.size()) : path;
  }

  virtual void onProgress(double v) {
    progress_.push_back(v);
    if (progressHook_) progressHook_(v);
  }
  virtual void onPath(const std::string& p) {
    if (pathHook_) pathHook_(p);
  }

  TempDir tmp_;
  DuplicateFileFinder finder_;
  std::vector<double> progress_;
  std::function<void(double)> progressHook_;
  std::function<void(const std::string&)> pathHook_;
};

using Groups = std::vector<std::vector<std::string>>;

TEST_F(FinderTest, IdenticalFoldersAreOneGroupAndAThirdCopyKeepsItsFileGroup) {
  std::string a = randomBytes(10000, 1), b = randomBytes(5000, 2);
  tmp_.write("A/one", a);
  tmp_.write("A/sub/two", b);
  tmp_.write("B/uno", a);  // names don't count for folders
  tmp_.write("B/sub/dos", b);
  tmp_.write("C/copy", a);
  tmp_.write("C/other", randomBytes(5000, 3));  // same size as "two", other bytes
  EXPECT_EQ(run(), (Groups{{"A/one", "B/uno", "C/copy"}, {"A", "B"}}));
  EXPECT_EQ(progress_, (std::vector<double>{0.3, 0.5, 0.8, 0.9}));
}

TEST_F(FinderTest, FileGroupsComeFirstThenPackagesThenFolders) {
  std::string content = randomBytes(3000, 4);
  tmp_.write("X/Tool.app/Contents/MacOS/tool", content);
  tmp_.write("X/Copy.app/Contents/MacOS/tool", content);
  tmp_.write("Y/f", "same");
  tmp_.write("Z/f", "same");
  tmp_.write("Z/g", "other");
  tmp_.write("W/g", "other");
  auto groups = run();
  ASSERT_EQ(groups.size(), 3u);
  EXPECT_EQ(groups[2], (std::vector<std::string>{"X/Copy.app", "X/Tool.app"}));
  // Files inside packages are never looked at on their own.
  for (const auto& g : groups) {
    for (const auto& p : g) EXPECT_EQ(p.find("MacOS"), std::string::npos) << p;
  }
}

TEST_F(FinderTest, PackagesCompareAsUnitsAndOneUnreadableMemberMakesThemUnique) {
  for (const char* app : {"P/One.app", "P/Two.app", "P/Three.app"}) {
    tmp_.write(std::string(app) + "/Contents/Info.plist", "<plist/>");
    tmp_.write(std::string(app) + "/Contents/Resources/data", randomBytes(9000, 5));
  }
  ::chmod((tmp_ / "P/Three.app/Contents/Resources/data").c_str(), 0);
  testsupport::withoutPermissionOverride([&] {
    EXPECT_EQ(run(), (Groups{{"P/One.app", "P/Two.app"}}));
  });
}

TEST_F(FinderTest, EmptyFilesFormOneGroupUnlessAMinimumSizeExcludesThem) {
  tmp_.write("e1", "");
  tmp_.write("d/e2", "");
  tmp_.write("d/e3", "");
  EXPECT_EQ(run(), (Groups{{"d/e2", "d/e3", "e1"}}));
  finder_.minFileSize = 1;
  EXPECT_TRUE(run().empty());
}

TEST_F(FinderTest, SmallFilesDsStoreAndHiddenFoldersMarkOrSpareTheirFolders) {
  std::string content = randomBytes(2000, 6);
  // Only ".DS_Store" differs: the folders are still the same.
  tmp_.write("ds/A/f", content);
  tmp_.write("ds/A/.DS_Store", "x");
  tmp_.write("ds/B/f", content);
  EXPECT_EQ(run({"ds"}), (Groups{{"ds/A", "ds/B"}}));

  // A file below the minimum is left out and spoils its folder.
  tmp_.write("small/A/f", content);
  tmp_.write("small/A/tiny", "1");
  tmp_.write("small/B/f", content);
  finder_.minFileSize = 100;
  EXPECT_EQ(run({"small"}), (Groups{{"small/A/f", "small/B/f"}}));
  finder_.minFileSize = 0;

  // A hidden folder spoils its folder unless hidden folders are entered.
  tmp_.write("hidden/A/f", content);
  tmp_.write("hidden/A/.git/HEAD", "ref");
  tmp_.write("hidden/B/f", content);
  tmp_.write("hidden/B/.git/HEAD", "ref");
  EXPECT_EQ(run({"hidden"}), (Groups{{"hidden/A/f", "hidden/B/f"}}));
  finder_.includeHiddenFolders = true;
  EXPECT_EQ(run({"hidden"}), (Groups{{"hidden/A", "hidden/B"}}));
}

TEST_F(FinderTest, ExclusionsBySuffixAndByWholePath) {
  std::string content = randomBytes(2000, 7);
  tmp_.write("A/f", content);
  tmp_.write("A/skip.TMP", "1");
  tmp_.write("B/f", content);
  tmp_.write("B/skip.tmp", "1");
  tmp_.write("B/Cache/x", content);
  finder_.excludeExtensions = {".tmp"};
  finder_.excludePaths = {Path(tmp_ / "b/cache")};  // compared ignoring ASCII case
  // Both folders hold something left out, so only the files are grouped; B/Cache/x isn't seen.
  EXPECT_EQ(run(), (Groups{{"A/f", "B/f"}}));
}

TEST_F(FinderTest, LinksAreDigestedByTargetButNeverReported) {
  tmp_.symlink("L1/link", "../target");
  tmp_.symlink("L2/link", "../target");
  tmp_.symlink("L3/link", "../tarxet");  // same length, other text
  tmp_.write("target", "t");
  EXPECT_EQ(run(), (Groups{{"L1", "L2"}}));
}

TEST_F(FinderTest, LinksToFoldersAreNotFollowed) {
  std::string content = randomBytes(2000, 8);
  tmp_.write("real/f", content);
  tmp_.symlink("via", "real");
  EXPECT_TRUE(run().empty());
}

TEST_F(FinderTest, FileThatVanishesBeforeHashingDropsOut) {
  std::string content = randomBytes(6000, 9);
  for (const char* name : {"a", "b", "c"}) tmp_.write(name, content);
  Duplicate<long long, File*> files;
  Duplicate<long long, Symlink*> links;
  Duplicate<long long, Package*> packages;
  std::deque<Package*> unsized;
  auto tree = finder_.scanFiles(tmp_.path(), files, links, packages, unsized);
  ::unlink((tmp_ / "b").c_str());
  Duplicate<HashValue, File*> found;
  finder_.findDuplicateFiles(files, found);
  std::vector<std::string> grouped, unique;
  for (const auto& child : tree->children) {
    (child->unique ? unique : grouped).push_back(relative(child->path().string()));
  }
  std::sort(grouped.begin(), grouped.end());
  EXPECT_EQ(grouped, (std::vector<std::string>{"a", "c"}));
  EXPECT_EQ(unique, (std::vector<std::string>{"b"}));
}

TEST_F(FinderTest, LargeFilesDifferingOnlyInTheirLastByteAreToldApart) {
  std::string content = randomBytes(4096 + 4096000 + 10, 10);
  tmp_.write("big1", content);
  tmp_.write("big2", content);
  content.back() ^= 1;
  tmp_.write("big3", content);
  content[5000] ^= 1;  // differs in the second stage too
  tmp_.write("big4", content);
  EXPECT_EQ(run(), (Groups{{"big1", "big2"}}));
}

TEST_F(FinderTest, OverlappingRootsAndHardLinksCompareAsTheirOwnDuplicates) {
  tmp_.write("d/f", randomBytes(3000, 11));
  ::link((tmp_ / "d/f").c_str(), (tmp_ / "d/hard").c_str());
  EXPECT_EQ(run({"d"}), (Groups{{"d/f", "d/hard"}}));
}

TEST_F(FinderTest, PhotoLibraryRootsAreRecognisedWhateverTheCase) {
  // Not a readable library: compared as a plain package, its photos unknown.
  tmp_.write("Pictures.PHOTOSLIBRARY/database/photos.db", "not a database");
  tmp_.write("Copy.photoslibrary/database/photos.db", "not a database");
  EXPECT_EQ(run({"Pictures.PHOTOSLIBRARY", "Copy.photoslibrary"}),
            (Groups{{"Copy.photoslibrary", "Pictures.PHOTOSLIBRARY"}}));
  EXPECT_TRUE(DuplicateFileFinder::withExtension(Path("x.photosLibrary"), ".photoslibrary"));
}

TEST(ExtensionTest, SuffixesAreCaseInsensitiveAndNeverTheWholeName) {
  auto with = [](const char* name, const char* suffix) {
    return DuplicateFileFinder::withExtension(name, std::strlen(name), suffix);
  };
  EXPECT_TRUE(with("photo.JPG", ".jpg"));
  EXPECT_TRUE(with("photojpg", "jpg"));  // no dot in the suffix: any ending matches
  EXPECT_FALSE(with("jpg", "jpg"));      // but not the name itself
  EXPECT_FALSE(with(".jpg", ".jpg"));
  EXPECT_FALSE(with("a.png", ".jpg"));
}

TEST(FileModelTest, TypeIdsSpecialNamesAndPaths) {
  File file("/f", 1, nullptr);
  Directory directory("/d", nullptr);
  Symlink link(Path("/l"), 3, nullptr);
  Package package("/p.app", nullptr);
  PhotoLibrary library("/x.photoslibrary", nullptr);
  Photo photo("id", Path("/x.jpg"), 1, nullptr);
  EXPECT_EQ(fileTypeId(&file), 0u);
  EXPECT_EQ(fileTypeId(&directory), 1u);
  EXPECT_EQ(fileTypeId(&link), 2u);
  EXPECT_EQ(fileTypeId(&package), 3u);
  EXPECT_EQ(fileTypeId(&library), 3u);
  EXPECT_EQ(fileTypeId(&photo), 3u);
  EXPECT_TRUE(specialDirectory(".", 1));
  EXPECT_TRUE(specialDirectory("..", 2));
  EXPECT_FALSE(specialDirectory("...", 3));
  EXPECT_FALSE(specialDirectory(".a", 2));
  EXPECT_EQ((Path("/") / "etc").string(), "//etc");
  EXPECT_EQ((Path("/a/") / std::string("b")).string(), "/a//b");
  EXPECT_EQ(file.hash, HashValue{});  // a defined value before any pass
}

// Stops: each phase winds down and the run returns what was settled before the stop.
TEST_F(FinderTest, StopBeforeFindIsLost) {
  tmp_.write("a", "same");
  tmp_.write("b", "same");
  finder_.stop();
  EXPECT_EQ(run(), (Groups{{"a", "b"}}));
}

TEST_F(FinderTest, StopDuringTheScanLeavesNothingToGroup) {
  std::string content = randomBytes(2000, 12);
  tmp_.write("A/f", content);
  tmp_.write("B/f", content);
  tmp_.write("C/f", content);
  pathHook_ = [&](const std::string&) { finder_.stop(); };
  spendProcessorTime();
  EXPECT_TRUE(run().empty());
  EXPECT_EQ(progress_, (std::vector<double>{0.3, 0.5, 0.8, 0.9}));
}

TEST_F(FinderTest, StopAfterTheScanGroupsNoFolderOnUncomparedFiles) {
  // Same sizes, different contents: had the files kept digests that were never taken, the two
  // folders would look alike.
  tmp_.write("A/f", randomBytes(2000, 13));
  tmp_.write("B/f", randomBytes(2000, 14));
  progressHook_ = [&](double v) {
    if (v == 0.3) finder_.stop();
  };
  EXPECT_TRUE(run().empty());
}

TEST_F(FinderTest, StopDuringFileHashingKeepsGroupsFinishedBefore) {
  tmp_.write("g1a", std::string(100, 'a'));
  tmp_.write("g1b", std::string(100, 'a'));
  tmp_.write("g2a", std::string(200, 'b'));
  tmp_.write("g2b", std::string(200, 'b'));
  bool hashing = false;
  int seen = 0;
  progressHook_ = [&](double v) {
    if (v == 0.3) hashing = true;
  };
  // Every report costs the throttle's span, so every path of the hashing phase is seen.
  pathHook_ = [&](const std::string&) {
    spendProcessorTime();
    if (hashing && ++seen == 3) finder_.stop();  // the first member of the second group
  };
  spendProcessorTime();
  auto groups = run();
  ASSERT_EQ(groups.size(), 1u);
  EXPECT_EQ(groups[0].size(), 2u);
}

TEST_F(FinderTest, StopBeforePackagesLeavesFileGroupsAndNoPackageGroups) {
  std::string content = randomBytes(2000, 15);
  tmp_.write("x/One.app/bin", content);
  tmp_.write("x/Two.app/bin", content);
  tmp_.write("y/f", "same");
  tmp_.write("z/f", "same");
  progressHook_ = [&](double v) {
    if (v == 0.5) finder_.stop();
  };
  // The file groups are settled; they lie in two identical folders, which are reported in their
  // place. The packages were never compared and make their folder unique.
  EXPECT_EQ(run(), (Groups{{"y", "z"}}));
}

}  // namespace
}  // namespace dff
