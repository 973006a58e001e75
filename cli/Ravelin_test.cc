// The `ravelin` program run as a user runs it: on terminals of any width, under a tight
// descriptor limit, with Ctrl-C, with arguments it must refuse, and with names that must come
// back byte for byte from its JSON.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <thread>

#include "host/Host.h"
#include "testsupport/TestSupport.h"

namespace cli {

using namespace host;

namespace {

using testsupport::TempDir;

using Outcome = testsupport::RunOutcome;
using testsupport::RunOptions;

Outcome run(const std::vector<std::string>& args, const RunOptions& options = {}) {
  std::vector<std::string> argv{RAVELIN_BINARY};
  argv.insert(argv.end(), args.begin(), args.end());
  return testsupport::runProgram(argv, options);
}

// The JSON of a run that must succeed.
nlohmann::json jsonOf(const Outcome& outcome) {
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  return nlohmann::json::parse(outcome.out);
}

// `folders` folders of `files` files each below `root`, each file holding `content`.
void writeWideTree(const std::string& root, int folders, int files, const char* content = "") {
  for (int folder = 0; folder < folders; ++folder) {
    std::string path = root + "/" + std::to_string(folder);
    std::filesystem::create_directories(path);
    for (int file = 0; file < files; ++file) {
      int fd = ::open((path + "/" + std::to_string(file)).c_str(), O_CREAT | O_WRONLY, 0644);
      (void)!::write(fd, content, std::strlen(content));
      ::close(fd);
    }
  }
}

// Whether the program still runs: not yet reaped, it may have ended already (a zombie).
bool running(pid_t child) {
  std::ifstream stat("/proc/" + std::to_string(child) + "/stat");
  std::string line;
  std::getline(stat, line);
  const auto name = line.rfind(')');
  return name != std::string::npos && name + 2 < line.size() && line[name + 2] != 'Z';
}

// Interrupts the program once `now` says so, held still meanwhile so that a busy machine can't
// let it run to its end between the sight and the signal; gives up after a minute, or when the
// program has ended.
std::function<void(pid_t)> interruptWhen(std::function<bool(pid_t)> now) {
  return [now = std::move(now)](pid_t child) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (std::chrono::steady_clock::now() < deadline && running(child)) {
      if (now(child)) {
        ::kill(child, SIGSTOP);
        ::kill(child, SIGINT);
        ::kill(child, SIGCONT);
        return;
      }
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
  };
}

// A tree of `depth` levels, each holding one file of 10 bytes and a copy of it one level down.
void writeDeepTree(const std::string& root, int depth) {
  std::string folder = root;
  for (int level = 0; level < depth; ++level) {
    folder += "/d";
    std::filesystem::create_directories(folder);
    FILE* file = std::fopen((folder + "/f").c_str(), "w");
    std::fputs("0123456789", file);
    std::fclose(file);
  }
}

TEST(RavelinTest, NarrowAndUnknownTerminalsNeverEndARun) {
  TempDir tmp;
  writeDeepTree(tmp / "tree", 30);
  for (unsigned short width : {0, 1, 2, 3}) {
    for (const auto& args :
         std::vector<std::vector<std::string>>{{"dupes", tmp / "tree"},
                                               {"large", "--min-size", "1", tmp / "tree"},
                                               {"disk", "--size", tmp / "tree"}}) {
      RunOptions options;
      options.terminalWidth = width;
      Outcome outcome = run(args, options);
      EXPECT_EQ(outcome.status, 0) << args[0] << " at width " << width << ": " << outcome.out;
    }
  }
}

TEST(RavelinTest, EveryWalkFindsEveryFileWithFewDescriptors) {
  TempDir tmp;
  writeDeepTree(tmp / "tree", 100);
  RunOptions tight;
  tight.descriptors = 20;
  auto files = jsonOf(run({"large", "--json", "--min-size", "1", tmp / "tree"}, tight));
  EXPECT_EQ(files["files"].size(), 100u);
  EXPECT_EQ(files["complete"], true);

  EXPECT_EQ(jsonOf(run({"disk", "--json", "--size", tmp / "tree"}, tight))["size"], 1000);

  auto groups = jsonOf(run({"dupes", "--json", tmp / "tree"}, tight))["groups"];
  ASSERT_EQ(groups.size(), 1u);
  EXPECT_EQ(groups[0].size(), 100u);
}

TEST(RavelinTest, UnreadableFoldersMakeAResultIncomplete) {
  TempDir tmp;
  tmp.write("tree/open/f", "1234");
  tmp.write("tree/locked/f", "5678");
  ::chmod((tmp / "tree/locked").c_str(), 0);
  ::chmod(tmp.path().c_str(), 0755);
  // As an unprivileged user, so that root's override of permissions doesn't hide the fault.
  RunOptions options;
  if (::geteuid() == 0) options.user = 65534;
  Outcome large = run({"large", "--json", "--min-size", "1", tmp / "tree"}, options);
  Outcome dupes = run({"dupes", "--json", tmp / "tree/locked"}, options);
  ::chmod((tmp / "tree/locked").c_str(), 0755);
  ASSERT_EQ(large.status, 1) << large.out;
  auto result = nlohmann::json::parse(large.out);
  EXPECT_EQ(result["complete"], false);
  ASSERT_EQ(result["errors"].size(), 1u);
  EXPECT_EQ(result["errors"][0]["path"], tmp / "tree/locked");
  EXPECT_EQ(result["files"].size(), 1u);
  // A root that can't be read is an error too, not an empty result.
  EXPECT_EQ(dupes.status, 1) << dupes.err;
  EXPECT_EQ(nlohmann::json::parse(dupes.out)["complete"], false);
}

TEST(RavelinTest, CtrlCStopsALargeSearchThatFindsNothing) {
  // Enough empty files that the walk is still going when it is interrupted; made in memory.
  TempDir tmp("/dev/shm");
  writeWideTree(tmp / "tree", 200, 1000);
  RunOptions options;
  // Once the walk has begun: the program holds a folder of the tree open. A descriptor may close
  // between being listed and being read, which says nothing about the program.
  options.whileRunning = interruptWhen([&](pid_t child) {
    std::error_code error;
    for (const auto& entry :
         std::filesystem::directory_iterator("/proc/" + std::to_string(child) + "/fd", error)) {
      std::error_code linkError;
      auto target = std::filesystem::read_symlink(entry.path(), linkError);
      if (!linkError && target.string().rfind(tmp / "tree/", 0) == 0) return true;
    }
    return false;
  });
  Outcome outcome = run({"large", "--json", "--min-size", "1", tmp / "tree"}, options);
  ASSERT_EQ(outcome.status, 1) << outcome.err;
  auto result = nlohmann::json::parse(outcome.out);
  EXPECT_EQ(result["stopped"], true);
  EXPECT_EQ(result["complete"], false);
}

// Ctrl-C in the middle of one big folder: the report says what went, and it is what is gone.
TEST(RavelinTest, CtrlCHalfWayThroughAFolderIsReportedAsTheDiskStands) {
  TempDir tmp("/dev/shm");
  constexpr int kFolders = 100, kFiles = 1000;
  writeWideTree(tmp / "tree", kFolders, kFiles, "x");
  // The tree's link count falls by one with each of its folders deleted; the plan deletes none.
  auto folderLinks = [&] {
    struct stat status {};
    return ::stat((tmp / "tree").c_str(), &status) == 0 ? static_cast<long long>(status.st_nlink)
                                                        : 0;
  };
  const long long before = folderLinks();
  RunOptions options;
  options.whileRunning = interruptWhen([&](pid_t) { return folderLinks() < before; });
  Outcome outcome = run({"delete", "--yes", "--json", "--system", tmp / "tree"}, options);
  auto result = nlohmann::json::parse(outcome.out);
  long long files = 0, entries = 0;
  std::error_code error;
  for (auto it = std::filesystem::recursive_directory_iterator(tmp / "tree", error);
       !error && it != std::filesystem::recursive_directory_iterator(); it.increment(error)) {
    ++entries;
    files += it->is_regular_file();
  }
  if (!std::filesystem::exists(tmp / "tree")) {
    EXPECT_EQ(outcome.status, 0) << outcome.err;  // it ended before the interrupt
    return;
  }
  ASSERT_EQ(outcome.status, 1) << outcome.err;
  ASSERT_EQ(result["failed"].size(), 1u) << outcome.out;
  const long long went = kFolders * (kFiles + 1) - entries;
  EXPECT_EQ(result["failed"][0]["reason"], went > 0
                                               ? "stopped part way: " + std::to_string(went) +
                                                     " entries inside were deleted, the rest stays"
                                               : std::string("stopped before it was deleted"));
  EXPECT_EQ(result["bytes"], kFolders * kFiles - files);
}

TEST(RavelinTest, ArgumentsThatMustBeRefused) {
  TempDir tmp;
  for (const auto& args :
       std::vector<std::vector<std::string>>{{"--bogus"},
                                             {"monitor", "--watch", "nan"},
                                             {"monitor", "--watch", "inf"},
                                             {"monitor", "--watch", "abc"},
                                             {"monitor", "--watch", "0.01"},
                                             {"monitor", "--watch", "-1"},
                                             {"large", ""},
                                             {"large", "--min-size", "ten", tmp.path()},
                                             {"disk", "--size", ""},
                                             {"dupes", "--exclude-ext", "", tmp.path()},
                                             {"dupes", "--exclude", "", tmp.path()},
                                             {"dupes", tmp / "missing"},
                                             {"rules", "--check", tmp.path()}}) {
    Outcome outcome = run(args);
    EXPECT_EQ(outcome.status, 2) << args[0] << " " << (args.size() > 1 ? args[1] : "");
    EXPECT_NE(outcome.err.find("ravelin: "), std::string::npos) << outcome.err;
  }
  EXPECT_NE(run({"--bogus"}).err.find("unknown option: --bogus"), std::string::npos);
  Outcome watch = run({"monitor", "--json", "--watch", "0.1", "--count", "3"});
  EXPECT_EQ(watch.status, 0);
  EXPECT_EQ(std::count(watch.out.begin(), watch.out.end(), '\n'), 3);
}

// `helper status` pings through the socket it is given; a helper that serves another user doesn't
// answer, and without one nothing answers.
TEST(RavelinTest, HelperStatusAnswersOnlyWhenTheHelperServesTheUser) {
  TempDir tmp;
  ::chmod(tmp.path().c_str(), 0755);
  const std::string socket = tmp / "helper.sock";
  EXPECT_EQ(jsonOf(run({"helper", "status", "--json", "--helper-socket", socket}))["answers"],
            false);

  testsupport::ChildProcess server(
      {RAVELIN_HELPER_BINARY, "--socket", socket, "--allow-uid", "65534"}, socket);
  Outcome mine = run({"--helper-socket", socket, "helper", "status", "--json"});
  auto status = nlohmann::json::parse(mine.out);
  EXPECT_EQ(status["answers"], true) << mine.out << mine.err;
  EXPECT_EQ(status["shipped_version"].is_string(), true);
  if (::geteuid() == 0) {
    RunOptions served, stranger;
    served.user = 65534;
    stranger.user = 1234;
    Outcome asServed = run({"helper", "status", "--json", "--helper-socket", socket}, served);
    Outcome asStranger = run({"helper", "status", "--json", "--helper-socket", socket}, stranger);
    EXPECT_EQ(nlohmann::json::parse(asServed.out)["answers"], true) << asServed.err;
    EXPECT_EQ(nlohmann::json::parse(asStranger.out)["answers"], false) << asStranger.err;
  }
  server.kill();
  EXPECT_EQ(run({"--helper-socket", "", "helper", "status"}).status, 2);
}

// `ravelin delete` deletes what it is given and nothing else: links are removed, not followed;
// system folders and the home folder are refused; without a terminal it needs --yes.
TEST(RavelinTest, DeleteRemovesWhatItIsGivenAndNothingElse) {
  TempDir tmp;
  tmp.write("outside/keep", "stays");
  tmp.write("tree/a/b/file", "x");
  tmp.symlink("tree/a/to-outside", tmp / "outside");
  tmp.write("loose", "y");
  for (const auto& refused : std::vector<std::vector<std::string>>{
           {"delete", "--yes", "/"},
           {"delete", "--yes", "/etc"},
           {"delete", "--yes", "/usr/"},
           {"delete", "--yes", std::string(std::getenv("HOME"))},
           {"delete", "--yes", "/var/lib/dpkg"},
           {"delete", "--dry-run", "/usr/lib"},
           {"delete", "--yes", "/lib/x86_64-linux-gnu"},
           {"delete", "--yes", "/dev/null"},
           {"delete", "--yes", "/etc/../etc/passwd"},
           {"dupes", "--delete", "--keep-under", tmp / "missing", tmp.path()},
           {"delete", "--yes", ""},
           {"delete", "--yes"},
           {"delete", tmp / "loose"}}) {  // no terminal, no --yes
    EXPECT_EQ(run(refused).status, 2) << refused.back();
  }
  EXPECT_TRUE(std::filesystem::exists(tmp / "loose"));
  // A home reached through a link is protected where it really is, and so is what holds it.
  tmp.write("real/home/file", "z");
  tmp.symlink("homelink", tmp / "real/home");
  RunOptions linked;
  linked.environment = {"HOME=" + tmp / "homelink"};
  EXPECT_EQ(run({"delete", "--yes", tmp / "real/home"}, linked).status, 2);
  EXPECT_EQ(run({"delete", "--yes", tmp / "real"}, linked).status, 2);
  EXPECT_TRUE(std::filesystem::exists(tmp / "real/home/file"));
  Outcome dry = run({"delete", "--dry-run", tmp / "tree", tmp / "loose"});
  EXPECT_EQ(dry.status, 0);
  EXPECT_TRUE(std::filesystem::exists(tmp / "tree/a/b/file"));

  auto result =
      jsonOf(run({"delete", "--yes", "--json", tmp / "tree", tmp / "./loose", tmp / "gone"}));
  EXPECT_EQ(result["deleted"].size(), 3u);
  EXPECT_TRUE(result["failed"].empty());
  EXPECT_EQ(result["bytes"], 2);
  EXPECT_FALSE(std::filesystem::exists(tmp / "tree"));
  EXPECT_FALSE(std::filesystem::exists(tmp / "loose"));
  EXPECT_TRUE(std::filesystem::exists(tmp / "outside/keep"));
}

// A hard-linked file is freed once, and only when every name of it goes.
TEST(RavelinTest, DeleteCountsAFileOnceAndOnlyWhenAllItsNamesGo) {
  TempDir tmp;
  tmp.write("one", std::string(1000, 'x'));
  ASSERT_EQ(::link((tmp / "one").c_str(), (tmp / "two").c_str()), 0);
  ASSERT_EQ(::link((tmp / "one").c_str(), (tmp / "three").c_str()), 0);
  EXPECT_EQ(jsonOf(run({"delete", "--yes", "--json", tmp / "three"}))["bytes"], 0);
  EXPECT_EQ(jsonOf(run({"delete", "--yes", "--json", tmp / "one", tmp / "two"}))["bytes"], 1000);
}

// Lists come back as ravelin prints them (escaped text, one per line) or NUL-separated bytes.
TEST(RavelinTest, DeleteTakesListsOfAnyBytes) {
  TempDir tmp;
  const std::string odd = tmp.write(std::string("odd\nnameÿ"), "1");
  const std::string newline = tmp.write("line\nbreak", "2");
  const std::string kept = tmp.write("odd\nname", "3");  // the escaped text, as a real name
  tmp.write("list", displayText(odd) + "\n" + displayText(newline) + "\n");
  Outcome fromLines = run({"delete", "--yes", "--from", tmp / "list"});
  ASSERT_EQ(fromLines.status, 0) << fromLines.err;
  EXPECT_FALSE(std::filesystem::exists(odd));
  EXPECT_FALSE(std::filesystem::exists(newline));
  EXPECT_TRUE(std::filesystem::exists(kept));
  // A path given twice is deleted and reported once.
  tmp.write("list0", kept + std::string(1, '\0') + kept + std::string(1, '\0'));
  Outcome fromNul = run({"delete", "--yes", "--json", "--from0", tmp / "list0"});
  ASSERT_EQ(fromNul.status, 0) << fromNul.err;
  EXPECT_FALSE(std::filesystem::exists(kept));
  EXPECT_EQ(nlohmann::json::parse(fromNul.out)["deleted"], nlohmann::json::array({utf8Safe(kept)}));
  // A bad escape, and a NUL: "DIR/sub/..<NUL>/x" would reach DIR itself where the system reads it.
  tmp.write("sub/victim", "stays");
  for (const std::string& line :
       {std::string("bad\\q escape"), tmp / "sub/..\\x00/victim", tmp / "sub\\x00"}) {
    tmp.write("bad", line + "\n");
    EXPECT_EQ(run({"delete", "--yes", "--from", tmp / "bad"}).status, 2) << line;
    EXPECT_EQ(run({"delete", "--dry-run", "--from", tmp / "bad"}).status, 2) << line;
  }
  EXPECT_TRUE(std::filesystem::exists(tmp / "sub/victim"));
}

// A folder that fails half way is reported as it stands: the inner path and error, and whether
// the helper was asked.
TEST(RavelinTest, DeleteNamesTheFailureInsideAndTheStepThatFailed) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to run as another user";
  TempDir tmp;
  ::chmod(tmp.path().c_str(), 0755);
  tmp.write("tree/locked/file", "x");
  tmp.write("mine/free", "y");
  for (const char* path : {"tree", "tree/locked", "tree/locked/file", "mine", "mine/free"}) {
    ::chown((tmp / path).c_str(), 65534, 65534);
  }
  ::chmod((tmp / "tree/locked").c_str(), 0555);
  RunOptions user;
  user.user = 65534;
  Outcome outcome = run({"delete", "--yes", "--json", "--helper-socket", tmp / "none.sock",
                         tmp / "mine/free", tmp / "tree"},
                        user);
  ::chmod((tmp / "tree/locked").c_str(), 0755);
  EXPECT_EQ(outcome.status, 1) << outcome.err;
  auto result = nlohmann::json::parse(outcome.out);
  ASSERT_EQ(result["failed"].size(), 1u) << outcome.out;
  EXPECT_EQ(result["failed"][0]["reason"], "Permission denied at " + tmp / "tree/locked/file" +
                                               " (the helper could not be reached)");
  // The rest of the list goes on.
  EXPECT_EQ(result["deleted"], nlohmann::json::array({tmp / "mine/free"}));
  EXPECT_TRUE(std::filesystem::exists(tmp / "tree/locked/file"));
}

// What an unprivileged user may not delete goes to the helper, which deletes it as root.
TEST(RavelinTest, DeleteHandsWhatTheUserMayNotDeleteToTheHelper) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to run the helper and another user";
  TempDir tmp;
  ::chmod(tmp.path().c_str(), 0755);
  tmp.write("mine/f", "1");
  tmp.write("roots/locked/f", "2");
  for (const char* path : {"mine", "mine/f"}) ::chown((tmp / path).c_str(), 65534, 65534);
  const std::string socket = tmp / "helper.sock";
  RunOptions user;
  user.user = 65534;
  // Without a helper: the locked folder stays and the run says so.
  Outcome alone =
      run({"delete", "--yes", "--json", "--helper-socket", tmp / "none.sock", tmp / "roots/locked"},
          user);
  EXPECT_EQ(alone.status, 1) << alone.err;
  EXPECT_TRUE(std::filesystem::exists(tmp / "roots/locked/f"));
  testsupport::ChildProcess server(
      {RAVELIN_HELPER_BINARY, "--socket", socket, "--allow-uid", "65534", "--home", tmp.path()},
      socket);
  Outcome helped = run(
      {"delete", "--yes", "--json", "--helper-socket", socket, tmp / "mine", tmp / "roots/locked"},
      user);
  server.kill();
  ASSERT_EQ(helped.status, 0) << helped.out << helped.err;
  EXPECT_EQ(nlohmann::json::parse(helped.out)["deleted"].size(), 2u);
  EXPECT_FALSE(std::filesystem::exists(tmp / "roots/locked"));
  EXPECT_FALSE(std::filesystem::exists(tmp / "mine"));
  EXPECT_TRUE(std::filesystem::exists(tmp / "roots"));
}

// `dupes --delete` keeps one member of each group, never a whole group, and never a name of the
// file it keeps.
TEST(RavelinTest, DupesDeleteKeepsOneOfEachGroup) {
  TempDir tmp;
  const std::string content = testsupport::randomBytes(6000, 40);
  tmp.write("a/f", content);
  tmp.write("a/s", "same");
  tmp.write("b/f", content);
  tmp.write("b/s", "same");
  tmp.write("c/g", content);
  ASSERT_EQ(::link((tmp / "c/g").c_str(), (tmp / "c/hard").c_str()), 0);
  EXPECT_EQ(run({"dupes", "--delete", tmp.path()}).status, 2);  // no terminal, no --yes
  Outcome done = run({"dupes", "--delete", "--yes", "--json", "--hard-links", "--keep-under",
                      tmp / "c", tmp.path()});
  ASSERT_EQ(done.status, 0) << done.err;
  // The folders' group keeps one folder; the file group keeps c/g, and c/hard, a name of the
  // same file, stays with it.
  EXPECT_TRUE(std::filesystem::exists(tmp / "c/g"));
  EXPECT_TRUE(std::filesystem::exists(tmp / "c/hard"));
  EXPECT_NE(std::filesystem::exists(tmp / "a"), std::filesystem::exists(tmp / "b"));
  Outcome again = run({"dupes", "--json", tmp.path()});
  EXPECT_TRUE(nlohmann::json::parse(again.out)["groups"].empty()) << again.out;
}

// An excluded folder is meant as the user typed it: with "." components and a trailing slash.
TEST(RavelinTest, ExclusionsAreResolvedLikeRoots) {
  TempDir tmp;
  tmp.write("ex/keep/f", "same");
  tmp.write("ex/skip/f", "same");
  EXPECT_EQ(jsonOf(run({"dupes", "--json", tmp / "ex"}))["groups"].size(), 1u);
  auto excluded = jsonOf(run({"dupes", "--json", "--exclude", tmp / "ex/./skip/", tmp / "ex"}));
  EXPECT_TRUE(excluded["groups"].empty()) << excluded;
}

// Every byte a name may hold comes back from the JSON, and two names never print alike.
TEST(RavelinTest, JsonPathsGiveBackEveryName) {
  TempDir tmp;
  std::set<std::string> written;
  for (int byte = 1; byte < 256; ++byte) {
    if (byte == '/') continue;
    std::string name = std::string("n") + static_cast<char>(byte);
    written.insert(tmp.write("names/" + name, "x"));
  }
  written.insert(tmp.write("names/a\\xFF", "x"));
  written.insert(tmp.write("names/b\\n", "x"));
  Outcome outcome = run({"large", "--json", "--min-size", "1", tmp / "names"});
  ASSERT_EQ(outcome.status, 0) << outcome.err;
  std::set<std::string> read;
  auto result = nlohmann::json::parse(outcome.out);
  for (const auto& file : result["files"]) {
    auto path = unescapeText(file["path"].get<std::string>());
    ASSERT_TRUE(path) << file["path"];
    read.insert(*path);
  }
  EXPECT_EQ(read, written);
}

// A home with one installed application, one removed package and one removed flatpak, seen
// through --root as its own machine would see it.
class RootedFixture {
 public:
  RootedFixture() {
    tmp.write("usr/share/applications/vlc.desktop",
              "[Desktop Entry]\nType=Application\nName=VLC media player\nExec=/usr/bin/vlc %U\n");
    ::chmod(tmp.write("usr/bin/vlc", "#!/bin/sh\n").c_str(), 0755);
    tmp.write("home/alice/.config/vlc/vlcrc", "cfg");
    tmp.write("home/alice/.cache/vlc/art", "12345");
    tmp.write("home/alice/.config/spotify/prefs", "p");
    tmp.write("home/alice/.cache/spotify/data", "0123456789");
    tmp.write("home/alice/.var/app/com.example.Gone/state", "s");
  }
  // Runs with HOME=/home/alice unless `options` set it.
  Outcome ravelin(std::vector<std::string> args, RunOptions options = {}) {
    std::vector<std::string> environment = {"HOME=/home/alice", "XDG_CONFIG_HOME=",
                                            "XDG_CACHE_HOME=", "XDG_DATA_HOME=", "XDG_DATA_DIRS="};
    environment.insert(environment.end(), options.environment.begin(), options.environment.end());
    options.environment = std::move(environment);
    args.insert(args.begin(), {"--root", tmp.path()});
    return run(args, options);
  }
  std::string home(const std::string& path) const { return tmp / ("home/alice/" + path); }
  TempDir tmp;
};

TEST(RavelinTest, ApplicationFilesAndLeftoversOfARootedTree) {
  RootedFixture fixture;
  auto vlc = jsonOf(fixture.ravelin({"apps", "--files", "--json", "vlc"}))["apps"].at(0);
  EXPECT_EQ(vlc["url"], fixture.tmp / "usr/share/applications/vlc.desktop");
  EXPECT_EQ(vlc["size"], 8);
  EXPECT_EQ(vlc["appSize"], 10);
  EXPECT_EQ(vlc["files"], nlohmann::json::parse(
                              "[{\"path\": \"" + fixture.home(".cache/vlc") +
                              "\", \"size\": 5, \"kind\": \"cache\", \"owner\": \"id:vlc\"},"
                              " {\"path\": \"" +
                              fixture.home(".config/vlc") +
                              "\", \"size\": 3, \"kind\": \"support\", \"owner\": \"id:vlc\"}]"));

  Outcome leftovers = fixture.ravelin({"leftovers", "--json"});
  ASSERT_EQ(leftovers.status, 0) << leftovers.err;
  auto found = nlohmann::json::parse(leftovers.out)["leftovers"];
  ASSERT_EQ(found.size(), 2u) << leftovers.out;
  EXPECT_EQ(found[0]["id"], "com.example.Gone");
  EXPECT_EQ(found[1]["id"], "spotify");
  EXPECT_EQ(found[1]["size"], 11);

  // Deleting one group takes exactly its entries.
  Outcome removed = fixture.ravelin({"leftovers", "--delete", "spotify", "--yes"});
  EXPECT_EQ(removed.status, 0) << removed.err;
  EXPECT_FALSE(std::filesystem::exists(fixture.home(".config/spotify")));
  EXPECT_FALSE(std::filesystem::exists(fixture.home(".cache/spotify")));
  EXPECT_TRUE(std::filesystem::exists(fixture.home(".var/app/com.example.Gone/state")));
  EXPECT_TRUE(std::filesystem::exists(fixture.home(".cache/vlc/art")));

  EXPECT_EQ(fixture.ravelin({"leftovers", "--delete"}).status, 2);
  EXPECT_EQ(fixture.ravelin({"leftovers", "--delete", "vlc", "--yes"}).status, 2);
  EXPECT_TRUE(std::filesystem::exists(fixture.home(".cache/vlc/art")));
  EXPECT_EQ(fixture.ravelin({"apps", "--files", "not.installed"}).status, 1);
  EXPECT_EQ(run({"--root", fixture.tmp / "missing", "apps"}).status, 2);
}

// Below --root, nothing outside the root is read, measured or deleted: a home that is a link
// climbing out, a HOME with "..", a program's relative or absolute link with "..", an Exec line
// with "..": each stops at the root, as the system below it would see it.
TEST(RavelinTest, NothingOutsideTheRootIsReadMeasuredOrDeleted) {
  RootedFixture fixture;
  TempDir outside;
  outside.write(".npm/_cacache/index", "the host's cache");
  ::chmod(outside.write("program", std::string(5000, 'x')).c_str(), 0755);
  const std::string climb = "../../../../../../../../../.." + outside.path();
  fixture.tmp.symlink("home/carol", climb);
  fixture.tmp.symlink("usr/bin/relative", climb + "/program");
  fixture.tmp.symlink("usr/bin/absolute", "/../../../.." + outside.path() + "/program");
  const std::map<std::string, std::string> programs = {
      {"relative", "/usr/bin/relative"},
      {"absolute", "/usr/bin/absolute"},
      {"dotted", "/usr/bin/../../../../../../.." + outside.path() + "/program"}};
  for (const auto& [id, exec] : programs) {
    fixture.tmp.write("usr/share/applications/" + id + ".desktop",
                      "[Desktop Entry]\nType=Application\nName=" + id + "\nExec=" + exec + "\n");
  }
  auto inside = [&](const std::string& path) {
    std::string real = std::filesystem::weakly_canonical(path).string();
    return real.starts_with(fixture.tmp.path() + "/");
  };

  for (const std::string& home : {std::string("/home/carol"), "/../../../../.." + outside.path()}) {
    RunOptions options;
    options.environment = {"HOME=" + home};
    auto report = jsonOf(fixture.ravelin({"junk", "--json"}, options));
    for (const char* category : {"caches", "logs", "trash", "disk_images"}) {
      for (const auto& file : report[category]) EXPECT_TRUE(inside(file["path"])) << file;
    }
    for (const char* category : {"apps", "browsers", "orphans"}) {
      for (const auto& group : report[category]) {
        for (const auto& file : group["files"]) EXPECT_TRUE(inside(file["path"])) << file;
      }
    }
    Outcome clean = fixture.ravelin({"junk", "--clean", "--yes"}, options);
    EXPECT_TRUE(std::filesystem::exists(outside / ".npm/_cacache/index")) << home;

    const auto listing = jsonOf(fixture.ravelin({"apps", "--files", "--json"}, options));
    for (const auto& app : listing["apps"]) {
      EXPECT_NE(app["appSize"], 5000) << app["id"];
      for (const auto& file : app["files"]) EXPECT_TRUE(inside(file["path"])) << file;
    }
  }
  // What a list names outside the root is refused.
  Outcome deleted = fixture.ravelin({"delete", "--yes", outside / "program"});
  EXPECT_EQ(deleted.status, 2) << deleted.out;
  EXPECT_NE(deleted.err.find("outside the --root folder"), std::string::npos) << deleted.err;
  EXPECT_TRUE(std::filesystem::exists(outside / "program"));
}

TEST(RavelinTest, AnApplicationOnAReadOnlyMountIsNotScannedButStaysInstalled) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root for a mount of its own";
  RootedFixture fixture;
  RunOptions options;
  options.readOnly = fixture.tmp / "usr/share/applications";
  auto vlc = jsonOf(fixture.ravelin({"apps", "--files", "--json"}, options))["apps"].at(0);
  EXPECT_EQ(vlc["id"], "vlc");
  EXPECT_TRUE(vlc["files"].empty());
  auto groups = jsonOf(fixture.ravelin({"leftovers", "--json"}, options))["leftovers"];
  for (const auto& group : groups) {
    EXPECT_NE(group["id"], "vlc");
  }
}

TEST(RavelinTest, JunkReportsEachCategoryAndCleansWhatIsChosen) {
  RootedFixture fixture;
  fixture.tmp.write("var/cache/apt/archives/vim.deb", "12345678");
  fixture.tmp.write("var/cache/debconf/config.dat", "answers");
  fixture.tmp.write("var/log/syslog", "live");
  fixture.tmp.write("var/log/syslog.1", "old");
  fixture.tmp.age("var/log/syslog.1", 24 * 3600);
  fixture.tmp.write("home/alice/.local/share/Trash/files/draft.txt", "draft");
  fixture.tmp.write("home/alice/.local/share/Trash/info/draft.txt.trashinfo", "[Trash Info]");
  auto junk = jsonOf(fixture.ravelin({"junk", "--json"}));
  auto paths = [](const nlohmann::json& files) {
    std::set<std::string> out;
    for (const auto& f : files) out.insert(f["path"]);
    return out;
  };
  EXPECT_EQ(paths(junk["caches"]), std::set<std::string>{fixture.tmp / "var/cache/apt"});
  EXPECT_EQ(paths(junk["logs"]), std::set<std::string>{fixture.tmp / "var/log/syslog.1"});
  EXPECT_EQ(paths(junk["trash"]),
            std::set<std::string>{fixture.home(".local/share/Trash/files/draft.txt")});
  // An application's group and an orphan's hold their files, counted in the total.
  EXPECT_EQ(junk["apps"],
            nlohmann::json::parse("[{\"id\": \"vlc\", \"files\": [{\"path\": \"" +
                                  fixture.home(".cache/vlc") +
                                  "\", \"size\": 5, \"kind\": \"cache\"}], \"url\": \"" +
                                  fixture.tmp / "usr/share/applications/vlc.desktop" + "\"}]"));
  EXPECT_EQ(junk["orphans"][0]["id"], "spotify");
  EXPECT_EQ(junk["total"], 8 + 3 + 5 + 5 + 10);

  EXPECT_EQ(fixture.ravelin({"junk", "--clean", "--category", "everything"}).status, 2);
  EXPECT_EQ(fixture.ravelin({"junk", "--yes"}).status, 2);
  // Only the trash: the item goes with its description, and nothing else is touched.
  Outcome cleaned = fixture.ravelin({"junk", "--clean", "--category", "trash", "--yes"});
  EXPECT_EQ(cleaned.status, 0) << cleaned.err;
  EXPECT_FALSE(std::filesystem::exists(fixture.home(".local/share/Trash/files/draft.txt")));
  EXPECT_FALSE(
      std::filesystem::exists(fixture.home(".local/share/Trash/info/draft.txt.trashinfo")));
  EXPECT_TRUE(std::filesystem::exists(fixture.tmp / "var/log/syslog.1"));
  // Everything else that was found; the live log, the debconf database and support files stay.
  Outcome all = fixture.ravelin({"junk", "--clean", "--yes"});
  EXPECT_EQ(all.status, 0) << all.err;
  EXPECT_FALSE(std::filesystem::exists(fixture.tmp / "var/cache/apt"));
  EXPECT_FALSE(std::filesystem::exists(fixture.tmp / "var/log/syslog.1"));
  EXPECT_FALSE(std::filesystem::exists(fixture.home(".cache/vlc")));
  EXPECT_FALSE(std::filesystem::exists(fixture.home(".cache/spotify")));
  EXPECT_TRUE(std::filesystem::exists(fixture.tmp / "var/log/syslog"));
  EXPECT_TRUE(std::filesystem::exists(fixture.tmp / "var/cache/debconf/config.dat"));
  EXPECT_TRUE(std::filesystem::exists(fixture.home(".config/vlc/vlcrc")));
  EXPECT_TRUE(std::filesystem::exists(fixture.home(".config/spotify/prefs")));
}

// A trashed item's description goes only once the item has gone: a folder with a mount inside
// stays, and so does its .trashinfo, while the item beside it goes with its own.
TEST(RavelinTest, TrashCleaningKeepsTheDescriptionOfAnItemThatStays) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root for a mount of its own";
  RootedFixture fixture;
  TempDir elsewhere;
  elsewhere.write("precious", "not in the trash");
  const std::string trash = ".local/share/Trash/";
  fixture.tmp.write("home/alice/" + trash + "files/project/notes", "n");
  fixture.tmp.mkdir("home/alice/" + trash + "files/project/mnt");
  fixture.tmp.write("home/alice/" + trash + "info/project.trashinfo", "[Trash Info]");
  fixture.tmp.write("home/alice/" + trash + "files/draft.txt", "d");
  fixture.tmp.write("home/alice/" + trash + "info/draft.txt.trashinfo", "[Trash Info]");
  RunOptions options;
  options.binds = {{elsewhere.path(), fixture.home(trash + "files/project/mnt")}};
  Outcome cleaned =
      fixture.ravelin({"junk", "--clean", "--category", "trash", "--yes", "--json"}, options);
  EXPECT_EQ(cleaned.status, 1) << cleaned.err;
  EXPECT_TRUE(std::filesystem::exists(fixture.home(trash + "info/project.trashinfo")));
  EXPECT_TRUE(std::filesystem::exists(fixture.home(trash + "files/project/mnt")));
  EXPECT_TRUE(std::filesystem::exists(elsewhere / "precious"));
  EXPECT_FALSE(std::filesystem::exists(fixture.home(trash + "files/draft.txt")));
  EXPECT_FALSE(std::filesystem::exists(fixture.home(trash + "info/draft.txt.trashinfo")));
  auto failed = nlohmann::json::parse(cleaned.out)["failed"];
  std::set<std::string> left;
  for (const auto& f : failed) left.insert(f["path"]);
  EXPECT_EQ(left, (std::set<std::string>{fixture.home(trash + "files/project"),
                                         fixture.home(trash + "info/project.trashinfo")}));
}

// A system below a root, read by systemctl --root: a package's unit enabled through .wants, a
// masked unit, a timer, one name in two domains, an instance; each with its own state and origin.
TEST(RavelinTest, StartupListsEachDomainsUnitsWithStateAndOrigin) {
  if (!std::filesystem::exists("/usr/bin/systemctl")) GTEST_SKIP() << "needs systemctl";
  RootedFixture fixture;
  const std::string installable =
      "[Service]\nExecStart=/usr/sbin/x\n[Install]\nWantedBy=multi-user.target\n";
  fixture.tmp.write("lib/systemd/system/db.service", installable);
  fixture.tmp.symlink("etc/systemd/system/multi-user.target.wants/db.service",
                      "/lib/systemd/system/db.service");
  fixture.tmp.write("var/lib/dpkg/info/db-server.list",
                    "/.\n/lib\n/lib/systemd/system/db.service\n");
  fixture.tmp.write("lib/systemd/system/clean.timer",
                    "[Timer]\nOnCalendar=daily\n[Install]\nWantedBy=timers.target\n");
  fixture.tmp.write("lib/systemd/system/gone.service", installable);
  fixture.tmp.symlink("etc/systemd/system/gone.service", "/dev/null");
  fixture.tmp.write("lib/systemd/system/probe@.service", installable);
  fixture.tmp.symlink("etc/systemd/system/multi-user.target.wants/probe@foo.service",
                      "/lib/systemd/system/probe@.service");
  fixture.tmp.write("etc/systemd/system/dual.service", installable);
  fixture.tmp.symlink("etc/systemd/system/multi-user.target.wants/dual.service",
                      "/etc/systemd/system/dual.service");
  const std::string userUnit =
      "[Service]\nExecStart=/usr/bin/x\n[Install]\nWantedBy=default.target\n";
  fixture.tmp.write("etc/systemd/user/dual.service", userUnit);
  // The user's own units, read from their folder below the root: linked or only installable.
  fixture.tmp.write("home/alice/.config/systemd/user/mail.service", userUnit);
  fixture.tmp.symlink("home/alice/.config/systemd/user/default.target.wants/mail.service",
                      "../mail.service");
  fixture.tmp.write("home/alice/.config/systemd/user/sync.service", userUnit);
  auto listed = [&](const std::vector<std::string>& extra) {
    std::vector<std::string> args{"startup", "--json"};
    args.insert(args.end(), extra.begin(), extra.end());
    std::map<std::string, nlohmann::json> items;
    const auto report = jsonOf(fixture.ravelin(args));
    for (const auto& item : report["items"]) {
      items[item["domain"].get<std::string>() + " " + item["label"].get<std::string>()] = item;
    }
    return items;
  };
  auto items = listed({});
  auto state = [&](const std::string& key) {
    return items.count(key) ? items[key]["state"].get<std::string>() : "-";
  };
  EXPECT_EQ(state("system db.service"), "enabled");
  EXPECT_EQ(items["system db.service"]["origin"], "package");
  EXPECT_EQ(items["system db.service"]["package"], "db-server");
  EXPECT_EQ(state("system clean.timer"), "disabled");
  EXPECT_EQ(state("system probe@foo.service"), "enabled");
  EXPECT_EQ(state("system dual.service"), "enabled");
  EXPECT_EQ(items["system dual.service"]["origin"], "administrator");
  EXPECT_EQ(state("global dual.service"), "disabled");
  EXPECT_EQ(state("user mail.service"), "enabled");
  EXPECT_EQ(state("user sync.service"), "disabled");
  EXPECT_EQ(state("system gone.service"), "-");  // masked: no one switches it
  items = listed({"--all"});
  EXPECT_EQ(state("system gone.service"), "masked");
  EXPECT_EQ(state("system probe@.service"), "indirect");
  // A unit linked to a file of this machine is read below the root, never here.
  TempDir outside;
  outside.write("escape.service", "[Service]\nExecStart=/usr/bin/this-machines-secret\n");
  fixture.tmp.symlink("etc/systemd/system/escape.service", outside / "escape.service");
  for (const auto& [key, item] : listed({"--all"})) {
    EXPECT_NE(item["runs"], "/usr/bin/this-machines-secret") << key;
  }
}

// Startup items of a home of its own: the user's unit and autostart entry are switched for real
// (systemctl --user and the autostart folder), and the machine's own items only read.
TEST(RavelinTest, StartupListsAndSwitchesTheUsersItems) {
  if (!std::filesystem::exists("/usr/bin/systemctl")) GTEST_SKIP() << "needs systemctl";
  TempDir home;
  home.write(".config/systemd/user/sync.service",
             "[Service]\nExecStart=/usr/bin/true --sync\n[Install]\nWantedBy=default.target\n");
  home.write(".config/autostart/notes.desktop",
             "[Desktop Entry]\nType=Application\nName=Notes\nExec=notes --tray\n");
  RunOptions options;
  options.environment = {"HOME=" + home.path(), "XDG_CONFIG_HOME"};
  auto item = [&](const std::string& label) {
    const auto listing = jsonOf(run({"startup", "--json"}, options));
    for (const auto& found : listing["items"]) {
      if (found["label"] == label) return found;
    }
    return nlohmann::json();
  };
  auto sync = item("sync.service");
  EXPECT_EQ(sync["type"], "user-agent");
  EXPECT_EQ(sync["runs"], "/usr/bin/true --sync");
  EXPECT_EQ(sync["enabled"], false);
  EXPECT_EQ(item("notes")["enabled"], true);

  Outcome enabled = run({"startup", "--enable", "sync.service"}, options);
  EXPECT_EQ(enabled.status, 0) << enabled.err;
  EXPECT_EQ(enabled.out, "sync.service  starts by itself (enabled)\n");
  EXPECT_TRUE(
      std::filesystem::is_symlink(home / ".config/systemd/user/default.target.wants/sync.service"));
  EXPECT_EQ(item("sync.service")["enabled"], true);
  EXPECT_EQ(
      run({"startup", "--disable", home / ".config/systemd/user/sync.service"}, options).status, 0);
  EXPECT_EQ(item("sync.service")["enabled"], false);

  // The user's own entry is kept, switched off, and comes back.
  EXPECT_EQ(run({"startup", "--disable", "notes"}, options).status, 0);
  EXPECT_TRUE(std::filesystem::exists(home / ".config/autostart/notes.desktop"));
  EXPECT_EQ(item("notes")["enabled"], false);
  EXPECT_EQ(run({"startup", "--enable", "notes"}, options).status, 0);
  EXPECT_EQ(item("notes")["enabled"], true);
  EXPECT_EQ(item("notes")["origin"], "user");
  EXPECT_EQ(run({"startup", "--disable", "no-such-item"}, options).status, 2);
  EXPECT_EQ(run({"startup", "--disable", ""}, options).status, 2);
  EXPECT_EQ(run({"startup", "--enable", "a", "--disable", "b"}, options).status, 2);
}

// A system unit below a root is switched by systemctl --root, as root only.
TEST(RavelinTest, StartupSwitchesASystemUnitBelowARootOnlyAsRoot) {
  if (::geteuid() != 0 || !std::filesystem::exists("/usr/bin/systemctl")) {
    GTEST_SKIP() << "needs root and systemctl";
  }
  RootedFixture fixture;
  ::chmod(fixture.tmp.path().c_str(), 0755);
  fixture.tmp.write(
      "etc/systemd/system/backup.service",
      "[Service]\nExecStart=/usr/sbin/backup\n[Install]\nWantedBy=multi-user.target\n");
  RunOptions asNobody;
  asNobody.user = 65534;
  EXPECT_EQ(fixture.ravelin({"startup", "--enable", "backup.service"}, asNobody).status, 1);
  Outcome enabled = fixture.ravelin({"startup", "--enable", "backup.service"});
  EXPECT_EQ(enabled.status, 0) << enabled.err;
  EXPECT_TRUE(std::filesystem::is_symlink(
      fixture.tmp / "etc/systemd/system/multi-user.target.wants/backup.service"));
  Outcome listing = fixture.ravelin({"startup", "--json"});
  auto items = nlohmann::json::parse(listing.out)["items"];
  ASSERT_FALSE(items.empty());
  EXPECT_EQ(items[0]["label"], "backup.service");
  EXPECT_EQ(items[0]["type"], "daemon");
  EXPECT_EQ(items[0]["enabled"], true);
  // And back: the link goes and the table below the root says so.
  EXPECT_EQ(fixture.ravelin({"startup", "--disable", "backup.service"}).status, 0);
  EXPECT_FALSE(std::filesystem::exists(
      fixture.tmp / "etc/systemd/system/multi-user.target.wants/backup.service"));
  listing = fixture.ravelin({"startup", "--json"});
  EXPECT_EQ(nlohmann::json::parse(listing.out)["items"][0]["enabled"], false);
}

// The manual page and the bash completion describe every subcommand and every option that
// --help lists, so neither can fall behind the program.
TEST(RavelinTest, ManualPageAndCompletionCoverEveryOption) {
  auto readFile = [](const std::string& path) {
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  };
  std::string page = readFile(RAVELIN_MANUAL_PAGE);  // which writes a dash as "\-"
  for (std::size_t at = page.find("\\-"); at != std::string::npos; at = page.find("\\-", at)) {
    page.replace(at, 2, "-");
  }
  const std::string completion = readFile(RAVELIN_COMPLETION);
  ASSERT_FALSE(page.empty() || completion.empty());

  // The first word of each line under `heading` in a --help ("Subcommands", "Options").
  auto listed = [](const std::string& help, const std::string& heading) {
    std::vector<std::string> words;
    std::size_t at = help.find(heading + ":\n");
    std::istringstream lines(at == std::string::npos ? "" : help.substr(at + heading.size() + 2));
    for (std::string line, word; std::getline(lines, line) && !line.empty();) {
      std::istringstream(line) >> word;
      words.push_back(word);
    }
    return words;
  };
  // The long options of a --help: "-h,--help" gives "--help".
  auto options = [&](const std::string& help) {
    std::vector<std::string> found;
    for (const auto& names : listed(help, "Options")) {
      std::istringstream parts(names);
      for (std::string name; std::getline(parts, name, ',');) {
        if (name.starts_with("--")) found.push_back(name);
      }
    }
    return found;
  };
  auto described = [&](const std::string& what, const std::string& where) {
    EXPECT_NE(page.find(what), std::string::npos) << where << ": the page lacks " << what;
    EXPECT_NE(completion.find(what), std::string::npos) << where << ": completion lacks " << what;
  };

  Outcome top = run({"--help"});
  ASSERT_EQ(top.status, 0);
  for (const auto& option : options(top.out)) described(option, "ravelin");
  auto commands = listed(top.out, "Subcommands");
  EXPECT_GE(commands.size(), 11u);
  for (const auto& command : commands) {
    EXPECT_NE(page.find(".SS \"" + command), std::string::npos) << "the page lacks " << command;
    described(command, "ravelin");
    std::vector<std::string> helps{run({command, "--help"}).out};
    for (const auto& nested : listed(helps.front(), "Subcommands")) {
      described(nested, command);
      helps.push_back(run({command, nested, "--help"}).out);
    }
    for (const auto& text : helps) {
      for (const auto& option : options(text)) described(option, command);
    }
  }
}

}  // namespace
}  // namespace cli
