// A photo library's database, of either generation, as a fuzzed file.
#include <exception>

#include "dff/PhotoLibraryReader.h"
#include "fuzz/FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view bytes(reinterpret_cast<const char*>(data), size);
  const std::string root = fuzz::scratch() + "/Fuzz.photoslibrary";
  fuzz::put("Fuzz.photoslibrary/database/photos.db", bytes);
  fuzz::put("Fuzz.photoslibrary/database/Photos.sqlite", bytes);
  dff::PhotoLibrary library(root, nullptr);
  try {
    dff::PhotoLibraryReader::readPhotos(library);
  } catch (const std::exception&) {
    return 0;  // an unreadable database: the library is compared as a plain package
  }
  for (const auto& photo : library.photos) {
    fuzz::require(photo.parent == &library);
    fuzz::require(!photo.path().string().empty());
  }
  return 0;
}
