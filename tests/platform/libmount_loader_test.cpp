#include "libmount_loader.h"

#include <cerrno>
#include <string>
#include <system_error>

#include <gtest/gtest.h>

namespace carrow::platform::detail {
namespace {

std::system_error loadFailure(const char* soname) {
  try {
    loadLibMount(soname);
  } catch (const std::system_error& error) {
    return error;
  }
  ADD_FAILURE() << soname << " loaded as libmount";
  return std::system_error(0, std::generic_category());
}

TEST(LibMountLoader, AMissingLibraryIsAClearError) {
  const auto error = loadFailure("libcarrow-no-such-library.so.1");
  EXPECT_EQ(error.code(), std::error_code(ELIBACC, std::generic_category()));
  EXPECT_NE(std::string(error.what()).find("cannot load libcarrow-no-such-library.so.1"),
            std::string::npos)
      << error.what();
}

TEST(LibMountLoader, ALibraryWithoutTheFunctionsIsRefused) {
  const auto error = loadFailure("libc.so.6");
  EXPECT_EQ(error.code(), std::error_code(ELIBACC, std::generic_category()));
  EXPECT_NE(std::string(error.what()).find("mnt_new_table"), std::string::npos) << error.what();
}

TEST(LibMountLoader, TheProcessCopyIsLoadedOnceAndComplete) {
  const LibMount& first = libMount();
  EXPECT_EQ(&first, &libMount());
  EXPECT_NE(first.newTable, nullptr);
  EXPECT_NE(first.getBuiltinOptmap, nullptr);
  EXPECT_NE(first.getBuiltinOptmap(MNT_LINUX_MAP), nullptr);
}

}  // namespace
}  // namespace carrow::platform::detail
