#include "Core/FileFinder.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <tuple>

#include "Core/FileFinderContext.h"
#include "helper/HelperConnection.h"
#include "platform/Locations.h"
#include "testsupport/TestSupport.h"

namespace Core {
namespace {

using testsupport::TempDir;

// One delivery of a walk: the identifier ("-" for none), the path and the kind.
using Delivery = std::tuple<std::string, std::string, std::string>;

class FileFinderTest : public ::testing::Test {
 protected:
  // Compiles `document` with every location below the fixture folder.
  void load(const std::string& document) {
    std::string error;
    auto manager = RuleManager::load(document, platform::Locations::underRoot(tmp_.path()), &error);
    ASSERT_TRUE(manager) << error;
    rules_ = std::make_shared<RuleManager>(std::move(*manager));
    finder_ = std::make_unique<FileFinder>(std::make_shared<AppFileRule>(true, *rules_));
  }

  // The deliveries of one application's walk, sorted, paths relative to home.
  std::vector<Delivery> walkFor(const std::string& bundleID) {
    auto ids = finder_->appFileRule().matcherIDs(bundleID);
    std::vector<Delivery> out;
    finder_->scan(
        [&](std::int64_t n) { return ids.count(n) > 0; },
        [&](const std::optional<CaseInsensitiveString>& identifier,
            const std::shared_ptr<FileInfo>& file, const AppFile::Kind& kind, const RuleID&) {
          out.push_back({identifier ? identifier->origin() : "-", relative(file->url),
                         AppFile::textOfKind(kind)});
        });
    std::sort(out.begin(), out.end(), [](const Delivery& a, const Delivery& b) {
      return std::tie(std::get<1>(a), a) < std::tie(std::get<1>(b), b);  // by path first
    });
    return out;
  }

  std::string relative(const std::string& path) const {
    std::string home = tmp_ / "home/";
    return path.rfind(home, 0) == 0 ? path.substr(home.size()) : path;
  }

  std::size_t timesListed(const std::string& relativePath) const {
    const auto& listed = finder_->statistics().listed;
    return std::count(listed.begin(), listed.end(), tmp_ / ("home/" + relativePath));
  }

  TempDir tmp_;
  std::shared_ptr<RuleManager> rules_;
  std::unique_ptr<FileFinder> finder_;
};

TEST_F(FileFinderTest, LiteralPathsAreTestedOnceAndNeverCauseAListing) {
  tmp_.write("home/.cache/one/data", "12345");
  load(
      "app.one: {caches: {cache: [Home/.cache/one, Home/.cache/absent]}}\n"
      "app.two: {caches: {cache: [Home/.cache/absent, Home/.cache/one]}}\n");
  EXPECT_EQ(walkFor("app.one"), (std::vector<Delivery>{{"app.one", ".cache/one", "cache"}}));
  EXPECT_TRUE(finder_->statistics().listed.empty());
  const std::size_t tests = finder_->statistics().existenceTests;
  EXPECT_EQ(tests, 3u);  // .cache, one, absent

  // The second application finds the answers in the cache: "absent" is known not to exist, and
  // "one" was claimed at the same priority, so both rules get it.
  EXPECT_EQ(walkFor("app.two"), (std::vector<Delivery>{{"app.two", ".cache/one", "cache"}}));
  EXPECT_EQ(finder_->statistics().existenceTests, tests);
  EXPECT_TRUE(finder_->statistics().listed.empty());

  // Forgetting the cache goes back to the disk.
  finder_->resetCache();
  tmp_.write("home/.cache/absent", "");
  EXPECT_EQ(walkFor("app.two").size(), 2u);
}

TEST_F(FileFinderTest, EveryFolderIsListedOnceForAllApplications) {
  tmp_.write("home/.cache/app.one/a", "1");
  tmp_.write("home/.cache/app.two/b", "22");
  tmp_.write("home/.cache/unrelated/c", "3");
  tmp_.write("home/.config/app.one/settings", "4");
  load(
      "'*': {caches: {cache: [Home/.cache/**]}, support: {support: [Home/.config/**]}}\n"
      "app.one: {caches: {cache: [Home/.cache/absent]}}\n");
  // The base rule hands over every name with the identifier it yields: the caller decides the
  // owner.
  EXPECT_EQ(walkFor("app.one"), (std::vector<Delivery>{{"app.one", ".cache/app.one", "cache"},
                                                       {"app.two", ".cache/app.two", "cache"},
                                                       {"unrelated", ".cache/unrelated", "cache"},
                                                       {"app.one", ".config/app.one", "support"}}));
  // A literal name in a folder that has been listed is answered from the listing.
  const std::size_t tests = finder_->statistics().existenceTests;
  walkFor("app.two");
  walkFor("app.three");
  EXPECT_EQ(timesListed(".cache"), 1u);
  EXPECT_EQ(timesListed(".config"), 1u);
  EXPECT_EQ(finder_->statistics().existenceTests, tests);
  // Nothing below a claimed entry is walked, and nothing absent was stored as a node.
  EXPECT_EQ(finder_->statistics().listed.size(), 2u);
}

TEST_F(FileFinderTest, AStrongerRuleShutsOutAWeakerOneAndEqualRulesShare) {
  tmp_.write("home/.cache/xyz", "1");
  tmp_.write("home/.local/share/shared/file", "1");
  load(
      "app.strong: {caches: {cache: ['50:Home/.cache/*x.*']}}\n"
      "app.weak: {caches: {cache: [Home/.cache/xyz]}}\n"
      "app.one: {support: {support: [Lib/shared]}}\n"
      "app.two: {support: {support: [Lib/shared]}}\n");
  EXPECT_EQ(walkFor("app.strong"), (std::vector<Delivery>{{"app.strong", ".cache/xyz", "cache"}}));
  EXPECT_TRUE(walkFor("app.weak").empty());
  EXPECT_EQ(walkFor("app.one"),
            (std::vector<Delivery>{{"app.one", ".local/share/shared", "support"}}));
  EXPECT_EQ(walkFor("app.two"),
            (std::vector<Delivery>{{"app.two", ".local/share/shared", "support"}}));
}

TEST_F(FileFinderTest, IdentifiersComeFromTheMatchOrFromTheFoldersAbove) {
  tmp_.write("home/.var/app/org.example.Viewer/cache/thumbs.log", "1");
  tmp_.write("home/.var/app/org.example.Viewer/cache/keep.txt", "1");
  tmp_.write("home/.cache/org.example.Viewer-42", "1");
  load(
      "'*':\n"
      "  logs: {log: ['Home/.var/app/**/cache/*.*\\.log']}\n"
      "  caches: {cache: ['Home/.cache/*(?<id>[a-z.]+[A-Za-z])-[0-9]+']}\n");
  // The file expression has no "id" group: the folder's identifier stands. The other yields one.
  auto first = walkFor("anything");
  EXPECT_EQ(first,
            (std::vector<Delivery>{
                {"org.example.Viewer", ".cache/org.example.Viewer-42", "cache"},
                {"org.example.Viewer", ".var/app/org.example.Viewer/cache/thumbs.log", "log"}}));
  // A second walk is answered from what the matchers stored, and says the same.
  EXPECT_EQ(walkFor("another"), first);
  EXPECT_EQ(timesListed(".var/app/org.example.Viewer/cache"), 1u);
}

// Names are case-sensitive on disk: a literal matcher finds its own spelling only, and its
// answer never hides a differently spelt entry from the other matchers, whichever ran first.
TEST_F(FileFinderTest, ALiteralNameNeverHidesAnotherSpelling) {
  tmp_.write("home/.config/code/settings.json", "{}");
  tmp_.write("home/.config/Slack/x", "1");
  const std::string document =
      "code: {support: {support: [Home/.config/Code]}}\n"
      "slack: {support: {support: [Home/.config/Slack]}}\n"
      "'*': {support: {support: [Home/.config/**]}}\n";
  // The base rule serves every application: its entry comes in each walk, whatever ran first.
  const Delivery base{"code", ".config/code", "support"};
  const Delivery slack{"slack", ".config/Slack", "support"};
  for (const auto& order :
       {std::vector<std::string>{"code", "slack"}, std::vector<std::string>{"slack", "code"}}) {
    load(document);
    for (const auto& id : order) {
      auto expected =
          id == "code" ? std::vector<Delivery>{base} : std::vector<Delivery>{slack, base};
      EXPECT_EQ(walkFor(id), expected) << id << " after " << order[0];
    }
  }
}

// The data folder lies in the home folder: a rule of Home that keeps a folder there shields it
// from a rule of Lib, and both reach the same node.
TEST_F(FileFinderTest, OneFolderOnDiskIsOneNodeWhicheverLocationReachesIt) {
  tmp_.write("home/.local/share/evolution/mail/inbox", "mail");
  tmp_.write("home/.local/share/gimp/x", "1");
  load(
      "'@': {support: {support: ['99:Home/.local/share/evolution/mail']}}\n"
      "'*': {support: {support: [Lib/**]}}\n");
  // Every application's walk delivers the base rule's entries; the shielded folder is not one.
  for (const char* id : {"evolution", "gimp"}) {
    EXPECT_EQ(walkFor(id), (std::vector<Delivery>{{"gimp", ".local/share/gimp", "support"}}));
  }
  EXPECT_EQ(timesListed(".local/share"), 1u);
  EXPECT_EQ(finder_->cache.size(), 1u);
}

TEST_F(FileFinderTest, LinksAreClaimedAsThemselvesAndNeverEntered) {
  TempDir elsewhere;
  elsewhere.write("precious/cache/important", "data");
  tmp_.mkdir("home/.cache");
  tmp_.symlink("home/.cache/linked", elsewhere / "precious");
  tmp_.symlink("home/.config", elsewhere / "precious");
  tmp_.symlink("home/.cache/another", elsewhere / "precious");
  load(
      "app.one: {caches: {cache: [Home/.cache/linked/cache, Home/.config/cache/important]}}\n"
      "app.two: {caches: {cache: ['Home/.cache/*l.*/cache']}}\n"
      "app.three: {caches: {cache: [Home/.cache/another]}}\n");
  EXPECT_TRUE(walkFor("app.one").empty());
  EXPECT_TRUE(walkFor("app.two").empty());
  // A file rule takes the link itself, which deleting removes without touching its target.
  EXPECT_EQ(walkFor("app.three"),
            (std::vector<Delivery>{{"app.three", ".cache/another", "cache"}}));
}

TEST_F(FileFinderTest, UnclaimedEntriesLeaveOutWhatIsUsedAndWhatTheSystemKeeps) {
  tmp_.write("home/.cache/app.one/a", "1");
  tmp_.write("home/.cache/gone.app/b", "1");
  tmp_.write("home/.cache/fontconfig/c", "1");
  tmp_.write("home/.cache/secret/d", "1");
  load(
      "'*': {caches: {cache: [Home/.cache/**]}}\n"
      "'#': {caches: {cache: ['90:Home/.cache/fontconfig']}}\n"
      "'@': {caches: {cache: ['99:Home/.cache/secret']}}\n");
  auto ids = finder_->appFileRule().matcherIDs("app.one");
  finder_->scan([&](std::int64_t n) { return ids.count(n) > 0; },
                [](const std::optional<CaseInsensitiveString>& identifier,
                   const std::shared_ptr<FileInfo>& file, const AppFile::Kind&, const RuleID&) {
                  if (identifier && *identifier == CaseInsensitiveString("app.one")) {
                    file->used = true;
                  }
                });
  std::vector<AppFileInfo> unclaimed;
  finder_->scanUnclaimed([](std::int64_t) { return true; }, unclaimed);
  ASSERT_EQ(unclaimed.size(), 1u);
  EXPECT_EQ(relative(unclaimed[0].file->url), ".cache/gone.app");
  EXPECT_EQ(unclaimed[0].owner, App(AppName{"gone.app"}));
}

// Runs `body` on a queue that carries a scan's context, as scanners do.
template <class Body>
void inScan(const std::shared_ptr<FileFinderContext>& context, Body body) {
  platform::DispatchQueue queue("scan");
  queue.setSpecific(contextKey(), context);
  queue.sync(body);
}

TEST_F(FileFinderTest, AnInterruptedScanWalksListsAndMeasuresNothing) {
  tmp_.write("home/.cache/app.one/a", "1");
  tmp_.write("home/.cache/.DS_Store", "mac");
  load("'*': {caches: {cache: [Home/.cache/**, Home/.cache/*]}}\n");

  // Before the interruption: a listing never holds ".DS_Store", whatever the rules say.
  auto context = std::make_shared<FileFinderContext>([](const std::string&) {});
  std::vector<std::string> names;
  inScan(context, [&] {
    auto listing = listDirectory(tmp_ / "home/.cache");
    for (const auto& entry : *listing) names.push_back(entry.resourceValues.name);
  });
  EXPECT_EQ(names, std::vector<std::string>{"app.one"});

  context->interrupt();
  std::vector<Delivery> delivered;
  std::int64_t size = -1;
  std::size_t listed = 99;
  inScan(context, [&] {
    delivered = walkFor("app.one");
    listed = listDirectory(tmp_ / "home/.cache")->size();
    size = directorySize(tmp_ / "home/.cache");
  });
  EXPECT_TRUE(delivered.empty());
  EXPECT_EQ(listed, 0u);
  EXPECT_EQ(size, 0);
  EXPECT_TRUE(finder_->statistics().listed.empty());
}

TEST_F(FileFinderTest, SizesAreMeasuredOnceAndCountWhatIsBelowAFolder) {
  tmp_.write("home/.cache/app.one/a", "12345");
  tmp_.write("home/.cache/app.one/deep/b", "123");
  tmp_.symlink("home/.cache/app.one/link", "/etc");
  load("app.one: {caches: {cache: [Home/.cache/app.one]}}\n");
  std::shared_ptr<FileInfo> claimed;
  auto ids = finder_->appFileRule().matcherIDs("app.one");
  finder_->scan([&](std::int64_t n) { return ids.count(n) > 0; },
                [&](const auto&, const std::shared_ptr<FileInfo>& file, const auto&, const auto&) {
                  claimed = file;
                });
  ASSERT_TRUE(claimed);
  AppFileInfo info{claimed, AppFile::Cache{}, AppName{"app.one"}};
  AppFile first = appFile(info);
  EXPECT_EQ(first.size, 5 + 3);  // the link counts as no bytes of its target
  // Measured once: what changes on disk afterwards isn't seen by a second owner.
  tmp_.write("home/.cache/app.one/c", "1234567890");
  EXPECT_EQ(appFile(info).size, first.size);
  EXPECT_EQ(itemSize(tmp_ / "home/.cache/app.one/a"), 5);
  EXPECT_EQ(itemSize(tmp_ / "home/.cache/none"), 0);
}

// A folder the user may not read is measured by the helper, as root; with no helper to be had,
// its size is unknown (0) rather than the part that could be read.
TEST_F(FileFinderTest, AFolderTheUserMayNotReadIsMeasuredByTheHelper) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to run the helper and an unprivileged user";
  ::chmod(tmp_.path().c_str(), 0755);
  tmp_.write("tree/open/a", "123");
  tmp_.write("tree/locked/b", "4567");
  ::chmod((tmp_ / "tree/locked").c_str(), 0700);
  // Measured as the unprivileged user, off the main queue: a connection's error handler comes on
  // the main queue, so it is drained meanwhile.
  auto measured = [&] {
    std::atomic<std::int64_t> size{-1};
    testsupport::AsUnprivilegedUser user;
    EXPECT_TRUE(user.ok());
    platform::DispatchQueue("measure").async([&] { size = directorySize(tmp_ / "tree"); });
    EXPECT_TRUE(testsupport::drainMainUntil([&] { return size.load() >= 0; }));
    return size.load();
  };
  const std::string socket = tmp_ / "helper.sock";
  std::int64_t withHelper = -1;
  {
    testsupport::ChildProcess helperTool(
        {RAVELIN_HELPER_BINARY, "--socket", socket, "--allow-uid", "65534"}, socket);
    helper::setHelperSocket(socket);
    withHelper = measured();
  }
  helper::setHelperSocket(tmp_ / "nobody-listens.sock");
  const std::int64_t withoutHelper = measured();
  helper::setHelperSocket("");
  EXPECT_EQ(withHelper, 7);
  EXPECT_EQ(withoutHelper, 0);
}

}  // namespace
}  // namespace Core
