#include "dff/Hash.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "testsupport/TestSupport.h"

namespace dff {
namespace {

using testsupport::TempDir;

using testsupport::randomBytes;

HashValue md5Of(const std::string& bytes) {
  Hash hash;
  hash.updateMD5(bytes.data(), static_cast<std::uint32_t>(bytes.size()));
  HashValue value;
  hash.hashValue(value);
  return value;
}

// Stages until `update` says done; the final digest.
int stagesToFinish(File& file, HashValue& value) {
  FileHash hash(&file);
  int stages = 0;
  bool done = false;
  while (!done) {
    done = hash.update();
    hash.hashValue(value);
    ++stages;
  }
  return stages;
}

TEST(FileHashTest, FinishesAtStageBoundaries) {
  TempDir tmp;
  const std::int64_t later = 4096 * 1000;
  struct Case {
    std::int64_t size;
    int stages;
  } cases[] = {{1, 1}, {4096, 1}, {4097, 2}, {4096 + later, 2}, {4096 + later + 1, 3}};
  for (const auto& c : cases) {
    std::string content = randomBytes(static_cast<std::size_t>(c.size), 1);
    File file(tmp.write("f" + std::to_string(c.size), content), c.size, nullptr);
    HashValue value;
    EXPECT_EQ(stagesToFinish(file, value), c.stages) << c.size;
    // Taking digests between stages doesn't disturb the running one.
    EXPECT_EQ(value, md5Of(content)) << c.size;
  }
  // An empty file is never opened.
  File missing("/nonexistent/empty", 0, nullptr);
  HashValue value;
  EXPECT_EQ(stagesToFinish(missing, value), 1);
  EXPECT_EQ(value, md5Of(""));
}

TEST(FileHashTest, FilesThatShrankGrewOrVanishedThrow) {
  TempDir tmp;
  // Every stage checks the file against the size it is compared at, before reading.
  File shrunk(tmp.write("shrunk", std::string(100, 'x')), 200, nullptr);
  EXPECT_THROW(FileHash(&shrunk).update(), std::exception);

  File grown(tmp.write("grown", std::string(5000, 'x')), 4500, nullptr);
  EXPECT_THROW(FileHash(&grown).update(), std::exception);

  // Even where the recorded size ends a block, so reading would stop on it.
  File boundary(tmp.write("boundary", std::string(5000, 'x')), 4096, nullptr);
  EXPECT_THROW(FileHash(&boundary).update(), std::exception);

  // Between two stages.
  File later(tmp.write("later", std::string(5000, 'x')), 5000, nullptr);
  FileHash growingLater(&later);
  EXPECT_FALSE(growingLater.update());
  tmp.write("later", std::string(6000, 'x'));
  EXPECT_THROW(growingLater.update(), std::exception);

  File vanished(tmp / "vanished", 10, nullptr);
  EXPECT_THROW(FileHash(&vanished).update(), std::exception);

  File folder(tmp.mkdir("folder"), 10, nullptr);
  EXPECT_THROW(FileHash(&folder).update(), std::exception);
}

// A file written to while its last stage is read: the first read brings the recorded size,
// and then more arrives. Whether the growth lands inside a stage or just past its end, the
// file is not the one whose size was compared.
TEST(FileHashTest, FilesThatGrowWhileTheirLastStageIsReadThrow) {
  TempDir tmp;
  static int appendTo = -1;
  auto growing = [](int fd, void* buffer, std::size_t count, off_t offset) {
    ssize_t n = ::pread(fd, buffer, std::min<std::size_t>(count, 4096), offset);
    if (appendTo >= 0) {
      (void)!::write(appendTo, "more", 4);
      ::close(appendTo);
      appendTo = -1;
    }
    return n;
  };
  for (std::size_t length : {std::size_t{4096}, std::size_t{5000}, std::size_t{12288}}) {
    std::string path = tmp.write("file" + std::to_string(length), randomBytes(length, 3));
    File file(path, static_cast<std::int64_t>(length), nullptr);
    FileHash hasher(&file);
    ReadCall previous = setReadCall(growing);
    bool firstDone = length <= 4096;
    if (!firstDone) {
      firstDone = hasher.update();  // the first block, read as it was
      ASSERT_FALSE(firstDone);
    }
    appendTo = ::open(path.c_str(), O_WRONLY | O_APPEND);
    EXPECT_THROW(hasher.update(), std::exception) << length;
    setReadCall(previous);
    if (appendTo >= 0) ::close(appendTo);
    appendTo = -1;
  }
  // Unchanged, the same reads finish the file.
  std::string path = tmp.write("still", randomBytes(12288, 4));
  File still(path, 12288, nullptr);
  FileHash hasher(&still);
  EXPECT_FALSE(hasher.update());
  EXPECT_TRUE(hasher.update());
}

TEST(SymbolicLinkHashTest, TargetsUpToTheBufferAreDigested) {
  TempDir tmp;
  SymbolicLinkHash hasher;
  std::string fits(1024, 'a');
  std::string tooLong(1025, 'a');
  Symlink a(tmp.symlink("a", fits), 1024, nullptr);
  Symlink b(tmp.symlink("b", tooLong), 1025, nullptr);
  Symlink changed(tmp.symlink("c", "short"), 9, nullptr);  // scan saw another length
  HashValue value;
  EXPECT_TRUE(hasher.hash(&a, value));
  EXPECT_EQ(value, md5Of(fits));
  EXPECT_FALSE(hasher.hash(&b, value));
  EXPECT_FALSE(hasher.hash(&changed, value));
}

class PackageHashTest : public ::testing::Test {
 protected:
  // Steps until done; the digest and the number of steps, or nothing when it threw.
  std::optional<std::pair<HashValue, int>> digest(Package& package, std::int64_t minSize = 0) {
    PackageHash hash(&package, minSize);
    int steps = 0;
    try {
      bool done = false;
      HashValue value;
      while (!done) {
        done = hash.update();
        hash.hashValue(value);
        ++steps;
      }
      return std::make_pair(value, steps);
    } catch (const std::exception&) {
      return std::nullopt;
    }
  }
  TempDir tmp_;
};

// Nothing to read finishes with the listing: an empty package, or one of empty files; an empty
// one fails below a minimum size.
TEST_F(PackageHashTest, EmptyPackagesFinishInOneStepOrFailBelowTheMinimum) {
  Package empty(tmp_.mkdir("Empty.app"), nullptr);
  auto d = digest(empty);
  ASSERT_TRUE(d);
  EXPECT_EQ(d->second, 1);
  EXPECT_FALSE(digest(empty, 1));
  tmp_.write("Z.app/empty", "");
  Package z(tmp_ / "Z.app", nullptr);
  EXPECT_EQ(digest(z)->second, 1);
}

TEST_F(PackageHashTest, OwnNamesDontCountButMemberNamesSizesAndContentsDo) {
  for (const char* name : {"One.app", "Two.app", "Three.app", "Four.app"}) {
    tmp_.write(std::string(name) + "/Contents/Info.plist", "<plist/>");
    tmp_.write(std::string(name) + "/Contents/MacOS/bin", randomBytes(9000, 3));
    tmp_.symlink(std::string(name) + "/Contents/link", "MacOS/bin");
  }
  tmp_.write("Three.app/Contents/MacOS/bin", randomBytes(9000, 4));  // same size, other bytes
  tmp_.write("Four.app/Contents/Info.plist", "<plist />");           // another size
  Package one(tmp_ / "One.app", nullptr), two(tmp_ / "Two.app", nullptr),
      three(tmp_ / "Three.app", nullptr), four(tmp_ / "Four.app", nullptr);
  auto a = digest(one), b = digest(two), c = digest(three), d = digest(four);
  ASSERT_TRUE(a && b && c && d);
  EXPECT_EQ(a->first, b->first);
  EXPECT_FALSE(a->first == c->first);
  EXPECT_FALSE(a->first == d->first);
  EXPECT_EQ(one.size, 8 + 9000 + 9);

  // A different size shows with the listing of its folder, before any content is read: the
  // first step lists the top folder, the second "Contents".
  PackageHash first(&one, 0), fourth(&four, 0);
  HashValue x, y;
  for (int step = 0; step < 2; ++step) {
    EXPECT_FALSE(first.update());
    EXPECT_FALSE(fourth.update());
    first.hashValue(x);
    fourth.hashValue(y);
    EXPECT_EQ(x == y, step == 0);
  }
  EXPECT_TRUE(first.files.size() == 1 && first.offset == 0);  // nothing read yet

  // Member names sort by their bytes, case and all.
  tmp_.write("A.bundle/Readme", "1");
  tmp_.write("A.bundle/readme", "2");
  tmp_.write("B.bundle/Readme", "2");
  tmp_.write("B.bundle/readme", "1");
  Package upper(tmp_ / "A.bundle", nullptr), lower(tmp_ / "B.bundle", nullptr);
  EXPECT_FALSE(digest(upper)->first == digest(lower)->first);
}

TEST_F(PackageHashTest, UnreadableOddOrTooLongMembersFailTheWholePackage) {
  tmp_.write("Locked.app/ok", "x");
  tmp_.write("Locked.app/secret", "y");
  ::chmod((tmp_ / "Locked.app/secret").c_str(), 0);
  Package locked(tmp_ / "Locked.app", nullptr);
  testsupport::withoutPermissionOverride([&] { EXPECT_FALSE(digest(locked)); });

  tmp_.symlink("Long.app/link", std::string(1025, 'l'));
  Package longLink(tmp_ / "Long.app", nullptr);
  EXPECT_FALSE(digest(longLink));

  tmp_.mkdir("Socket.app");
  int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::string socketPath = tmp_ / "Socket.app/s";
  if (socketPath.size() < sizeof(address.sun_path)) {
    std::strcpy(address.sun_path, socketPath.c_str());
    ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    Package socketPackage(tmp_ / "Socket.app", nullptr);
    EXPECT_FALSE(digest(socketPackage));
  }
  ::close(fd);
}

}  // namespace
}  // namespace dff
