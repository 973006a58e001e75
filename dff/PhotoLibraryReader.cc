#include "dff/PhotoLibraryReader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <exception>

#include "platform/Plist.h"

namespace dff {

namespace {

constexpr const char* kVersionQuery =
    "SELECT value from LiGlobals where LiGlobals.keyPath is 'libraryVersion'";
constexpr const char* kVolumesQuery = "select RKVolume.modelId, RKVolume.name from RKVolume";
constexpr const char* kOldPhotosQuery =
    "SELECT RKVersion.uuid, RKMaster.volumeId, RKMaster.imagePath, RKMaster.fileSize, "
    "RKVersion.isInTrash FROM RKVersion, RKMaster WHERE RKVersion.masterUuid = RKMaster.uuid";
constexpr const char* kModelVersionQuery = "SELECT MAX(Z_VERSION), Z_PLIST FROM Z_METADATA";
constexpr const char* kGenericAssetQuery =
    "SELECT ZGENERICASSET.ZUUID, ZGENERICASSET.ZDIRECTORY, ZGENERICASSET.ZFILENAME, "
    "ZGENERICASSET.ZCLOUDBATCHPUBLISHDATE, ZGENERICASSET.ZTRASHEDSTATE FROM ZGENERICASSET JOIN "
    "ZADDITIONALASSETATTRIBUTES ON ZADDITIONALASSETATTRIBUTES.ZASSET = ZGENERICASSET.Z_PK ORDER "
    "BY ZGENERICASSET.ZUUID";
constexpr const char* kAssetQuery =
    "SELECT ZASSET.ZUUID, ZASSET.ZDIRECTORY, ZASSET.ZFILENAME, ZASSET.ZCLOUDBATCHPUBLISHDATE, "
    "ZASSET.ZTRASHEDSTATE FROM ZASSET JOIN ZADDITIONALASSETATTRIBUTES ON "
    "ZADDITIONALASSETATTRIBUTES.ZASSET = ZASSET.Z_PK ORDER BY ZASSET.ZUUID";

constexpr int kFirstVersion5 = 4026;

// Opens a database for reading only: a library is never written to, and a missing database
// file is not created.
sqlite3* openReadOnly(const Path& path) {
  // SQLite opens with a plain `open`, which never returns for a pipe put where the database
  // should be. Only a regular file is handed to it; the look is made without blocking.
  int fd = ::open(path.cStr(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
  if (fd < 0) throw std::exception();
  struct stat status;
  bool regular = ::fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
  ::close(fd);
  if (!regular) throw std::exception();
  sqlite3* db = nullptr;
  if (sqlite3_open_v2(path.cStr(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
    sqlite3_close(db);
    throw std::exception();
  }
  return db;
}

// Prepares `sql` into `statement`. A failing prepare leaves a null statement, on which a step
// gives no row, so a query over a schema it doesn't match simply yields nothing.
void prepare(sqlite3* db, const char* sql, sqlite3_stmt*& statement) {
  statement = nullptr;
  sqlite3_prepare_v2(db, sql, -1, &statement, nullptr);
}

bool stepRow(sqlite3_stmt* statement) {
  return statement != nullptr && sqlite3_step(statement) == SQLITE_ROW;
}

void finalize(sqlite3_stmt*& statement) {
  sqlite3_finalize(statement);
  statement = nullptr;
}

}  // namespace

std::optional<std::string> sqlite3_column_string(sqlite3_stmt* statement, int column) {
  const unsigned char* text = sqlite3_column_text(statement, column);
  if (text == nullptr) return std::nullopt;
  return std::string(reinterpret_cast<const char*>(text),
                     static_cast<std::size_t>(sqlite3_column_bytes(statement, column)));
}

void PhotoLibraryReader::readPhotos(PhotoLibrary& library) {
  sqlite3* db = openReadOnly(library.path() / "database/photos.db");
  sqlite3_stmt* statement = nullptr;
  int version = databaseVersion(db, statement);
  if (version < kFirstVersion5) {
    readDatabase4(library, db, statement);
    sqlite3_close(db);
    return;
  }
  sqlite3_close(db);
  db = openReadOnly(library.path() / "database/Photos.sqlite");
  readDatabase5(library, db, statement);
  sqlite3_close(db);
}

int PhotoLibraryReader::databaseVersion(sqlite3* db, sqlite3_stmt*& statement) {
  prepare(db, kVersionQuery, statement);
  int version = stepRow(statement) ? sqlite3_column_int(statement, 0) : 0;
  finalize(statement);
  return version;
}

std::map<std::int32_t, std::string> PhotoLibraryReader::database4Volumes(sqlite3* db,
                                                                         sqlite3_stmt*& statement) {
  std::map<std::int32_t, std::string> volumes;
  prepare(db, kVolumesQuery, statement);
  while (stepRow(statement)) {
    if (auto name = sqlite3_column_string(statement, 1)) {
      volumes.emplace(sqlite3_column_int(statement, 0), *name);  // the first name stays
    }
  }
  finalize(statement);
  return volumes;
}

void PhotoLibraryReader::readDatabase4(PhotoLibrary& library, sqlite3* db,
                                       sqlite3_stmt*& statement) {
  const Path base = library.path() / "Masters";
  auto volumes = database4Volumes(db, statement);
  prepare(db, kOldPhotosQuery, statement);
  while (stepRow(statement)) {
    if (sqlite3_column_int(statement, 4) == 1) continue;  // in the trash
    auto uuid = sqlite3_column_string(statement, 0);
    auto imagePath = sqlite3_column_string(statement, 2);
    if (!uuid || !imagePath) continue;
    Path path;
    if (sqlite3_column_type(statement, 1) == SQLITE_NULL) {
      path = base / *imagePath;
    } else {
      auto volume = volumes.find(sqlite3_column_int(statement, 1));
      if (volume == volumes.end()) continue;
      path = Path("/Volumes") / volume->second / *imagePath;
    }
    // The file isn't looked at: a picture on an unplugged disk fails later, at hashing.
    library.photos.emplace_back(std::move(*uuid), std::move(path),
                                sqlite3_column_int64(statement, 3), &library);
  }
  finalize(statement);
}

std::int32_t PhotoLibraryReader::database5ModelVersion(sqlite3* db, sqlite3_stmt*& statement) {
  prepare(db, kModelVersionQuery, statement);
  std::int32_t version = 0;
  if (stepRow(statement)) {
    const void* blob = sqlite3_column_blob(statement, 1);
    int bytes = sqlite3_column_bytes(statement, 1);
    if (blob != nullptr && bytes > 0) {
      auto plist = platform::plist::parse(
          std::string_view(static_cast<const char*>(blob), static_cast<std::size_t>(bytes)));
      const platform::plist::Value* model = plist ? plist->find("PLModelVersion") : nullptr;
      if (model != nullptr) {
        if (auto integer = model->integer()) {
          version = static_cast<std::int32_t>(*integer);
        } else if (auto real = model->real()) {
          version = static_cast<std::int32_t>(*real);
        }
      }
    }
  }
  finalize(statement);
  return version;
}

void PhotoLibraryReader::readDatabase5(PhotoLibrary& library, sqlite3* db,
                                       sqlite3_stmt*& statement) {
  const Path base = library.path() / "originals";
  std::int32_t model = database5ModelVersion(db, statement);
  prepare(db, model >= 13000 && model <= 13999 ? kGenericAssetQuery : kAssetQuery, statement);
  while (stepRow(statement)) {
    if (sqlite3_column_int(statement, 4) == 1) continue;  // in the trash
    auto uuid = sqlite3_column_string(statement, 0);
    auto directory = sqlite3_column_string(statement, 1);
    auto filename = sqlite3_column_string(statement, 2);
    if (!uuid || !directory || !filename) continue;
    Path path;
    if (sqlite3_column_type(statement, 3) != SQLITE_NULL) {
      // A shared-album picture.
      path = library.path() / "resources/cloudsharing/data" / *directory / *filename;
    } else if (!directory->empty() && directory->front() == '/') {
      path = Path(*directory) / *filename;  // referenced from outside the library
    } else {
      path = base / *directory / *filename;
    }
    struct stat status;
    if (::lstat(path.cStr(), &status) != 0) continue;
    library.photos.emplace_back(std::move(*uuid), std::move(path), status.st_size, &library);
  }
  finalize(statement);
}

}  // namespace dff
