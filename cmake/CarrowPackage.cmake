# A Debian package of everything that is installed: `make package` (cpack -G DEB in a build
# configured with CMAKE_INSTALL_PREFIX=/usr).
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME carrowprivate)
set(CPACK_PACKAGE_VENDOR "Carrow")
set(CPACK_PACKAGE_CONTACT "Carrow developers <carrow@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
  "Concurrency, logging, attribute and collection toolkit of the Carrow backup programs")
set(CPACK_PACKAGE_DESCRIPTION
  "The CarrowPrivate library (shared, with headers, CMake package and pkg-config files), its\
 optional journald logger and spdlog adapter, and the carrow command-line tool.")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
# Without debug sections: 27 MB installed otherwise.
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_PACKAGE_SECTION libdevel)
# The libraries' own dependencies come from dpkg-shlibdeps; the public headers include these.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_INSTALL_LIBDIR})
set(CPACK_DEBIAN_PACKAGE_DEPENDS "nlohmann-json3-dev (>= 3.10)")
if(NOT BUILD_SHARED_LIBS)
  string(APPEND CPACK_DEBIAN_PACKAGE_DEPENDS ", libmount-dev, pkgconf | pkg-config")
  if(TARGET CarrowPrivateJournal)
    string(APPEND CPACK_DEBIAN_PACKAGE_DEPENDS ", libsystemd-dev")
  endif()
endif()
if(TARGET CarrowPrivateSpdlog)
  # Only programs that use the spdlog adapter need spdlog.
  set(CPACK_DEBIAN_PACKAGE_SUGGESTS "libspdlog-dev")
endif()
include(CPack)
