# What `cmake --install` puts in place, and the Debian packages made from it.
#
# The components are static libraries of position-independent code; the installed library is
# all of them in one: libravelin-core.so.MAJOR (with its SONAME) and libravelin-core.a. Hosts
# include the public headers from PREFIX/include/ravelin (`#include "Core/JunkFileFinder.h"`)
# and link Ravelin::Core (CMake) or ravelin-core (pkg-config).

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(RAVELIN_COMPONENTS ravelin_platform ravelin_resources ravelin_core_types ravelin_scanners
    ravelin_rules ravelin_appfiles ravelin_dff ravelin_monitor ravelin_helper ravelin_deletion
    ravelin_launch)

add_library(ravelin_core SHARED cmake/Library.cc)
add_library(ravelin_core_static STATIC cmake/Library.cc)
foreach(component IN LISTS RAVELIN_COMPONENTS)
  target_sources(ravelin_core PRIVATE $<TARGET_OBJECTS:${component}>)
  target_sources(ravelin_core_static PRIVATE $<TARGET_OBJECTS:${component}>)
endforeach()
# What the components use from other libraries.
target_link_libraries(ravelin_core PRIVATE Threads::Threads ICU::uc ICU::i18n SQLite::SQLite3
  OpenSSL::Crypto fmt::fmt PkgConfig::PLIST PkgConfig::YAML PkgConfig::GLIB)
# Every symbol resolved at link time; under the sanitizers their runtime comes with the program.
if(NOT RAVELIN_SANITIZE AND NOT RAVELIN_TSAN)
  target_link_options(ravelin_core PRIVATE "-Wl,--no-undefined")
endif()
target_include_directories(ravelin_core INTERFACE
  $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/ravelin>)
# What the public headers include from other libraries.
target_link_libraries(ravelin_core INTERFACE
  $<BUILD_INTERFACE:nlohmann_json::nlohmann_json> $<BUILD_INTERFACE:ICU::uc>
  $<INSTALL_INTERFACE:nlohmann_json::nlohmann_json> $<INSTALL_INTERFACE:ICU::uc>)
set_target_properties(ravelin_core PROPERTIES
  OUTPUT_NAME ravelin-core
  EXPORT_NAME Core
  VERSION ${PROJECT_VERSION}
  SOVERSION ${PROJECT_VERSION_MAJOR})

set_target_properties(ravelin_core_static PROPERTIES OUTPUT_NAME ravelin-core)

# The headers a host needs, and those they include.
set(RAVELIN_PUBLIC_HEADERS
  Core/App.h Core/AppBundle.h Core/AppFileFinder.h Core/AppFileRule.h Core/AppJunkFinder.h
  Core/CaseInsensitiveString.h Core/File.h Core/FileFinder.h Core/FileFinderContext.h
  Core/JunkFileFinder.h Core/LargeFileFinder.h Core/Progress.h Core/RuleManager.h
  Core/ValueObservable.h
  deletion/Deleter.h
  dff/CoreDuplicateFileFinder.h dff/DFFDuplicateFileFinder.h dff/Duplicate.h
  dff/DuplicateFileFinder.h dff/DuplicateGroups.h dff/File.h dff/FoundGroups.h
  helper/HelperConnection.h helper/Protocols.h
  launch/ItemsStatusManager.h launch/LaunchItem.h
  monitor/DiskInfo.h monitor/SystemStatistics.h monitor/Temperature.h monitor/smc.h
  platform/ByteCountFormatter.h platform/Dispatch.h platform/Files.h platform/Launchd.h
  platform/Locations.h platform/Metadata.h platform/Plist.h platform/Process.h platform/Regex.h
  platform/Result.h platform/TreeWalker.h platform/Xpc.h)
foreach(header IN LISTS RAVELIN_PUBLIC_HEADERS)
  get_filename_component(folder ${header} DIRECTORY)
  install(FILES ${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/ravelin/${folder}
          COMPONENT dev)
endforeach()

install(TARGETS ravelin_core EXPORT RavelinCoreTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev)
install(TARGETS ravelin_core_static ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
install(EXPORT RavelinCoreTargets NAMESPACE Ravelin::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/RavelinCore COMPONENT dev)
configure_package_config_file(cmake/RavelinCoreConfig.cmake.in
  ${PROJECT_BINARY_DIR}/RavelinCoreConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/RavelinCore)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/RavelinCoreConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/RavelinCoreConfig.cmake
              ${PROJECT_BINARY_DIR}/RavelinCoreConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/RavelinCore COMPONENT dev)
configure_file(cmake/ravelin-core.pc.in ${PROJECT_BINARY_DIR}/ravelin-core.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/ravelin-core.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)

# The program, the helper beside its unit, the manual page and the completion.
install(TARGETS ravelin RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
install(TARGETS ravelin-helper RUNTIME DESTINATION ${CMAKE_INSTALL_LIBEXECDIR}/ravelin
  COMPONENT runtime)
install(FILES ${RAVELIN_HELPER_DIR}/${RAVELIN_HELPER_NAME}@.service
  DESTINATION ${CMAKE_INSTALL_LIBEXECDIR}/ravelin COMPONENT runtime)
string(TIMESTAMP RAVELIN_MAN_DATE "%Y-%m-%d" UTC)
configure_file(doc/ravelin.1.in ${PROJECT_BINARY_DIR}/ravelin.1 @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/ravelin.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1
  COMPONENT runtime)
install(FILES completion/ravelin.bash DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
  RENAME ravelin COMPONENT runtime)

# Debian packages: ravelin (program, library, helper, page, completion) and ravelin-dev.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ravelin)
set(CPACK_PACKAGE_VENDOR "Fernhollow")
set(CPACK_PACKAGE_CONTACT "Ravelin Core developers <ravelin@fernhollow.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "disk clean-up and maintenance engine")
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_COMPONENT_DEV_DEPENDS runtime)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ravelin)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_RECOMMENDS "policykit-1")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
  "${PROJECT_SOURCE_DIR}/packaging/postinst;${PROJECT_SOURCE_DIR}/packaging/postrm")
set(CPACK_DEBIAN_DEV_PACKAGE_NAME ravelin-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "nlohmann-json3-dev, libicu-dev")
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
  "finds duplicates, junk, application files, large files and startup items\nThe ravelin program, the Ravelin Core library, the privileged helper with its\nsystemd unit, the manual page and bash completion.")
set(CPACK_COMPONENT_DEV_DESCRIPTION
  "development files of Ravelin Core\nHeaders, the static library, the CMake package and the pkg-config file.")
set(CPACK_STRIP_FILES ON)
include(CPack)
