# The headers a client program sees: every header under include/carrow, less those of optional
# components that this build leaves out. Both the install rules and the header check read this one list.

file(GLOB_RECURSE CARROW_INSTALLED_HEADERS RELATIVE ${PROJECT_SOURCE_DIR}/include
  CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/include/carrow/*.h)
list(SORT CARROW_INSTALLED_HEADERS)
# The optional components' headers go with the components: the spdlog adapter includes spdlog.
if(NOT spdlog_FOUND)
  list(FILTER CARROW_INSTALLED_HEADERS EXCLUDE REGEX "^carrow/spdlog/")
endif()
if(NOT LIBSYSTEMD_FOUND)
  list(FILTER CARROW_INSTALLED_HEADERS EXCLUDE REGEX "^carrow/journal/")
endif()
