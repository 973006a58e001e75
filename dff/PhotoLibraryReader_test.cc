#include "dff/PhotoLibraryReader.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>
#include <fstream>

#include "dff/DuplicateFileFinder.h"
#include "platform/Plist.h"
#include "testsupport/TestSupport.h"

namespace dff {
namespace {

using testsupport::TempDir;

// Writes a SQLite database from SQL statements; `blob` binds the one "?" parameter if any.
void writeDatabase(const std::string& path, const std::vector<std::string>& statements,
                   const std::string& blob = "") {
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
  for (const auto& sql : statements) {
    sqlite3_stmt* statement = nullptr;
    ASSERT_EQ(sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr), SQLITE_OK) << sql;
    if (sqlite3_bind_parameter_count(statement) == 1) {
      sqlite3_bind_blob(statement, 1, blob.data(), static_cast<int>(blob.size()), SQLITE_TRANSIENT);
    }
    ASSERT_EQ(sqlite3_step(statement), SQLITE_DONE) << sql;
    sqlite3_finalize(statement);
  }
  sqlite3_close(db);
}

std::vector<std::pair<std::string, std::string>> photosOf(PhotoLibrary& library,
                                                          const std::string& base) {
  std::vector<std::pair<std::string, std::string>> photos;
  for (const auto& photo : library.photos) {
    std::string path = photo.path().string();
    if (path.rfind(base, 0) == 0) path = path.substr(base.size());
    photos.emplace_back(photo.id, path);
    EXPECT_EQ(photo.parent, &library);
  }
  return photos;
}

class OldLibraryTest : public ::testing::Test {
 protected:
  // An old library's database: its version, and the rows of its masters and their versions.
  void write(int version,
             const std::string& masters =
                 "('m1', NULL, '2019/a.jpg', 100), ('m2', 1, 'Photos/b.jpg', 200), "
                 "('m3', 7, 'c.jpg', 300), ('m4', NULL, 'trash.jpg', 400), "
                 "('m5', NULL, NULL, 500), ('m6', 2, 'noname.jpg', 600)",
             const std::string& versions =
                 "('v1', 'm1', 0), ('v2', 'm2', NULL), ('v3', 'm3', 0), ('v4', 'm4', 1), "
                 "('v5', 'm5', 0), ('v6', 'm6', 0)") {
    tmp_.mkdir("Old.photoslibrary/database");
    std::filesystem::remove(tmp_ / "Old.photoslibrary/database/photos.db");
    writeDatabase(
        tmp_ / "Old.photoslibrary/database/photos.db",
        {"CREATE TABLE LiGlobals (keyPath TEXT, value INTEGER)",
         "INSERT INTO LiGlobals VALUES ('libraryVersion', " + std::to_string(version) + ")",
         "CREATE TABLE RKVolume (modelId INTEGER, name TEXT)",
         "INSERT INTO RKVolume VALUES (1, 'Archive'), (1, 'Shadowed'), (2, NULL)",
         "CREATE TABLE RKMaster (uuid TEXT, volumeId INTEGER, imagePath TEXT, "
         "fileSize INTEGER)",
         "CREATE TABLE RKVersion (uuid TEXT, masterUuid TEXT, isInTrash INTEGER)",
         "INSERT INTO RKMaster VALUES " + masters, "INSERT INTO RKVersion VALUES " + versions});
  }
  TempDir tmp_;
};

// From version 4026 on, a library keeps its photos in the new database, which this one lacks.
TEST_F(OldLibraryTest, RowsBecomePhotosInsideMastersOrOnNamedVolumes) {
  write(4025);
  PhotoLibrary library(tmp_ / "Old.photoslibrary", nullptr);
  PhotoLibraryReader::readPhotos(library);
  EXPECT_EQ(photosOf(library, tmp_ / "Old.photoslibrary/"),
            (std::vector<std::pair<std::string, std::string>>{
                {"v1", "Masters/2019/a.jpg"}, {"v2", "/Volumes/Archive/Photos/b.jpg"}}));
  EXPECT_EQ(library.photos.front().size, 100);  // the database's size; the file isn't looked at
  write(4026);
  PhotoLibrary newer(tmp_ / "Old.photoslibrary", nullptr);
  EXPECT_THROW(PhotoLibraryReader::readPhotos(newer), std::exception);
}

// The old database gives each master's size; a file on disk of another size can't be compared
// at that size, or two pictures that differ past it would be called identical.
TEST_F(OldLibraryTest, MastersWhoseFilesDifferFromTheRecordedSizeAreNotCompared) {
  std::string start = testsupport::randomBytes(100, 30);
  tmp_.write("Old.photoslibrary/Masters/a.jpg", start + testsupport::randomBytes(100, 31));
  tmp_.write("Old.photoslibrary/Masters/b.jpg", start + testsupport::randomBytes(100, 32));
  tmp_.write("Old.photoslibrary/Masters/e1.jpg", "not empty");
  tmp_.write("Old.photoslibrary/Masters/e2.jpg", "not empty either");
  write(4000,
        "('m1', NULL, 'a.jpg', 100), ('m2', NULL, 'b.jpg', 100), ('m3', NULL, 'e1.jpg', 0), "
        "('m4', NULL, 'e2.jpg', 0)",
        "('v1', 'm1', 0), ('v2', 'm2', 0), ('v3', 'm3', 0), ('v4', 'm4', 0)");
  DuplicateFileFinder finder([](double) {}, [](const Path&) {});
  finder.rootFolders = {Path(tmp_ / "Old.photoslibrary")};
  EXPECT_TRUE(finder.find().empty());
  finder.releaseFiles();
}

// SQLite opens its file with a plain open, which waits for ever on a pipe.
TEST_F(OldLibraryTest, ADatabaseThatIsAPipeFailsWithoutWaiting) {
  tmp_.mkdir("Pipe.photoslibrary/database");
  testsupport::FifoGuard guard(tmp_ / "Pipe.photoslibrary/database/photos.db");
  PhotoLibrary library(tmp_ / "Pipe.photoslibrary", nullptr);
  EXPECT_THROW(PhotoLibraryReader::readPhotos(library), std::exception);
  EXPECT_FALSE(guard.fired());
}

class NewLibraryTest : public ::testing::Test {
 protected:
  // A library under `name` whose PLModelVersion is `modelValue` and whose assets sit in `table`.
  void write(const std::string& table, const platform::plist::Value& modelValue,
             const std::string& name = "New.photoslibrary") {
    root_ = tmp_.mkdir(name);
    tmp_.mkdir(name + "/database");
    writeDatabase(root_ + "/database/photos.db",
                  {"CREATE TABLE LiGlobals (keyPath TEXT, value INTEGER)",
                   "INSERT INTO LiGlobals VALUES ('libraryVersion', 6000)"});
    std::string metadata =
        platform::plist::serialize(platform::plist::Dictionary{{"PLModelVersion", modelValue}},
                                   platform::plist::Format::binary);
    std::vector<std::string> sql = {
        "CREATE TABLE Z_METADATA (Z_VERSION INTEGER, Z_PLIST BLOB)",
        "INSERT INTO Z_METADATA VALUES (1, ?)",
        "CREATE TABLE ZADDITIONALASSETATTRIBUTES (ZASSET INTEGER)",
        "INSERT INTO ZADDITIONALASSETATTRIBUTES VALUES (1), (2), (3), (4), (5), (6), (7)"};
    for (const char* name : {"ZASSET", "ZGENERICASSET"}) {
      sql.push_back(std::string("CREATE TABLE ") + name +
                    " (Z_PK INTEGER, ZUUID TEXT, ZDIRECTORY TEXT, ZFILENAME TEXT, "
                    "ZCLOUDBATCHPUBLISHDATE REAL, ZTRASHEDSTATE INTEGER)");
    }
    std::string external = tmp_ / "external";
    sql.push_back(
        "INSERT INTO " + table +
        " VALUES (1, 'C', 'A', 'c.heic', NULL, 0), (2, 'A', 'B', 'a.jpg', NULL, 2), "
        "(3, 'B', '" +
        external +
        "', 'ext.jpg', NULL, NULL), "
        "(4, 'D', 'shared', 'd.jpg', 700000000.0, 0), (5, 'E', 'A', 'gone.jpg', NULL, 0), "
        "(6, 'F', 'A', 'trashed.jpg', NULL, 1), (7, 'G', NULL, 'x.jpg', NULL, 0), "
        "(8, 'H', 'A', 'unjoined.jpg', NULL, 0)");
    writeDatabase(root_ + "/database/Photos.sqlite", sql, metadata);
    tmp_.write(name + "/originals/A/c.heic", "ccc");
    tmp_.write(name + "/originals/B/a.jpg", "a");
    tmp_.write("external/ext.jpg", "eeeee");
    tmp_.write(name + "/resources/cloudsharing/data/shared/d.jpg", "dd");
    tmp_.write(name + "/originals/A/trashed.jpg", "t");
    tmp_.write(name + "/originals/A/unjoined.jpg", "u");
  }

  std::vector<std::pair<std::string, std::string>> read() {
    PhotoLibrary library(root_, nullptr);
    PhotoLibraryReader::readPhotos(library);
    return photosOf(library, root_ + "/");
  }

  TempDir tmp_;
  std::string root_;
};

TEST_F(NewLibraryTest, AssetsInUuidOrderWithTrashAndMissingFilesLeftOut) {
  write("ZASSET", std::int64_t{14000});
  EXPECT_EQ(read(), (std::vector<std::pair<std::string, std::string>>{
                        {"A", "originals/B/a.jpg"},
                        {"B", tmp_ / "external/ext.jpg"},
                        {"C", "originals/A/c.heic"},
                        {"D", "resources/cloudsharing/data/shared/d.jpg"}}));
}

TEST_F(NewLibraryTest, ModelVersionsChooseTheAssetTable) {
  struct Case {
    platform::plist::Value model;
    const char* table;
  } cases[] = {{std::int64_t{12999}, "ZASSET"},
               {std::int64_t{13000}, "ZGENERICASSET"},
               {std::int64_t{13999}, "ZGENERICASSET"},
               {std::int64_t{14000}, "ZASSET"},
               {std::string("13500"), "ZASSET"}};
  int n = 0;
  for (const auto& c : cases) {
    // The assets sit only in the table the model calls for: the other gives no photos.
    write(c.table, c.model, "Library" + std::to_string(n++) + ".photoslibrary");
    EXPECT_EQ(read().size(), 4u) << c.table << " case " << n;
  }
}

TEST_F(NewLibraryTest, MissingOrBrokenDatabasesFailOrGiveNothing) {
  PhotoLibrary empty(tmp_.mkdir("Empty.photoslibrary"), nullptr);
  EXPECT_THROW(PhotoLibraryReader::readPhotos(empty), std::exception);
  EXPECT_FALSE(std::ifstream(tmp_ / "Empty.photoslibrary/database/photos.db"));  // not created

  tmp_.write("Junk.photoslibrary/database/photos.db", "not sqlite at all");
  PhotoLibrary junk(tmp_ / "Junk.photoslibrary", nullptr);
  try {
    PhotoLibraryReader::readPhotos(junk);
  } catch (const std::exception&) {
  }
  EXPECT_TRUE(junk.photos.empty());
}

TEST_F(NewLibraryTest, PhotosJoinFileGroupsAndDuplicateLibrariesReportAsOne) {
  write("ZASSET", std::int64_t{14000});
  // A plain copy of one picture elsewhere groups with the photo.
  tmp_.write("loose/copy.heic", "ccc");
  DuplicateFileFinder finder([](double) {}, [](const Path&) {});
  finder.rootFolders = {Path(root_), Path(tmp_ / "loose")};
  Result result = finder.find();
  bool mixed = false;
  for (const auto& group : result) {
    bool photo = false, file = false;
    for (File* entry : group) (dynamic_cast<Photo*>(entry) ? photo : file) = true;
    mixed |= photo && file;
  }
  EXPECT_TRUE(mixed);
  finder.releaseFiles();

  // A copy of the whole library: the two libraries make one group, their photos none.
  std::filesystem::copy(root_, tmp_ / "Copy.photoslibrary",
                        std::filesystem::copy_options::recursive);
  finder.rootFolders = {Path(root_), Path(tmp_ / "Copy.photoslibrary")};
  result = finder.find();
  ASSERT_EQ(result.size(), 1u);
  EXPECT_EQ(result[0].size(), 2u);
  EXPECT_EQ(fileTypeId(result[0][0]), 3u);
  EXPECT_EQ(dynamic_cast<PhotoLibrary*>(result[0][0])->photos.size(), 4u);
  finder.releaseFiles();
}

}  // namespace
}  // namespace dff
