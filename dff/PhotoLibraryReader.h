#pragma once

// Reads the pictures of a photo library from its database, in either of its two generations,
// as `Photo` entries with their path, size and the library's identifier.

#include <sqlite3.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "dff/File.h"

namespace dff {

class PhotoLibraryReader {
 public:
  // Fills `library.photos`. Throws a standard exception when a database can't be opened; a
  // database whose schema can't be read gives no photos and no error.
  static void readPhotos(PhotoLibrary& library);

  static int databaseVersion(sqlite3* db, sqlite3_stmt*& statement);
  static void readDatabase4(PhotoLibrary& library, sqlite3* db, sqlite3_stmt*& statement);
  static void readDatabase5(PhotoLibrary& library, sqlite3* db, sqlite3_stmt*& statement);
  static std::map<std::int32_t, std::string> database4Volumes(sqlite3* db,
                                                              sqlite3_stmt*& statement);
  static std::int32_t database5ModelVersion(sqlite3* db, sqlite3_stmt*& statement);
};

// Column `column` as text; nothing when it is null.
std::optional<std::string> sqlite3_column_string(sqlite3_stmt* statement, int column);

}  // namespace dff
