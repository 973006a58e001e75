#include "dff/DuplicateFileFinder.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <fstream>
#include <tuple>

#include "dff/Hash.h"
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

  std::vector<std::vector<std::string>> run(std::vector<std::string> roots = {""},
                                            bool sorted = true) {
    finder_.rootFolders.clear();
    for (const auto& root : roots) {
      finder_.rootFolders.emplace_back(root.empty() ? tmp_.path() : tmp_ / root);
    }
    Result result = finder_.find();
    std::vector<std::vector<std::string>> groups;
    for (const auto& group : result) {
      auto& names = groups.emplace_back();
      for (File* entry : group) names.push_back(relative(entry->path().string()));
      if (sorted) std::sort(names.begin(), names.end());
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

// Links are compared by their target text, never followed, and never reported themselves.
TEST_F(FinderTest, LinksAreDigestedByTargetButNeverFollowedOrReported) {
  tmp_.symlink("L1/link", "../target");
  tmp_.symlink("L2/link", "../target");
  tmp_.symlink("L3/link", "../tarxet");  // same length, other text
  tmp_.write("target/f", randomBytes(2000, 8));
  EXPECT_EQ(run(), (Groups{{"L1", "L2"}}));
}

// What the scan saw may change before the file is read: a file that vanished drops out, a pipe
// put in a file's place must not hang the search, and a file that grew (even to a whole block
// more, where the old size still ends a block) is no longer the file whose size was compared.
TEST_F(FinderTest, FilesThatVanishOrChangeAfterTheScanDropOut) {
  std::string content = randomBytes(4096, 16);
  for (const char* name : {"a", "gone", "pipe", "grown", "d"}) tmp_.write(name, content);
  Duplicate<long long, File*> files;
  Duplicate<long long, Symlink*> links;
  Duplicate<long long, Package*> packages;
  std::deque<Package*> unsized;
  auto tree = finder_.scanFiles(tmp_.path(), files, links, packages, unsized);
  ::unlink((tmp_ / "gone").c_str());
  ::unlink((tmp_ / "pipe").c_str());
  testsupport::FifoGuard guard(tmp_ / "pipe");
  {
    std::ofstream grown(tmp_ / "grown", std::ios::app);
    grown << randomBytes(4096, 17);
  }
  Duplicate<HashValue, File*> found;
  finder_.findDuplicateFiles(files, found);
  EXPECT_FALSE(guard.fired()) << "the search blocked on a pipe";
  std::vector<std::string> grouped, unique;
  for (const File* child : tree->children) {
    (child->unique ? unique : grouped).push_back(relative(child->path().string()));
  }
  std::sort(grouped.begin(), grouped.end());
  std::sort(unique.begin(), unique.end());
  EXPECT_EQ(grouped, (std::vector<std::string>{"a", "d"}));
  EXPECT_EQ(unique, (std::vector<std::string>{"gone", "grown", "pipe"}));
}

// A file system may give fewer bytes than asked before a file ends; the stage is read on.
TEST_F(FinderTest, ShortReadsStillCompareWholeStages) {
  std::string content = randomBytes(4096 + 9000, 18);
  tmp_.write("x1", content);
  tmp_.write("x2", content);
  content.back() ^= 1;
  tmp_.write("x3", content);
  ReadCall previous = setReadCall([](int fd, void* buffer, std::size_t count, off_t offset) {
    return ::pread(fd, buffer, std::min<std::size_t>(count, 1000), offset);
  });
  auto groups = run();
  setReadCall(previous);
  EXPECT_EQ(groups, (Groups{{"x1", "x2"}}));
}

// Bundler keeps a ".bundle" folder in every Ruby project: a name that is only a package
// extension is a hidden folder, not a package.
TEST_F(FinderTest, HiddenFoldersNamedLikeAPackageExtensionAreFolders) {
  tmp_.write("p1/.bundle/config", "BUNDLE_PATH: vendor");
  tmp_.write("p2/.bundle/config", "BUNDLE_PATH: vendor");
  tmp_.write("p1/Gemfile", randomBytes(300, 19));
  tmp_.write("p2/Gemfile", randomBytes(300, 20));
  EXPECT_TRUE(run().empty());  // hidden folders aren't entered, so neither project is whole
  finder_.includeHiddenFolders = true;
  EXPECT_EQ(run(), (Groups{{"p1/.bundle", "p2/.bundle"}}));
  EXPECT_FALSE(DuplicateFileFinder::isPackage(Path("/x/.bundle")));
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
}

TEST(FileModelTest, SuffixesPackagesAndNames) {
  // Suffixes ignore ASCII case and are never the whole name; a suffix without a dot matches any
  // ending.
  for (const auto& [name, suffix, matches] :
       std::vector<std::tuple<const char*, const char*, bool>>{{"photo.JPG", ".jpg", true},
                                                               {"photojpg", "jpg", true},
                                                               {"jpg", "jpg", false},
                                                               {".jpg", ".jpg", false},
                                                               {"a.png", ".jpg", false}}) {
    EXPECT_EQ(DuplicateFileFinder::withExtension(name, std::strlen(name), suffix), matches) << name;
  }
  EXPECT_TRUE(DuplicateFileFinder::isPackage(Path("/x/.hidden.app")));
  EXPECT_TRUE(DuplicateFileFinder::isPackage(Path("/x/A.BUNDLE/")));
  EXPECT_FALSE(DuplicateFileFinder::isPackage(Path(".app")));
  File file("/f", 1, nullptr);
  EXPECT_EQ(file.hash, HashValue{});  // a defined value before any pass
  std::string text = "/named";
  File named(Name{text}, 1, nullptr);  // a root by name keeps its own copy
  text[1] = 'x';
  EXPECT_EQ(named.path().string(), "/named");
}

// Stops: each phase winds down and the run returns what was settled before the stop.
TEST_F(FinderTest, StopBeforeFindIsLost) {
  tmp_.write("a", "same");
  tmp_.write("b", "same");
  finder_.stop();
  EXPECT_EQ(run(), (Groups{{"a", "b"}}));
}

TEST_F(FinderTest, StopDuringTheScanGroupsNothingAndMarksRootsNeverWalked) {
  std::string content = randomBytes(2000, 21);
  tmp_.write("big/f", content);
  tmp_.write("big/g", content);
  tmp_.write("r2/x", randomBytes(100, 22));
  tmp_.write("r3/y", randomBytes(100, 23));
  pathHook_ = [&](const std::string&) { finder_.stop(); };
  spendProcessorTime();
  // Nothing was compared; and two roots never listed look alike (empty), yet make no group. The
  // later phases still report their progress.
  EXPECT_TRUE(run({"big", "r2", "r3"}).empty());
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

// Groups and members exactly as the engine orders them, for `jobs` threads.
class OrderTest : public FinderTest {
 protected:
  Groups runWith(unsigned jobs) {
    finder_.jobs = jobs;
    return run({""}, false);
  }

  // Many groups of one size each: copies, files that part in the first block, in the second
  // stage or only in the third, and files alone in their size.
  void writeTree() {
    for (int g = 0; g < 80; ++g) {
      const std::size_t size = g % 10 == 0 ? 4096 * 1001 + 7 + g : 5000 + 3 * g;
      std::string base = randomBytes(size, 100 + g);
      const std::string folder = "g" + std::to_string(g % 7) + "/";
      for (int copy = 0; copy < 2 + g % 3; ++copy) {
        tmp_.write(folder + "copy" + std::to_string(g) + "-" + std::to_string(copy), base);
      }
      std::string early = base, late = base;
      early[10] ^= 1;
      late[size - 1] ^= 1;
      tmp_.write(folder + "early" + std::to_string(g), early);
      tmp_.write(folder + "late" + std::to_string(g), late);
      if (g % 4 == 0) tmp_.write(folder + "late-twin" + std::to_string(g), late);
    }
  }
};

TEST_F(OrderTest, AnyNumberOfWorkersGivesTheSameGroupsInTheSameOrder) {
  writeTree();
  const Groups one = runWith(1);
  ASSERT_GE(one.size(), 80u);
  EXPECT_EQ(runWith(2), one);
  EXPECT_EQ(runWith(5), one);

  // Reads that fail for some files (as for files that vanish while being read) mark the same
  // files, whoever reads them.
  ReadCall previous = setReadCall([](int fd, void* buffer, std::size_t count, off_t offset) {
    struct stat status {};
    if (::fstat(fd, &status) == 0 && status.st_size % 7 == 0) {
      errno = EIO;
      return ssize_t{-1};
    }
    return ::pread(fd, buffer, count, offset);
  });
  const Groups failingOne = runWith(1);
  const Groups failingMany = runWith(4);
  setReadCall(previous);
  EXPECT_EQ(failingMany, failingOne);
  EXPECT_LT(failingOne.size(), one.size());
}

// Folders are listed ahead of the walk by other threads, in whatever order they finish: the
// tree, and so the folder groups and the order of everything, is still the walk's own.
TEST_F(OrderTest, NestedFoldersGiveTheSameGroupsWithAnyNumberOfWorkers) {
  // Three copies of one nested tree (whole folder groups), one copy with a file changed (its
  // folders differ and its files join the file groups), and a wide folder of small files.
  std::function<void(const std::string&, int)> nest = [&](const std::string& at, int depth) {
    for (int f = 0; f < 3; ++f) {
      tmp_.write(at + "f" + std::to_string(f), randomBytes(700 + 50 * depth + f, depth * 10 + f));
    }
    if (depth == 0) return;
    for (int c = 0; c < 3; ++c) nest(at + "c" + std::to_string(c) + "/", depth - 1);
  };
  for (const char* copy : {"t1/", "t2/", "x/t3/", "t4/"}) nest(copy, 3);
  tmp_.write("t4/c1/c2/f0", randomBytes(700 + 100, 999));
  for (int f = 0; f < 300; ++f) {
    tmp_.write("wide/" + std::to_string(f), randomBytes(600 + f % 40, f % 90));
  }
  const Groups one = runWith(1);
  ASSERT_GE(one.size(), 10u);
  EXPECT_EQ(one.back(), (std::vector<std::string>{"t2", "t1", "x/t3"}));  // whole, in walk order
  for (unsigned jobs : {2u, 3u, 8u}) EXPECT_EQ(runWith(jobs), one) << jobs;
}

// A few long files: their later stages are read whole and digested a slice at a time by
// whichever worker is free, alone or after other files of the same wave.
TEST_F(OrderTest, FewLongFilesGiveTheSameGroupsWithAnyNumberOfWorkers) {
  const std::size_t size = 4096 + 4096000 + 50;  // two later stages, the last one short
  std::string three = randomBytes(size, 41), four = randomBytes(size + 1, 42);
  for (int copy = 0; copy < 3; ++copy) tmp_.write("three" + std::to_string(copy), three);
  for (int copy = 0; copy < 4; ++copy) tmp_.write("four" + std::to_string(copy), four);
  three.back() ^= 1;  // equal to the others until its very last byte
  tmp_.write("three-last", three);
  four[size / 2] ^= 1;  // parts from the others in the middle of the first long stage
  tmp_.write("four-middle", four);
  const Groups one = runWith(1);
  ASSERT_EQ(one.size(), 2u);
  for (unsigned jobs : {2u, 3u, 4u, 6u}) EXPECT_EQ(runWith(jobs), one) << jobs;
}

// One size shared by more files than the workers' first stages take at once (a few hundred per
// worker), among small groups: members of one size group that are read in different takes
// still meet in one table, and those that go on keep their place.
TEST_F(OrderTest, ASizeGroupLargerThanOneTakeGivesTheSameGroups) {
  const std::string base = randomBytes(5000, 7);
  for (int i = 0; i < 1800; ++i) {
    std::string content = base;
    switch (i % 7) {
      case 1:
        content[4500] ^= 1;  // parts from the base in its second stage
        break;
      case 2:
        content[10] ^= 1;  // in its first
        break;
      case 3:
        content[4999] = static_cast<char>(i);  // alone or nearly so, found only at the end
        content[4998] = static_cast<char>(i >> 8);
        break;
      default:
        break;
    }
    tmp_.write("big/" + std::to_string(i % 13) + "/" + std::to_string(i), content);
  }
  for (int g = 0; g < 40; ++g) {
    const std::string small = randomBytes(300 + g, 200 + g);
    tmp_.write("small/a" + std::to_string(g), small);
    tmp_.write("small/b" + std::to_string(g), small);
  }
  const Groups one = runWith(1);
  ASSERT_GE(one.size(), 43u);
  for (unsigned jobs : {2u, 3u}) EXPECT_EQ(runWith(jobs), one) << jobs;
}

TEST_F(OrderTest, AStopWhileWorkersReadSettlesOnlyTrueGroups) {
  writeTree();
  int seen = 0;
  pathHook_ = [&](const std::string&) {
    spendProcessorTime();
    if (++seen == 40) finder_.stop();
  };
  spendProcessorTime();
  const Groups cut = runWith(4);
  // Whatever was settled before the stop holds only files of the same bytes.
  for (const auto& group : cut) {
    ASSERT_GE(group.size(), 2u);
    std::ifstream first(tmp_ / group.front(), std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(first)), std::istreambuf_iterator<char>());
    for (const auto& member : group) {
      std::ifstream in(tmp_ / member, std::ios::binary);
      EXPECT_EQ(std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>()),
                bytes)
          << member;
    }
  }
  pathHook_ = nullptr;
  EXPECT_LT(cut.size(), runWith(1).size());
}

}  // namespace
}  // namespace dff
