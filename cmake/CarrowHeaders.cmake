# The headers a client program sees: every header under include/carrow except the few that only the
# library's own sources use. Both the install rules and the header check read this one list.

# Relative to include/. Kept in the tree for the library's sources and tests, never installed.
set(CARROW_UNINSTALLED_HEADERS
  carrow/platform/dispatch_semaphore.h)

file(GLOB_RECURSE CARROW_INSTALLED_HEADERS RELATIVE ${PROJECT_SOURCE_DIR}/include
  CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/include/carrow/*.h)
list(SORT CARROW_INSTALLED_HEADERS)
list(REMOVE_ITEM CARROW_INSTALLED_HEADERS ${CARROW_UNINSTALLED_HEADERS})
