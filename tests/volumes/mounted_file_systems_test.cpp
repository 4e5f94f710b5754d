#include "../../src/volumes/mounted_file_systems.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <system_error>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

namespace carrow {
namespace {

using platform::statfs;

// A kernel with `mounted` file systems at the first call and `later` at the second.
struct FakeKernel {
  int mounted;
  int later;
  std::vector<int> bufferSizes;

  int operator()(statfs* buffer, int bufferSize, int mode) {
    EXPECT_EQ(mode, platform::MNT_NOWAIT);
    bufferSizes.push_back(bufferSize);
    if (!buffer) return mounted;
    const int room = bufferSize / int(sizeof(statfs));
    const int written = std::min(room, later);
    for (int i = 0; i < written; ++i) {
      std::memset(&buffer[i], 0, sizeof(statfs));
      const std::string name = "/mnt/" + std::to_string(i);
      std::memcpy(buffer[i].f_mntonname, name.c_str(), name.size() + 1);
    }
    return written;
  }
};

detail::StatfsRecords list(FakeKernel& kernel) {
  return detail::mountedFileSystems(std::ref(kernel));
}

TEST(MountedFileSystems, AsksForTheCountThenForTenMore) {
  FakeKernel kernel{3, 3, {}};
  const auto records = list(kernel);
  ASSERT_EQ(records.size(), 3u);
  EXPECT_STREQ(records[2].f_mntonname, "/mnt/2");
  EXPECT_EQ(kernel.bufferSizes, (std::vector<int>{0, 13 * 2168}));
}

TEST(MountedFileSystems, MountsBetweenTheCallsFitInTheSpareRoom) {
  FakeKernel kernel{3, 13, {}};
  EXPECT_EQ(list(kernel).size(), 13u);
  FakeKernel crowded{3, 20, {}};
  EXPECT_EQ(list(crowded).size(), 13u);  // the kernel fills what fits
  FakeKernel unmounted{3, 1, {}};
  EXPECT_EQ(list(unmounted).size(), 1u);
}

TEST(MountedFileSystems, NoneMountedMakesOneCall) {
  FakeKernel kernel{0, 0, {}};
  EXPECT_TRUE(list(kernel).empty());
  EXPECT_EQ(kernel.bufferSizes.size(), 1u);
}

TEST(MountedFileSystems, FailuresCarryErrnoOrENODEV) {
  auto failing = [](int code, bool onSecondCall) {
    return [code, onSecondCall](statfs* buffer, int, int) {
      if (!buffer && onSecondCall) return 1;
      errno = code;
      return -1;
    };
  };
  for (auto [code, second, expected] :
       {std::tuple{EIO, false, EIO}, {EPERM, true, EPERM}, {0, false, ENODEV}}) {
    try {
      detail::mountedFileSystems(failing(code, second));
      ADD_FAILURE() << "listed despite a failure";
    } catch (const std::system_error& error) {
      EXPECT_EQ(error.code(), std::error_code(expected, std::generic_category()));
    }
  }
}

}  // namespace
}  // namespace carrow
