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

TEST(MountedFileSystems, AsksForTheCountThenForTenMore) {
  struct Case {
    int mounted, later;
    std::size_t listed;
    std::vector<int> bufferSizes;
  };
  const Case cases[] = {
      {3, 3, 3, {0, 13 * 2168}},
      {3, 13, 13, {0, 13 * 2168}},  // mounts between the calls fit in the spare room
      {3, 20, 13, {0, 13 * 2168}},  // the kernel fills what fits
      {3, 1, 1, {0, 13 * 2168}},
      {0, 0, 0, {0}},  // none mounted makes one call
  };
  for (const Case& item : cases) {
    FakeKernel kernel{item.mounted, item.later, {}};
    const auto records = detail::mountedFileSystems(std::ref(kernel));
    ASSERT_EQ(records.size(), item.listed) << item.mounted << " then " << item.later;
    if (!records.empty()) {
      EXPECT_EQ(records.back().f_mntonname, "/mnt/" + std::to_string(records.size() - 1));
    }
    EXPECT_EQ(kernel.bufferSizes, item.bufferSizes);
  }
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
