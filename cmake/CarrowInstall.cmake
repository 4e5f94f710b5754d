# Installs the library, its headers, an exported CMake package and a pkg-config file.
include(CMakePackageConfigHelpers)

set(CARROW_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/CarrowPrivate)

install(TARGETS CarrowPrivate EXPORT CarrowPrivateTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
foreach(header IN LISTS CARROW_INSTALLED_HEADERS)
  get_filename_component(header_dir ${header} DIRECTORY)
  install(FILES include/${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${header_dir})
endforeach()
install(EXPORT CarrowPrivateTargets
  NAMESPACE CarrowPrivate::
  DESTINATION ${CARROW_CMAKE_DIR})

configure_package_config_file(cmake/CarrowPrivateConfig.cmake.in
  ${PROJECT_BINARY_DIR}/CarrowPrivateConfig.cmake
  INSTALL_DESTINATION ${CARROW_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/CarrowPrivateConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/CarrowPrivateConfig.cmake
  ${PROJECT_BINARY_DIR}/CarrowPrivateConfigVersion.cmake
  DESTINATION ${CARROW_CMAKE_DIR})

if(BUILD_SHARED_LIBS)
  set(CARROW_PC_PRIVATE_LIBS "")
else()
  set(CARROW_PC_PRIVATE_LIBS "-lmount")
endif()
# The .pc file finds its prefix relative to itself, so an installed tree can be moved.
file(RELATIVE_PATH CARROW_PC_PREFIX "/root/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/root")
configure_file(cmake/CarrowPrivate.pc.in ${PROJECT_BINARY_DIR}/CarrowPrivate.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/CarrowPrivate.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# Optional components, each with an export set of its own that the package configuration file
# loads only when a consumer asks for the component (COMPONENTS journal spdlog).
if(TARGET CarrowPrivateJournal)
  install(TARGETS CarrowPrivateJournal EXPORT CarrowPrivateJournalTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  install(EXPORT CarrowPrivateJournalTargets
    NAMESPACE CarrowPrivate::
    DESTINATION ${CARROW_CMAKE_DIR})
  if(BUILD_SHARED_LIBS)
    set(CARROW_JOURNAL_PC_PRIVATE_REQUIRES "")
  else()
    set(CARROW_JOURNAL_PC_PRIVATE_REQUIRES "libsystemd")
  endif()
  configure_file(cmake/CarrowPrivateJournal.pc.in ${PROJECT_BINARY_DIR}/CarrowPrivateJournal.pc
    @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/CarrowPrivateJournal.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endif()
if(TARGET CarrowPrivateSpdlog)
  install(TARGETS CarrowPrivateSpdlog EXPORT CarrowPrivateSpdlogTargets)
  install(EXPORT CarrowPrivateSpdlogTargets
    NAMESPACE CarrowPrivate::
    DESTINATION ${CARROW_CMAKE_DIR})
endif()
